#include "web/page/qr_picture.h"

#include <memory>

#include <qrencode.h>

namespace vxweb {

namespace {

constexpr int BORDER = 4;  ///< Modules of the border that the standard requires.

std::string escaped(const std::string& text) {
    std::string result;
    for (const char letter : text) {
        switch (letter) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            default:
                result += letter;
        }
    }
    return result;
}

/// The dark modules as one path, each run of a row a rectangle.
std::string darkPath(const QRcode& code) {
    std::string path;
    const auto dark = [&code](int x, int y) {
        return x < code.width && (code.data[y * code.width + x] & 1U) != 0;
    };
    for (int y = 0; y < code.width; ++y) {
        for (int x = 0; x < code.width; ++x) {
            if (!dark(x, y)) {
                continue;
            }
            const int begin = x;
            while (dark(x, y)) {
                ++x;
            }
            const std::string length = std::to_string(x - begin);
            path.append("M").append(std::to_string(begin + BORDER)).append(" ");
            path.append(std::to_string(y + BORDER)).append("h").append(length);
            path.append("v1h-").append(length).append("z");
        }
    }
    return path;
}

}  // namespace

std::string qrSvg(const std::string& address) {
    if (address.empty()) {
        return {};
    }
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString8bit(address.c_str(), 0, QR_ECLEVEL_M), &QRcode_free);
    if (code == nullptr) {
        return {};
    }
    const std::string size = std::to_string(code->width + 2 * BORDER);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + size + ' ' + size +
           "\" shape-rendering=\"crispEdges\"><title>" + escaped(address) +
           "</title><path fill=\"#fff\" d=\"M0 0h" + size + 'v' + size + "H0z\"/><path d=\"" +
           darkPath(*code) + "\"/></svg>\n";
}

}  // namespace vxweb
