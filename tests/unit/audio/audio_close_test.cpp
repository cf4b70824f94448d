#include <thread>
#include <unistd.h>

#include "tests/support/waiting.h"
#include "tests/unit/audio/audio_fixture.h"

namespace {

using Calls = std::vector<std::string>;

std::atomic<bool> rate48k{false};

Calls callsSince(std::size_t first) {
    const Calls all = fakePortAudio().calls();
    return {all.begin() + static_cast<std::ptrdiff_t>(first), all.end()};
}

TEST(AudioClose, ClosesTheStreamAndTerminates) {
    const ChildRun run = runWithVerbose(false, [] {
        ASSERT_EQ(Audio::Open(0, rate48k), 0);
        const std::size_t opened = fakePortAudio().calls().size();
        EXPECT_EQ(closeAudio(), 0);
        EXPECT_EQ(callsSince(opened), (Calls{"Pa_CloseStream", "Pa_Terminate"}));
        EXPECT_FALSE(fakePortAudio().streamOpen);
        EXPECT_FALSE(fakePortAudio().initialised);
    });
    EXPECT_EQ(run.err, "");
}

TEST(AudioClose, LeavesTheBuffersAndTheRate) {
    runWithVerbose(false, [] {
        ASSERT_EQ(Audio::Open(0, vxOptionAltRate), 0);
        const char* const raw = Audio::_CaptureBuffer;
        EXPECT_EQ(closeAudio(), 0);
        EXPECT_EQ(Audio::_CaptureBuffer, raw);
        Audio::_CaptureBuffer[0] = 'x';  // Still allocated: a callback may outlive a hung close.
        EXPECT_TRUE(getVxOptionAltRate());
    });
}

TEST(AudioClose, FailureIsReportedAndPortAudioStillTerminated) {
    const ChildRun run = runWithVerbose(false, [] {
        fakePortAudio().closeResult = paInternalError;
        ASSERT_EQ(Audio::Open(0, rate48k), 0);
        EXPECT_EQ(closeAudio(), paInternalError);
        EXPECT_EQ(fakePortAudio().calls().back(), "Pa_Terminate");
    });
    EXPECT_EQ(run.err,
              "An error occured while closing the portaudio stream\n"
              "Error number: -9986\n"
              "Error message: Internal PortAudio error\n");
}

TEST(AudioClose, BeforeAnOpenReportsAndMakesThatOpenFail) {
    const ChildRun run = runWithVerbose(false, [] {
        EXPECT_EQ(closeAudio(), paNotInitialized);
        EXPECT_EQ(fakePortAudio().calls(), (Calls{"Pa_CloseStream", "Pa_Terminate"}));
        rate48k.store(true);
        EXPECT_EQ(Audio::Open(0, rate48k), paNotInitialized);
        EXPECT_FALSE(rate48k.load());
        EXPECT_EQ(fakePortAudio().calls().size(), 2U) << "PortAudio was started after its end";
    });
    EXPECT_EQ(run.err,
              "An error occured while closing the portaudio stream\n"
              "Error number: -10000\n"
              "Error message: PortAudio not initialized\n");
}

TEST(AudioClose, DuringAnOpenWaitsForIt) {
    runWithVerbose(false, [] {
        fakePortAudio().initializeHangs = true;
        std::thread opening([] { EXPECT_EQ(Audio::Open(0, rate48k), 0); });
        waitUntil(fakePortAudio().insideInitialize);
        std::thread closing([] { EXPECT_EQ(Audio::Close(), 0); });
        usleep(50000);
        EXPECT_EQ(fakePortAudio().calls(), (Calls{"Pa_Initialize"}));
        fakePortAudio().initializeHangs = false;
        opening.join();
        closing.join();
        EXPECT_EQ(fakePortAudio().calls().back(), "Pa_Terminate");
        EXPECT_FALSE(fakePortAudio().streamOpen);
    });
}

TEST(AudioClose, RateWithoutACaptureIsNot48000) {
    EXPECT_FALSE(getVxOptionAltRate());
}

}  // namespace
