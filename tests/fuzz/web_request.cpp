// How velantrix-web reads a request before it answers: any bytes in pieces of any length, and which
// requests it refuses. An input: the length of the pieces, then what arrives.

#include "tests/fuzz/fuzz_input.h"
#include "web/http/access.h"
#include "web/http/request_reader.h"
#include "web/http/response.h"
#include "web/http/routes.h"

namespace {

using vxweb::RequestReader;

/// Reads in pieces as a session does.
RequestReader::State read(RequestReader& reader, FuzzInput& input, std::size_t piece) {
    std::string waiting;
    while (reader.state() == RequestReader::State::Reading && !input.empty()) {
        waiting += input.bytes(piece);
        const std::size_t taken = reader.read(waiting);
        require(taken <= waiting.size(), "no more is taken than there is");
        waiting.erase(0, taken);
        require(waiting.size() <= RequestReader::MAX_HEADER + piece, "what waits is bounded");
    }
    return reader.state();
}

void checkSentence(const vxweb::Response& response) {
    require(response.body.size() > 2 && response.body.back() == '\n' &&
                response.body.find('\n') == response.body.size() - 1,
            "an error is one line");
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const vxweb::Access OPEN({"kitchen"}, "");
    static const vxweb::Access CLOSED({"kitchen"}, "anna:secret");
    FuzzInput input(data, size);
    RequestReader reader;
    if (read(reader, input, 1U + input.byte()) != RequestReader::State::Complete) {
        return 0;
    }
    const vxweb::Request& request = reader.request();
    const std::string target(request.target());
    const vxweb::Route route = vxweb::findRoute(target);
    require(route.channel < vxweb::CHANNELS.size(), "the channel exists");
    require((route.kind == vxweb::Route::Kind::BadQuery) != route.problem.empty(),
            "only a bad query has a problem");
    const bool stream = route.kind == vxweb::Route::Kind::Stream;
    const auto refusal = OPEN.refuse(request, stream);
    require(CLOSED.refuse(request, stream) || !refusal, "a password lets in nobody else");
    if (refusal) {
        checkSentence(*refusal);
    }
    const std::string answer = vxweb::write(refusal.value_or(vxweb::Response()),
                                            {false, !reader.hasBody(), request.version()});
    require(answer.find("\r\n\r\n") != std::string::npos, "an answer has a whole header");
    return 0;
}
