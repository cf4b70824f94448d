#pragma once

#include <cstddef>

/// The streaming side without its threads: encoders, ENet host on a loopback port that the system
/// picks, and a core that drops reports. The caller drives processBuffer. Aborts on failure.
void createBenchServer();

/// Services the host until exactly `clients` connections exist and all stream. Aborts after 10 s.
void serviceUntilStreaming(std::size_t clients);
