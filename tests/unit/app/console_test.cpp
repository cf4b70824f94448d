#include "app/base/console.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/base/Thread.h"
#include "tests/support/child_run.h"

namespace {

constexpr int DRAIN_MS = 5000;

/// Standard output of this process goes elsewhere until the object goes.
class OutputTo {
  public:
    explicit OutputTo(int descriptor) : saved(dup(STDOUT_FILENO)) {
        dup2(descriptor, STDOUT_FILENO);
    }
    ~OutputTo() {
        dup2(saved, STDOUT_FILENO);
        close(saved);
    }
    OutputTo(const OutputTo&) = delete;
    OutputTo& operator=(const OutputTo&) = delete;

  private:
    int saved;
};

std::string readAvailable(int descriptor) {
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    std::string text;
    char piece[4096];
    for (ssize_t got = 0; (got = read(descriptor, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(got));
    }
    return text;
}

std::string numberedLines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "line " + std::to_string(i) + "\n";
    }
    return text;
}

TEST(Console, LinesShowAtOnceInAPipe) {
    runChild([] {
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe(ends.data()), 0);
        std::string seen;
        {
            const OutputTo output(ends[1]);
            consolePrintf("number %d and %s\n", 7, "text");
            consolePuts("100 %d");
            seen = readAvailable(ends[0]);
        }
        EXPECT_EQ(seen, "number 7 and text\n100 %d\n");
    });
}

TEST(Console, LongTextOfAnOrdinaryThreadIsWrittenWhole) {
    for (const std::size_t length : {1022U, 1023U, 1024U, 3000U}) {
        const ChildRun run = runChild([length] { consolePuts(std::string(length, 'x').c_str()); });
        EXPECT_EQ(run.out, std::string(length, 'x') + "\n");
    }
}

TEST(Console, DeferredLinesKeepTheirOrder) {
    const ChildRun run = runChild([] {
        consoleStart();
        for (int i = 0; i < 2000; ++i) {
            const ConsoleDeferral deferral;
            consolePrintf("line %d\n", i);
            if (i % 100 == 99) {
                consoleDrain(DRAIN_MS);
            }
        }
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.out, numberedLines(2000));
}

TEST(Console, DeferredTextBeyondItsRoomIsCutButKeepsItsLineEnd) {
    for (const std::size_t length : {253U, 254U, 255U, 1000U}) {
        const ChildRun run = runChild([length] {
            consoleStart();
            const ConsoleDeferral deferral;
            consolePuts(std::string(length, 'x').c_str());
            consoleDrain(DRAIN_MS);
        });
        EXPECT_EQ(run.out, std::string(std::min<std::size_t>(length, 254), 'x') + "\n");
    }
}

TEST(Console, TextThatCannotBeFormattedIsLeftOut) {
    const ChildRun run = runChild([] {
        consoleStart();
        const ConsoleDeferral deferral;
        consolePrintf("%ls\n", L"\x20ac");  // Not a character of the "C" locale.
        consolePuts("next");
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.out, "next\n");
}

TEST(Console, DeferralBeforeTheWriterRunsWritesDirectly) {
    const ChildRun run = runChild([] {
        const ConsoleDeferral deferral;
        consolePuts("early");
    });
    EXPECT_EQ(run.out, "early\n");
}

TEST(Console, DeferralCountsForItsOwnThreadOnly) {
    runChild([] {
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK), 0);
        const std::string page(4096, '.');
        while (write(ends[1], page.data(), page.size()) > 0) {
        }
        std::string seen;
        {
            const OutputTo output(ends[1]);
            consoleStart();
            const ConsoleDeferral deferral;
            consolePuts("queued");
            std::thread([] { consolePuts("dropped, since nobody reads"); }).join();
            seen = readAvailable(ends[0]);
            consoleDrain(DRAIN_MS);
            seen += readAvailable(ends[0]);
        }
        EXPECT_EQ(seen.substr(seen.find_last_of('.') + 1),
                  "queued\n(1 lines lost: standard output was not read in time)\n");
    });
}

/// Prints far more than a pipe holds while nobody reads; returns what a reader then gets, a line
/// printed after its return included.
std::string printToStalledReader(bool deferred, int flags) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), flags) != 0) {
        return "(no pipe)";
    }
    std::string seen;
    const OutputTo output(ends[1]);
    consoleStart();
    for (int i = 0; i < 20000; ++i) {
        if (deferred) {
            const ConsoleDeferral deferral;
            consolePrintf("line %d\n", i);
        } else {
            consolePrintf("line %d\n", i);
        }
    }
    for (int waited = 0; waited < 500; ++waited) {
        seen += readAvailable(ends[0]);
        Sleep(1);
    }
    consolePuts("back again");
    seen += readAvailable(ends[0]);
    return seen;
}

class StalledReader : public testing::TestWithParam<int> {};

TEST_P(StalledReader, NeverHoldsAnOrdinaryThreadUp) {
    const int flags = GetParam();
    const ChildRun run = runChild([flags] {
        const std::string seen = printToStalledReader(false, flags);
        EXPECT_EQ(seen.rfind("line 0\nline 1\n", 0), 0U);
        EXPECT_EQ(seen.find("line 19999\n"), std::string::npos) << "more than the pipe holds";
        EXPECT_NE(seen.find("back again\n"), std::string::npos);
    });
    EXPECT_EQ(run.status, 0);
}

TEST_P(StalledReader, CostsTheCaptureOnlyLinesAndIsReported) {
    const int flags = GetParam();
    const ChildRun run = runChild([flags] {
        const std::string seen = printToStalledReader(true, flags);
        EXPECT_EQ(seen.rfind("line 0\nline 1\n", 0), 0U);
        EXPECT_NE(seen.find(" lines lost: standard output was not read in time)\n"),
                  std::string::npos);
        EXPECT_NE(seen.find("back again\n"), std::string::npos);
    });
    EXPECT_EQ(run.status, 0);
}

INSTANTIATE_TEST_SUITE_P(Console, StalledReader, testing::Values(0, O_NONBLOCK),
                         [](const auto& each) {
                             return each.param == 0 ? "Blocking" : "Nonblocking";
                         });

TEST(Console, ClosedReaderCostsTheLinesNotTheProgram) {
    const ChildRun run = runChild([] {
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe(ends.data()), 0);
        const OutputTo output(ends[1]);
        close(ends[1]);
        consoleStart();
        close(ends[0]);
        consolePuts("to nobody");
        const ConsoleDeferral deferral;
        consolePuts("to nobody, later");
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.status, 0);
}

TEST(Console, ProgramsThatWeStartDieOfABrokenPipeAsUsual) {
    runChild([] {
        consoleStart();
        const int status = std::system("kill -PIPE $$");
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << status;
    });
}

TEST(Console, FullDiscCostsTheLinesNotTheProgram) {
    const ChildRun run = runChild([] {
        const int full = open("/dev/full", O_WRONLY);
        ASSERT_GE(full, 0);
        const OutputTo output(full);
        consoleStart();
        for (int i = 0; i < 1000; ++i) {
            consolePrintf("line %d\n", i);
            const ConsoleDeferral deferral;
            consolePrintf("line %d\n", i);
        }
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.status, 0);
}

TEST(Console, ClosedStandardOutputCostsTheLinesNotTheProgram) {
    const ChildRun run = runChild([] {
        consoleStart();
        const int saved = dup(STDOUT_FILENO);
        close(STDOUT_FILENO);
        consolePuts("to nobody");
        dup2(saved, STDOUT_FILENO);
        consolePuts("here");
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "here\n");
}

TEST(Console, MissingDescriptorsAreOpenedOnNowhere) {
    runChild([] {
        const int saved = dup(STDOUT_FILENO);
        for (const int descriptor : {0, 1, 2}) {
            close(descriptor);
        }
        consoleStart();
        struct stat nowhere = {};
        stat("/dev/null", &nowhere);
        std::array<bool, 3> good{};
        for (int descriptor = 0; descriptor < 3; ++descriptor) {
            struct stat found = {};
            good[static_cast<std::size_t>(descriptor)] =
                fstat(descriptor, &found) == 0 && found.st_rdev == nowhere.st_rdev;
        }
        const int next = dup(0);
        dup2(saved, STDOUT_FILENO);
        EXPECT_TRUE(good[0] && good[1] && good[2]);
        EXPECT_GT(next, 2) << "the next descriptor would have been a standard one";
    });
}

TEST(Console, PresentDescriptorsAreLeftAlone) {
    runChild([] {
        struct stat before = {};
        struct stat after = {};
        fstat(STDOUT_FILENO, &before);
        const int next = dup(0);
        close(next);
        consoleStart();
        fstat(STDOUT_FILENO, &after);
        EXPECT_EQ(before.st_ino, after.st_ino);
        EXPECT_EQ(dup(0), next) << "a descriptor was left open";
    });
}

}  // namespace
