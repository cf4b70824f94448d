#include "web/channel.h"

#include <algorithm>

namespace vxweb {

namespace {

const char* nameOf(Form form) {
    switch (form) {
        case Form::LivePcm:
            return "/live pcm";
        case Form::LiveOpus:
            return "/live opus";
        case Form::Wav:
            return "/stream.wav";
        case Form::Flac:
            return "/stream.flac";
        case Form::Mp3:
            return "/stream.mp3";
        case Form::Ogg:
            return "/stream.ogg";
    }
    return "";
}

}  // namespace

std::optional<ChannelId> findChannel(Form form, int rate, bool arrivals) {
    const auto* const found =
        std::find_if(CHANNELS.begin(), CHANNELS.end(), [=](const Channel& channel) {
            return channel.form == form && channel.rate == rate && channel.arrivals == arrivals;
        });
    if (found == CHANNELS.end()) {
        return std::nullopt;
    }
    return static_cast<ChannelId>(found - CHANNELS.begin());
}

StreamFormat mediaFormat(Form form) {
    switch (form) {
        case Form::Flac:
            return StreamFormat::Flac;
        case Form::Mp3:
            return StreamFormat::Mp3;
        case Form::Ogg:
            return StreamFormat::Ogg;
        default:
            return StreamFormat::Wav;
    }
}

std::string feedName(std::uint32_t rateCode) {
    return rateCode == wire::RATE_CODE_RAW ? "raw"
                                           : std::to_string(wire::bitRateOf(rateCode) / 1000);
}

std::string channelName(ChannelId channel) {
    const Channel& it = CHANNELS[channel];
    return nameOf(it.form) + (it.rate == 0 ? std::string() : " " + std::to_string(it.rate));
}

}  // namespace vxweb
