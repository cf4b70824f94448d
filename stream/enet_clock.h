#pragma once

/// Keeps ENet's clock steady. ENet reads the calendar clock, which jumps when it is set: after a
/// jump forward every command under way looks overdue and its client is disconnected; after a jump
/// back a service call of 1 ms waits until the old time is reached.
///
/// The program therefore defines enet_time_get itself, with the monotonic clock. That has no effect
/// where the library is linked to its own symbols; so this function also sets ENet's clock before
/// each block. Thread: capture. Realtime-safe: yes.
void steadyEnetClock();
