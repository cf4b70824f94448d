#include "common/thread_check.h"

#include <future>

#include <gtest/gtest.h>

TEST(ThreadCheck, MainsThreadIsTheMainOne) {
    EXPECT_TRUE(onMainThread());
    EXPECT_FALSE(std::async(std::launch::async, onMainThread).get());
}

TEST(ThreadCheck, TheFirstCallersThreadIsTheOne) {
    const ThreadCheck check;
    const auto elsewhere = [&check] {
        return std::async(std::launch::async, [&check] { return check.here(); }).get();
    };
    EXPECT_FALSE(check.elsewhere());
    EXPECT_TRUE(check.here());
    EXPECT_TRUE(check.here());
    EXPECT_FALSE(check.elsewhere());
    EXPECT_FALSE(elsewhere());
    const ThreadCheck other;
    EXPECT_TRUE(std::async(std::launch::async, [&other] { return other.here(); }).get());
    EXPECT_FALSE(other.here());
    EXPECT_TRUE(other.elsewhere());
}
