#include "tests/support/transcript.h"

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

std::string transcript(const std::function<void()>& body) {
    int ends[2];
    if (pipe(ends) != 0) {
        return "(no pipe)";
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    close(ends[1]);
    std::string text;
    char piece[4096];
    for (ssize_t got = 0; (got = read(ends[0], piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) {
        text += "(ended with status " + std::to_string(status) + ")\n";
    }
    return text;
}
