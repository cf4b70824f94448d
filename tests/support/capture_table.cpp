#include "tests/support/capture_table.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

CaptureTable* mapCaptureTable(const char* path, TableUse use) {
    const bool make = use == TableUse::Make;
    const bool write = use != TableUse::Read;
    const int file =
        ::open(path, (write ? O_RDWR : O_RDONLY) | (make ? O_CREAT : 0) | O_CLOEXEC, 0644);
    if (file < 0 || (make && ::ftruncate(file, sizeof(CaptureTable)) != 0)) {
        return nullptr;
    }
    void* const memory = ::mmap(nullptr, sizeof(CaptureTable),
                                write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    return memory == MAP_FAILED ? nullptr : static_cast<CaptureTable*>(memory);
}
