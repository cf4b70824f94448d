#pragma once

#include <cstddef>

/// Makes ENet allocate here from now on.
void watchEnetMemory();

/// Bytes that ENet has allocated since then and not freed.
std::size_t enetBytes();

/// While one exists, ENet's allocations fail after this number.
class RefusedMemory {
  public:
    explicit RefusedMemory(int allowed = 0);
    ~RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
};
