// Clients for the system tests, driven by lines on standard input:
//
//   connect NAME HOST PORT DATA RECORD-FILE MTU LOCAL-PORT    (DATA decimal; MTU, port: 0 = any)
//   send NAME CHANNEL reliable|unreliable HEX-BYTES           ("-" for no bytes)
//   disconnect NAME DATA     says good-bye to the server
//   vanish NAME              closes the socket without a word
//   stall NAME | resume NAME stops and goes on reading
//   keep NAME                asks the server's ENet not to thin best-effort packets by itself
//   statistics NAME          prints what was received
//
// It answers with lines on standard output: "connected NAME port N", "disconnected NAME data N",
// "statistics NAME ...", "error ...", and after each command "done". The end of the input ends it.

#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <enet/enet.h>

#include "tests/support/probe_client.h"

namespace {

constexpr int STEP_MS = 2;

std::map<std::string, std::unique_ptr<ProbeClient>> clients;

std::vector<unsigned char> fromHex(const std::string& text) {
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

void connectClient(const std::string& name, std::istream& words) {
    std::string host;
    std::string recordPath;
    std::uint16_t port = 0;
    std::uint32_t data = 0;
    std::uint32_t mtu = 0;
    std::uint16_t localPort = 0;
    words >> host >> port >> data >> recordPath >> mtu >> localPort;
    auto client = std::make_unique<ProbeClient>(name, host, port, data, recordPath, mtu, localPort);
    if (!client->ok()) {
        std::printf("error %s cannot connect\n", name.c_str());
        return;
    }
    clients[name] = std::move(client);
}

void sendMessage(ProbeClient& client, std::istream& words) {
    unsigned channel = 0;
    std::string reliability;
    std::string hex;
    words >> channel >> reliability >> hex;
    client.send(static_cast<std::uint8_t>(channel), reliability == "reliable", fromHex(hex));
}

void obey(const std::string& verb, ProbeClient& client, std::istream& words) {
    if (verb == "send") {
        sendMessage(client, words);
    } else if (verb == "disconnect") {
        std::uint32_t data = 0;
        words >> data;
        client.disconnect(data);
    } else if (verb == "stall" || verb == "resume") {
        client.stall(verb == "stall");
    } else if (verb == "keep") {
        client.refuseThinning();
    } else if (verb == "statistics") {
        client.printStatistics();
    } else {
        std::printf("error unknown command %s\n", verb.c_str());
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
        std::printf("error no client %s\n", name.c_str());
    } else if (verb == "vanish") {
        clients.erase(name);
    } else {
        obey(verb, *clients[name], words);
    }
    std::puts("done");
}

/// Reads what standard input has and obeys the whole lines; false at its end.
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
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    if (enet_initialize() != 0) {
        std::puts("error cannot initialize ENet");
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
