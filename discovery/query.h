#pragma once

#include <cstddef>
#include <cstdint>

/// What a received datagram asks for.
enum class DiscoveryQuery {
    None,            ///< Nothing: not a query, to be ignored.
    ToFixedPort,     ///< First form: answer at the discovery port of the sender's address.
    ToSenderSocket,  ///< Second form: answer at the sender's own address and port.
};

/// Recognises a query by its exact length and bytes. Thread: any.
DiscoveryQuery recognizeQuery(const char* data, std::size_t length);

/// Replaces the control bytes of a NUL-terminated text by "?", so that what a stranger sent can
/// neither steer a terminal nor forge lines of a log. Thread: any.
void maskControlBytes(char* text);

/// The UDP port for queries: one above VELANTRIX_SERVER_PORT when that starts with a digit, modulo
/// 65536, else 59011. Port options of the command line do not move it. Thread: any.
std::uint16_t discoveryPort();
