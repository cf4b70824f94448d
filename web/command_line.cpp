#include "web/command_line.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <variant>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/asio/ip/address.hpp>
#include <nlohmann/json.hpp>

#include "listen/find_server.h"
#include "web/log.h"
#include "web/streams/icecast_target.h"

namespace vxweb {

namespace {

constexpr std::size_t MAX_TITLE = 255;
constexpr int MAX_PORT = 65535;

/// A message about an error, empty for none.
using Complaint = std::string;

/// The values before they are checked.
struct Words {
    std::string host;
    std::string listen;
    std::string maxListeners;
    std::vector<std::string> icecast;
};

void describe(CLI::App& app, Words& words, Options& options) {
    app.add_option("HOST", words.host, "Server, HOST or HOST:PORT; default: the first found");
    app.add_option("--listen", words.listen, "Address to serve on ([::]:59080)")
        ->type_name("ADDRESS:PORT");
    app.add_option("--title", options.title, "Name that listeners see (this computer's)");
    app.add_option("--password-file", options.passwordFile,
                   "File with the login for listeners: one line, user:password");
    app.add_option("--certificate", options.certificate, "Certificate for https, PEM");
    app.add_option("--key", options.key, "The certificate's private key, PEM");
    app.add_option("--host-name", options.hostNames, "Another host name of this computer")
        ->allow_extra_args(false);
    app.add_option("--max-listeners", words.maxListeners, "Maximum number of listeners (500)")
        ->type_name("NUMBER");
    app.add_option("--icecast", words.icecast, "Icecast server to send the Ogg stream to")
        ->allow_extra_args(false)
        ->type_name("URL");
    app.set_version_flag("--version", "velantrix-web " VELANTRIX_WEB_VERSION);
}

template <class Number>
bool readNumber(std::string_view text, int minimum, int maximum, Number& number) {
    int value = -1;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || last != end || value < minimum || value > maximum) {
        return false;
    }
    number = static_cast<Number>(value);
    return true;
}

bool isName(std::string_view text) {
    return !text.empty() && text.front() != '.' && text.find("..") == std::string_view::npos &&
           std::all_of(text.begin(), text.end(), [](unsigned char letter) {
               return std::isalnum(letter) != 0 || letter == '.' || letter == '-' || letter == '_';
           });
}

Complaint takeHost(const std::string& text, vxlisten::ServerChoice& server) {
    if (text.empty()) {
        return {};
    }
    const std::size_t colon = text.find(':');
    server.host = text.substr(0, colon);
    server.portChosen = colon != std::string::npos;
    if (!isName(server.host) ||
        (server.portChosen && !readNumber(text.substr(colon + 1), 1, MAX_PORT, server.port))) {
        return "HOST must be a name or an IPv4 address, or one of these with :PORT";
    }
    return {};
}

Complaint takeListen(const std::string& text, ListenAddress& listen) {
    if (text.empty()) {
        return {};
    }
    const std::size_t colon = std::min(text.rfind(':'), text.size());
    std::string address = text.substr(0, colon);
    const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
    if (bracketed) {
        address = address.substr(1, address.size() - 2);
    }
    boost::system::error_code error;
    const auto parsed = boost::asio::ip::make_address(address, error);
    if (error || parsed.is_v6() != bracketed || colon == text.size() ||
        !readNumber(text.substr(colon + 1), 0, MAX_PORT, listen.port)) {
        return "--listen needs ADDRESS:PORT, such as 127.0.0.1:59080 or [::]:59080";
    }
    listen.address = address;
    return {};
}

std::string ownName() {
    char name[256] = "";
    const bool known = gethostname(name, sizeof name - 1) == 0 && name[0] != '\0';
    return known ? name : "velantrix-web";
}

bool isUtf8(const std::string& text) {
    try {
        static_cast<void>(nlohmann::json(text).dump());
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

Complaint takeTitle(bool given, std::string& title) {
    if (!given) {
        title = ownName();
    }
    const bool printable = std::none_of(title.begin(), title.end(), [](unsigned char letter) {
        return letter < 0x20 || letter == 0x7F;
    });
    return printable && title.size() <= MAX_TITLE && isUtf8(title)
               ? Complaint()
               : "--title must be one line of UTF-8, at most 255 bytes, without control characters";
}

Complaint takeMaxListeners(const std::string& text, std::size_t& maximum) {
    return text.empty() || readNumber(text, 1, 100000, maximum)
               ? Complaint()
               : "--max-listeners must be a number from 1 to 100000";
}

Complaint checkNames(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (!isName(name)) {
            return "--host-name must consist of letters, digits, '-', '_' and single dots";
        }
    }
    return {};
}

Complaint takeIcecast(const std::vector<std::string>& urls, std::vector<IcecastTarget>& targets) {
    // Nothing else writes the environment.
    const char* const password =
        std::getenv("VELANTRIX_ICECAST_PASSWORD");  // NOLINT(concurrency-mt-unsafe)
    for (const std::string& url : urls) {
        const auto target = parseIcecastUrl(url, password);
        if (const auto* const complaint = std::get_if<std::string>(&target)) {
            return *complaint;
        }
        targets.push_back(std::get<IcecastTarget>(target));
    }
    return {};
}

/// A message of CLI11, which quotes arguments: passwords must not appear in logs.
std::string withoutLogins(std::string text, const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        const std::string_view login = loginOf(argument);
        std::size_t at = login.empty() ? std::string::npos : text.find(login);
        while (at != std::string::npos) {
            text.erase(at, login.size());
            at = text.find(login, at);
        }
    }
    return text;
}

/// An empty value, such as of an unset variable, must not become the default.
Complaint checkGiven(const CLI::App& app) {
    for (const CLI::Option* const option : app.get_options()) {
        const auto& values = option->results();
        if (std::find(values.begin(), values.end(), "") != values.end()) {
            return option->get_name() + " must not be empty";
        }
    }
    return {};
}

Complaint check(const CLI::App& app, const Words& words, Options& options) {
    for (const Complaint& complaint :
         {checkGiven(app), takeHost(words.host, options.server),
          takeListen(words.listen, options.listen),
          takeTitle(app.count("--title") > 0, options.title), checkNames(options.hostNames),
          takeMaxListeners(words.maxListeners, options.maxListeners),
          takeIcecast(words.icecast, options.icecast)}) {
        if (!complaint.empty()) {
            return complaint;
        }
    }
    if (options.certificate.empty() != options.key.empty()) {
        return "--certificate and --key are needed together";
    }
    return {};
}

}  // namespace

CommandLine readCommandLine(int argc, char** argv) {
    CommandLine result;
    Words words;
    CLI::App app("Sends a Velantrix Server's sound to browsers, media players and Icecast",
                 "velantrix-web");
    describe(app, words, result.options);
    const std::vector<std::string> arguments = takeArguments(argc, argv);
    try {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::Success& success) {
        result.status = app.exit(success);
        return result;
    } catch (const CLI::ParseError& error) {
        complain(withoutLogins(error.what(), arguments));
        result.status = STATUS_USAGE;
        return result;
    }
    const Complaint complaint = check(app, words, result.options);
    if (!complaint.empty()) {
        complain(complaint);
        result.status = STATUS_USAGE;
    }
    return result;
}

}  // namespace vxweb
