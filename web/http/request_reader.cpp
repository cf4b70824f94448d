#include "web/http/request_reader.h"

#include <cstdint>
#include <limits>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>

namespace vxweb {

namespace http = boost::beast::http;

RequestReader::RequestReader() {
    parser_.header_limit(MAX_HEADER);
    // Bodies are not read, so their length does not matter.
    parser_.body_limit(std::numeric_limits<std::uint64_t>::max());
}

std::size_t RequestReader::read(std::string_view bytes) {
    boost::system::error_code error;
    const std::size_t taken = parser_.put(boost::asio::buffer(bytes), error);
    taken_ += taken;
    const std::size_t waiting = parser_.is_header_done() ? 0 : bytes.size() - taken;
    const bool done = parser_.is_header_done();
    if (taken_ + waiting > MAX_HEADER || (!done && error == http::error::header_limit)) {
        state_ = State::TooLong;  // Beast does not count the request line.
    } else if (done) {
        state_ = State::Complete;
    } else if (error && error != http::error::need_more) {
        state_ = State::Bad;
    }
    return taken;
}

bool RequestReader::hasBody() const {
    return parser_.chunked() || parser_.content_length_remaining().value_or(0) > 0;
}

}  // namespace vxweb
