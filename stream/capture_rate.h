#pragma once

#include <atomic>

/// True while the capture runs at 48000 Hz. Written by the network thread through Audio::Open
/// before the stream starts, read by the capture thread and the window.
inline std::atomic<bool> vxOptionAltRate{false};

/// True when the capture runs at 48000 Hz, false at 44100 Hz and without a capture. Thread: any.
/// Realtime-safe: yes.
inline bool getVxOptionAltRate() {
    return vxOptionAltRate.load(std::memory_order_relaxed);
}
