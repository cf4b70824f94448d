// The sites, and the one call that fails.
//
// Environment: TORTURE_TABLE  file for the TortureTable (required)
//              TORTURE_FAULT  HASH:N, the N-th call (from 1) of the site HASH (hexadecimal) fails
//
// Calls count when the server itself, ENet or Opus makes them; what Qt and other libraries need
// among themselves is theirs.

#include "tests/torture/torture_table.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <initializer_list>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int STACK_DEPTH = 16;
constexpr int WAY_LENGTH = 4;
constexpr int FRAMES_BEFORE_OURS = 5;
constexpr std::size_t MAX_MODULES = 8;
constexpr const char* WATCHED[] = {"VelantrixServer", "libenet", "libopus", "libstdc++"};
constexpr const char* ONLY_PASSED_THROUGH = "libstdc++";

struct Module {
    std::uintptr_t begin;
    std::uintptr_t end;
    const char* name;  // One of WATCHED.
};

TortureTable* table = nullptr;
Module modules[MAX_MODULES];
std::atomic<std::size_t> moduleCount{0};
std::uint64_t faultHash = 0;
std::uint32_t faultCall = 0;
thread_local bool busy = false;
thread_local bool servingSound = false;

/// A caller within a watched module.
struct Frame {
    const Module* module = nullptr;
    std::uintptr_t offset = 0;
};

const char* watchedName(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    const char* const file = slash == nullptr ? path : slash + 1;
    for (const char* const name : WATCHED) {
        if (std::strncmp(file, name, std::strlen(name)) == 0) {
            return name;
        }
    }
    return nullptr;
}

int noteModule(dl_phdr_info* info, std::size_t /*size*/, void* countPointer) {
    auto& count = *static_cast<std::size_t*>(countPointer);
    const bool isProgram = info->dlpi_name[0] == '\0';
    const char* const name = isProgram ? WATCHED[0] : watchedName(info->dlpi_name);
    if (name == nullptr || count == MAX_MODULES) {
        return 0;
    }
    Module found{info->dlpi_addr, info->dlpi_addr, name};
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD) {
            const std::uintptr_t end = info->dlpi_addr + segment.p_vaddr + segment.p_memsz;
            found.end = end > found.end ? end : found.end;
        }
    }
    modules[count++] = found;
    return 0;
}

Frame locate(const void* address) {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    const std::size_t count = moduleCount.load(std::memory_order_acquire);
    for (std::size_t i = 0; i < count; ++i) {
        if (value >= modules[i].begin && value < modules[i].end) {
            return {&modules[i], value - modules[i].begin};
        }
    }
    return {};
}

bool isOurs(const Frame& frame) {
    return frame.module != nullptr && std::strcmp(frame.module->name, ONLY_PASSED_THROUGH) != 0;
}

/// The innermost callers in watched modules; their number, 0 when the call is not ours.
std::size_t findWay(Frame (&way)[WAY_LENGTH]) {
    void* stack[STACK_DEPTH];
    const int depth = ::backtrace(stack, STACK_DEPTH);
    std::size_t length = 0;
    for (int i = 0; i < depth && length < WAY_LENGTH; ++i) {
        const Frame frame = locate(stack[i]);
        if (isOurs(frame)) {
            way[length++] = frame;
        } else if (length == 0 && i >= FRAMES_BEFORE_OURS) {
            break;
        }
    }
    return length;
}

std::uint64_t mix(std::uint64_t hash, const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 1099511628211U;
    }
    return hash;
}

std::uint64_t hashOf(const char* function, const Frame* way, std::size_t length) {
    std::uint64_t hash = mix(14695981039346656037U, function, std::strlen(function));
    for (std::size_t i = 0; i < length; ++i) {
        hash = mix(hash, way[i].module->name, std::strlen(way[i].module->name));
        hash = mix(hash, &way[i].offset, sizeof way[i].offset);
    }
    return hash == 0 ? 1 : hash;
}

void describe(TortureTable::Site& site, const char* function, const Frame* way,
              std::size_t length) {
    std::snprintf(site.function, sizeof site.function, "%s", function);
    std::size_t used = 0;
    for (std::size_t i = 0; i < length && used < sizeof site.way; ++i) {
        const int written =
            std::snprintf(site.way + used, sizeof site.way - used, "%s%s+0x%lx", i > 0 ? " " : "",
                          way[i].module->name, static_cast<unsigned long>(way[i].offset));
        used += static_cast<std::size_t>(written);
    }
}

/// The site's entry, made on its first call; null when the table is full.
TortureTable::Site* siteOf(const char* function, const Frame* way, std::size_t length) {
    const std::uint64_t hash = hashOf(function, way, length);
    for (std::size_t i = 0; i < TortureTable::SITES; ++i) {
        TortureTable::Site& site = table->site[(hash + i) % TortureTable::SITES];
        std::uint64_t present = 0;
        if (site.hash.compare_exchange_strong(present, hash)) {
            describe(site, function, way, length);
            return &site;
        }
        if (present == hash) {
            return &site;
        }
    }
    return nullptr;
}

void readFault() {
    const char* const text = std::getenv("TORTURE_FAULT");
    if (text != nullptr) {
        char* rest = nullptr;
        faultHash = std::strtoull(text, &rest, 16);
        faultCall =
            *rest == ':' ? static_cast<std::uint32_t>(std::strtoul(rest + 1, nullptr, 10)) : 1U;
    }
}

[[gnu::constructor]] void start() {
    busy = true;
    const char* const path = std::getenv("TORTURE_TABLE");
    const int file = path == nullptr ? -1 : ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::ftruncate(file, sizeof(TortureTable)) != 0) {
        std::perror("torture: no table");
        std::_Exit(3);
    }
    void* const memory =
        ::mmap(nullptr, sizeof(TortureTable), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    readFault();
    ::unsetenv("LD_PRELOAD");
    void* stack[1];
    ::backtrace(stack, 1);  // Loads what it needs now.
    refreshModules();
    table = static_cast<TortureTable*>(memory);
    busy = false;
}

}  // namespace

void refreshModules() {
    std::size_t count = 0;
    ::dl_iterate_phdr(noteModule, &count);
    moduleCount.store(count, std::memory_order_release);
}

bool tortureCall(const char* function, const void* caller, TortureTable::Site** site) {
    if (table == nullptr || busy || locate(caller).module == nullptr) {
        return false;
    }
    const int savedErrno = errno;
    busy = true;
    Frame way[WAY_LENGTH];
    const std::size_t length = findWay(way);
    TortureTable::Site* const found = length > 0 ? siteOf(function, way, length) : nullptr;
    bool fails = false;
    if (found != nullptr) {
        if (servingSound) {
            found->stream.store(1, std::memory_order_relaxed);
        }
        fails = found->calls.fetch_add(1) + 1 == faultCall && found->hash.load() == faultHash;
        if (fails) {
            table->faults.fetch_add(1);
        }
        if (site != nullptr) {
            *site = found;
        }
    }
    busy = false;
    errno = savedErrno;
    return fails;
}

ServingSound::ServingSound() {
    servingSound = true;
}

ServingSound::~ServingSound() {
    servingSound = false;
}

void* nextFunction(const char* name) {
    const bool savedBusy = busy;
    busy = true;
    void* const found = realDlsym()(RTLD_NEXT, name);
    busy = savedBusy;
    return found;
}

DlsymFunction* realDlsym() {
    // This library defines dlsym, so the real one is only found by its version.
    static DlsymFunction* const real = [] {
        void* found = nullptr;
        for (const char* const version : {"GLIBC_2.34", "GLIBC_2.2.5", "GLIBC_2.17"}) {
            found = found == nullptr ? ::dlvsym(RTLD_NEXT, "dlsym", version) : found;
        }
        return reinterpret_cast<DlsymFunction*>(found);
    }();
    return real;
}
