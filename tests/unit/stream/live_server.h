#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "tests/support/child_run.h"
#include "tests/support/test_client.h"

/// One call of SetClientStatus.
struct StatusReport {
    int count;
    std::optional<std::string> name;  ///< Empty optional: a null name.
    bool direct;

    bool operator==(const StatusReport& other) const {
        return count == other.count && name == other.name && direct == other.direct;
    }
};

void PrintTo(const StatusReport& report, std::ostream* out);

/// A front end that keeps the reports. Never destroyed, as the streaming side expects.
class RecordingCore : public VelantrixServerNoGUI {
  public:
    void SetAudioCaptureActive() override;
    void emitShowMessage(const char* message) override { messages.emplace_back(message); }
    void SetClientStatus(int count, const char* name, bool direct) override;

    int captureReports = 0;
    std::vector<std::string> messages;
    std::vector<StatusReport> statusReports;
};

constexpr std::uint32_t COMPANY = wire::CONNECT_MULTI_CLIENT;

/// The streaming side in one thread: its ENet host on 127.0.0.1 with the globals as after
/// start-up, and clients that the test drives. Prints into a file that the test can read.
class LiveServer : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// Services server and clients until `done` returns true; fails the test after 10 s.
    void pumpUntil(const std::function<bool()>& done);

    /// Services server and clients for a while, for what must not happen.
    void pumpFor(int milliseconds);

    /// A client that the server has in its table.
    TestClient& connect(std::uint32_t connectData, std::uint16_t localPort = 0,
                        std::uint32_t mtu = 0);

    /// A client that streams with these Data request flags.
    TestClient& stream(std::uint32_t flags, std::uint32_t connectData = COMPANY | 1);

    /// Sends a control message and lets the server handle it.
    void tell(TestClient& client, const std::vector<unsigned char>& message);

    /// Passes a raw block to the send path, with its service step.
    static void sendBlock();

    /// Removes a client from the service loop and destroys it without a disconnect.
    void vanish(TestClient& client);

    /// Index of the slot whose peer has this client's address; -1: none.
    static int slotOf(const TestClient& client);

    static RecordingCore& core();

    /// The lines that the server has printed since the last call.
    std::string printed();

    std::vector<std::unique_ptr<TestClient>> clients;

  private:
    int outputFile = -1;
    std::optional<OutputTo> output;
    std::size_t seen = 0;  ///< Of what was printed.
};
