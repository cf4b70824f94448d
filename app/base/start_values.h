#pragma once

/// The values that the command line and the environment give the process.
///
/// The main thread writes them before any thread that reads them exists, so the getters need no
/// lock; giving up the bind address is an atomic flag. Thread: any. Realtime-safe: yes.

/// UDP port chosen for the ENet host; 0 means not chosen (the host then uses its default).
int getCmdPortNum();

/// Address text that the ENet host binds to, NUL-terminated; empty means any address.
///
/// Never null; at most 255 characters. Empty once the address was given up.
const char* getCmdBindAddr();

/// Makes the bind address empty for all threads, because it cannot be used. Thread: network.
void giveUpCmdBindAddr();

/// True when "-verbose" was given.
bool getVerbose();
