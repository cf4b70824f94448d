#include "tests/unit/discovery/responder.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "discovery/multi_host.h"

namespace {

constexpr int PATIENCE_MS = 5000;
constexpr int STEP_MS = 10;

// The group in the form of /proc/net/igmp.
constexpr const char* GROUP_IN_PROC = "EBE9E8E7";

std::string fileText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

}  // namespace

Responder::Responder(const std::function<void()>& prepare) {
    std::fflush(nullptr);
    child = fork();
    if (child == 0) {
        output.becomeInChild(STDOUT_FILENO);
        errors.becomeInChild(STDERR_FILENO);
        for (int handle = STDERR_FILENO + 1; handle < 1024; ++handle) {
            close(handle);
        }
        prepare();
        std::signal(SIGTERM, [](int) { _exit(0); });
        _exit(multiHost());
    }
    output.closeWritingEnd();
    errors.closeWritingEnd();
}

Responder::~Responder() {
    if (child > 0) {
        kill(child, SIGTERM);
        waitpid(child, nullptr, 0);
    }
}

bool Responder::waitUntilListening() const {
    const std::string memberships = "/proc/" + std::to_string(child) + "/net/igmp";
    for (int waited = 0; waited < PATIENCE_MS; waited += STEP_MS) {
        if (fileText(memberships).find(GROUP_IN_PROC) != std::string::npos) {
            return true;
        }
        usleep(STEP_MS * 1000);
    }
    return false;
}

int Responder::waitForResult() {
    for (int waited = 0; waited < PATIENCE_MS; waited += STEP_MS) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            child = 0;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        usleep(STEP_MS * 1000);
    }
    return -1;
}

Responder::Stream::Stream() {
    if (pipe(ends) != 0) {
        std::perror("pipe");
    }
}

Responder::Stream::~Stream() {
    close(ends[0]);
}

void Responder::Stream::becomeInChild(int handle) const {
    dup2(ends[1], handle);
}

void Responder::Stream::closeWritingEnd() {
    close(ends[1]);
}

bool Responder::Stream::readMore(int patienceMs) {
    pollfd ready{ends[0], POLLIN, 0};
    if (poll(&ready, 1, patienceMs) <= 0) {
        return false;
    }
    char piece[4096];
    const ssize_t got = read(ends[0], piece, sizeof piece);
    if (got > 0) {
        text.append(piece, static_cast<std::size_t>(got));
    }
    return got > 0;
}

std::string Responder::Stream::waitFor(const std::string& wanted) {
    while (text.find(wanted) == std::string::npos && readMore(PATIENCE_MS)) {
    }
    return text;
}

std::string Responder::Stream::takeWhatIsThere() {
    while (readMore(0)) {
    }
    return text;
}
