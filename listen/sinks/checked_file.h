#pragma once

#include <string>

#include <sndfile.h>

namespace vxlisten {

/// A file for libsndfile that remembers the first failed write, which the encoders of compressed
/// formats do not report. Not thread-safe.
class CheckedFile {
  public:
    CheckedFile() = default;
    ~CheckedFile();
    CheckedFile(const CheckedFile&) = delete;
    CheckedFile& operator=(const CheckedFile&) = delete;

    /// Opens `path` for writing, keeping its content until clear(). False: see errorNumber().
    [[nodiscard]] bool open(const std::string& path);

    /// Empties the file.
    void clear();

    /// Closes the file; false when anything was not written.
    [[nodiscard]] bool close();

    /// Closes the file, and deletes it when open() created it.
    void abandon();

    /// The system's number of the first failure, 0 for none.
    [[nodiscard]] int errorNumber() const { return error_; }

    /// Opens a sound file that writes to this one; null on failure. This must outlive the result.
    SNDFILE* openSound(SF_INFO& info);

  private:
    static sf_count_t length(void* self);
    static sf_count_t seek(sf_count_t offset, int whence, void* self);
    static sf_count_t write(const void* source, sf_count_t count, void* self);
    static sf_count_t tell(void* self);

    std::string path_;
    int descriptor_ = -1;
    bool created_ = false;
    int error_ = 0;
};

}  // namespace vxlisten
