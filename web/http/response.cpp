#include "web/http/response.h"

#include <boost/beast/http/status.hpp>

namespace vxweb {

namespace {

/// The page may load only from its own origin.
constexpr const char* PROTECTION =
    "Content-Security-Policy: default-src 'self'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Referrer-Policy: no-referrer\r\n";

}  // namespace

Response sentence(unsigned status, const std::string& text) {
    Response response;
    response.status = status;
    response.body = text + "\n";
    return response;
}

std::string write(const Response& response, const RequestTraits& traits) {
    const auto reason = boost::beast::http::obsolete_reason(
        static_cast<boost::beast::http::status>(response.status));
    std::string text = traits.version < 11 ? "HTTP/1.0 " : "HTTP/1.1 ";
    text += std::to_string(response.status) + " ";
    text.append(reason.data(), reason.size());
    text += "\r\nServer: velantrix-web\r\nContent-Type: " + response.contentType + "\r\n";
    text += PROTECTION;
    text += response.stored ? "Cache-Control: no-cache\r\n" : "Cache-Control: no-store\r\n";
    text += response.fields;
    if (!response.endless) {
        text += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    } else if (traits.version >= 11) {
        text += "Transfer-Encoding: chunked\r\n";
    }
    text += traits.keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    return traits.head || response.endless ? text : text + response.body;
}

}  // namespace vxweb
