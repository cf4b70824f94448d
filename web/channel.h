#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "stream/wire_format.h"
#include "web/streams/media_stream.h"  // IWYU pragma: export

namespace vxweb {

/// How a listener gets the sound.
enum class Form { LivePcm, LiveOpus, Wav, Flac, Mp3, Ogg };

/// One stream, made once for all its listeners.
struct Channel {
    Form form;
    int rate;                ///< kbit/s; 0: uncompressed or lossless.
    std::uint32_t rateCode;  ///< Of the server's stream that is its source.
    bool arrivals = false;   ///< Of /live: with the arrival time of each packet.

    [[nodiscard]] constexpr bool live() const {
        return form == Form::LivePcm || form == Form::LiveOpus;
    }
};

constexpr std::array<Channel, 20> CHANNELS = {{
    {Form::LivePcm, 0, wire::RATE_CODE_RAW},
    {Form::LiveOpus, 20, 5},
    {Form::LiveOpus, 64, 1},
    {Form::LiveOpus, 128, 2},
    {Form::LiveOpus, 256, 3},
    {Form::LivePcm, 0, wire::RATE_CODE_RAW, true},
    {Form::LiveOpus, 20, 5, true},
    {Form::LiveOpus, 64, 1, true},
    {Form::LiveOpus, 128, 2, true},
    {Form::LiveOpus, 256, 3, true},
    {Form::Wav, 0, wire::RATE_CODE_RAW},
    {Form::Flac, 0, wire::RATE_CODE_RAW},
    {Form::Mp3, 64, wire::RATE_CODE_RAW},
    {Form::Mp3, 128, wire::RATE_CODE_RAW},
    {Form::Mp3, 192, wire::RATE_CODE_RAW},
    {Form::Mp3, 256, wire::RATE_CODE_RAW},
    {Form::Ogg, 20, 5},
    {Form::Ogg, 64, 1},
    {Form::Ogg, 128, 2},
    {Form::Ogg, 256, 3},
}};

/// Index into CHANNELS.
using ChannelId = std::size_t;

/// The channel of a form and a rate in kbit/s, if there is one.
std::optional<ChannelId> findChannel(Form form, int rate, bool arrivals = false);

/// The format of a form that is not live.
StreamFormat mediaFormat(Form form);

/// The name of a server's stream in the status: "raw", "128".
std::string feedName(std::uint32_t rateCode);

/// The name of a channel in the log: "/live opus 128", "/stream.wav".
std::string channelName(ChannelId channel);

}  // namespace vxweb
