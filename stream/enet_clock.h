#pragma once

/// Keeps ENet's clock steady. ENet reads the calendar clock, which jumps when it is set: a jump
/// forward makes every command under way look overdue, so that its client is given up, and after a
/// jump back a service call that wants to wait 1 ms waits until the old time comes round again.
///
/// The program therefore has an enet_time_get of its own that reads the monotonic clock. Where the
/// library has been linked to call only itself, that stays without effect; this function then sets
/// ENet's clock right again, before each block. Thread: capture. Realtime-safe: yes.
void steadyEnetClock();
