#include "bench/capture_table.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

CaptureTable* mapCaptureTable(const char* path, bool create) {
    const int file =
        ::open(path, create ? O_RDWR | O_CREAT | O_CLOEXEC : O_RDONLY | O_CLOEXEC, 0644);
    if (file < 0 || (create && ::ftruncate(file, sizeof(CaptureTable)) != 0)) {
        return nullptr;
    }
    void* const memory = ::mmap(nullptr, sizeof(CaptureTable),
                                create ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    return memory == MAP_FAILED ? nullptr : static_cast<CaptureTable*>(memory);
}
