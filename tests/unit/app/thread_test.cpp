#include "app/base/Thread.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <sched.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/base/ThreadMember.h"
#include "tests/support/call_faults.h"
#include "tests/support/child_run.h"
#include "tests/support/waiting.h"

namespace {

int UNTOUCHED = 4711;

void* echo(void* argument) {
    return argument;
}

/// A thread that runs until it is released.
class Gate {
  public:
    Gate() { sem_init(&semaphore, 0, 0); }
    void open() { sem_post(&semaphore); }
    static void* wait(void* gate) {
        sem_wait(&static_cast<Gate*>(gate)->semaphore);
        return nullptr;
    }

  private:
    sem_t semaphore = {};
};

class CountingThread : public Thread {
  public:
    int run() override {
        ++runs;
        return 5;
    }
    std::atomic<int> runs{0};
};

class ThreadTest : public testing::Test {
  protected:
    void SetUp() override { resetCalls(); }
};

TEST_F(ThreadTest, HandleIsZeroBeforeAStartAndAfterAJoin) {
    Thread thread;
    EXPECT_EQ(thread.tid(), 0U);
    ASSERT_EQ(thread.start(echo, nullptr), 0);
    EXPECT_NE(thread.tid(), 0U);
    EXPECT_EQ(thread.join(nullptr), 0);
    EXPECT_EQ(thread.tid(), 0U);
}

TEST_F(ThreadTest, HandleIsThereForAThreadThatAsksAtOnce) {
    static std::atomic<pthread_t> seen{0};
    static std::atomic<bool> asked{false};
    Thread thread;
    afterThreadCreation() = [] {
        while (!asked.load()) {
            Sleep(1);
        }
    };
    ASSERT_EQ(thread.start(
                  [](void* own) -> void* {
                      seen.store(static_cast<Thread*>(own)->tid());
                      asked.store(true);
                      return nullptr;
                  },
                  &thread),
              0);
    afterThreadCreation() = nullptr;
    EXPECT_EQ(seen.load(), thread.tid());
    EXPECT_EQ(thread.join(nullptr), 0);
}

TEST_F(ThreadTest, SecondStartReturnsTenAndCreatesNothing) {
    Thread thread;
    Gate gate;
    ASSERT_EQ(thread.start(Gate::wait, &gate), 0);
    EXPECT_EQ(thread.start(echo, nullptr), 10);
    EXPECT_EQ(countOf(Call::PthreadCreate), 1);
    gate.open();
    EXPECT_EQ(thread.join(nullptr), 0);
}

TEST_F(ThreadTest, StartAfterAJoinStartsAgain) {
    CountingThread thread;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(thread.start(nullptr, nullptr), 0);
        ASSERT_EQ(thread.join(nullptr), 0);
    }
    EXPECT_EQ(thread.runs, 2);
}

TEST_F(ThreadTest, FailedCreationReturnsItsErrorAndLeavesTheThreadStartable) {
    Thread thread;
    failCall(Call::PthreadCreate, 1, EAGAIN);
    EXPECT_EQ(thread.start(echo, nullptr), 1000 + EAGAIN);
    EXPECT_EQ(thread.tid(), 0U);
    EXPECT_EQ(thread.start(echo, nullptr), 0);
    EXPECT_EQ(thread.join(nullptr), 0);
}

TEST_F(ThreadTest, JoinNeverWritesTheResult) {
    int result = UNTOUCHED;
    Thread thread;
    ASSERT_EQ(thread.start(echo, &result), 0);
    EXPECT_EQ(thread.join(&result), 0);
    EXPECT_EQ(result, UNTOUCHED);
}

TEST_F(ThreadTest, FailedJoinKeepsTheHandle) {
    Thread thread;
    ASSERT_EQ(thread.start(echo, nullptr), 0);
    failCall(Call::PthreadJoin, 1, EDEADLK);
    EXPECT_EQ(thread.join(nullptr), 1000 + EDEADLK);
    EXPECT_NE(thread.tid(), 0U);
    EXPECT_EQ(thread.join(nullptr), 0);
}

TEST_F(ThreadTest, JoinWithoutAStartFails) {
    Thread thread;
    EXPECT_EQ(thread.join(nullptr), 1000 + ESRCH);
    EXPECT_EQ(thread.tid(), 0U);
}

TEST_F(ThreadTest, BaseRunDoesNothing) {
    Thread thread;
    EXPECT_EQ(thread.run(), 0);
    ASSERT_EQ(thread.start(nullptr, nullptr), 0);
    EXPECT_EQ(thread.join(nullptr), 0);
}

TEST_F(ThreadTest, RunEntryEndsWithANullValue) {
    EXPECT_EQ(Thread::s_Run(nullptr), nullptr);
    CountingThread thread;
    EXPECT_EQ(Thread::s_Run(&thread), nullptr);
    EXPECT_EQ(thread.runs, 1);
}

TEST_F(ThreadTest, DestructionLeavesTheThreadRunning) {
    static Gate gate;
    static std::atomic<bool> went{false};
    {
        Thread thread;
        ASSERT_EQ(thread.start(
                      [](void* g) -> void* {
                          Gate::wait(g);
                          went.store(true);
                          return nullptr;
                      },
                      &gate),
                  0);
    }
    EXPECT_FALSE(went.load());
    gate.open();
    waitUntil([&] { return went.load(); });
    EXPECT_TRUE(went.load());
}

class SchedulingTest : public ThreadTest {
  protected:
    void SetUp() override {
        ThreadTest::SetUp();
        ASSERT_EQ(thread.start(Gate::wait, &gate), 0);
    }
    void TearDown() override {
        gate.open();
        EXPECT_EQ(thread.join(nullptr), 0);
    }
    int policy() {
        int found = -1;
        sched_param parameters = {};
        EXPECT_EQ(pthread_getschedparam(thread.tid(), &found, &parameters), 0);
        return found;
    }
    Thread thread;
    Gate gate;
};

TEST_F(SchedulingTest, PriorityZeroSelectsOrdinaryScheduling) {
    EXPECT_EQ(thread.setPriority(0), 0);
    EXPECT_EQ(policy(), SCHED_OTHER);
}

TEST_F(SchedulingTest, NegativePriorityAsksForOrdinaryScheduling) {
    // The system allows only priority 0 for that policy.
    EXPECT_EQ(thread.setPriority(-1), 1000 + EINVAL);
    EXPECT_EQ(policy(), SCHED_OTHER);
}

TEST_F(SchedulingTest, MissingPermissionReturnsEleven) {
    failCall(Call::PthreadSetSchedParam, 1, EPERM);
    EXPECT_EQ(thread.setPriority(1), 11);
}

TEST_F(SchedulingTest, OtherFailuresReturnTheirError) {
    failCall(Call::PthreadSetSchedParam, 1, EINVAL);
    EXPECT_EQ(thread.setPriority(1), 1000 + EINVAL);
    failCall(Call::PthreadGetSchedParam, 1, ESRCH);
    EXPECT_EQ(thread.setPriority(1), 1000 + ESRCH);
    EXPECT_EQ(countOf(Call::PthreadSetSchedParam), 1) << "set although the reading failed";
}

TEST_F(ThreadTest, PriorityWithoutAStartFails) {
    Thread thread;
    EXPECT_EQ(thread.setPriority(0), 1000 + ESRCH);
}

struct Target {
    void count() { ++calls; }
    virtual void countVirtually() { calls += 10; }
    virtual ~Target() = default;
    int calls = 0;
};

struct DerivedTarget : Target {
    void countVirtually() override { calls += 100; }
};

TEST(ThreadMemberTest, NullRecordReturnsAtOnce) {
    EXPECT_EQ(ThreadMember<Target>::StartMemberFunction(nullptr), nullptr);
}

TEST(ThreadMemberTest, RunsTheMemberFunctionOnTheObject) {
    resetCalls();
    DerivedTarget target;
    ThreadMember<Target> thread;
    ASSERT_EQ(startMember<Target>(thread, &target, &Target::count), 0);
    ASSERT_EQ(thread.join(nullptr), 0);
    EXPECT_EQ(target.calls, 1);
    ASSERT_EQ(startMember<Target>(thread, &target, &Target::countVirtually), 0);
    ASSERT_EQ(thread.join(nullptr), 0);
    EXPECT_EQ(target.calls, 101);
}

TEST(ThreadMemberTest, FailedStartCallsNothingAndReturnsTheCode) {
    resetCalls();
    // In a child, since the record of a failed start stays allocated.
    runChild([] {
        Target target;
        ThreadMember<Target> thread;
        failCall(Call::PthreadCreate, 1, EAGAIN);
        EXPECT_EQ(startMember(thread, &target, &Target::count), 1000 + EAGAIN);
        EXPECT_EQ(target.calls, 0);
    });
}

TEST(SleepTest, ZeroReturnsAtOnceAnd200SleepsThatLong) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    Sleep(0);
    const auto between = Clock::now();
    Sleep(200);
    const auto end = Clock::now();
    EXPECT_LT(between - start, std::chrono::milliseconds(150));
    EXPECT_GE(end - between, std::chrono::milliseconds(200));
}

}  // namespace
