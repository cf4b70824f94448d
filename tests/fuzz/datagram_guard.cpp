// A datagram of any content, as the guard lets ENet see it.

#include "stream/datagram_guard.h"

#include <vector>

#include "tests/fuzz/fuzz_input.h"

namespace {

void guard(std::vector<unsigned char>& datagram) {
    static ENetHost host = {};
    guardDatagrams(host);
    host.receivedAddress.port = 1;
    host.receivedData = datagram.data();
    host.receivedDataLength = datagram.size();
    host.intercept(&host, nullptr);
    require(host.receivedDataLength <= datagram.size(), "no datagram grows");
    datagram.resize(host.receivedDataLength);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> datagram = FuzzInput(data, size).exactBytes(size);
    guard(datagram);
    const std::vector<unsigned char> once = datagram;
    guard(datagram);
    require(datagram == once, "what has been let through is let through");
    return 0;
}
