#pragma once

#include <cstdint>

/// Sequence numbers of the next raw and the next compressed packet; they wrap at 2^32.
/// Thread: capture.
extern std::uint32_t seqNum;
extern std::uint32_t seqNumComp;

/// Sends one block of captured sound to the streaming clients and services the ENet host once.
///
/// `buffer` starts with 16 bytes, where this writes the header, followed by interleaved stereo
/// frames, which it does not change. `length` counts both: exactly 1936 marks a block of 480
/// frames for compression, any other length from 16 on a raw block, less than 16 sends nothing.
/// `hasInput` is false when the frames are silence in place of missing input. Returns the result of
/// the service step: negative for an ENet error, 0 for no event, positive for an event handled.
/// Thread: capture. Realtime-safe: yes, except for ENet's packet allocations and a 1 ms wait.
int processBuffer(char* buffer, int length, bool hasInput);

/// The unsigned 16-bit value of two bytes.
int twosCompShort(unsigned char high, unsigned char low);
