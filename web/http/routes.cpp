#include "web/http/routes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>
#include <utility>

#include "web/page/assets.h"

namespace vxweb {

namespace {

/// A form of sound and its rates.
struct Choice {
    std::string_view path;
    Form form;
    int defaultRate;    ///< kbit/s; 0: the form has no rate.
    const char* rates;  ///< In words.
};

constexpr std::array<Choice, 4> STREAMS = {{
    {"/stream.wav", Form::Wav, 0, ""},
    {"/stream.flac", Form::Flac, 0, ""},
    {"/stream.mp3", Form::Mp3, 192, "64, 128, 192 or 256"},
    {"/stream.ogg", Form::Ogg, 128, "20, 64, 128 or 256"},
}};
constexpr Choice LIVE_PCM = {"/live", Form::LivePcm, 0, ""};
constexpr Choice LIVE_OPUS = {"/live", Form::LiveOpus, 128, "20, 64, 128 or 256"};

Route badQuery(Route route, std::string problem) {
    route.kind = Route::Kind::BadQuery;
    route.problem = std::move(problem);
    return route;
}

Route soundRoute(Route route, const Choice& choice, std::string_view query, bool arrivals = false) {
    int rate = choice.defaultRate;
    if (const auto text = queryValue(query, "rate")) {
        if (choice.defaultRate == 0) {
            return badQuery(route, "Only the compressed formats have a rate.");
        }
        const auto end = std::from_chars(text->data(), text->data() + text->size(), rate);
        if (end.ec != std::errc() || end.ptr != text->data() + text->size()) {
            rate = -1;
        }
    }
    const auto channel = findChannel(choice.form, rate, arrivals);
    if (!channel) {
        return badQuery(route, std::string("The rate must be ") + choice.rates + ".");
    }
    route.channel = *channel;
    return route;
}

Route liveRoute(Route route, std::string_view query) {
    route.kind = Route::Kind::Live;
    const std::string_view format = queryValue(query, "format").value_or("pcm");
    if (format != "pcm" && format != "opus") {
        return badQuery(route, "The format must be pcm or opus.");
    }
    const auto arrivals = queryValue(query, "arrivals");
    if (arrivals && *arrivals != "1") {
        return badQuery(route, "arrivals must be 1.");
    }
    return soundRoute(route, format == "opus" ? LIVE_OPUS : LIVE_PCM, query, arrivals.has_value());
}

Route::Kind simpleKind(std::string_view path) {
    if (path == "/status") {
        return Route::Kind::Status;
    }
    if (path == "/qr.svg") {
        return Route::Kind::Qr;
    }
    if (path == "/listen.m3u") {
        return Route::Kind::Playlist;
    }
    return findAsset(path) != nullptr ? Route::Kind::Asset : Route::Kind::Missing;
}

}  // namespace

std::optional<std::string_view> queryValue(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const std::string_view field = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), field.size() + 1));
        if (field.substr(0, field.find('=')) == name) {
            return field.substr(std::min(field.size(), name.size() + 1));
        }
    }
    return std::nullopt;
}

Route findRoute(std::string_view target) {
    target = target.substr(0, target.find('#'));
    const std::size_t mark = std::min(target.find('?'), target.size());
    const std::string_view query = target.substr(std::min(target.size(), mark + 1));
    Route route;
    route.path = target.substr(0, mark);
    if (route.path == "/live") {
        return liveRoute(route, query);
    }
    for (const Choice& choice : STREAMS) {
        if (route.path == choice.path) {
            route.kind = Route::Kind::Stream;
            return soundRoute(route, choice, query);
        }
    }
    route.kind = simpleKind(route.path);
    return route;
}

}  // namespace vxweb
