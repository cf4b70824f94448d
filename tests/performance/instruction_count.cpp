// Calls processBuffer for ten connected clients; valgrind counts the instructions.
// Usage: instruction_count raw|compressed CALLS

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "stream/send_path.h"
#include "stream/service_step.h"
#include "stream/wire_format.h"
#include "tests/support/bench_clients.h"
#include "tests/support/bench_server.h"

namespace {

constexpr std::size_t CLIENTS = 10;

/// Best-effort, so that no acknowledgement changes the count.
std::vector<BenchClients::Choice> choices(bool compressed) {
    constexpr std::uint32_t CODES[] = {1, 2, 3, 5};
    std::vector<BenchClients::Choice> chosen;
    for (std::size_t i = 0; i < CLIENTS; ++i) {
        chosen.push_back({compressed ? CODES[i % 4] : 0, false});
    }
    return chosen;
}

void fill(std::vector<char>& buffer, double& phase) {
    for (std::size_t at = wire::HEADER_LENGTH; at + 2 <= buffer.size(); at += 2) {
        phase += 0.03;
        const auto sample = static_cast<std::int16_t>(9000 * std::sin(phase) * std::sin(phase / 7));
        std::memcpy(&buffer[at], &sample, sizeof sample);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: instruction_count raw|compressed CALLS\n", stderr);
        return 2;
    }
    const bool compressed = std::strcmp(argv[1], "compressed") == 0;
    createBenchServer();
    const BenchClients clients(server->address.port, choices(compressed));
    serviceUntilStreaming(CLIENTS);
    std::vector<char> buffer(compressed ? wire::COMPRESSED_BUFFER_LENGTH : wire::RAW_BUFFER_LENGTH);
    double phase = 0;
    for (int call = std::atoi(argv[2]); call > 0; --call) {
        fill(buffer, phase);
        processBuffer(buffer.data(), static_cast<int>(buffer.size()), true);
    }
    return 0;
}
