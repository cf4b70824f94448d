#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>

#include "app/base/console.h"
#include "audio/Audio.h"
#include "stream/capture_thread.h"
#include "stream/send_path.h"
#include "stream/wire_format.h"

namespace {

constexpr auto HEADER = wire::HEADER_LENGTH;
constexpr auto FRAME = wire::BYTES_PER_FRAME;

/// Appends the frames to the compression buffer and sends it whenever it is full.
void gather(const char* frames, std::size_t frameCount, bool hasInput) {
    while (frameCount > 0) {
        const auto space = static_cast<std::size_t>(Audio::_CaptureBufferSizeComp -
                                                    Audio::_CurrentCaptureIndexComp) /
                           FRAME;
        const std::size_t taken = std::min(space, frameCount);
        std::memcpy(Audio::_CaptureBufferComp + Audio::_CurrentCaptureIndexComp, frames,
                    taken * FRAME);
        Audio::_CurrentCaptureIndexComp += static_cast<std::int32_t>(taken * FRAME);
        frames += taken * FRAME;
        frameCount -= taken;
        if (Audio::_CurrentCaptureIndexComp == Audio::_CaptureBufferSizeComp) {
            processBuffer(Audio::_CaptureBufferComp, Audio::_CaptureBufferSizeComp, hasInput);
            Audio::_CurrentCaptureIndexComp = HEADER;
        }
    }
}

/// Sends one block of at most 338 frames; `input` null means silence.
void deliver(const char* input, std::size_t frameCount) {
    char* const samples = Audio::_CaptureBuffer + HEADER;
    if (input != nullptr) {
        std::memcpy(samples, input, frameCount * FRAME);
    } else {
        std::memset(samples, 0, frameCount * FRAME);
    }
    processBuffer(Audio::_CaptureBuffer, static_cast<int>(HEADER + frameCount * FRAME),
                  input != nullptr);
    gather(samples, frameCount, input != nullptr);
}

}  // namespace

int Audio::recordCallback(const void* input, void* /*output*/, unsigned long frameCount,
                          const PaStreamCallbackTimeInfo* /*timeInfo*/,
                          PaStreamCallbackFlags /*statusFlags*/, void* /*userData*/) {
    assert(captureThread.here() && Audio::_CaptureBuffer != nullptr);
    static bool lastBufferNull = false;

    const ConsoleDeferral deferral;
    if (input == nullptr && !lastBufferNull) {
        consolePuts("Record callback received null buffer");
    }
    lastBufferNull = input == nullptr;

    // PortAudio delivers 338 frames; a longer block must still not overrun the buffer.
    const char* source = static_cast<const char*>(input);
    do {
        const std::size_t piece = std::min<std::size_t>(frameCount, wire::RAW_BLOCK_FRAMES);
        deliver(source, piece);
        frameCount -= piece;
        source += source != nullptr ? piece * FRAME : 0;
    } while (frameCount > 0);
    return paContinue;
}
