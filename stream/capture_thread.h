#pragma once

#include "common/thread_check.h"

/// The rule "Thread: capture", for what only PortAudio's callback may call.
inline ThreadCheck captureThread;
