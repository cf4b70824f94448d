#include <optional>

#include <gtest/gtest.h>

#include "listen/clock.h"
#include "listen/network/receiver.h"
#include "tests/support/enet_server.h"

using vxlisten::MILLISECOND;
using vxlisten::Receiver;
using vxlisten::ReceiverEvent;
using vxlisten::SECOND;
using vxlisten::steadyNow;

namespace {

/// A receiver connected to a server that answers on demand.
class RoundTrip : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(receiver_.open());
        ASSERT_TRUE(receiver_.resolve("127.0.0.1", server_.port()));
        ASSERT_TRUE(receiver_.connect({}));
        auto found = ReceiverEvent::Type::None;
        for (int i = 0; i < 2000 && found != ReceiverEvent::Type::Connected; ++i) {
            server_.service(1);
            found = receiver_.service(1).type;
        }
        ASSERT_EQ(found, ReceiverEvent::Type::Connected);
    }

    /// Waits for a round trip while the server answers; at most ten seconds.
    std::optional<std::int64_t> await() {
        std::optional<std::int64_t> found;
        for (const std::int64_t end = steadyNow() + 10 * SECOND; !found && steadyNow() < end;) {
            server_.service(1);
            receiver_.service(1);
            found = receiver_.takeRoundTrip();
        }
        return found;
    }

    EnetServer server_;
    Receiver receiver_;
};

}  // namespace

TEST_F(RoundTrip, LastsUntilTheServerAnswersAndIsToldOnce) {
    receiver_.ping();
    const std::int64_t begin = steadyNow();
    while (steadyNow() - begin < 30 * MILLISECOND) {
        receiver_.service(1);
        EXPECT_FALSE(receiver_.takeRoundTrip());
    }
    const auto found = await();
    ASSERT_TRUE(found);
    EXPECT_GE(*found, 30 * MILLISECOND);
    EXPECT_LE(*found, steadyNow() - begin);
    EXPECT_FALSE(receiver_.takeRoundTrip());
}

TEST_F(RoundTrip, IsToldWhenItIsLongerThanTheTimeBetweenPings) {
    const std::int64_t begin = steadyNow();
    while (steadyNow() - begin < 100 * MILLISECOND) {
        receiver_.ping();
        receiver_.service(1);
    }
    const auto found = await();
    ASSERT_TRUE(found);
    EXPECT_GE(*found, 90 * MILLISECOND);
}

TEST_F(RoundTrip, IsFinerThanAMillisecond) {
    bool fine = false;
    for (int i = 0; i < 20 && !fine; ++i) {
        receiver_.ping();
        const auto found = await();
        ASSERT_TRUE(found);
        fine = *found % MILLISECOND != 0;
    }
    EXPECT_TRUE(fine);
}

TEST_F(RoundTrip, WithoutAConnectionThereIsNone) {
    receiver_.drop();
    receiver_.ping();
    receiver_.service(1);
    EXPECT_FALSE(receiver_.takeRoundTrip());
}
