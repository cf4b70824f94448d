#include "tests/unit/audio/audio_fixture.h"

#include <cstring>
#include <future>

#include "app/base/command_line.h"
#include "stream/send_path.h"

std::vector<HandOver>& handOvers() {
    static auto* const list = new std::vector<HandOver>;
    return *list;
}

int& sendPathResult() {
    static int result = 0;
    return result;
}

int processBuffer(char* buffer, int length, bool hasInput) {
    constexpr int HEADER = 16;
    HandOver handOver{buffer, length, hasInput, {}, Audio::_CurrentCaptureIndexComp};
    handOver.samples.resize(static_cast<std::size_t>(length - HEADER) / sizeof(std::int16_t));
    if (!handOver.samples.empty()) {
        std::memcpy(handOver.samples.data(), buffer + HEADER,
                    handOver.samples.size() * sizeof(std::int16_t));
    }
    handOvers().push_back(std::move(handOver));
    // The header room belongs to the receiver, which fills it.
    std::memset(buffer, 'h', HEADER);
    return sendPathResult();
}

int closeAudio() {
    return std::async(std::launch::async, Audio::Close).get();
}

ChildRun runWithVerbose(bool verbose, const std::function<void()>& body) {
    return runChild([verbose, &body] {
        const char* argv[] = {"VelantrixServer", "-verbose"};
        scanArguments(verbose ? 2 : 1, argv);
        body();
    });
}
