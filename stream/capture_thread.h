#pragma once

#include "common/thread_check.h"

/// The rule "Thread: capture", for what only PortAudio's callback may call. What prepares that on
/// the network thread asserts that it is not running yet: `assert(!captureThread.elsewhere())`.
inline ThreadCheck captureThread;
