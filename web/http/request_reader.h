#pragma once

#include <cstddef>
#include <string_view>

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>

namespace vxweb {

using Request = boost::beast::http::request<boost::beast::http::empty_body>;

/// Reads the header of one request, in pieces of any size. Pure.
class RequestReader {
  public:
    /// Maximum bytes of a header.
    static constexpr std::size_t MAX_HEADER = 8192;

    enum class State { Reading, Complete, Bad, TooLong };

    RequestReader();

    /// Continues. `bytes` begins with what was not taken before; returns how many are taken.
    std::size_t read(std::string_view bytes);

    [[nodiscard]] State state() const { return state_; }

    /// Complete: the request, without its body, which is never read.
    [[nodiscard]] const Request& request() const { return parser_.get(); }

    /// Complete: true when a body follows the header.
    [[nodiscard]] bool hasBody() const;

  private:
    boost::beast::http::request_parser<boost::beast::http::empty_body> parser_;
    std::size_t taken_ = 0;
    State state_ = State::Reading;
};

}  // namespace vxweb
