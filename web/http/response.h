#pragma once

#include <string>

namespace vxweb {

/// A response, without the fields that all responses have.
struct Response {
    unsigned status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string fields;  ///< Further header fields, each with its line end.
    std::string body;
    bool endless = false;  ///< A stream follows the header.
    bool stored = false;   ///< May be cached and revalidated; otherwise no-store.
};

/// A response with one sentence.
Response sentence(unsigned status, const std::string& text);

/// Properties of the request that affect the response.
struct RequestTraits {
    bool head = false;       ///< The header only.
    bool keepAlive = false;  ///< Another request may follow.
    unsigned version = 11;   ///< 10 or 11.
};

/// The bytes of a response; of an endless one the header.
std::string write(const Response& response, const RequestTraits& traits);

}  // namespace vxweb
