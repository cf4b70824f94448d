// A WebSocket of velantrix-web from its request to its end: any upgrade, and any frames after it.
// An input: how many bytes arrive at once, how often the socket is full, the request, then what
// follows it.

#include <deque>

#include <boost/asio/post.hpp>

#include "tests/fuzz/fuzz_input.h"
#include "web/http/live_session.h"
#include "web/upstream/live_packets.h"

namespace {

using boost::asio::const_buffer;
using vxweb::Done;
using vxweb::Error;

/// A session reads the input; its output is only counted.
class InputConnection : public vxweb::Connection {
  public:
    InputConnection(boost::asio::io_context& context, std::string bytes, std::size_t piece,
                    unsigned full)
        : Connection(boost::asio::ip::tcp::socket(context)),
          bytes_(std::move(bytes)),
          piece_(piece),
          full_(full) {}

    void handshake(Done done) override { finish(std::move(done), {}, 0); }
    void read(boost::asio::mutable_buffer room, Done done) override {
        const std::size_t length = std::min({room.size(), piece_, bytes_.size() - at_});
        std::copy_n(bytes_.data() + at_, length, static_cast<char*>(room.data()));
        at_ += length;
        finish(std::move(done), length > 0 ? Error() : boost::asio::error::eof, length);
    }
    std::size_t tryWrite(const_buffer bytes, Error& error) override {
        if (full_ > 0 && ++calls_ % full_ == 0) {
            error = boost::asio::error::would_block;
            return 0;
        }
        return bytes.size();
    }
    void write(const_buffer bytes, Done done) override {
        finish(std::move(done), {}, (bytes.size() + 1) / 2);
    }
    void endWriting(Done done) override { finish(std::move(done), {}, 0); }

  private:
    void finish(Done done, Error error, std::size_t count) {
        boost::asio::post(executor(),
                          [done = std::move(done), error, count] { done(error, count); });
    }

    std::string bytes_;
    std::size_t at_ = 0;
    std::size_t piece_;
    unsigned full_;
    unsigned calls_ = 0;
};

vxweb::Workers makeWorkers() {
    vxweb::Workers workers;
    workers.push_back(std::make_unique<vxweb::Worker>(0));
    return workers;
}

vxweb::Options makeOptions() {
    vxweb::Options options;
    options.server.host = "127.0.0.1";
    options.title = "Kitchen";
    return options;
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static vxweb::Workers workers = makeWorkers();
    static vxweb::Station station(makeOptions(), workers);
    FuzzInput input(data, size);
    const std::size_t piece = 1U + input.byte();
    const unsigned full = input.byte() % 8;
    const std::string arriving = input.rest();
    vxweb::RequestReader reader;
    const std::size_t taken = reader.read(arriving);
    if (reader.state() != vxweb::RequestReader::State::Complete) {
        return 0;
    }
    vxweb::Worker& worker = *workers.front();
    require(station.reserve(), "nobody listens yet");
    vxweb::startLive(
        std::make_shared<InputConnection>(worker.context(), arriving.substr(taken), piece, full),
        station, worker, 0, reader.request());
    worker.context().restart();
    while (worker.context().poll_one() > 0) {
        worker.deliver(0, vxweb::makeWaiting(0));
        worker.context().restart();
    }
    require(station.closed(), "nobody is left");
    return 0;
}
