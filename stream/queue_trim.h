#pragma once

#include <cstddef>
#include <cstdint>

#include "stream/client_table.h"

constexpr std::uint32_t QUEUE_CHECK_INTERVAL = 15;  ///< Packets between two checks.
constexpr std::size_t QUEUE_TRIM_THRESHOLD = 75;    ///< Maximum number of unsent commands.
constexpr std::uint32_t QUEUE_REPORT_INTERVAL = 100;

/// Bounds the backlog of a slow client: when too many reliable commands were never sent, removes
/// them and corrects ENet's numbers. `seq` is the number of the packet about to be queued,
/// divisible by QUEUE_CHECK_INTERVAL. Thread: capture. Realtime-safe: yes.
void trimOutgoingQueue(const ClientSlot& slot, std::uint32_t seq);
