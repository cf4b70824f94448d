#include "web/local_addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/asio/ip/address.hpp>

namespace vxweb {

namespace {

struct Free {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

/// Dotted or bracketed; empty for an address that other computers cannot use.
std::string textOf(const sockaddr* address, bool v6) {
    char text[INET6_ADDRSTRLEN] = "";
    if (!v6 && address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                  sizeof text);
        return text;
    }
    const auto* const six = reinterpret_cast<const sockaddr_in6*>(address);
    if (v6 && address->sa_family == AF_INET6 && !IN6_IS_ADDR_LINKLOCAL(&six->sin6_addr)) {
        inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof text);
        return "[" + std::string(text) + "]";
    }
    return {};
}

/// The addresses of one family on interfaces except loopback.
std::vector<std::string> addresses(bool v6) {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, Free> list(first);
    std::vector<std::string> result;
    for (const ifaddrs* it = first; it != nullptr; it = it->ifa_next) {
        if (it->ifa_addr != nullptr && (it->ifa_flags & IFF_UP) != 0 &&
            (it->ifa_flags & IFF_LOOPBACK) == 0) {
            const std::string text = textOf(it->ifa_addr, v6);
            if (!text.empty()) {
                result.push_back(text);
            }
        }
    }
    return result;
}

std::vector<std::string> hosts(const std::string& listen) {
    const auto address = boost::asio::ip::make_address(listen);
    if (!address.is_unspecified()) {
        return {address.is_v6() ? "[" + listen + "]" : listen};
    }
    std::vector<std::string> result = addresses(false);
    if (address.is_v6()) {
        const std::vector<std::string> six = addresses(true);
        result.insert(result.end(), six.begin(), six.end());
    }
    return result.empty() ? std::vector<std::string>{"127.0.0.1"} : result;
}

}  // namespace

std::vector<std::string> webAddresses(const std::string& listen, std::uint16_t port, bool tls) {
    std::vector<std::string> result;
    for (const std::string& host : hosts(listen)) {
        result.push_back((tls ? "https://" : "http://") + host + ":" + std::to_string(port) + "/");
    }
    return result;
}

}  // namespace vxweb
