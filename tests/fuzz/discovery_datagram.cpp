// One received discovery datagram of any content: recognised, then made fit for a log.

#include <algorithm>
#include <cstring>
#include <vector>

#include "discovery/query.h"
#include "stream/wire_format.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

constexpr std::size_t RECEIVE_ROOM = 256;

bool isPrintable(const char* text) {
    for (; *text != '\0'; ++text) {
        const auto value = static_cast<unsigned char>(*text);
        if (value < 0x20 || value == 0x7F) {
            return false;
        }
    }
    return true;
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const std::string datagram = input.bytes(RECEIVE_ROOM - 1);
    // Of exactly this size, so that reading behind it is seen.
    const std::vector<char> exact(datagram.begin(), datagram.end());
    const DiscoveryQuery query = recognizeQuery(exact.data(), exact.size());
    require((query == DiscoveryQuery::ToFixedPort) == (datagram == wire::DISCOVERY_QUERY) &&
                (query == DiscoveryQuery::ToSenderSocket) == (datagram == wire::DISCOVERY_QUERY2),
            "exactly the two queries are answered");

    char text[RECEIVE_ROOM] = {};
    std::copy(exact.begin(), exact.end(), text);
    const std::size_t length = std::strlen(text);
    maskControlBytes(text);
    require(isPrintable(text) && std::strlen(text) == length, "a log line stays one line");
    return 0;
}
