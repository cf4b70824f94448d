#pragma once

#include <string>

namespace vxweb {

/// An SVG picture of the QR code of an address (UTF-8), dark on light with its quiet border; its
/// title is the address. Empty when the address is empty or too long for a QR code (2331 bytes).
/// Thread: any.
[[nodiscard]] std::string qrSvg(const std::string& address);

}  // namespace vxweb
