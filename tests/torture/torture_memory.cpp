// Allocations that fail, and a ledger of those that are not freed.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <sched.h>

#include "tests/torture/torture_table.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

/// Which site a live block belongs to: a hash table with open addressing and a spin lock.
class Ledger {
  public:
    void enter(void* block, TortureTable::Site* site) {
        if (block == nullptr || site == nullptr) {
            return;
        }
        const Hold hold(lock);
        for (std::size_t i = 0; i < ENTRIES; ++i) {
            Entry& entry = at(block, i);
            if (entry.block == nullptr || entry.block == &removed) {
                entry = {block, site};
                const std::int32_t live = site->live.fetch_add(1) + 1;
                site->peak.store(std::max(site->peak.load(), live));
                return;
            }
        }
    }

    void leave(void* block) {
        if (block == nullptr) {
            return;
        }
        const Hold hold(lock);
        for (std::size_t i = 0; i < ENTRIES; ++i) {
            Entry& entry = at(block, i);
            if (entry.block == nullptr) {
                return;
            }
            if (entry.block == block) {
                entry.site->live.fetch_sub(1);
                entry.block = at(block, i + 1).block == nullptr ? nullptr : &removed;
                return;
            }
        }
    }

  private:
    static constexpr std::size_t ENTRIES = 1U << 17U;

    struct Entry {
        void* block;
        TortureTable::Site* site;
    };

    class Hold {
      public:
        explicit Hold(std::atomic_flag& flag) : held(flag) {
            while (held.test_and_set(std::memory_order_acquire)) {
                ::sched_yield();
            }
        }
        ~Hold() { held.clear(std::memory_order_release); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

      private:
        std::atomic_flag& held;
    };

    Entry& at(void* block, std::size_t step) {
        const auto hash = reinterpret_cast<std::uintptr_t>(block) / 16 * 0x9E3779B97F4A7C15U;
        return entries[((hash >> 32U) + step) % ENTRIES];
    }

    std::atomic_flag lock = ATOMIC_FLAG_INIT;
    char removed = 0;
    Entry entries[ENTRIES] = {};
};

Ledger ledger;

/// One allocation by `allocate`, or null with ENOMEM when it has to fail.
template <class Allocate>
void* allocation(const char* function, const void* caller, Allocate allocate) {
    TortureTable::Site* site = nullptr;
    if (tortureCall(function, caller, &site)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const block = allocate();
    ledger.enter(block, site);
    return block;
}

void* newBlock(std::size_t size, const void* caller) {
    for (;;) {
        void* const block =
            allocation("operator new", caller, [size] { return __libc_malloc(size); });
        if (block != nullptr) {
            return block;
        }
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            throw std::bad_alloc();
        }
        handler();
    }
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    return allocation("malloc", __builtin_return_address(0),
                      [size] { return __libc_malloc(size); });
}

void* calloc(std::size_t count, std::size_t size) {
    return allocation("calloc", __builtin_return_address(0),
                      [count, size] { return __libc_calloc(count, size); });
}

void* realloc(void* block, std::size_t size) {
    TortureTable::Site* site = nullptr;
    if (tortureCall("realloc", __builtin_return_address(0), &site)) {
        errno = ENOMEM;
        return nullptr;
    }
    ledger.leave(block);
    void* const result = __libc_realloc(block, size);
    ledger.enter(result, site);
    return result;
}

void free(void* block) {
    const int savedErrno = errno;
    ledger.leave(block);
    errno = savedErrno;
    __libc_free(block);
}
}

void* operator new(std::size_t size) {
    return newBlock(size, __builtin_return_address(0));
}

void* operator new[](std::size_t size) {
    return newBlock(size, __builtin_return_address(0));
}

void operator delete(void* block) noexcept {
    free(block);
}

void operator delete[](void* block) noexcept {
    free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    free(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept {
    free(block);
}
