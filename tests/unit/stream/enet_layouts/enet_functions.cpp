#include <cstdlib>

#include "tests/unit/stream/enet_layouts/enet/enet.h"

void enet_list_clear(ENetList* list) {
    list->sentinel.next = &list->sentinel;
    list->sentinel.previous = &list->sentinel;
}

ENetListIterator enet_list_insert(ENetListIterator position, void* data) {
    auto* const node = static_cast<ENetListNode*>(data);
    node->previous = position->previous;
    node->next = position;
    node->previous->next = node;
    position->previous = node;
    return node;
}

void* enet_list_remove(ENetListIterator position) {
    position->previous->next = position->next;
    position->next->previous = position->previous;
    return position;
}

std::size_t enet_list_size(ENetList* list) {
    std::size_t size = 0;
    for (const ENetListNode* node = list->sentinel.next; node != &list->sentinel;
         node = node->next) {
        ++size;
    }
    return size;
}

ENetPacket* enet_packet_create(const void* /*data*/, std::size_t /*length*/,
                               enet_uint32 /*flags*/) {
    return static_cast<ENetPacket*>(std::calloc(1, sizeof(ENetPacket)));
}

void enet_packet_destroy(ENetPacket* packet) {
    if (packet->freeCallback != nullptr) {
        packet->freeCallback(packet);
    }
    std::free(packet);
}

std::size_t enet_protocol_command_size(enet_uint8 command) {
    switch (command & ENET_PROTOCOL_COMMAND_MASK) {
        case ENET_PROTOCOL_COMMAND_PING:
            return 4;
        case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
            return 6;
        case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
            return 8;
        case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
            return 24;
        default:
            std::abort();  // No other command is queued by the tests.
    }
}

void* enet_malloc(std::size_t size) {
    return std::malloc(size);
}

void enet_free(void* memory) {
    std::free(memory);
}
