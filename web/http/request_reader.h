#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>

namespace vxweb {

using Request = boost::beast::http::request<boost::beast::http::empty_body>;

/// Reads the header of one request, in whatever pieces it comes. Pure.
class RequestReader {
  public:
    /// Bytes of the longest header.
    static constexpr std::size_t MAX_HEADER = 8192;

    enum class State { Reading, Complete, Bad, TooLong };

    RequestReader();

    /// Reads on. `bytes` begins with what was not taken before; returns how many are taken now.
    std::size_t read(std::string_view bytes);

    [[nodiscard]] State state() const { return state_; }

    /// Complete: the request. It is whole: a body that was announced is never read.
    [[nodiscard]] const Request& request() const { return parser_.get(); }

    /// Complete: true when something that is not read follows the header.
    [[nodiscard]] bool hasBody() const;

  private:
    boost::beast::http::request_parser<boost::beast::http::empty_body> parser_;
    std::size_t taken_ = 0;
    State state_ = State::Reading;
};

}  // namespace vxweb
