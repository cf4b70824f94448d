#include "stream/queue_trim.h"

void trimOutgoingQueue(const ClientSlot& /*slot*/, std::uint32_t /*seq*/) {}
