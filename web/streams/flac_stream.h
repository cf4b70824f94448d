#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <sndfile.h>

#include "web/streams/pcm_stream.h"

namespace vxweb {

/// Closes a sound file of libsndfile.
struct SoundFileDeleter {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

/// FLAC by libsndfile.
class FlacStream final : public PcmStream {
  public:
    explicit FlacStream(std::string title) : title_(std::move(title)) {}
    ~FlacStream() override;

    [[nodiscard]] std::string header() const override { return header_; }

  private:
    void start(int rate) override;
    void write(const std::int16_t* frames, std::size_t count, std::string& bytes) override;
    static sf_count_t tell(void* self);
    static sf_count_t seek(sf_count_t offset, int whence, void* self);
    static sf_count_t collect(const void* source, sf_count_t count, void* self);

    std::string title_;
    std::string header_;
    std::string* target_ = nullptr;  ///< Takes FLAC frames; null outside write().
    sf_count_t length_ = 0;          ///< Bytes so far.
    std::unique_ptr<SNDFILE, SoundFileDeleter> file_;
};

}  // namespace vxweb
