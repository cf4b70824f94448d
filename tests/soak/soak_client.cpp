#include "tests/soak/soak_client.h"

#include <array>
#include <cstdio>

#include "stream/wire_format.h"

namespace {

constexpr int MAX_WAIT = 12000;  ///< Callbacks; three seconds or so.
constexpr int MAX_STEADY_WAIT = 6000;
constexpr int EVENTS_AT_ONCE = 200;
constexpr std::array<std::uint32_t, 4> OPUS_CODES = {1, 2, 3, 5};
constexpr long MAX_ERRORS_SHOWN = 20;

/// Callbacks between two looks at the network that a client can miss and still keep up.
constexpr std::uint64_t LATE_SERVICE = 1000;

/// The server drops the queue of a client that has more than 75 packets waiting for it.
constexpr std::uint64_t QUEUE_DROPPED = 75;

// ENet disconnects a silent client after five seconds or more.
constexpr std::chrono::milliseconds MAX_STALL{3000};
constexpr std::chrono::milliseconds TOO_LONG_AWAY{4500};

// The server's ENet takes the backlog of a stall for a poor network and then drops best-effort
// audio until some pings are acknowledged: seconds, which are minutes of sound here.
constexpr enet_uint32 NO_SLOWING = 0;
constexpr std::chrono::milliseconds TIMEOUT_WHEN_THROTTLED{15000};

// A lost packet is repeated after half a second at first, after a stall only in its own time.
constexpr std::chrono::milliseconds TIMEOUT{1000};
constexpr std::chrono::milliseconds TIMEOUT_AFTER_STALL{3000};

// A machine that keeps this process waiting makes receive buffers overflow, of packets and of
// acknowledgements: then even a client that is up to date may lose its queue. What ENet measured
// of a wait before is in the time after which it repeats a reliable packet: some seconds.
constexpr std::chrono::milliseconds RECOVERY{10000};

}  // namespace

SoakClient::SoakClient(std::uint16_t serverPort, const CaptureTable& captureTable, unsigned seed,
                       Kind kindOfClient)
    : port(serverPort),
      table(captureTable),
      kind(kindOfClient),
      packets(captureTable, tally),
      requests(captureTable),
      random(seed) {}

void SoakClient::step(bool mayVanish) {
    const std::uint64_t now = table.callbacks.load();
    if (now >= nextChange) {
        change(mayVanish);
        nextChange = now + static_cast<std::uint64_t>(
                               pick(1, kind == Kind::Steady ? MAX_STEADY_WAIT : MAX_WAIT));
    }
    if (stalled && Clock::now() - lastServiceTime > MAX_STALL) {
        wakeUp();
    }
    if (!stalled && client) {
        service();
    }
}

void SoakClient::leave() {
    if (connected()) {
        enet_peer_disconnect_now(client->peer, 0);
    }
    forget();
}

const SoakTally& SoakClient::heard() {
    tally.requestsKept = requests.kept;
    return tally;
}

int SoakClient::pick(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random);
}

bool SoakClient::connected() const {
    return client && client->ok() && client->peer->state == ENET_PEER_STATE_CONNECTED;
}

void SoakClient::change(bool mayVanish) {
    if (stalled) {
        wakeUp();
    }
    if (!client) {
        connect();
        return;
    }
    const int choice = kind == Kind::Steady ? 0 : pick(0, 9);
    if (choice < 5) {
        requestData();
    } else if (choice < 7) {
        stall();
    } else if (choice == 7 || (choice == 8 && !mayVanish)) {
        leave();
    } else if (choice == 8) {
        forget();
    }
}

void SoakClient::connect() {
    client.emplace(wire::CONNECT_MULTI_CLIENT | 1U, std::uint16_t{0}, 0U, port);
    packets.restart();
    requests.restart();
    catchingUp = false;
    mayHaveHalf = false;
    lastService = table.callbacks.load();
    lastServiceTime = Clock::now();
}

void SoakClient::forget() {
    client.reset();
    requests.restart();
}

void SoakClient::stall() {
    stalled = true;
    catchingUp = true;
    mayHaveHalf = true;
}

void SoakClient::wakeUp() {
    stalled = false;
    requests.excuse();
}

std::uint32_t SoakClient::nextRequest() {
    if (kind != Kind::Steady) {
        const bool reliable = pick(0, 1) == 1;
        return wire::makeFlags(reliable, false,
                               static_cast<std::uint32_t>(pick(0, 1) * pick(0, 7)));
    }
    // Every other time raw, so that it meets the wraps of both counters from both sides.
    const unsigned now = turn++;
    return wire::makeFlags(
        true, false, now % 2 == 0 ? wire::RATE_CODE_RAW : OPUS_CODES[now / 2 % OPUS_CODES.size()]);
}

void SoakClient::requestData() {
    if (!connected()) {
        return;
    }
    const std::uint32_t flags = nextRequest();
    client->send(dataRequest(flags, "soak"));
    requests.asked(flags);
}

void SoakClient::service() {
    const Clock::time_point now = Clock::now();
    if (now - lastServiceTime > TOO_LONG_AWAY) {
        leave();  // The server may have given this client up meanwhile, without telling it.
        return;
    }
    const std::uint64_t missed = table.callbacks.load() - lastService;
    noticeStarvation(missed);
    catchingUp = catchingUp || missed > LATE_SERVICE;
    mayHaveHalf = mayHaveHalf || missed > QUEUE_DROPPED;
    const bool drained = handleEvents();
    lastServiceTime = now;
    if (drained && client) {
        lastService = table.callbacks.load();
        judgeRequests();
    }
}

void SoakClient::noticeStarvation(std::uint64_t missed) {
    if (missed > QUEUE_DROPPED && !catchingUp) {
        tally.starved += recovering() ? 0 : 1;
        recoveredAt = Clock::now() + RECOVERY;
    }
}

void SoakClient::judgeRequests() {
    const std::string problem = requests.overdue(requestTimeout());
    if (!problem.empty() && mayHaveHalf && requests.halvesPossible()) {
        // Waits for the other half of a fallback packet whose queue was dropped, in vain: the
        // protocol lets that happen, and the client connect again.
        ++tally.stuck;
        leave();
        return;
    }
    note(problem);
}

std::chrono::milliseconds SoakClient::requestTimeout() const {
    if (kind == Kind::Throttled && !requests.latestReliable()) {
        return TIMEOUT_WHEN_THROTTLED;
    }
    if (recovering()) {
        return RECOVERY;
    }
    return catchingUp ? TIMEOUT_AFTER_STALL : TIMEOUT;
}

/// False when there may be more to read.
bool SoakClient::handleEvents() {
    ENetEvent event;
    for (int handled = 0; handled < EVENTS_AT_ONCE; ++handled) {
        if (!client || enet_host_service(client->host, &event, 0) <= 0) {
            return true;
        }
        if (event.type == ENET_EVENT_TYPE_CONNECT) {
            ++tally.connections;
            if (kind != Kind::Throttled) {
                enet_peer_throttle_configure(client->peer, ENET_PEER_PACKET_THROTTLE_INTERVAL,
                                             ENET_PEER_PACKET_THROTTLE_SCALE, NO_SLOWING);
            }
            requestData();
        } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
            forget();
        } else if (event.type == ENET_EVENT_TYPE_RECEIVE) {
            take(*event.packet);
            enet_packet_destroy(event.packet);
        }
    }
    return false;
}

void SoakClient::take(const ENetPacket& packet) {
    note(packets.check(packet, catchingUp || recovering()));
    catchingUp = catchingUp && !packets.present();
    mayHaveHalf = mayHaveHalf && !packets.upToDate();
    const wire::PacketHeader header = wire::readHeader(packet.data, packet.dataLength);
    note(requests.take(wire::makeFlags(header.reliable(), false, header.rateCode()),
                       packets.present()));
}

void SoakClient::note(const std::string& problem) {
    if (!problem.empty() && ++tally.errors <= MAX_ERRORS_SHOWN) {
        std::fprintf(stderr, "soak_clients: %s\n", problem.c_str());
    }
}
