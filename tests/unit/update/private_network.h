#pragma once

/// Moves the process into a network namespace of its own, which has a loopback interface and
/// nothing else, so that no packet of a test leaves the machine. Ends the process when the system
/// does not allow it. Called before there is a second thread.
void enterPrivateNetwork();
