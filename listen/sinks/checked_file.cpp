#include "listen/sinks/checked_file.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vxlisten {

namespace {

constexpr mode_t PERMISSIONS = 0666;

}  // namespace

CheckedFile::~CheckedFile() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

bool CheckedFile::open(const std::string& path) {
    path_ = path;
    descriptor_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, PERMISSIONS);
    created_ = descriptor_ >= 0;
    if (!created_ && errno == EEXIST) {
        descriptor_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    }
    error_ = descriptor_ < 0 ? errno : 0;
    return descriptor_ >= 0;
}

void CheckedFile::clear() {
    // A device cannot be truncated; a write shows whether it works.
    if (ftruncate(descriptor_, 0) != 0 && errno != EINVAL && error_ == 0) {
        error_ = errno;
    }
}

bool CheckedFile::close() {
    if (descriptor_ >= 0 && ::close(descriptor_) != 0 && error_ == 0) {
        error_ = errno;
    }
    descriptor_ = -1;
    return error_ == 0;
}

void CheckedFile::abandon() {
    static_cast<void>(close());
    if (created_) {
        unlink(path_.c_str());
    }
}

SNDFILE* CheckedFile::openSound(SF_INFO& info) {
    SF_VIRTUAL_IO calls = {length, seek, nullptr, write, tell};
    return sf_open_virtual(&calls, SFM_WRITE, &info, this);
}

sf_count_t CheckedFile::length(void* self) {
    struct stat status = {};
    return fstat(static_cast<CheckedFile*>(self)->descriptor_, &status) == 0 ? status.st_size : 0;
}

sf_count_t CheckedFile::seek(sf_count_t offset, int whence, void* self) {
    return lseek(static_cast<CheckedFile*>(self)->descriptor_, offset, whence);
}

sf_count_t CheckedFile::write(const void* source, sf_count_t count, void* self) {
    auto* const file = static_cast<CheckedFile*>(self);
    sf_count_t written = 0;
    while (written < count && file->error_ == 0) {
        const ssize_t result =
            ::write(file->descriptor_, static_cast<const char*>(source) + written,
                    static_cast<std::size_t>(count - written));
        if (result >= 0) {
            written += result;
        } else if (errno != EINTR) {
            file->error_ = errno;
        }
    }
    return written;
}

sf_count_t CheckedFile::tell(void* self) {
    return lseek(static_cast<CheckedFile*>(self)->descriptor_, 0, SEEK_CUR);
}

}  // namespace vxlisten
