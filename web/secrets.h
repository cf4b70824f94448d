#pragma once

#include <memory>
#include <string>

#include <boost/asio/ssl/context.hpp>

namespace vxweb {

/// Reads the one line `user:password` of a file that nobody else may read into `login`. Returns one
/// sentence when it is not such a file, nothing otherwise. In the sentence there is nothing of what
/// it holds.
[[nodiscard]] std::string readLogin(const std::string& path, std::string& login);

/// Makes the context of a server that speaks TLS 1.2 and later, from PEM files. Returns one
/// sentence when they are of no use, nothing otherwise.
[[nodiscard]] std::string openTls(const std::string& certificate, const std::string& key,
                                  std::unique_ptr<boost::asio::ssl::context>& tls);

}  // namespace vxweb
