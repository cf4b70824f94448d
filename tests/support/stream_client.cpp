// A client for measurements: connects, requests data, counts packets until its standard input is
// closed. Usage: stream_client PORT RATE_CODE RELIABLE(0|1) [TABLE OUTPUT]
//
// With TABLE (the paced capture's) it writes one line per audio packet to OUTPUT when it ends:
// sequence number, nanoseconds from the entry of the callback that sent it to its arrival here,
// the time of arrival (CLOCK_MONOTONIC, nanoseconds), and nanoseconds from the beginning of its
// encoding to its arrival (for raw sound the same as from the entry).
//
// Environment: BENCH_CLIENT_MTU  bytes of a datagram that the client asks for (default: ENet's own)

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "stream/wire_format.h"
#include "tests/support/audio_client.h"
#include "tests/support/capture_table.h"

namespace {

struct Arrival {
    std::uint32_t seq;
    std::int64_t delayNs;
    std::int64_t timeNs;
    std::int64_t encodeDelayNs;
};

/// Takes the time of arrival of audio packets; does nothing without a table.
class DelayMeter {
  public:
    DelayMeter(const CaptureTable* captureTable, std::uint32_t code)
        : table(captureTable), rateCode(code) {
        arrivals.reserve(captureTable != nullptr ? ROOM : 0);
    }

    void take(const ENetPacket& packet, std::int64_t arrival) {
        if (table == nullptr || packet.dataLength < wire::HEADER_LENGTH + sizeof(std::int64_t)) {
            return;
        }
        const wire::PacketHeader header = wire::readHeader(packet.data, packet.dataLength);
        const std::int64_t delay = arrival - entryOf(header, packet);
        const std::int64_t encodeDelay =
            rateCode == wire::RATE_CODE_RAW
                ? delay
                : arrival - table->encodeStart[header.seq % CaptureTable::REMEMBERED].load();
        arrivals.push_back({header.seq, delay, arrival, encodeDelay});
    }

    void write(const char* path) const {
        std::FILE* const file = std::fopen(path, "w");
        for (const Arrival& each : arrivals) {
            std::fprintf(file, "%u %lld %lld %lld\n", each.seq,
                         static_cast<long long>(each.delayNs), static_cast<long long>(each.timeNs),
                         static_cast<long long>(each.encodeDelayNs));
        }
        std::fclose(file);
    }

  private:
    static constexpr std::size_t ROOM = 1000000;

    /// Raw sound carries the time itself; for compressed sound the table knows it.
    [[nodiscard]] std::int64_t entryOf(const wire::PacketHeader& header,
                                       const ENetPacket& packet) const {
        if (rateCode == wire::RATE_CODE_RAW) {
            std::int64_t entry = 0;
            std::memcpy(&entry, packet.data + wire::HEADER_LENGTH, sizeof entry);
            return entry;
        }
        return table->compressedEntry[header.seq % CaptureTable::REMEMBERED].load();
    }

    const CaptureTable* table;
    std::uint32_t rateCode;
    std::vector<Arrival> arrivals;
};

}  // namespace

int main(int argc, char** argv) {
    if ((argc != 4 && argc != 6) || enet_initialize() != 0) {
        std::fputs("usage: stream_client PORT RATE_CODE RELIABLE [TABLE OUTPUT]\n", stderr);
        return 2;
    }
    const AudioChoice choice{static_cast<enet_uint16>(std::atoi(argv[1])),
                             static_cast<std::uint32_t>(std::atoi(argv[2])),
                             std::atoi(argv[3]) != 0};
    DelayMeter meter(argc == 6 ? mapCaptureTable(argv[4], TableUse::Read) : nullptr,
                     choice.rateCode);
    const long packets = receiveAudio(
        choice,
        [&meter](const ENetPacket& packet, std::int64_t arrival) { meter.take(packet, arrival); });
    if (argc == 6) {
        meter.write(argv[5]);
    }
    std::fprintf(stderr, "stream_client: %ld packets\n", packets);
    return packets > 0 ? 0 : 1;
}
