#include "stream/datagram_limit.h"

#include <cassert>
#include <cstdint>
#include <linux/filter.h>
#include <sys/socket.h>

#include "stream/capture_thread.h"

namespace {

/// The filter of a UDP socket sees the UDP header, too.
constexpr std::uint32_t UDP_HEADER_LENGTH = 8;
constexpr std::uint32_t MAX_LENGTH = ENET_PROTOCOL_MAXIMUM_MTU + UDP_HEADER_LENGTH;
constexpr std::uint32_t MIN_LENGTH = sizeof(enet_uint16) + UDP_HEADER_LENGTH;
constexpr std::uint32_t KEEP_WHOLE = 0xFFFFFFFFU;
constexpr std::uint32_t DROP = 0;

}  // namespace

bool limitDatagrams(const ENetHost& host) {
    assert(!captureThread.elsewhere());
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, MAX_LENGTH, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, MIN_LENGTH, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, DROP),
        BPF_STMT(BPF_RET | BPF_K, KEEP_WHOLE),
    };
    const sock_fprog program = {sizeof steps / sizeof *steps, steps};
    return ::setsockopt(host.socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}
