#include "web/program.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "common/thread_check.h"
#include "web/command_line.h"
#include "web/http/access.h"
#include "web/http/connection.h"
#include "web/http/session.h"
#include "web/http/web_server.h"
#include "web/local_addresses.h"
#include "web/log.h"
#include "web/secrets.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

namespace vxweb {

namespace {

constexpr std::chrono::milliseconds END_TIMEOUT{700};
constexpr std::chrono::milliseconds CUT_TIMEOUT{100};
constexpr std::chrono::milliseconds END_STEP{20};

/// Each connection is a descriptor. Strangers may have some thousands; more could fill the memory.
void allowManyDescriptors(std::size_t listeners) {
    constexpr rlim_t OTHERS = 11000;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, listeners + OTHERS);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

class Program {
  public:
    explicit Program(const Options& options)
        : options_(options),
          workers_(makeWorkers()),
          station_(options, workers_),
          server_(workers_),
          signals_(context(), SIGINT, SIGTERM),
          endTimer_(context()) {}

    int run() {
        const std::string problem = prepare();
        if (!problem.empty()) {
            complain(problem);
            return STATUS_FAILURE;
        }
        server_.start(*site_);
        station_.start();
        signals_.async_wait([this](const Error& error, int /*signal*/) {
            if (!error) {
                startEnding();
            }
        });
        work();
        return STATUS_OK;
    }

  private:
    static Workers makeWorkers() {
        Workers workers;
        const std::size_t count = std::max(1U, std::thread::hardware_concurrency());
        for (std::size_t i = 0; i < count; ++i) {
            workers.push_back(std::make_unique<Worker>(i));
        }
        return workers;
    }

    static std::vector<std::string> names(const Options& options) {
        std::vector<std::string> result = ownNames();
        result.insert(result.end(), options.hostNames.begin(), options.hostNames.end());
        return result;
    }

    /// Returns a message on failure, else an empty text.
    std::string prepare() {
        std::string login;
        std::unique_ptr<boost::asio::ssl::context> tls;
        std::string problem;
        if (!options_.passwordFile.empty()) {
            problem = readLogin(options_.passwordFile, login);
        }
        if (problem.empty() && !options_.certificate.empty()) {
            problem = openTls(options_.certificate, options_.key, tls);
        }
        if (problem.empty()) {
            problem = server_.open(options_.listen);
        }
        if (!problem.empty()) {
            return problem;
        }
        if (!login.empty() && !tls) {
            complain("without --certificate the password crosses the network unencrypted");
        }
        for (const std::string& address :
             webAddresses(options_.listen.address, server_.port(), tls != nullptr)) {
            say(address);
        }
        site_.reset(new Site{Access(names(options_), login), options_.title,
                             options_.listen.address, server_.port(), std::move(tls), station_});
        allowManyDescriptors(options_.maxListeners);
        return {};
    }

    [[nodiscard]] boost::asio::io_context& context() const { return workers_.front()->context(); }

    /// Runs the first worker on this thread and each other on a new one, until all stop.
    void work() {
        std::vector<std::thread> threads;
        std::vector<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> busy;
        for (const auto& worker : workers_) {
            busy.emplace_back(worker->context().get_executor());
            if (worker->index() > 0) {
                threads.emplace_back([&worker] { worker->context().run(); });
            }
        }
        context().run();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    /// A second signal ends the program at once.
    void startEnding() {
        signals_.clear();
        server_.close();
        for (const auto& worker : workers_) {
            boost::asio::post(worker->context(), [&worker] { worker->shutDown(); });
        }
        station_.close();
        endBefore_ = std::chrono::steady_clock::now() + END_TIMEOUT;
        end();
    }

    void end() {
        const bool late = std::chrono::steady_clock::now() >= endBefore_;
        if (station_.closed() || (late && cut_)) {
            for (const auto& worker : workers_) {
                worker->context().stop();
            }
            return;
        }
        if (late) {  // Else what waits for a listener would never be freed.
            cut_ = true;
            endBefore_ += CUT_TIMEOUT;
            for (const auto& worker : workers_) {
                boost::asio::post(worker->context(), [&worker] { worker->cut(); });
            }
        }
        endTimer_.expires_after(END_STEP);
        endTimer_.async_wait([this](const Error& error) {
            if (!error) {
                end();
            }
        });
    }

    const Options& options_;
    Workers workers_;
    Station station_;
    WebServer server_;
    boost::asio::signal_set signals_;
    boost::asio::steady_timer endTimer_;
    std::chrono::steady_clock::time_point endBefore_;
    bool cut_ = false;  ///< Listeners that did not close in time were cut off.
    std::unique_ptr<Site> site_;
};

}  // namespace

int run(const Options& options) {
    assert(onMainThread());
    std::signal(SIGPIPE, SIG_IGN);
    Program program(options);
    return program.run();
}

}  // namespace vxweb
