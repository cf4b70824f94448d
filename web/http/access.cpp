#include "web/http/access.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <unistd.h>

#include <boost/asio/ip/address.hpp>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

namespace vxweb {

namespace {

namespace http = boost::beast::http;

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char letter) {
        return static_cast<char>(letter < 0x80 ? std::tolower(letter) : letter);
    });
    return result;
}

bool isAddress(const std::string& host) {
    boost::system::error_code error;
    boost::asio::ip::make_address(host, error);
    return !error;
}

std::string base64(const std::string& text) {
    std::string result(4 * ((text.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    result.resize(static_cast<std::size_t>(length));
    return result;
}

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

Digest digestOf(std::string_view text) {
    Digest digest{};
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return digest;
}

/// Compares in constant time, by digests.
bool sameSecret(std::string_view one, std::string_view other) {
    const Digest first = digestOf(one);
    const Digest second = digestOf(other);
    return CRYPTO_memcmp(first.data(), second.data(), first.size()) == 0;
}

std::string_view toView(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

/// The port in "HOST:PORT", or that of the scheme.
std::string portOf(std::string_view authority, const char* usual) {
    const std::size_t colon = authority.rfind(':');
    const std::size_t bracket = authority.rfind(']');
    const bool given =
        colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket);
    return given ? std::string(authority.substr(colon + 1)) : usual;
}

}  // namespace

std::vector<std::string> ownNames() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return {};
    }
    const std::string whole = name;
    const std::string first = whole.substr(0, whole.find('.'));
    return {whole, first, whole + ".local", first + ".local"};
}

std::string hostOf(std::string_view authority) {
    constexpr std::size_t MAX_LENGTH = 260;  // The longest name, a dot, a colon and a port.
    if (authority.size() > MAX_LENGTH) {
        return {};
    }
    const bool literal = !authority.empty() && authority.front() == '[';
    const std::size_t begin = literal ? 1 : 0;
    const std::size_t end = std::min(authority.find(literal ? ']' : ':'), authority.size());
    const std::string_view port = authority.substr(std::min(end + begin, authority.size()));
    if ((literal && end == authority.size()) ||
        (!port.empty() &&
         (port.front() != ':' || port.find_first_not_of("0123456789", 1) != port.npos))) {
        return {};
    }
    std::string_view host = authority.substr(begin, end - begin);
    if (!host.empty() && host.back() == '.') {
        host.remove_suffix(1);
    }
    return lowered(host);
}

bool sameOrigin(std::string_view origin, std::string_view host) {
    const std::size_t end = origin.find("://");
    if (end == std::string_view::npos) {
        return false;
    }
    const char* const usual = lowered(origin.substr(0, end)) == "https" ? "443" : "80";
    const std::string_view authority = origin.substr(end + 3);
    return !hostOf(host).empty() && hostOf(authority) == hostOf(host) &&
           portOf(authority, usual) == portOf(host, usual);
}

Access::Access(const std::vector<std::string>& names, const std::string& login)
    : credentials_(login.empty() ? login : base64(login)) {
    for (const std::string& name : names) {
        names_.push_back(hostOf(name));
    }
    names_.emplace_back("localhost");
}

bool Access::isOwnName(std::string_view authority) const {
    const std::string host = hostOf(authority);
    return isAddress(host) ||
           (!host.empty() && std::find(names_.begin(), names_.end(), host) != names_.end());
}

bool Access::isAuthorized(std::string_view authorization) const {
    constexpr std::string_view SCHEME = "basic ";
    if (credentials_.empty()) {
        return true;
    }
    const bool basic = lowered(authorization.substr(0, SCHEME.size())) == SCHEME;
    std::string_view given = authorization.substr(std::min(authorization.size(), SCHEME.size()));
    given.remove_prefix(std::min(given.size(), given.find_first_not_of(' ')));
    return sameSecret(given, credentials_) && basic;
}

std::optional<Response> Access::refuse(const Request& request, bool stream) const {
    const auto hosts = request.count(http::field::host);
    const std::string_view host = toView(request[http::field::host]);
    if (hosts > 1 || (hosts == 0 && (request.version() >= 11 || !stream))) {
        return sentence(400, "The request must have exactly one Host.");
    }
    if (hosts == 1 && !isOwnName(host)) {
        return sentence(403, "The host is not a name of this server.");
    }
    const auto origin = request.find(http::field::origin);
    if (request.find(http::field::upgrade) != request.end() && origin != request.end() &&
        !sameOrigin(toView(origin->value()), host)) {
        return sentence(403, "Pages of other servers may not connect.");
    }
    if (!isAuthorized(toView(request[http::field::authorization]))) {
        Response response = sentence(401, "A user name and a password are required.");
        response.fields = "WWW-Authenticate: Basic realm=\"velantrix-web\", charset=\"UTF-8\"\r\n";
        return response;
    }
    return std::nullopt;
}

}  // namespace vxweb
