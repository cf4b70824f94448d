#pragma once

#include <functional>
#include <initializer_list>
#include <limits>
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
    CaptureReport,  ///< No library's: the recording core notes it for its place in the log.
    Count
};

constexpr int EVERY_CALL = 0;

/// As the error of failCall: opus_encode does nothing and returns 0.
constexpr int RETURN_ZERO = std::numeric_limits<int>::max();

/// Makes the `nth` call from now (1 is the next, EVERY_CALL all of them) fail with `error`: an
/// error number, ENet's errno or Opus's code, as the function has it. A positive one makes
/// opus_encoder_create give an encoder together with that Opus error, negated.
void failCall(Call call, int nth, int error);

/// Calls since the last reset.
int countOf(Call call);

/// Forgets counts, failures and the log.
void resetCalls();

/// Arguments of each call since the last reset; only of calls whose diversion records them:
/// enet_host_service its time-out in ms, opus_encode its frames and its room in bytes.
std::vector<std::vector<int>> argumentsOf(Call call);

/// True: ENet's service calls do not wait.
bool& serviceWithoutWaiting();

/// Called on the creating thread after each thread that was created, when it is set.
std::function<void()>& afterThreadCreation();

/// The diverted calls since the last reset, by name, in their order.
std::vector<std::string> callLog();

/// While one exists, the thread is inside a diverted call: what happens there is done by the
/// library or the diversion, not by the program.
class DivertedCall {
  public:
    DivertedCall() { ++depth; }
    ~DivertedCall() { --depth; }
    DivertedCall(const DivertedCall&) = delete;
    DivertedCall& operator=(const DivertedCall&) = delete;

    static bool active() { return depth > 0; }

  private:
    inline static thread_local int depth = 0;
};

/// While one exists, the thread's diverted calls are a test client's own: neither counted nor
/// failed.
class UncountedCalls {
  public:
    UncountedCalls() { ++depth; }
    ~UncountedCalls() { --depth; }
    UncountedCalls(const UncountedCalls&) = delete;
    UncountedCalls& operator=(const UncountedCalls&) = delete;

    static bool active() { return depth > 0; }

  private:
    inline static thread_local int depth = 0;
};

/// For the diversions: counts a call; returns its error when it is to fail, else 0.
int noteCall(Call call, const char* name, std::initializer_list<int> arguments = {});
