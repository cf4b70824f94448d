#pragma once

/// The values that the command line and the environment give the process.
///
/// They are written by the main thread while the only other one is the console's, which reads none
/// of them, and only read afterwards, so the getters need no lock; giving the bind address up is
/// one atomic flag.
/// Thread: any. Realtime-safe: yes.

/// UDP port chosen for the ENet host; 0 means not chosen (the host then uses its default).
int getCmdPortNum();

/// Address text that the ENet host binds to, NUL-terminated; empty means any address.
///
/// Never null; at most 255 characters. Empty from the moment on when the address was given up.
const char* getCmdBindAddr();

/// Empties the bind address for everybody, because it cannot be used. Thread: network.
void giveUpCmdBindAddr();

/// True when "-verbose" was given.
bool getVerbose();
