#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>

#include "app/base/console.h"
#include "app/base/core_pin.h"
#include "audio/Audio.h"
#include "stream/capture_rate.h"
#include "stream/client_table.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "tests/support/callback_watch.h"
#include "tests/support/fake_portaudio.h"
#include "tests/unit/stream/live_server.h"

namespace {

constexpr unsigned long BLOCK = 338;
constexpr int DRAIN_MS = 5000;

void expectNothingDone() {
    EXPECT_EQ(CallbackWatch::allocations(), 0);
    EXPECT_EQ(CallbackWatch::releases(), 0);
    EXPECT_EQ(CallbackWatch::locks(), 0);
}

/// The whole callback from PortAudio down, with the headless core and the console as they run.
class CallbackTripwire : public LiveServer {
  protected:
    void SetUp() override {
        LiveServer::SetUp();
        static const bool consoleRuns = [] {
            consoleStart();
            return true;
        }();
        ASSERT_TRUE(consoleRuns);
        static auto* const headless = new VelantrixServerNoGUI;
        mainDialog.store(headless);
        static const int opened = [] {
            resetFakePortAudio();
            return Audio::Open(0, vxOptionAltRate);
        }();
        ASSERT_EQ(opened, 0);
        samples.resize(10 * BLOCK * 2);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            samples[i] = static_cast<std::int16_t>(i * 37);
        }
        CallbackWatch::reset();
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(std::async(std::launch::async, Audio::Close).get(), 0);
    }
    void TearDown() override {
        consoleDrain(DRAIN_MS);
        LiveServer::TearDown();
    }
    void deliver(bool input = true, unsigned long frames = BLOCK) {
        {
            const CallbackWatch watch;
            fakePortAudio().deliver(input ? samples.data() : nullptr, frames);
        }
        for (const auto& client : clients) {
            client->service();
        }
    }
    void connectTenOfMixedChoices() {
        for (std::uint32_t code = 0; code < 8; ++code) {
            stream((code << 6) | (code % 2));
        }
        stream(1);
        stream(0x41);
    }
    std::vector<std::int16_t> samples;
};

TEST_F(CallbackTripwire, SeesWhatItIsToSee) {
    void* volatile memory = nullptr;
    std::mutex mutex;
    {
        const CallbackWatch watch;
        memory = std::malloc(10);
        std::free(memory);
        auto* volatile text = new std::string(100, 'x');
        delete text;
        const std::lock_guard<std::mutex> lock(mutex);
    }
    EXPECT_EQ(CallbackWatch::allocations(), 3);
    EXPECT_EQ(CallbackWatch::releases(), 3);
    EXPECT_EQ(CallbackWatch::locks(), 1);
}

TEST_F(CallbackTripwire, TenMixedClientsCostNoAllocationAndNoLock) {
    connectTenOfMixedChoices();
    CallbackWatch::reset();
    for (int i = 0; i < 300; ++i) {
        deliver();
    }
    expectNothingDone();
    for (const auto& client : clients) {
        EXPECT_GT(client->packets.size(), 100U);
    }
}

TEST_F(CallbackTripwire, MissingInputAndLongBlocksCostNone) {
    connectTenOfMixedChoices();
    CallbackWatch::reset();
    for (int i = 0; i < 20; ++i) {
        deliver(i % 2 == 0);
        deliver(true, 5 * BLOCK);
        deliver(false, 0);
    }
    expectNothingDone();
}

TEST_F(CallbackTripwire, ConnectsRequestsAndDisconnectsCostNone) {
    // Everything that the service step handles, inside the callback.
    for (int i = 0; i < 14; ++i) {
        clients.push_back(std::make_unique<TestClient>(i % 4 == 0 ? 1U : COMPANY | 1U));
        TestClient& client = *clients.back();
        for (int step = 0; step < 2000 && !client.connected; ++step) {
            deliver();
        }
        ASSERT_TRUE(client.connected);
        client.send(dataRequest(static_cast<std::uint32_t>(i) << 6, std::string(300, 'n')));
        client.send(controlMessage(2));
        client.send(controlMessage(99));
        for (int step = 0; step < 10; ++step) {
            deliver();
        }
    }
    clients.back()->leave();
    for (int step = 0; step < 2000 && !clients.back()->disconnectData; ++step) {
        deliver();
    }
    expectNothingDone();
}

}  // namespace
