#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <unistd.h>

#include "app/base/console.h"
#include "tests/support/held_line.h"
#include "tests/support/named_case.h"
#include "tests/unit/audio/audio_fixture.h"

namespace {

/// The size in bytes of each array that the program allocated.
std::map<const void*, std::size_t>& arraySizes() {
    static auto* const sizes = new std::map<const void*, std::size_t>;
    return *sizes;
}

/// Whether there is no descriptor to keep standard error in.
bool refuseToDuplicate = false;

}  // namespace

extern "C" {
int __real_fcntl(int descriptor, int command, ...);

int __wrap_fcntl(int descriptor, int command, ...) {
    if (refuseToDuplicate && command == F_DUPFD_CLOEXEC) {
        errno = EMFILE;
        return -1;
    }
    std::va_list values;
    va_start(values, command);
    void* const value = va_arg(values, void*);
    va_end(values);
    return __real_fcntl(descriptor, command, value);
}

void* __real__Znam(std::size_t size);

void* __wrap__Znam(std::size_t size) {
    void* const array = __real__Znam(size);
    arraySizes()[array] = size;
    return array;
}
}

namespace {

using Calls = std::vector<std::string>;

const char* const REPORTED = "PortAudio reported default input device sample rate is ";
const char* const OPENING_ERROR = "An error occured while opening the portaudio stream\n";

/// Opens with a flag that was set before; returns the result and the flag.
struct Opened {
    int result;
    bool is48k;
};

Opened open() {
    std::atomic<bool> flag{true};
    const int result = Audio::Open(0, flag);
    return {result, flag.load()};
}

TEST(AudioOpen, StartsTheDefaultDeviceAsTheProgramWantsIt) {
    const ChildRun run = runWithVerbose(false, [] {
        const Opened opened = open();
        EXPECT_EQ(opened.result, 0);
        EXPECT_TRUE(opened.is48k);
        FakePortAudio& device = fakePortAudio();
        EXPECT_EQ(device.calls(),
                  (Calls{"Pa_Initialize", "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo",
                         "Pa_OpenStream", "Pa_StartStream", "Pa_GetStreamInfo"}));
        EXPECT_EQ(device.input.channelCount, 2);
        EXPECT_EQ(device.input.sampleFormat, paInt16);
        EXPECT_EQ(device.input.hostApiSpecificStreamInfo, nullptr);
        EXPECT_EQ(device.rate, 48000.0);
        EXPECT_EQ(device.framesPerBuffer, 338U);
        EXPECT_EQ(device.flags, paClipOff);
        EXPECT_EQ(device.callback, &Audio::recordCallback);
        EXPECT_EQ(Audio::stream, FakePortAudio::handle());
    });
    EXPECT_EQ(run.out,
              "Initializing PortAudio\n"
              "PortAudio reported default input device sample rate is 48000 (may not be "
              "accurate)\n"
              "Audio stream info: sample rate = 48000, input latency = 0.025 sec\n");
    EXPECT_EQ(run.err, "");
}

TEST(AudioOpen, MakesBothBuffersAndStartsBehindTheHeader) {
    runWithVerbose(false, [] {
        Audio::_CurrentCaptureIndexComp = 800;
        open();
        EXPECT_EQ(Audio::_CaptureBufferSizeComp, 1936);
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 16);
        EXPECT_EQ(arraySizes()[Audio::_CaptureBuffer], 1368U);
        EXPECT_EQ(arraySizes()[Audio::_CaptureBufferComp], 1936U);
    });
}

TEST(AudioOpen, MissingStreamInformationIsNoFailure) {
    const ChildRun run = runWithVerbose(false, [] {
        fakePortAudio().haveStreamInfo = false;
        EXPECT_EQ(open().result, 0);
    });
    EXPECT_EQ(run.out.find("Audio stream info"), std::string::npos);
}

TEST(AudioOpen, CallbackMayRunBeforeItReturns) {
    runWithVerbose(false, [] {
        fakePortAudio().callbackAtStart = true;
        EXPECT_EQ(open().result, 0);
        ASSERT_EQ(handOvers().size(), 1U);
        EXPECT_EQ(handOvers()[0].length, 1368);
    });
}

/// A device rate, the override, and the rate that is opened.
struct RateCase : NamedCase {
    double deviceRate;
    const char* override;
    int reported;
    int opened;
    const char* complaint;
};

class RateRules : public testing::TestWithParam<RateCase> {};

TEST_P(RateRules, OpenAtThisRate) {
    const RateCase& rate = GetParam();
    const ChildRun run = runWithVerbose(false, [&rate] {
        const ScopedVariable wanted("VELANTRIX_SERVER_SAMPLE_RATE", rate.override);
        fakePortAudio().deviceRate = rate.deviceRate;
        const Opened opened = open();
        EXPECT_EQ(opened.result, 0);
        EXPECT_EQ(opened.is48k, rate.opened == 48000);
        EXPECT_EQ(fakePortAudio().rate, rate.opened);
    });
    const std::string line = REPORTED + std::to_string(rate.reported) + " (may not be accurate)\n";
    EXPECT_NE(run.out.find(line), std::string::npos) << run.out;
    EXPECT_EQ(run.err, rate.complaint);
}

const RateCase RATE_CASES[] = {
    {"Device48000", 48000.0, nullptr, 48000, 48000, ""},
    {"Device44100", 44100.0, nullptr, 44100, 44100, ""},
    {"DeviceJustBelow48000", 47999.6, nullptr, 48000, 48000, ""},
    {"DeviceHalfBelow48000", 47999.5, nullptr, 48000, 48000, ""},
    {"DeviceTooFarBelow48000", 47999.4, nullptr, 47999, 44100,
     "Sample rate 47999 not supported, using 44100\n"},
    {"DeviceJustAbove44100", 44100.4, nullptr, 44100, 44100, ""},
    {"Device96000", 96000.0, nullptr, 96000, 44100,
     "Sample rate 96000 not supported, using 44100\n"},
    {"Override48000", 44100.0, "48000", 44100, 48000, ""},
    {"Override44100", 48000.0, "44100", 48000, 44100, ""},
    {"Override32000", 48000.0, "32000", 48000, 44100,
     "Sample rate 32000 not supported, using 44100\n"},
    {"OverrideOfAnUnsupportedDevice", 96000.0, "48000", 96000, 48000, ""},
    {"OverrideZero", 48000.0, "0", 48000, 44100, "Sample rate 0 not supported, using 44100\n"},
    {"OverrideThatWouldBe48000InItsLowerBits", 48000.0, "4295015296", 48000, 44100,
     "Sample rate 2147483647 not supported, using 44100\n"},
    {"OverrideWithTrailingText", 44100.0, "48000Hz", 44100, 48000, ""},
    {"OverrideThatIsNoNumber", 48000.0, "abc", 48000, 48000, ""},
    {"OverrideEmpty", 48000.0, "", 48000, 48000, ""},
    {"OverrideWithSign", 48000.0, "+44100", 48000, 48000, ""},
    {"OverrideWithLeadingBlank", 48000.0, " 44100", 48000, 48000, ""},
};

INSTANTIATE_TEST_SUITE_P(AudioOpen, RateRules, testing::ValuesIn(RATE_CASES), CASE_NAME);

/// What fails, and what comes of it.
struct FailureCase : NamedCase {
    void (*breakDevice)(FakePortAudio& device);
    int result;
    std::string report;
    Calls calls;
};

class OpenFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(OpenFailure, IsReportedAndLeavesNothingOpen) {
    const FailureCase& failure = GetParam();
    const ChildRun run = runWithVerbose(false, [&failure] {
        failure.breakDevice(fakePortAudio());
        const Opened opened = open();
        EXPECT_EQ(opened.result, failure.result);
        EXPECT_FALSE(opened.is48k);
        EXPECT_EQ(fakePortAudio().calls(), failure.calls);
        EXPECT_FALSE(fakePortAudio().initialised);
        EXPECT_EQ(Audio::stream, nullptr) << "a handle that dangles";
        EXPECT_NE(Audio::_CaptureBuffer, nullptr);
        EXPECT_NE(Audio::_CaptureBufferComp, nullptr);
    });
    EXPECT_EQ(run.err, failure.report);
    EXPECT_EQ(run.out.find("Audio stream info"), std::string::npos);
}

TEST_P(OpenFailure, FollowedByACloseReportsThatToo) {
    const FailureCase& failure = GetParam();
    const ChildRun run = runWithVerbose(false, [&failure] {
        failure.breakDevice(fakePortAudio());
        open();
        std::fputs("--\n", stderr);
        EXPECT_EQ(closeAudio(), paNotInitialized);
        EXPECT_EQ(fakePortAudio().closedStream, nullptr);
        EXPECT_EQ(fakePortAudio().calls().back(), "Pa_Terminate");
    });
    EXPECT_EQ(run.err, failure.report +
                           "--\nAn error occured while closing the portaudio stream\n"
                           "Error number: -10000\nError message: PortAudio not initialized\n");
}

const FailureCase FAILURE_CASES[] = {
    {"InitializeFails",
     [](FakePortAudio& device) { device.initializeResult = paUnanticipatedHostError; },
     paUnanticipatedHostError,
     OPENING_ERROR + std::string("Error message: Unanticipated host error\n"),
     {"Pa_Initialize"}},
    {"NoDefaultDevice",
     [](FakePortAudio& device) { device.defaultDevice = paNoDevice; },
     -10000,
     "Error: No default input device.\n" + std::string(OPENING_ERROR) +
         "Error message: PortAudio not initialized\n",
     {"Pa_Initialize", "Pa_GetDefaultInputDevice", "Pa_Terminate"}},
    {"NoDeviceInformation",
     [](FakePortAudio& device) { device.haveDeviceInfo = false; },
     -10000,
     "Error: Invalid default input device.\n" + std::string(OPENING_ERROR) +
         "Error message: PortAudio not initialized\n",
     {"Pa_Initialize", "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo", "Pa_Terminate"}},
    {"OpenStreamFails",
     [](FakePortAudio& device) { device.openResult = paDeviceUnavailable; },
     paDeviceUnavailable,
     OPENING_ERROR + std::string("Error message: Device unavailable\n"),
     {"Pa_Initialize", "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo", "Pa_OpenStream",
      "Pa_Terminate"}},
    {"StartStreamFails",
     [](FakePortAudio& device) { device.startResult = paInternalError; },
     paInternalError,
     OPENING_ERROR + std::string("Error message: Internal PortAudio error\n"),
     {"Pa_Initialize", "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo", "Pa_OpenStream",
      "Pa_StartStream", "Pa_Terminate"}},
};

INSTANTIATE_TEST_SUITE_P(AudioOpen, OpenFailure, testing::ValuesIn(FAILURE_CASES), CASE_NAME);

TEST(StandardError, IsSilentWhilePortAudioStartsAndBackAfterwards) {
    const ChildRun run = runWithVerbose(false, [] {
        fakePortAudio().chatter = "chatter of the back ends\n";
        std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
        std::fputs("before\n", stderr);
        open();
        std::fputs("after\n", stderr);
    });
    EXPECT_EQ(run.err, "before\nafter\n");
}

TEST(StandardError, IsNotTurnedOffBeforeWhatWasPrintedOnIt) {
    const ChildRun run = runWithVerbose(false, [] {
        consoleStart();
        const HeldLine held(50);
        consoleError("before\n");
        open();
    });
    EXPECT_EQ(run.err, "before\n");
}

TEST(StandardError, StaysOpenWithVerbose) {
    const ChildRun run = runWithVerbose(true, [] {
        fakePortAudio().chatter = "chatter of the back ends\n";
        open();
    });
    EXPECT_EQ(run.err,
              "chatter of the back ends\n"
              "PortAudio Pa_Initialize call completed with return value 0\n");
}

TEST(StandardError, NamesTheFailedStartWithVerbose) {
    const ChildRun run = runWithVerbose(true, [] {
        fakePortAudio().initializeResult = paInternalError;
        open();
    });
    EXPECT_EQ(run.err,
              "PortAudio Pa_Initialize call completed with return value -9986\n"
              "An error occured while opening the portaudio stream\n"
              "Error message: Internal PortAudio error\n");
}

TEST(StandardError, ThatCannotBeKeptIsNotTurnedOff) {
    const ChildRun run = runWithVerbose(false, [] {
        refuseToDuplicate = true;
        EXPECT_EQ(open().result, 0);
        std::fputs("later\n", stderr);
    });
    EXPECT_EQ(run.err, "PortAudio Pa_Initialize call completed with return value 0\nlater\n");
}

TEST(StandardError, LeavesNoDescriptorBehind) {
    runWithVerbose(false, [] {
        const int before = dup(0);
        close(before);
        open();
        EXPECT_EQ(dup(0), before);
    });
}

TEST(AudioOpen, LibraryThatAbortsInItsStartUpEndsTheProgramInWords) {
    const ChildRun run = runWithVerbose(false, [] {
        fakePortAudio().initializeAborts = true;
        std::atomic<bool> flag{false};
        Audio::Open(0, flag);
    });
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out,
              "Initializing PortAudio\nVelantrixServer: the sound library failed in its start-up, "
              "memory may be short. Quitting.\n");
}

}  // namespace
