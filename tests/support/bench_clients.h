#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

/// Client processes (the program stream_client in the same folder) that stream from a loopback
/// port. The destructor ends them and waits for them.
class BenchClients {
  public:
    struct Choice {
        std::uint32_t rateCode;
        bool reliable;
    };

    /// Starts one process per choice. Aborts when one cannot be started.
    BenchClients(std::uint16_t port, const std::vector<Choice>& choices);
    ~BenchClients();
    BenchClients(const BenchClients&) = delete;
    BenchClients& operator=(const BenchClients&) = delete;

  private:
    std::vector<std::FILE*> inputs_;  ///< Closing a client's standard input ends it.
};
