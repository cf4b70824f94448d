#pragma once

#include <string>
#include <vector>

/// Library calls that tests count and make fail. The test executable's calls of these functions
/// are diverted at link time ("--wrap"); calls inside the libraries are not.
enum class Call {
    PthreadCreate,
    PthreadJoin,
    PthreadGetSchedParam,
    PthreadSetSchedParam,
    EnetInitialize,
    EnetHostCreate,
    EnetHostService,
    EnetHostFlush,
    EnetPacketCreate,
    EnetPacketDestroy,
    EnetPeerSend,
    EnetPeerDisconnect,
    EnetSocketSetOption,
    OpusEncoderCreate,
    OpusEncode,
    Count
};

constexpr int EVERY_CALL = 0;

/// Makes the `nth` call from now (1 is the next, EVERY_CALL all of them) fail with `error`: an
/// error number, ENet's errno or Opus's code, as the function has it.
void failCall(Call call, int nth, int error);

/// Calls since the last reset.
int countOf(Call call);

/// Forgets counts, failures and the log.
void resetCalls();

/// The diverted calls since the last reset, by name, in their order.
std::vector<std::string> callLog();

/// While one exists, the thread is inside a diverted call: what happens there is the library's
/// doing, or the diversion's own, and not the program's.
class DivertedCall {
  public:
    DivertedCall() { ++depth; }
    ~DivertedCall() { --depth; }
    DivertedCall(const DivertedCall&) = delete;
    DivertedCall& operator=(const DivertedCall&) = delete;

    static bool active() { return depth > 0; }

  private:
    static thread_local int depth;
};

/// For the diversions: counts a call; returns its error when it is to fail, else 0.
int noteCall(Call call, const char* name);
