#pragma once

#include <cstddef>

/// Lets ENet take its memory from here from now on, for good.
void watchEnetMemory();

/// Bytes that ENet holds of what it took since then.
std::size_t enetBytes();

/// While one exists, ENet gets no more memory after so many allocations.
class RefusedMemory {
  public:
    explicit RefusedMemory(int allowed = 0);
    ~RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
};
