#pragma once

#include <enet/enet.h>

/// The listening host; created once by enetHost, never destroyed. After the capture has started
/// only the capture thread uses it.
extern ENetHost* server;

/// Lets ENet send and receive for at most 1 ms and handles at most one event. Returns negative
/// for an ENet error, 0 for no event, positive for an event handled. Thread: capture.
int serviceHost();
