#pragma once

#include <memory>
#include <string>

#include <boost/asio/ssl/context.hpp>

namespace vxweb {

/// Reads the line `user:password` of a file that only its owner may read into `login`. Returns a
/// message on failure, which contains nothing of the file, else an empty text.
[[nodiscard]] std::string readLogin(const std::string& path, std::string& login);

/// Makes a server's context for TLS 1.2 and later from PEM files. Returns a message on failure,
/// else an empty text.
[[nodiscard]] std::string openTls(const std::string& certificate, const std::string& key,
                                  std::unique_ptr<boost::asio::ssl::context>& tls);

}  // namespace vxweb
