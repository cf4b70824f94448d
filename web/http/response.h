#pragma once

#include <string>
#include <string_view>

namespace vxweb {

/// Everything of a response but what all responses have.
struct Response {
    unsigned status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string fields;  ///< Further header fields, each with its line end.
    std::string body;
    bool endless = false;  ///< A stream follows the header.
    bool stored = false;   ///< May be kept and asked for again; otherwise no-store.
};

/// One sentence as the answer.
Response sentence(unsigned status, const std::string& text);

/// How the request was asked, as far as that shapes the answer.
struct Manner {
    bool head = false;       ///< The header only.
    bool keepAlive = false;  ///< Another request may follow.
    unsigned version = 11;   ///< 10 or 11.
};

/// The bytes of a response; of an endless one the header.
std::string write(const Response& response, const Manner& manner);

}  // namespace vxweb
