#pragma once

#include <cstddef>

/// Fetches the version file from the maker's web server, with a libcurl that is loaded at run time,
/// and compares it with the running version. An object holds the received data of one check.
///
/// All operations print their results on standard output. Realtime-safe: no.
class WebIf {
  public:
    /// Loads libcurl. Returns 0, or 1 when it is missing; then it prints advice, and the operations
    /// below do nothing. Called once. Thread: main, before the version check thread.
    static int init();

    /// Releases what libcurl holds process-wide; no check may follow. Thread: version check.
    static void cleanup();

    WebIf();
    ~WebIf();
    WebIf(const WebIf&) = delete;
    WebIf& operator=(const WebIf&) = delete;

    /// Checks for a version other than `currentVersion` (borrowed). Returns 1 when there is one
    /// that was not announced before, else 0: also when the last check is less than 480 minutes
    /// ago, the answer is not usable, or the core object is gone. Blocks for the time of the
    /// transfer, during which it holds no pin on the core object. Remembers the time of the check
    /// and the version found in the settings. Thread: version check.
    int checkVersion(const char* currentVersion);

    /// libcurl's write callback: appends `itemSize` * `itemCount` bytes at `contents` to the body
    /// of the WebIf at `userp`. Returns the number of bytes taken, 0 to make the transfer fail
    /// when memory is short or the body grows beyond 1 MiB.
    static std::size_t writeMemoryCallback(void* contents, std::size_t itemSize,
                                           std::size_t itemCount, void* userp);

  private:
    char* memory;          // The body, owned; ends with a NUL unless empty.
    std::size_t size = 0;  // Bytes of the body, without that NUL.

    bool fetch(void* handle);
    bool fetchFrame(void* handle);
    [[nodiscard]] int judge(const char* currentVersion) const;

    friend struct WebIfTestAccess;
};
