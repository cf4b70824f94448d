#include "app/base/console.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "app/base/Thread.h"
#include "tests/support/child_run.h"
#include "tests/support/held_line.h"

namespace {

constexpr int DRAIN_MS = 5000;

std::string readAvailable(int descriptor) {
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    return readAll(descriptor);
}

std::string numberedLines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "line " + std::to_string(i) + "\n";
    }
    return text;
}

/// The output for a late reader: numbered lines, and how many were reported as lost.
struct Seen {
    int lines = 0;
    int lost = 0;
    bool inOrder = true;
};

Seen count(const std::string& text) {
    Seen seen;
    std::istringstream lines(text);
    int last = -1;
    for (std::string line; std::getline(lines, line);) {
        int number = 0;
        if (std::sscanf(line.c_str(), "line %d", &number) == 1) {
            ++seen.lines;
            seen.inOrder = seen.inOrder && number > last;
            last = number;
        } else if (std::sscanf(line.c_str(), "(%d lines", &number) == 1) {
            EXPECT_EQ(line, "(" + std::to_string(number) +
                                " lines lost: standard output was not read in time)");
            seen.lost += number;
        }
    }
    return seen;
}

/// Two ends of an output: the reader's and the writer's.
using Ends = std::array<int, 2>;

Ends openPipe(int flags = 0) {
    Ends ends{};
    EXPECT_EQ(pipe2(ends.data(), flags), 0);
    return ends;
}

Ends openNonblockingPipe() {
    return openPipe(O_NONBLOCK);
}

Ends openTerminal() {
    Ends ends{};
    termios raw = {};
    cfmakeraw(&raw);
    EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &raw, nullptr), 0);
    return ends;
}

/// A pipe into which nothing more goes.
Ends openFullPipe() {
    const Ends ends = openNonblockingPipe();
    const std::string page(4096, '\n');
    while (write(ends[1], page.data(), page.size()) > 0) {
    }
    return ends;
}

/// Reads until `wanted`.
std::string readUntil(const Ends& ends, const std::string& wanted) {
    std::string text;
    for (int waited = 0; waited < DRAIN_MS && text.find(wanted) == std::string::npos; ++waited) {
        text += readAvailable(ends[0]);
        Sleep(1);
    }
    return text;
}

/// Reads until this many numbered lines were read or reported as lost.
std::string readUntilCounted(const Ends& ends, int lines) {
    std::string text;
    for (int waited = 0; waited < DRAIN_MS; ++waited) {
        text += readAvailable(ends[0]);
        const Seen seen = count(text);
        if (seen.lines + seen.lost >= lines) {
            break;
        }
        Sleep(1);
    }
    return text;
}

CHILD_TEST(Console, LinesShowAtOnceInAPipe) {
    const Ends ends = openPipe();
    std::string seen;
    {
        const OutputTo output(ends[1]);
        consolePrintf("number %d and %s\n", 7, "text");
        consolePuts("100 %d");
        seen = readAvailable(ends[0]);
        consoleStart();
        consolePuts("and a third");
        seen += readUntil(ends, "third\n");
    }
    EXPECT_EQ(seen, "number 7 and text\n100 %d\nand a third\n");
}

TEST(Console, ErrorsGoToStandardErrorInThePlaceOfTheirOrder) {
    const ChildRun run = runChild([] {
        errno = ENOENT;
        consolePerror("early");
        consoleStart();
        dup2(STDERR_FILENO, STDOUT_FILENO);
        consolePuts("before");
        consoleError("%d of %s\n", 7, "them");
        consolePuts("between");
        errno = EMFILE;
        consolePerror("pipe");
        consolePuts("after");
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "early: No such file or directory\nbefore\n7 of them\nbetween\n"
              "pipe: Too many open files\nafter\n");
}

TEST(Console, LongTextOfAnOrdinaryThreadIsWrittenWhole) {
    for (const std::size_t length : {253U, 254U, 255U, 256U, 4095U, 4096U, 5000U, 100000U}) {
        std::string text(length, 'x');
        text.back() = 'e';
        EXPECT_EQ(runChild([&text] { consolePuts(text.c_str()); }).out, text + "\n");
        const ChildRun queued = runChild([&text] {
            consoleStart();
            consolePuts(text.c_str());
            for (int i = 0; i < 600; ++i) {  // Once around the queue.
                consolePrintf("line %d\n", i);
                if (i % 100 == 0) {
                    consoleDrain(DRAIN_MS);
                }
            }
            consoleDrain(DRAIN_MS);
        });
        EXPECT_EQ(queued.out, text + '\n' + numberedLines(600));
    }
}

CHILD_TEST(Console, LongTextGoesWholeThroughAPipeThatTakesItInParts) {
    const Ends ends = openNonblockingPipe();
    std::string text;
    for (int i = 0; i < 20000; ++i) {
        text += std::to_string(i) + ' ';
    }
    std::string seen;
    {
        const OutputTo output(ends[1]);
        consoleStart();
        consolePuts(text.c_str());
        seen = readUntil(ends, "\n");
    }
    EXPECT_EQ(seen, text + '\n');
}

TEST(Console, LinesKeepTheirOrderWhicheverThreadPrintsThem) {
    const ChildRun run = runChild([] {
        consoleStart();
        for (int i = 0; i < 2000; i += 2) {
            std::thread([i] {
                const ConsoleDeferral deferral;
                consolePrintf("line %d\n", i);
            }).join();
            consolePrintf("line %d\n", i + 1);
            if (i % 100 == 0) {
                consoleDrain(DRAIN_MS);
            }
        }
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.out, numberedLines(2000));
}

TEST(Console, LinesOfThreadsThatPrintAtOnceNeitherMixNorGetLost) {
    constexpr int THREADS = 4;
    constexpr int LINES = 1000;
    const ChildRun run = runChild([] {
        consoleStart();
        std::vector<std::thread> threads;
        for (int own = 0; own < THREADS; ++own) {
            threads.emplace_back([own] {
                for (int i = 0; i < LINES; ++i) {
                    consolePrintf("line %d\n", own * LINES + i);
                    if (i % 20 == 0) {
                        consoleDrain(DRAIN_MS);
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        consoleDrain(DRAIN_MS);
    });
    std::istringstream lines(run.out);
    std::array<int, THREADS> next{};
    for (std::string line; std::getline(lines, line);) {
        int number = -1;
        EXPECT_EQ(std::sscanf(line.c_str(), "line %d", &number), 1) << line;
        const auto own = static_cast<std::size_t>(number / LINES);
        ASSERT_LT(own, next.size()) << line;
        EXPECT_EQ(number % LINES, next[own]++);
    }
    for (const int each : next) {
        EXPECT_EQ(each, LINES);
    }
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
        consolePrintf("%ls\n", L"\x20ac");  // Not a character of the "C" locale.
        consolePuts("next");
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.out, "next\n");
}

TEST(Console, ThreadThatStandsStillWhilePrintingHoldsNobodyElse) {
    const ChildRun run = runChild([] {
        consoleStart();
        {
            const HeldLine held(DRAIN_MS);
            const ConsoleDeferral deferral;
            for (int i = 0; i < 1000; ++i) {
                consolePrintf("line %d\n", i);
            }
        }
        consoleDrain(DRAIN_MS);
    });
    const Seen seen = count(run.out);
    EXPECT_EQ(run.out.rfind("held\nline 0\nline 1\n", 0), 0U) << "out of order";
    EXPECT_TRUE(seen.inOrder);
    EXPECT_GT(seen.lost, 0) << "the line was not held";
    EXPECT_EQ(seen.lines + seen.lost, 1000);
}

CHILD_TEST(Console, OrdinaryThreadsLeaveRoomForTheCapture) {
    const Ends ends = openFullPipe();
    std::string seen;
    {
        const OutputTo output(ends[1]);
        consoleStart();
        for (int i = 0; i < 1000; ++i) {
            consolePrintf("line %d\n", i);
        }
        const ConsoleDeferral deferral;
        for (int i = 1000; i < 1200; ++i) {
            consolePrintf("line %d\n", i);
        }
        seen = readUntilCounted(ends, 1200);
    }
    const Seen counts = count(seen);
    EXPECT_NE(seen.find("line 1000\nline 1001\n"), std::string::npos);
    EXPECT_NE(seen.find("line 1199\n"), std::string::npos);
    EXPECT_EQ(counts.lines + counts.lost, 1200);
}

CHILD_TEST(Console, LossIsToldAlsoWhileOthersGoOnPrinting) {
    const Ends ends = openPipe();
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    std::string seen;
    {
        const OutputTo output(ends[1]);
        consoleStart();
        std::atomic<bool> enough{false};
        std::thread printer([&enough] {
            const std::string line(200, '.');
            while (!enough.load()) {
                consolePuts(line.c_str());
            }
        });
        // Read so slowly that the queue is never empty.
        char piece[400];
        for (int i = 0; i < DRAIN_MS && seen.find("lines lost") == std::string::npos; ++i) {
            seen.append(piece, static_cast<std::size_t>(read(ends[0], piece, sizeof piece)));
            Sleep(1);
        }
        enough.store(true);
        printer.join();
    }
    EXPECT_NE(seen.find("lines lost"), std::string::npos);
}

/// An output, and whether the capture thread prints.
class StalledReader : public testing::TestWithParam<std::tuple<Ends (*)(), bool>> {};

TEST_P(StalledReader, HoldsNobodyAndIsToldOfWhatItMissed) {
    runChild([] {
        const Ends ends = std::get<0>(GetParam())();
        std::string seen;
        {
            const OutputTo output(ends[1]);
            consoleStart();
            for (int i = 0; i < 20000; ++i) {
                const auto deferral =
                    std::get<1>(GetParam()) ? std::make_unique<ConsoleDeferral>() : nullptr;
                consolePrintf("line %d\n", i);
                if (i % 100 == 0) {
                    Sleep(1);  // For the writing thread: until the output is full nothing is lost.
                }
            }
            seen = readUntilCounted(ends, 20000);
            consolePuts("back again");
            seen += readUntil(ends, "back again\n");
        }
        const Seen counts = count(seen);
        EXPECT_EQ(seen.rfind("line 0\nline 1\n", 0), 0U);
        EXPECT_TRUE(counts.inOrder);
        EXPECT_GT(counts.lost, 0);
        EXPECT_EQ(counts.lines + counts.lost, 20000);
        EXPECT_NE(seen.find("back again\n"), std::string::npos);
    });
}

INSTANTIATE_TEST_SUITE_P(Pipe, StalledReader,
                         testing::Combine(testing::Values([] { return openPipe(); }),
                                          testing::Bool()));
INSTANTIATE_TEST_SUITE_P(NonblockingPipe, StalledReader,
                         testing::Combine(testing::Values(openNonblockingPipe), testing::Bool()));
INSTANTIATE_TEST_SUITE_P(Terminal, StalledReader,
                         testing::Combine(testing::Values(openTerminal), testing::Bool()));

/// Prints three lines, the first of which is not complete yet, and ends with `end`.
ChildRun endInTheMiddle(void (*end)()) {
    return runChild([end] {
        const rlimit noCoreFile{0, 0};
        setrlimit(RLIMIT_CORE, &noCoreFile);
        consoleStart();
        const HeldLine held(50);
        consolePuts("queued");
        const ConsoleDeferral deferral;
        consolePuts("and deferred");
        end();
    });
}

TEST(Console, ExitWaitsForWhatWasPrinted) {
    const ChildRun run = endInTheMiddle([] { std::exit(7); });
    EXPECT_EQ(run.out, "held\nqueued\nand deferred\n");
    EXPECT_EQ(run.status, 7);
}

TEST(Console, AbortWaitsForWhatWasPrinted) {
    const ChildRun run = endInTheMiddle([] { std::abort(); });
    EXPECT_EQ(run.out, "held\nqueued\nand deferred\n");
    EXPECT_EQ(run.status, 1000 + SIGABRT);
}

TEST(Console, AbortSignalFromOutsideStillEndsTheProgram) {
    const ChildRun run = endInTheMiddle([] {
        kill(getpid(), SIGABRT);
        pause();
    });
    EXPECT_EQ(run.status, 1000 + SIGABRT);
}

TEST(Console, ExitDoesNotWaitForAReaderForEver) {
    const ChildRun run = runChild([] {
        dup2(openFullPipe()[1], STDOUT_FILENO);
        consoleStart();
        consolePuts("to nobody");
        std::exit(7);
    });
    EXPECT_EQ(run.status, 7);
}

TEST(Console, ClosedReaderCostsTheLinesNotTheProgram) {
    const ChildRun run = runChild([] {
        const Ends ends = openPipe();
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

CHILD_TEST(Console, ProgramsThatWeStartDieOfABrokenPipeAsUsual) {
    consoleStart();
    const int status = std::system("kill -PIPE $$");
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << status;
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
        consoleDrain(DRAIN_MS);
        dup2(saved, STDOUT_FILENO);
        consolePuts("here");
        consoleDrain(DRAIN_MS);
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "here\n");
}

CHILD_TEST(Console, MissingDescriptorsAreOpenedOnNowhere) {
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
}

CHILD_TEST(Console, PresentDescriptorsAreLeftAlone) {
    struct stat before = {};
    struct stat after = {};
    fstat(STDOUT_FILENO, &before);
    const int next = dup(0);
    close(next);
    consoleStart();
    fstat(STDOUT_FILENO, &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(dup(0), next) << "a descriptor was left open";
}

}  // namespace
