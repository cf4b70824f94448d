#pragma once

class VelantrixServerNoGUI;

/// Body of the network thread: sets up the encoders, the client table and the ENet host, opens the
/// capture, then only sleeps. Ends the process (status 255) when ENet or the host cannot be set up.
/// `core` receives the reports; borrowed. Thread: network.
[[noreturn]] void enetHost(VelantrixServerNoGUI* core);
