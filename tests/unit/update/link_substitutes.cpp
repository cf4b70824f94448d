#include "link_substitutes.h"

#include <cstring>

LinkSubstitutes linkSubstitutes;

// The names are the linker's.
extern "C" {

std::time_t __real_time(std::time_t* result);
void* __real_realloc(void* block, std::size_t size);
void* __real_dlopen(const char* file, int mode);
void* __real_dlsym(void* library, const char* name);
int __real_system(const char* command);
void __real__Z5Sleepi(int milliseconds);

std::time_t __wrap_time(std::time_t* result) {
    const std::time_t now = linkSubstitutes.now ? *linkSubstitutes.now : __real_time(nullptr);
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

void* __wrap_realloc(void* block, std::size_t size) {
    return linkSubstitutes.reallocFails ? nullptr : __real_realloc(block, size);
}

void* __wrap_dlopen(const char* file, int mode) {
    const bool missing = linkSubstitutes.curlLibraryMissing && file != nullptr &&
                         std::strcmp(file, "libcurl.so.4") == 0;
    return __real_dlopen(missing ? "no such library" : file, mode);
}

void* __wrap_dlsym(void* library, const char* name) {
    const bool missing = linkSubstitutes.curlFunctionMissing == name;
    return __real_dlsym(library, missing ? "no such function" : name);
}

int __wrap_system(const char* command) {
    return linkSubstitutes.system ? linkSubstitutes.system(command) : __real_system(command);
}

void __wrap__Z5Sleepi(int milliseconds) {
    if (linkSubstitutes.sleep) {
        linkSubstitutes.sleep(milliseconds);
    } else {
        __real__Z5Sleepi(milliseconds);
    }
}

}  // extern "C"

void reallySleep(int milliseconds) {
    __real__Z5Sleepi(milliseconds);
}
