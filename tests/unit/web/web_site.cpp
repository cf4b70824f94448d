#include "tests/unit/web/web_site.h"

#include <chrono>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

namespace {

constexpr std::size_t WORKERS = 2;
constexpr std::chrono::seconds TIMEOUT{15};

}  // namespace

WebSite::WebSite() {
    options.server.host = "127.0.0.1";
    options.server.port = upstream->port();
    options.listen = {"127.0.0.1", 0};
    options.title = "Kitchen";
}

WebSite::~WebSite() {
    for (const auto& worker : workers_) {
        worker->context().stop();
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

void WebSite::start() {
    for (std::size_t i = 0; i < WORKERS; ++i) {
        workers_.push_back(std::make_unique<vxweb::Worker>(i));
    }
    station_ = std::make_unique<vxweb::Station>(options, workers_);
    server_ = std::make_unique<vxweb::WebServer>(workers_);
    ASSERT_EQ(server_->open(options.listen), "");
    site_.reset(new vxweb::Site{vxweb::Access({"kitchen", "radio.example"}, login), options.title,
                                "192.168.1.20", 59080, nullptr, *station_});
    boost::asio::post(workers_.front()->context(), [this] {
        server_->start(*site_);
        station_->start();
    });
    for (const auto& worker : workers_) {
        threads_.emplace_back([&worker] {
            const auto busy = boost::asio::make_work_guard(worker->context());
            worker->context().run();
        });
    }
}

void WebSite::shutDown() {
    for (const auto& worker : workers_) {
        boost::asio::post(worker->context(), [&worker] { worker->shutDown(); });
    }
    boost::asio::post(workers_.front()->context(), [this] { station_->close(); });
}

std::vector<std::size_t> WebSite::connections() const {
    std::vector<std::size_t> counts;
    for (const auto& worker : workers_) {
        counts.push_back(worker->connections);
    }
    return counts;
}

std::string WebSite::status() {
    WebClient client(port());
    client.request("/status");
    const std::string answer = client.answer();
    return answer.substr(answer.find("\r\n\r\n") + 4);
}

void WebSite::waitForStatus(const std::string& part) {
    waitUntil([this, &part] { return status().find(part) != std::string::npos; });
}

void WebSite::waitUntil(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + TIMEOUT;
    while (!done() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(done());
}

void WebSite::waitForAsked(const std::vector<std::uint32_t>& codes) {
    waitUntil([this, &codes] { return upstream->asked() == codes; });
}

void WebSite::playFor(int milliseconds) {
    for (int passed = 0; passed < milliseconds; passed += 7) {
        upstream->send(packets::raw(seq_++));
        std::this_thread::sleep_for(std::chrono::milliseconds(7));
    }
}

std::unique_ptr<WebClient> WebSite::live(const std::string& query, int receiveBuffer) {
    auto client = std::make_unique<WebClient>(port(), receiveBuffer);
    client->upgrade("/live" + query);
    EXPECT_EQ(client->header().substr(0, 12), "HTTP/1.1 101");
    return client;
}
