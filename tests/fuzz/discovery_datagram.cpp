// Discovery datagrams of any content reach the responder itself. Its socket's calls are diverted at
// link time: what it receives comes from the input, a row of datagrams with a length byte before
// each, and what it answers and prints is judged. Pauses are left out.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <vector>

#include "discovery/multi_host.h"
#include "stream/wire_format.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

constexpr std::size_t MAX_PRINTED = 255;
constexpr std::uint16_t SENDER_PORT = 40000;

/// Ends the responder, which otherwise never returns.
struct EndOfInput {};

/// A file in memory that takes standard output's place.
int console = -1;
FuzzInput* input = nullptr;
std::string datagram;  ///< The one that was received last.
std::vector<std::uint16_t> answers;

std::string takePrinted() {
    const ::off_t length = ::lseek(console, 0, SEEK_CUR);
    std::string text(static_cast<std::size_t>(std::max<::off_t>(0, length)), '\0');
    require(::pread(console, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
            "what was printed can be read");
    ::lseek(console, 0, SEEK_SET);
    return text;
}

void checkLine(const std::string& line) {
    const std::string head =
        "Multicast received " + std::to_string(std::min(datagram.size(), MAX_PRINTED)) + " bytes: ";
    require(line.compare(0, head.size(), head) == 0, "the line begins with the length");
    require(line.back() == '\n', "the line ends");
    const std::string text = line.substr(head.size(), line.size() - head.size() - 1);
    const std::size_t shown = std::min(datagram.find('\0'), datagram.size());
    require(text.size() == std::min(shown, MAX_PRINTED), "the text ends with the datagram's");
    for (std::size_t i = 0; i < text.size(); ++i) {
        require(std::iscntrl(static_cast<unsigned char>(text[i])) == 0, "no control byte is shown");
        require(
            std::isprint(static_cast<unsigned char>(datagram[i])) == 0 || text[i] == datagram[i],
            "what can be read is shown");
    }
}

/// Judges what the last datagram brought about.
void checkOutcome() {
    const std::string printed = takePrinted();
    std::vector<std::uint16_t> expected;
    if (datagram == wire::DISCOVERY_QUERY) {
        expected = {wire::DEFAULT_DISCOVERY_PORT};
    } else if (datagram == wire::DISCOVERY_QUERY2) {
        expected = {SENDER_PORT};
    }
    require(answers == expected, "exactly the two queries are answered");
    answers.clear();
    if (datagram.empty()) {
        require(printed.empty(), "an empty datagram is passed over");
    } else {
        checkLine(printed);
    }
}

}  // namespace

// By the names that the linker's --wrap gives them.
extern "C" {
int __wrap_setsockopt(int handle, int level, int name, const void* value, socklen_t length);
int __wrap_bind(int handle, const sockaddr* address, socklen_t length);
ssize_t __wrap_recvfrom(int handle, void* buffer, std::size_t room, int flags, sockaddr* sender,
                        socklen_t* length);
ssize_t __wrap_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* receiver, socklen_t length);
void __wrap__Z5Sleepi(int milliseconds);

int __wrap_setsockopt(int, int, int, const void*, socklen_t) {
    return 0;
}

int __wrap_bind(int, const sockaddr*, socklen_t) {
    return 0;
}

ssize_t __wrap_recvfrom(int, void* buffer, std::size_t room, int, sockaddr* sender,
                        socklen_t* length) {
    static bool first = true;
    if (!first) {
        checkOutcome();
    }
    first = input->empty();
    if (first) {
        throw EndOfInput();
    }
    const std::size_t wanted = input->byte();
    // 255 means the rest, so that datagrams can be longer than the responder's buffer.
    datagram = wanted == 255 ? input->rest() : input->bytes(wanted);
    const std::size_t taken = std::min(room, datagram.size());
    std::memcpy(buffer, datagram.data(), taken);
    sockaddr_in from = {};
    from.sin_family = AF_INET;
    from.sin_port = htons(SENDER_PORT);
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(sender, &from, std::min<std::size_t>(*length, sizeof from));
    return static_cast<ssize_t>(taken);
}

ssize_t __wrap_sendto(int, const void* bytes, std::size_t size, int, const sockaddr* receiver,
                      socklen_t length) {
    require(std::string(static_cast<const char*>(bytes), size) == wire::DISCOVERY_RESPONSE,
            "there is one answer");
    sockaddr_in to = {};
    require(length == sizeof to, "an answer goes to an IPv4 address");
    std::memcpy(&to, receiver, sizeof to);
    require(ntohl(to.sin_addr.s_addr) == INADDR_LOOPBACK, "an answer goes to who asked");
    answers.push_back(ntohs(to.sin_port));
    return static_cast<ssize_t>(size);
}

// void Sleep(int)
void __wrap__Z5Sleepi(int) {}
}

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    console = ::memfd_create("console", MFD_CLOEXEC);
    require(console >= 0 && ::dup2(console, STDOUT_FILENO) >= 0, "standard output can be read");
    ::unsetenv("VELANTRIX_SERVER_PORT");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput row(data, size);
    input = &row;
    try {
        multiHost();
    } catch (const EndOfInput&) {
        return 0;
    }
    require(false, "the responder does not end by itself");
    return 0;
}
