#include "tests/unit/app/fake_workers.h"

#include <algorithm>
#include <mutex>
#include <unistd.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/core_pin.h"
#include "audio/Audio.h"
#include "discovery/multi_host.h"
#include "gui/Settings.h"
#include "stream/network_host.h"
#include "tests/support/waiting.h"
#include "update/WebIf.h"

namespace {

std::mutex mutex;

std::vector<std::string>& names() {
    static auto* const list = new std::vector<std::string>;
    return *list;
}

void run(const char* name, const std::function<void()>& body) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        names().emplace_back(name);
    }
    if (body) {
        body();
    }
}

}  // namespace

FakeWorkers& fakeWorkers() {
    static auto* const workers = new FakeWorkers;
    return *workers;
}

std::vector<std::string> workerCalls() {
    const std::lock_guard<std::mutex> lock(mutex);
    return names();
}

bool waitForWorker(const std::string& name) {
    return waitUntil([&name] {
        const std::vector<std::string> calls = workerCalls();
        return std::find(calls.begin(), calls.end(), name) != calls.end();
    });
}

void enetHost(VelantrixServerNoGUI* core) {
    fakeWorkers().hostCore.store(core);
    VelantrixServerNoGUI* none = nullptr;
    mainDialog.compare_exchange_strong(none, core);
    run("network", fakeWorkers().networkHost);
    for (;;) {
        pause();
    }
}

int multiHost() {
    run("discovery", fakeWorkers().discovery);
    return 1;
}

void Settings::loadSettings() {
    run("settings", nullptr);
}

int WebIf::init() {
    run("http init", nullptr);
    return 0;
}

void VelantrixServerNoGUI::versionCheckThreadFn() {
    run("version check", fakeWorkers().versionCheck);
}

int VelantrixServerNoGUI::checkVersion() {
    return 0;
}

int Audio::Close() {
    run("close", fakeWorkers().closeCapture);
    return fakeWorkers().closeResult;
}
