#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "web/http/request_reader.h"
#include "web/http/response.h"

namespace vxweb {

/// Decides which requests are refused.
class Access {
  public:
    /// `names` of this computer, besides addresses and localhost. `login`: "user:password", or
    /// empty for none.
    Access(const std::vector<std::string>& names, const std::string& login);

    /// The response to a refused request, or nothing. `stream`: the request is for a stream, which
    /// old radios request without a Host.
    [[nodiscard]] std::optional<Response> refuse(const Request& request, bool stream) const;

  private:
    [[nodiscard]] bool isOwnName(std::string_view host) const;
    [[nodiscard]] bool isAuthorized(std::string_view authorization) const;

    std::vector<std::string> names_;  ///< Lower case.
    std::string credentials_;         ///< As a browser sends them, in base64.
};

/// This computer's name, also without its domain, each also with ".local".
std::vector<std::string> ownNames();

/// The name or address in "HOST[:PORT]", in lower case, without brackets and a last dot. Empty when
/// it is invalid. Pure.
std::string hostOf(std::string_view authority);

/// True when an Origin's "SCHEME://HOST[:PORT]" names the same host and port as a Host. Pure.
bool sameOrigin(std::string_view origin, std::string_view host);

}  // namespace vxweb
