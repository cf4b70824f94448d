// Clients for the system tests, driven by lines on standard input:
//
//   connect NAME HOST PORT DATA RECORD-FILE MTU LOCAL-PORT    (DATA decimal; MTU, port: 0 = any)
//   send NAME CHANNEL reliable|unreliable HEX-BYTES           ("-" for no bytes)
//   disconnect NAME DATA     disconnects from the server
//   vanish NAME              closes the socket without a disconnect
//   stall NAME | resume NAME stops and continues reading
//   keep NAME                switches off the server's throttle of best-effort packets
//   statistics NAME          prints what was received
//
// It answers with lines on standard output: "connected NAME port N", "disconnected NAME data N",
// "statistics NAME ...", "error ...", and after each command "done". The end of the input ends it.

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <enet/enet.h>

#include "tests/support/enet_commands.h"
#include "tests/support/test_client.h"

namespace {

constexpr int STEP_MS = 2;

// What the datagrams of all clients showed; the intercept callback has no place for its owner.
std::uint64_t fragments = 0;
std::uint64_t largestDatagram = 0;

/// Looks at one datagram before ENet sees it.
int ENET_CALLBACK watchDatagram(ENetHost* host, ENetEvent* /*event*/) {
    largestDatagram = std::max<std::uint64_t>(largestDatagram, host->receivedDataLength);
    visitCommands(host->receivedData, host->receivedDataLength, [](std::uint8_t type, const auto*) {
        fragments += type == ENET_PROTOCOL_COMMAND_SEND_FRAGMENT ||
                     type == ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT;
    });
    return 0;
}

/// A client that prints what happens to it and writes every packet it receives to a file: a row of
/// records of time since start in ms, length (both 32-bit little-endian), and the packet's bytes.
class ProbeClient {
  public:
    ProbeClient(std::string name, const std::string& server, std::uint16_t port,
                std::uint32_t connectData, const std::string& recordPath, std::uint32_t mtu,
                std::uint16_t localPort)
        : name_(std::move(name)),
          record_(recordPath, std::ios::binary),
          client_(connectData, localPort, mtu, port, server) {
        if (client_.ok()) {
            client_.host->intercept = watchDatagram;
        }
    }

    [[nodiscard]] bool ok() const { return client_.ok() && record_.is_open(); }

    void obey(const std::string& verb, std::istream& words) {
        if (verb == "send") {
            sendMessage(words);
        } else if (verb == "disconnect") {
            std::uint32_t data = 0;
            words >> data;
            client_.leave(data);
        } else if (verb == "stall" || verb == "resume") {
            stalled_ = verb == "stall";
        } else if (verb == "keep") {
            enet_peer_throttle_configure(client_.peer, ENET_PEER_PACKET_THROTTLE_INTERVAL,
                                         ENET_PEER_PACKET_THROTTLE_ACCELERATION, 0);
        } else if (verb == "statistics") {
            std::cout << "statistics " << name_ << " packets " << packets_ << " bytes " << bytes_
                      << " fragments " << fragments << " largest " << largestDatagram << "\n";
        } else {
            std::cout << "error unknown command " << verb << "\n";
        }
    }

    void service() {
        if (!stalled_) {
            client_.service([this](const ENetEvent& event) { handle(event); });
        }
    }

  private:
    void sendMessage(std::istream& words) const {
        unsigned channel = 0;
        std::string reliability;
        std::string hex;
        words >> channel >> reliability >> hex;
        std::vector<unsigned char> bytes;
        for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
            bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
        }
        if (!client_.send(bytes, static_cast<std::uint8_t>(channel),
                          reliability == "reliable" ? ENET_PACKET_FLAG_RELIABLE
                                                    : ENET_PACKET_FLAG_UNRELIABLE_FRAGMENT)) {
            std::cout << "error " << name_ << " cannot send\n";
        }
    }

    void handle(const ENetEvent& event) {
        if (event.type == ENET_EVENT_TYPE_CONNECT) {
            std::cout << "connected " << name_ << " port " << client_.port() << std::endl;
        } else if (event.type == ENET_EVENT_TYPE_DISCONNECT) {
            std::cout << "disconnected " << name_ << " data " << event.data << std::endl;
        } else {
            const ENetPacket& packet = *event.packet;
            ++packets_;
            bytes_ += packet.dataLength;
            const std::uint32_t head[] = {enet_time_get(),
                                          static_cast<std::uint32_t>(packet.dataLength)};
            record_.write(reinterpret_cast<const char*>(head), sizeof head);
            record_.write(reinterpret_cast<const char*>(packet.data),
                          static_cast<std::streamsize>(packet.dataLength));
            record_.flush();
        }
    }

    std::string name_;
    std::ofstream record_;
    TestClient client_;
    bool stalled_ = false;
    std::uint64_t packets_ = 0;
    std::uint64_t bytes_ = 0;
};

std::map<std::string, std::unique_ptr<ProbeClient>> clients;

void connectClient(const std::string& name, std::istream& words) {
    std::string server;
    std::string recordPath;
    std::uint16_t port = 0;
    std::uint32_t data = 0;
    std::uint32_t mtu = 0;
    std::uint16_t localPort = 0;
    words >> server >> port >> data >> recordPath >> mtu >> localPort;
    auto client =
        std::make_unique<ProbeClient>(name, server, port, data, recordPath, mtu, localPort);
    if (client->ok()) {
        clients[name] = std::move(client);
    } else {
        std::cout << "error " << name << " cannot connect\n";
    }
}

void obeyLine(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::string name;
    words >> verb >> name;
    if (verb == "connect") {
        connectClient(name, words);
    } else if (clients.count(name) == 0) {
        std::cout << "error no client " << name << "\n";
    } else if (verb == "vanish") {
        clients.erase(name);
    } else {
        clients[name]->obey(verb, words);
    }
    std::cout << "done" << std::endl;
}

/// Reads standard input and executes whole lines; false at its end.
bool readCommands(std::string& pending) {
    char room[65536];
    const ssize_t count = ::read(STDIN_FILENO, room, sizeof room);
    if (count <= 0) {
        return false;
    }
    pending.append(room, static_cast<std::size_t>(count));
    for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
        obeyLine(pending.substr(0, end));
        pending.erase(0, end + 1);
    }
    return true;
}

}  // namespace

int main() {
    if (enet_initialize() != 0) {
        std::cout << "error cannot initialize ENet\n";
        return 1;
    }
    std::string pending;
    for (bool open = true; open;) {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (::poll(&input, 1, STEP_MS) > 0) {
            open = readCommands(pending);
        }
        for (const auto& entry : clients) {
            entry.second->service();
        }
    }
    clients.clear();
    enet_deinitialize();
    return 0;
}
