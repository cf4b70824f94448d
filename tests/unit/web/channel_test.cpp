#include "web/channel.h"

#include <gtest/gtest.h>

namespace {

using namespace vxweb;

TEST(Channel, EveryChannelIsFoundByItsFormAndRate) {
    for (ChannelId id = 0; id < CHANNELS.size(); ++id) {
        EXPECT_EQ(findChannel(CHANNELS[id].form, CHANNELS[id].rate, CHANNELS[id].arrivals), id);
    }
    EXPECT_FALSE(findChannel(Form::Wav, 128));
    EXPECT_FALSE(findChannel(Form::Ogg, 192));
}

TEST(Channel, OpusComesFromTheStreamOfItsOwnRateAndEverythingElseFromTheRawOne) {
    for (const Channel& channel : CHANNELS) {
        const bool opus = channel.form == Form::LiveOpus || channel.form == Form::Ogg;
        EXPECT_EQ(wire::bitRateOf(channel.rateCode), opus ? 1000 * channel.rate : 0);
    }
}

TEST(Channel, NamesAreThoseOfTheWebAddresses) {
    EXPECT_EQ(channelName(findChannel(Form::LivePcm, 0).value()), "/live pcm");
    EXPECT_EQ(channelName(findChannel(Form::Mp3, 192).value()), "/stream.mp3 192");
    EXPECT_EQ(feedName(0), "raw");
    EXPECT_EQ(feedName(5), "20");
}

}  // namespace
