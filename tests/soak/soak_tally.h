#pragma once

#include <array>

#include "stream/wire_format.h"

/// What one soaking client has heard, for the demand that nothing stayed untried.
struct SoakTally {
    std::array<long, wire::RATE_CODE_COUNT> byRateCode{};  ///< Packets; those of code 0 are raw.
    long fallback = 0;    ///< Of them uncompressed, with a rate code that has no encoder.
    long reliable = 0;    ///< Of them marked as reliable.
    long bestEffort = 0;  ///< The others.
    long steps = 0;       ///< Reliable packets that had to follow the last one without a gap.
    long rawWraps = 0;    ///< 32-bit wraps heard from both sides on one connection.
    long compressedWraps = 0;
    long enetWraps = 0;     ///< Of ENet's 16-bit numbers: 65,536 reliable packets on a connection.
    long requestsKept = 0;  ///< Requests answered by sound of the present.
    long stuck = 0;         ///< Left after a pause, with half a reliable fallback packet.
    long starved = 0;       ///< Times without a processor, of which the past may come for a while.
    long connections = 0;
    long errors = 0;

    [[nodiscard]] long packets() const { return reliable + bestEffort; }

    SoakTally& operator+=(const SoakTally& other) {
        for (std::size_t code = 0; code < byRateCode.size(); ++code) {
            byRateCode[code] += other.byRateCode[code];
        }
        fallback += other.fallback;
        reliable += other.reliable;
        bestEffort += other.bestEffort;
        steps += other.steps;
        rawWraps += other.rawWraps;
        compressedWraps += other.compressedWraps;
        enetWraps += other.enetWraps;
        requestsKept += other.requestsKept;
        stuck += other.stuck;
        starved += other.starved;
        connections += other.connections;
        errors += other.errors;
        return *this;
    }
};
