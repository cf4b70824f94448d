#include "tests/support/bench_clients.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>

namespace {

std::string besideThisProgram(const std::string& name) {
    char path[PATH_MAX] = {};
    if (::readlink("/proc/self/exe", path, sizeof path - 1) < 0) {
        std::abort();
    }
    const std::string self(path);
    return self.substr(0, self.rfind('/') + 1) + name;
}

}  // namespace

BenchClients::BenchClients(std::uint16_t port, const std::vector<Choice>& choices) {
    const std::string program = besideThisProgram("stream_client");
    for (const Choice& choice : choices) {
        int input[2];
        if (::pipe2(input, O_CLOEXEC) != 0) {
            std::abort();
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        std::string words[] = {program, std::to_string(port), std::to_string(choice.rateCode),
                               choice.reliable ? "1" : "0"};
        char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                             nullptr};
        Child child{0, input[1]};
        if (::posix_spawn(&child.process, program.c_str(), &actions, nullptr, arguments, environ) !=
            0) {
            std::perror(program.c_str());
            std::abort();
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(input[0]);
        children.push_back(child);
    }
}

BenchClients::~BenchClients() {
    for (const Child& child : children) {
        ::close(child.standardInput);
    }
    for (const Child& child : children) {
        ::waitpid(child.process, nullptr, 0);
    }
}
