// Makes a share of ENet's allocations fail (LD_PRELOAD). The file named by VELANTRIX_SCARCE holds
// two 32-bit numbers: how many of a thousand fail, and the seed of the choice.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(std::size_t size);
}

namespace {

struct Orders {
    std::uint32_t perMille;
    std::uint32_t seed;
};

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

const volatile Orders* orders = nullptr;
Range enetCode;

int findEnet(dl_phdr_info* info, std::size_t /*size*/, void* /*unused*/) {
    if (std::strstr(info->dlpi_name, "libenet") == nullptr) {
        return 0;
    }
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
            enetCode.begin = info->dlpi_addr + part.p_vaddr;
            enetCode.end = enetCode.begin + part.p_memsz;
        }
    }
    return 1;
}

__attribute__((constructor)) void start() {
    const char* const path = std::getenv("VELANTRIX_SCARCE");
    const int file = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) {
        return;
    }
    void* const place = ::mmap(nullptr, sizeof(Orders), PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    ::dl_iterate_phdr(findEnet, nullptr);
    if (place != MAP_FAILED && enetCode.end != 0) {
        orders = static_cast<const Orders*>(place);
    }
}

/// Repeatable by the seed; ENet is used by one thread only.
std::uint32_t nextRandom() {
    static std::uint32_t state = orders->seed | 1U;
    state ^= state << 13U;
    state ^= state >> 17U;
    state ^= state << 5U;
    return state;
}

bool fails(const void* caller) {
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return orders != nullptr && orders->perMille != 0 && address >= enetCode.begin &&
           address < enetCode.end && nextRandom() % 1000 < orders->perMille;
}

}  // namespace

extern "C" void* malloc(std::size_t size) {
    if (fails(__builtin_return_address(0))) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}
