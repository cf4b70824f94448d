#include "web/streams/icecast_feeder.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string_view>
#include <sys/types.h>
#include <utility>

#include <shout/shout.h>

#include "listen/background.h"
#include "listen/clock.h"
#include "listen/retry_pause.h"

namespace vxweb {

namespace {

using vxlisten::SECOND;
using vxlisten::steadyNow;
using Milliseconds = std::chrono::milliseconds;

/// Maximum bytes that wait here, four seconds at 256 kbit/s, and in libshout.
constexpr std::size_t MAX_QUEUE = 1U << 17;
constexpr ssize_t MAX_SEND_QUEUE = 1 << 14;
constexpr std::int64_t CONNECT_TIMEOUT = 10 * SECOND;
constexpr std::int64_t SEND_TIMEOUT = 10 * SECOND;
/// libshout loses some bytes with each attempt.
constexpr std::int64_t MAX_PAUSE_MS = 30'000;
/// The back-off starts over only after a connection of this length.
constexpr std::int64_t STABLE_CONNECTION = 5 * SECOND;
/// libshout does not give access to its socket, so it is polled at this interval.
constexpr Milliseconds STEP(20);
constexpr Milliseconds END_TIMEOUT(500);

struct ShoutDeleter {
    void operator()(shout_t* shout) const { shout_free(shout); }
};
using Shout = std::unique_ptr<shout_t, ShoutDeleter>;

std::string reasonOf(int error) {
    switch (error) {
        case SHOUTERR_NOCONNECT:
            return "unreachable";
        case SHOUTERR_NOLOGIN:
            return "the stream was refused";
        case SHOUTERR_NOTLS:
        case SHOUTERR_TLSBADCERT:
            return "invalid certificate";
        case SHOUTERR_BUSY:
            return "no response";
        default:
            return "the connection was lost";
    }
}

/// A connection's settings; null without memory.
Shout prepare(const IcecastTarget& target, const std::string& title) {
    Shout shout(shout_new());
    shout_t* const raw = shout.get();
    const bool done = raw != nullptr &&
                      shout_set_host(raw, target.host.c_str()) == SHOUTERR_SUCCESS &&
                      shout_set_port(raw, target.port) == SHOUTERR_SUCCESS &&
                      shout_set_user(raw, target.user.c_str()) == SHOUTERR_SUCCESS &&
                      shout_set_password(raw, target.password.c_str()) == SHOUTERR_SUCCESS &&
                      shout_set_mount(raw, target.mount.c_str()) == SHOUTERR_SUCCESS &&
                      shout_set_agent(raw, "velantrix-web") == SHOUTERR_SUCCESS &&
                      shout_set_meta(raw, SHOUT_META_NAME, title.c_str()) == SHOUTERR_SUCCESS &&
                      shout_set_content_format(raw, SHOUT_FORMAT_OGG, SHOUT_USAGE_AUDIO, nullptr) ==
                          SHOUTERR_SUCCESS &&
                      shout_set_tls(raw, target.tls ? SHOUT_TLS_RFC2818 : SHOUT_TLS_DISABLED) ==
                          SHOUTERR_SUCCESS &&
                      shout_set_nonblocking(raw, 1) == SHOUTERR_SUCCESS;
    return done ? std::move(shout) : nullptr;
}

}  // namespace

struct IcecastFeeder::State {
    IcecastTarget target;
    std::string title;
    Report report;

    std::mutex mutex;
    std::condition_variable changed;
    // Under the mutex:
    bool stopped = false;
    bool connected = false;  ///< Chunks are queued.
    bool headerDue = false;
    std::string header;
    std::deque<Chunk> queue;
    std::size_t queued = 0;  ///< Bytes.

    /// Reports a line unless stopped.
    void tell(const std::string& line) {
        const std::lock_guard lock(mutex);
        if (!stopped) {
            report(line);
        }
    }

    /// Waits; returns false at once when stopped.
    bool sleep(Milliseconds time) {
        std::unique_lock lock(mutex);
        return !changed.wait_for(lock, time, [this] { return stopped; });
    }

    /// Waits for start(). False when stopped.
    bool waitForStart() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return stopped || !header.empty(); });
        return !stopped;
    }

    void setConnected(bool now) {
        const std::lock_guard lock(mutex);
        connected = now;
        begin();
    }

    /// Under the mutex.
    void begin() {
        headerDue = true;
        queue.clear();
        queued = 0;
    }

    /// Under the mutex.
    void enqueue(const Chunk& chunk) {
        queue.push_back(chunk);
        queued += chunk->size();
        while (queued > MAX_QUEUE && !queue.empty()) {
            queued -= queue.front()->size();
            queue.pop_front();
        }
    }

    /// The next chunk; null when none came for a moment.
    Chunk next() {
        std::unique_lock lock(mutex);
        if (std::exchange(headerDue, false)) {
            return std::make_shared<const std::string>(header);
        }
        changed.wait_for(lock, STEP, [this] { return stopped || !queue.empty(); });
        if (stopped || queue.empty()) {
            return nullptr;
        }
        Chunk chunk = std::move(queue.front());
        queue.pop_front();
        queued -= chunk->size();
        return chunk;
    }

    int connect(shout_t* shout);
    int feed(shout_t* shout);
    void run();
};

/// Returns SHOUTERR_CONNECTED or an error.
int IcecastFeeder::State::connect(shout_t* shout) {
    const std::int64_t end = steadyNow() + CONNECT_TIMEOUT;
    int result = shout_open(shout);
    if (result == SHOUTERR_SUCCESS) {
        return SHOUTERR_CONNECTED;
    }
    while ((result == SHOUTERR_BUSY || result == SHOUTERR_RETRY) && steadyNow() < end &&
           sleep(STEP)) {
        result = result == SHOUTERR_RETRY ? shout_open(shout) : shout_get_connected(shout);
    }
    return result == SHOUTERR_SOCKET ? SHOUTERR_NOCONNECT : result;
}

/// Sends until an error, which it returns.
int IcecastFeeder::State::feed(shout_t* shout) {
    std::int64_t lastEmpty = steadyNow();
    while (sleep(Milliseconds(0))) {
        const ssize_t waiting = shout_queuelen(shout);
        lastEmpty = waiting > 0 ? lastEmpty : steadyNow();
        if (steadyNow() - lastEmpty > SEND_TIMEOUT) {
            return SHOUTERR_BUSY;
        }
        Chunk chunk;
        if (waiting < MAX_SEND_QUEUE) {
            chunk = next();
        } else {
            sleep(STEP);
        }
        if (chunk == nullptr && waiting <= 0) {
            continue;
        }
        // Without a chunk, sends what waits in libshout.
        const std::string_view bytes = chunk != nullptr ? *chunk : std::string_view();
        const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
        if (shout_send_raw(shout, data, bytes.size()) < 0 &&
            shout_get_errno(shout) != SHOUTERR_BUSY) {
            return shout_get_errno(shout);
        }
    }
    return SHOUTERR_SUCCESS;
}

void IcecastFeeder::State::run() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);  // Also SIGPIPE, which libshout does not suppress.
    vxlisten::RetryPause pause(MAX_PAUSE_MS);
    std::string lastLine;
    const Shout shout = prepare(target, title);
    while (shout != nullptr && waitForStart()) {
        int result = connect(shout.get());
        if (result == SHOUTERR_CONNECTED) {
            lastLine = "sending to Icecast " + target.name();
            tell(lastLine);
            setConnected(true);
            const std::int64_t since = steadyNow();
            result = feed(shout.get());
            setConnected(false);
            if (steadyNow() - since > STABLE_CONNECTION) {
                pause.reset();
            }
        }
        shout_close(shout.get());
        const std::string line =
            "cannot send to Icecast " + target.name() + ": " + reasonOf(result);
        if (line != lastLine) {
            tell(lastLine = line);
        }
        if (!sleep(Milliseconds(pause.next()))) {
            return;
        }
    }
}

IcecastFeeder::IcecastFeeder(const IcecastTarget& target, const std::string& title, Report report)
    : state_(std::make_shared<State>()) {
    static std::once_flag initialized;
    std::call_once(initialized, shout_init);
    state_->target = target;
    state_->title = title;
    state_->report = std::move(report);
    thread_ = vxlisten::inBackground([state = state_] { state->run(); });
}

IcecastFeeder::~IcecastFeeder() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->stopped = true;
    }
    state_->changed.notify_all();
    if (thread_.wait_for(END_TIMEOUT) != std::future_status::ready) {
        vxlisten::noteAbandoned();
    }
}

void IcecastFeeder::start(const std::string& header) {
    assert(caller_.here());
    {
        const std::lock_guard lock(state_->mutex);
        state_->header = header;
        state_->begin();
    }
    state_->changed.notify_all();
}

void IcecastFeeder::push(const Chunk& chunk) {
    assert(caller_.here());
    {
        const std::lock_guard lock(state_->mutex);
        if (!state_->connected) {
            return;
        }
        state_->enqueue(chunk);
    }
    state_->changed.notify_all();
}

}  // namespace vxweb
