#include "tests/support/bench_clients.h"

#include <cstdlib>
#include <filesystem>
#include <string>

BenchClients::BenchClients(std::uint16_t port, const std::vector<Choice>& choices) {
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string program = "exec '" + (self.parent_path() / "stream_client").string() + "' ";
    for (const Choice& choice : choices) {
        const std::string command = program + std::to_string(port) + " " +
                                    std::to_string(choice.rateCode) +
                                    (choice.reliable ? " 1" : " 0") + " 2>/dev/null";
        std::FILE* const input = ::popen(command.c_str(), "we");
        if (input == nullptr) {
            std::abort();
        }
        inputs_.push_back(input);
    }
}

BenchClients::~BenchClients() {
    for (std::FILE* const input : inputs_) {
        ::pclose(input);
    }
}
