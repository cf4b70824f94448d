#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <sndfile.h>

#include "listen/audio/rate_adapter.h"
#include "listen/sinks/checked_file.h"
#include "listen/sinks/pcm_sink.h"

namespace vxlisten {

/// Writes the stream to a sound file; the file's ending chooses the format. The file has the rate
/// of the first frames written (an .opus file always 48000 Hz); later changes of rate are
/// converted. An existing file is only overwritten once there is sound to write.
class Recorder : public PcmSink {
  public:
    Recorder() = default;
    ~Recorder() override;

    /// True when `path` ends in a format that the installed libsndfile writes.
    static bool knowsEnding(const std::string& path);

    /// Creates the file, so that an unwritable one is reported before the stream starts. Its ending
    /// must be known. False on failure, see error().
    [[nodiscard]] bool open(const std::string& path);

    SinkState write(const std::int16_t* frames, std::size_t count, int rate) override;

    /// Completes the file; nothing is written afterwards. May block.
    SinkState finish();

  private:
    bool startFile(int rate);
    /// Updates a WAV file's header each second of sound, so that the file can be read even if the
    /// program is killed.
    void refreshHeader(std::size_t frames);
    SinkState refuse(const std::string& reason);
    [[nodiscard]] SinkState state() const;
    [[nodiscard]] bool wouldOutgrowFormat(std::size_t frames) const;

    std::string path_;
    int format_ = 0;
    CheckedFile file_;
    SNDFILE* sound_ = nullptr;  ///< Owned; null before the first frames and after finish().
    std::unique_ptr<RateAdapter> adapter_;
    bool finished_ = false;
    std::uint64_t framesWritten_ = 0;
    std::size_t framesSinceHeader_ = 0;
};

}  // namespace vxlisten
