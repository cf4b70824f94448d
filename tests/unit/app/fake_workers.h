#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

/// Replaces everything that the core object starts and calls: the network host, the discovery
/// responder, the version check, the settings and the capture. Each call is recorded, and each
/// worker then does what the test wants.
struct FakeWorkers {
    std::function<void()> networkHost;  ///< Runs on the network thread.
    std::function<void()> discovery;
    std::function<void()> versionCheck;
    std::function<void()> closeCapture;
    int closeResult = 0;

    /// The object that the network host was given.
    std::atomic<const void*> hostCore{nullptr};
};

FakeWorkers& fakeWorkers();

/// What was called until now: "settings", "http init", and from threads "network", "discovery",
/// "version check", "close".
std::vector<std::string> workerCalls();

/// Waits until `name` was called; false after 10 s.
bool waitForWorker(const std::string& name);
