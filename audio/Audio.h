#pragma once

#include <atomic>
#include <cstdint>

#include <portaudio.h>  // IWYU pragma: export

/// The capture: one 16-bit stereo stream on the default input device, at 48000 or 44100 Hz.
///
/// Every block of 338 frames goes to processBuffer() at once, and again in blocks of 480 frames for
/// compression. Buffers are interleaved, left then right, native byte order, with 16 bytes of room
/// for the packet header in front.
class Audio {
  public:
    /// Opens and starts the capture stream. `isRate48k` becomes true when the stream runs at 48000
    /// Hz, false at 44100 Hz and after a failure. Returns 0, or a negative PortAudio code after
    /// reporting it on standard error. The callback may run before this returns. Discards standard
    /// error during PortAudio's start-up unless "-verbose" was given. Thread: network.
    static int Open(int unused, std::atomic<bool>& isRate48k);

    /// Closes the stream and terminates PortAudio; returns the result of the close. May hang with a
    /// bad driver. A later Open() fails. Thread: audio shutdown, never main.
    static int Close();

    /// PortAudio's stream callback; always returns paContinue. Only `input` (null: silence is
    /// substituted) and `frameCount` are used. Thread: capture. Realtime-safe: yes.
    static int recordCallback(const void* input, void* output, unsigned long frameCount,
                              const PaStreamCallbackTimeInfo* timeInfo,
                              PaStreamCallbackFlags statusFlags, void* userData);

    static PaStream* stream;  ///< The open stream, or null. Owned; closed by Close().

    // Allocated by Open() and never freed: the callback may outlive a hung close.
    static char* _CaptureBuffer;                   ///< 1368 bytes: header room and 338 frames.
    static char* _CaptureBufferComp;               ///< 1936 bytes: header room and 480 frames.
    static std::int32_t _CaptureBufferSizeComp;    ///< Bytes in _CaptureBufferComp.
    static std::int32_t _CurrentCaptureIndexComp;  ///< Next free byte in _CaptureBufferComp.
};
