#include "tests/support/enet_memory.h"

#include <cstdlib>
#include <malloc.h>

#include <enet/enet.h>

namespace {

constexpr int PLENTY = -1;
int allocationsLeft = PLENTY;
std::size_t held = 0;

void* take(std::size_t size) {
    if (allocationsLeft == 0) {
        return nullptr;
    }
    allocationsLeft -= allocationsLeft > 0 ? 1 : 0;
    void* const memory = std::malloc(size);
    held += ::malloc_usable_size(memory);
    return memory;
}

void giveBack(void* memory) {
    held -= ::malloc_usable_size(memory);
    std::free(memory);
}

void endure() {}

}  // namespace

void watchEnetMemory() {
    ENetCallbacks callbacks = {};
    callbacks.malloc = take;
    callbacks.free = giveBack;
    callbacks.no_memory = endure;
    if (enet_initialize_with_callbacks(ENET_VERSION, &callbacks) != 0) {
        std::abort();
    }
}

std::size_t enetBytes() {
    return held;
}

RefusedMemory::RefusedMemory(int allowed) {
    watchEnetMemory();
    allocationsLeft = allowed;
}

RefusedMemory::~RefusedMemory() {
    allocationsLeft = PLENTY;
}
