// A datagram of any content, whose long messages are cut before ENet reads it.

#include "stream/long_message.h"

#include <vector>

#include "tests/fuzz/fuzz_input.h"

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> datagram = FuzzInput(data, size).exactBytes(size);
    cutLongMessages(datagram.data(), datagram.size());
    const std::vector<unsigned char> once = datagram;
    cutLongMessages(datagram.data(), datagram.size());
    require(datagram == once, "what is cut is short enough");
    return 0;
}
