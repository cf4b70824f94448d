#pragma once

#include <cstddef>

/// Makes ENet allocate here from now on.
void watchEnetMemory();

/// Bytes that ENet holds of what it took since then.
std::size_t enetBytes();

/// While one exists, ENet's allocations fail after this number.
class RefusedMemory {
  public:
    explicit RefusedMemory(int allowed = 0);
    ~RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
};
