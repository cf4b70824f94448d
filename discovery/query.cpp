#include "discovery/query.h"

#include <cstdlib>
#include <cstring>

#include "stream/wire_format.h"

namespace {

constexpr char MASK = '?';

bool equals(const char* data, std::size_t length, const char* expected) {
    return length == std::strlen(expected) && std::memcmp(data, expected, length) == 0;
}

bool isControlByte(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7F;
}

}  // namespace

DiscoveryQuery recognizeQuery(const char* data, std::size_t length) {
    if (equals(data, length, wire::DISCOVERY_QUERY2)) {
        return DiscoveryQuery::ToSenderSocket;
    }
    if (equals(data, length, wire::DISCOVERY_QUERY)) {
        return DiscoveryQuery::ToFixedPort;
    }
    return DiscoveryQuery::None;
}

void maskControlBytes(char* text) {
    for (; *text != '\0'; ++text) {
        if (isControlByte(*text)) {
            *text = MASK;
        }
    }
}

std::uint16_t discoveryPort() {
    const char* const port = std::getenv("VELANTRIX_SERVER_PORT");
    if (port == nullptr || port[0] < '0' || port[0] > '9') {
        return wire::DEFAULT_DISCOVERY_PORT;
    }
    const auto value = static_cast<unsigned long>(std::strtol(port, nullptr, 10));
    return static_cast<std::uint16_t>(value + 1);
}
