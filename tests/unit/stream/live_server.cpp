#include "tests/unit/stream/live_server.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <sys/mman.h>
#include <unistd.h>

#include "app/base/core_pin.h"
#include "stream/capture_rate.h"
#include "stream/client_table.h"
#include "stream/datagram_guard.h"
#include "stream/enet_mtu.h"
#include "stream/event_backlog.h"
#include "stream/opus_bank.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr std::size_t SERVER_PEERS = 32;
constexpr std::size_t CHANNELS = 2;

using Clock = std::chrono::steady_clock;

}  // namespace

void PrintTo(const StatusReport& report, std::ostream* out) {
    *out << "(" << report.count << ", " << report.name.value_or("null") << ", " << report.direct
         << ")";
}

void RecordingCore::SetAudioCaptureActive() {
    const DivertedCall diverted;
    noteCall(Call::CaptureReport, "capture report");
    ++captureReports;
}

void RecordingCore::SetClientStatus(int count, const char* name, bool direct) {
    statusReports.push_back(
        {count, name != nullptr ? std::optional<std::string>(name) : std::nullopt, direct});
}

RecordingCore& LiveServer::core() {
    static auto* const everlasting = new RecordingCore;
    return *everlasting;
}

void LiveServer::SetUp() {
    outputFile = memfd_create("stdout", 0);
    output.emplace(outputFile);

    ASSERT_EQ(enet_initialize(), 0);
    ENetAddress address = {};
    address.host = ENET_HOST_ANY;
    address.port = wire::DEFAULT_SERVER_PORT;
    server = enet_host_create(&address, SERVER_PEERS, CHANNELS, 0, 0);
    ASSERT_NE(server, nullptr) << "port " << address.port << " is taken";
    raiseHostMtu(*server);
    limitMessages(*server);
    guardDatagrams(*server);
    clientConn.fill(ClientSlot{});
    connectCount = 0;
    seqNum = 0;
    seqNumComp = 0;
    fillOpusBank();
    vxOptionAltRate.store(true);
    core().captureReports = 0;
    core().messages.clear();
    core().statusReports.clear();
    mainDialog.store(&core());
    resetCalls();
}

void LiveServer::TearDown() {
    clients.clear();
    mainDialog.store(nullptr);
    enet_host_destroy(server);
    server = nullptr;
    for (OpusEncoder*& encoder : opusEnc) {
        if (encoder != nullptr) {
            opus_encoder_destroy(encoder);
        }
        encoder = nullptr;
    }
    output.reset();
    if (HasFailure()) {
        std::fputs(readAll(outputFile).c_str(), stdout);  // The failures themselves are in there.
    }
    close(outputFile);
}

void LiveServer::pumpUntil(const std::function<bool()>& done) {
    const auto end = Clock::now() + std::chrono::milliseconds(TIMEOUT_MS);
    while (!done()) {
        ASSERT_LT(Clock::now(), end) << "what the test waits for does not happen";
        serviceHost();
        for (const auto& client : clients) {
            client->service();
        }
    }
}

void LiveServer::pumpFor(int milliseconds) {
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    pumpUntil([end] { return Clock::now() >= end; });
}

TestClient& LiveServer::connect(std::uint32_t connectData, std::uint16_t localPort,
                                std::uint32_t mtu) {
    const std::int32_t before = connectCount;
    clients.push_back(std::make_unique<TestClient>(connectData, localPort, mtu));
    TestClient& client = *clients.back();
    pumpUntil([&client, before] { return client.connected && connectCount > before; });
    return client;
}

TestClient& LiveServer::stream(std::uint32_t flags, std::uint32_t connectData) {
    TestClient& client = connect(connectData);
    tell(client, dataRequest(flags));
    EXPECT_EQ(clientConn.at(static_cast<std::size_t>(slotOf(client))).dataRequested, 1);
    return client;
}

void LiveServer::tell(TestClient& client, const std::vector<unsigned char>& message) {
    const int before = countOf(Call::EnetPacketDestroy);
    client.send(message);
    pumpUntil([before] { return countOf(Call::EnetPacketDestroy) > before; });
}

void LiveServer::sendBlock() {
    std::vector<char> block(wire::RAW_BUFFER_LENGTH, 'a');
    processBuffer(block.data(), static_cast<int>(block.size()), true);
}

void LiveServer::vanish(TestClient& client) {
    clients.erase(std::find_if(clients.begin(), clients.end(),
                               [&client](const auto& each) { return each.get() == &client; }));
}

int LiveServer::slotOf(const TestClient& client) {
    for (std::size_t i = 0; i < clientConn.size(); ++i) {
        if (clientConn[i].peer != nullptr && clientConn[i].peer->address.port == client.port()) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

std::string LiveServer::printed() {
    const std::string text = readAll(outputFile).substr(seen);
    seen += text.size();
    return text;
}
