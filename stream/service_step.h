#pragma once

/// Lets ENet send and receive for at most 1 ms and handles at most one event. Returns negative
/// for an ENet error, 0 for no event, positive for an event handled. Thread: capture.
int serviceHost();
