#pragma once

#include <cstddef>
#include <cstdint>

/// The kind of a received datagram.
enum class DiscoveryQuery {
    None,            ///< Not a query; ignored.
    ToFixedPort,     ///< First form: answer at the discovery port of the sender's address.
    ToSenderSocket,  ///< Second form: answer at the sender's own address and port.
};

/// Recognises a query by its exact length and bytes. Thread: any.
DiscoveryQuery recognizeQuery(const char* data, std::size_t length);

/// Replaces the control bytes of a NUL-terminated text by "?", so that text from the network can
/// neither control a terminal nor forge lines of a log. Thread: any.
void maskControlBytes(char* text);

/// The UDP port for queries: one above VELANTRIX_SERVER_PORT when that starts with a digit, modulo
/// 65536, else 59011. Options of the command line do not change it. Thread: any.
std::uint16_t discoveryPort();
