#pragma once

#include <cstdint>
#include <vector>

#include <portaudio.h>

/// Takes PortAudio's place at link time: a capture device that delivers a block only when the test
/// says so, as fast as the test likes.
class DrivenCapture {
  public:
    /// Waits until the server has started its stream; false when it does not within seconds.
    static bool waitForStart();

    /// Calls the server's callback with interleaved stereo samples on the calling thread.
    static void deliver(const std::vector<std::int16_t>& samples);
};
