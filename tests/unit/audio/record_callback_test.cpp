#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>

#include "tests/unit/audio/audio_fixture.h"

namespace {

constexpr unsigned long BLOCK = 338;
constexpr std::size_t COMP_SAMPLES = 480 * 2;

using Samples = std::vector<std::int16_t>;

/// Frames whose samples count up from a start, so that a lost or repeated one is seen.
Samples ramp(unsigned long frames, int start) {
    Samples samples(frames * 2);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<std::int16_t>(start + static_cast<int>(i));
    }
    return samples;
}

int call(const Samples& samples) {
    return Audio::recordCallback(samples.data(), nullptr, samples.size() / 2, nullptr, 0, nullptr);
}

int callWithoutInput(unsigned long frames) {
    return Audio::recordCallback(nullptr, nullptr, frames, nullptr, 0, nullptr);
}

/// Each test in a child with fresh buffers, since the callback keeps state for the process.
ChildRun withOpenCapture(const std::function<void()>& body) {
    return runWithVerbose(false, [&body] {
        static std::atomic<bool> rate{false};
        EXPECT_EQ(Audio::Open(0, rate), 0);
        std::memset(Audio::_CaptureBuffer, 'r', 1368);
        std::memset(Audio::_CaptureBufferComp, 'c', 1936);
        std::puts("--");
        std::fflush(stdout);
        body();
    });
}

std::string linesOf(const ChildRun& run) {
    return run.out.substr(run.out.find("--\n") + 3);
}

const char* const NULL_LINE = "Record callback received null buffer\n";

TEST(RecordCallback, SecondBlockFillsTheCompressionBufferAndSpillsOver) {
    withOpenCapture([] {
        const Samples stream = ramp(2 * BLOCK, 1);
        call({stream.begin(), stream.begin() + BLOCK * 2});
        call({stream.begin() + BLOCK * 2, stream.end()});
        ASSERT_EQ(handOvers().size(), 3U);
        EXPECT_EQ(handOvers()[1].length, 1368);
        EXPECT_EQ(handOvers()[2].buffer, Audio::_CaptureBufferComp);
        EXPECT_EQ(handOvers()[2].length, 1936);
        EXPECT_TRUE(handOvers()[2].hasInput);
        EXPECT_EQ(handOvers()[2].samples, Samples(stream.begin(), stream.begin() + COMP_SAMPLES));
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 16 + 196 * 4);
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 800);
        Samples spilled(196 * 2);
        std::memcpy(spilled.data(), Audio::_CaptureBufferComp + 16, 196 * 4);
        EXPECT_EQ(spilled, Samples(stream.begin() + COMP_SAMPLES, stream.end()));
    });
}

TEST(RecordCallback, NeverWritesTheHeaderRoom) {
    withOpenCapture([] {
        call(ramp(BLOCK, 1));
        EXPECT_EQ(std::string(Audio::_CaptureBuffer, 16), std::string(16, 'h'));
        EXPECT_EQ(std::string(Audio::_CaptureBufferComp, 16), std::string(16, 'c'));
    });
}

TEST(RecordCallback, After480BlocksEveryFrameWasHandedOverInOrder) {
    withOpenCapture([] {
        Samples sent;
        Samples received;
        std::size_t compressed = 0;
        for (int i = 0; i < 480; ++i) {
            const Samples block = ramp(BLOCK, i * 31);
            sent.insert(sent.end(), block.begin(), block.end());
            handOvers().clear();
            EXPECT_EQ(call(block), 0);
            ASSERT_GE(handOvers().size(), 1U);
            ASSERT_LE(handOvers().size(), 2U) << "at most one compressed hand-over a call";
            EXPECT_EQ(handOvers()[0].samples, block);
            if (handOvers().size() == 2) {
                ++compressed;
                const Samples& gathered = handOvers()[1].samples;
                received.insert(received.end(), gathered.begin(), gathered.end());
            }
        }
        EXPECT_EQ(compressed, 338U);
        EXPECT_EQ(received, sent);
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 16);
    });
}

TEST(RecordCallback, MissingInputBecomesSilenceInBothBuffers) {
    const ChildRun run = withOpenCapture([] {
        EXPECT_EQ(callWithoutInput(BLOCK), paContinue);
        ASSERT_EQ(handOvers().size(), 1U);
        EXPECT_EQ(handOvers()[0].length, 1368);
        EXPECT_FALSE(handOvers()[0].hasInput);
        EXPECT_EQ(handOvers()[0].samples, Samples(BLOCK * 2, 0));
        callWithoutInput(BLOCK);
        ASSERT_EQ(handOvers().size(), 3U);
        EXPECT_EQ(handOvers()[2].samples, Samples(COMP_SAMPLES, 0));
        EXPECT_FALSE(handOvers()[2].hasInput);
    });
    EXPECT_EQ(linesOf(run), NULL_LINE);
}

TEST(RecordCallback, MissingInputIsReportedOncePerRun) {
    const ChildRun run = withOpenCapture([] {
        callWithoutInput(BLOCK);
        callWithoutInput(BLOCK);
        call(ramp(BLOCK, 1));
        callWithoutInput(BLOCK);
        callWithoutInput(0);
    });
    EXPECT_EQ(linesOf(run), std::string(NULL_LINE) + NULL_LINE);
}

TEST(RecordCallback, NoInputAndNoFramesHandsOverAHeaderOnly) {
    const ChildRun run = withOpenCapture([] {
        EXPECT_EQ(callWithoutInput(0), paContinue);
        ASSERT_EQ(handOvers().size(), 1U);
        EXPECT_EQ(handOvers()[0].buffer, Audio::_CaptureBuffer);
        EXPECT_EQ(handOvers()[0].length, 16);
        EXPECT_FALSE(handOvers()[0].hasInput);
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 16);
        EXPECT_EQ(std::string(Audio::_CaptureBufferComp, 1936), std::string(1936, 'c'));
    });
    EXPECT_EQ(linesOf(run), NULL_LINE);
}

TEST(RecordCallback, InputWithoutFramesHandsOverAHeaderOnly) {
    const ChildRun run = withOpenCapture([] {
        const std::int16_t sample = 7;
        EXPECT_EQ(Audio::recordCallback(&sample, nullptr, 0, nullptr, 0, nullptr), paContinue);
        ASSERT_EQ(handOvers().size(), 1U);
        EXPECT_EQ(handOvers()[0].length, 16);
        EXPECT_TRUE(handOvers()[0].hasInput);
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 16);
    });
    EXPECT_EQ(linesOf(run), "");
}

TEST(RecordCallback, WhateverTheSendPathReportsTheCaptureGoesOn) {
    withOpenCapture([] {
        for (const int result : {-1, int{paComplete}, int{paAbort}, 42}) {
            SCOPED_TRACE(result);
            sendPathResult() = result;
            handOvers().clear();
            EXPECT_EQ(call(ramp(BLOCK, 1)), 0);
            EXPECT_EQ(call(ramp(BLOCK, 1)), 0);
            EXPECT_EQ(callWithoutInput(BLOCK), 0);
            EXPECT_EQ(callWithoutInput(0), 0);
            EXPECT_GT(handOvers().size(), 4U) << "the compressed ones are among them";
        }
    });
}

TEST(RecordCallback, CompressedHandOverTakesTheInputFlagOfTheCallThatCompletesIt) {
    withOpenCapture([] {
        callWithoutInput(BLOCK);
        call(ramp(BLOCK, 1));  // Completes the first: half silence, half input.
        ASSERT_EQ(handOvers().size(), 3U);
        EXPECT_TRUE(handOvers()[2].hasInput);
        callWithoutInput(BLOCK);  // Completes the second.
        ASSERT_EQ(handOvers().size(), 5U);
        EXPECT_FALSE(handOvers()[4].hasInput);
        EXPECT_NE(handOvers()[4].samples, Samples(COMP_SAMPLES, 0));
    });
}

class OverlongBlock : public testing::TestWithParam<unsigned long> {};

TEST_P(OverlongBlock, IsHandedOnInPiecesThatFit) {
    const unsigned long frames = GetParam();
    withOpenCapture([frames] {
        const Samples block = ramp(frames, 1);
        EXPECT_EQ(call(block), paContinue);
        Samples raw;
        Samples gathered;
        for (const HandOver& handOver : handOvers()) {
            const bool compressed = handOver.length == 1936;
            EXPECT_LE(handOver.length, compressed ? 1936 : 1368);
            EXPECT_EQ(handOver.buffer,
                      compressed ? Audio::_CaptureBufferComp : Audio::_CaptureBuffer);
            Samples& all = compressed ? gathered : raw;
            all.insert(all.end(), handOver.samples.begin(), handOver.samples.end());
        }
        EXPECT_EQ(raw, block);
        EXPECT_EQ(gathered.size(), frames / 480 * COMP_SAMPLES);
        EXPECT_TRUE(std::equal(gathered.begin(), gathered.end(), block.begin()));
        EXPECT_EQ(Audio::_CurrentCaptureIndexComp, 16 + static_cast<int>(frames % 480) * 4);
        handOvers().clear();
        callWithoutInput(frames);
        std::size_t silent = 0;
        for (const HandOver& handOver : handOvers()) {
            EXPECT_FALSE(handOver.hasInput);
            silent += handOver.length == 1936 ? 0 : handOver.samples.size() / 2;
        }
        EXPECT_EQ(silent, frames);
    });
}

// 480 is the count whose raw length would pass for a compression buffer.
INSTANTIATE_TEST_SUITE_P(RecordCallback, OverlongBlock,
                         testing::Values(339, 480, 676, 677, 1024, 5000));

TEST(RecordCallback, BlocksOfAnyLengthKeepTheOrderOfTheFrames) {
    const unsigned seed = std::random_device{}();
    withOpenCapture([seed] {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        std::uniform_int_distribution<unsigned long> lengths(1, BLOCK);
        Samples sent;
        for (int i = 0; i < 500; ++i) {
            const Samples block = ramp(lengths(random), i * 17);
            sent.insert(sent.end(), block.begin(), block.end());
            call(block);
        }
        Samples raw;
        Samples gathered;
        for (const HandOver& handOver : handOvers()) {
            Samples& all = handOver.length == 1936 ? gathered : raw;
            all.insert(all.end(), handOver.samples.begin(), handOver.samples.end());
        }
        EXPECT_EQ(raw, sent);
        sent.resize(sent.size() / COMP_SAMPLES * COMP_SAMPLES);
        EXPECT_EQ(gathered, sent);
    });
}

}  // namespace
