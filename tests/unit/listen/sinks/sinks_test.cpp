#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sndfile.h>

#include "listen/audio/level_meter.h"
#include "listen/sinks/pipe_sink.h"
#include "listen/sinks/recorder.h"
#include "tests/support/packets.h"

using vxlisten::PipeSink;
using vxlisten::Recorder;
using vxlisten::SinkState;

namespace {

class Recording : public testing::Test {
  protected:
    Recording() {
        std::string pattern = (std::filesystem::temp_directory_path() / "listen-XXXXXX").string();
        folder_ = mkdtemp(pattern.data());
    }
    ~Recording() override { std::filesystem::remove_all(folder_); }

    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    /// Everything in a sound file.
    static std::vector<std::int16_t> read(const std::string& name, SF_INFO& info) {
        info = {};
        SNDFILE* const file = sf_open(name.c_str(), SFM_READ, &info);
        if (file == nullptr) {
            return {};
        }
        std::vector<std::int16_t> samples(static_cast<std::size_t>(info.frames) * 2);
        sf_readf_short(file, samples.data(), info.frames);
        sf_close(file);
        return samples;
    }

    std::filesystem::path folder_;
};

/// Limits the size of files, like a full disk.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    rlimit before_ = {};
};

std::vector<std::int16_t> noise(std::size_t frames) {
    std::vector<std::int16_t> samples(frames * 2);
    unsigned state = 1;
    for (std::int16_t& sample : samples) {
        state = state * 1103515245U + 12345U;
        sample = static_cast<std::int16_t>(state >> 17);
    }
    return samples;
}

}  // namespace

class LosslessRecording : public Recording, public testing::WithParamInterface<const char*> {};

TEST_P(LosslessRecording, HoldsEverySample) {
    const auto samples = noise(5000);
    Recorder recorder;
    ASSERT_TRUE(recorder.open(path(GetParam())));
    EXPECT_EQ(recorder.write(samples.data(), 5000, 44100), SinkState::Open);
    EXPECT_EQ(recorder.finish(), SinkState::Open);
    SF_INFO info;
    EXPECT_EQ(read(path(GetParam()), info), samples);
    EXPECT_EQ(info.samplerate, 44100);
}

INSTANTIATE_TEST_SUITE_P(Recording, LosslessRecording, testing::Values("a.wav", "A.WAV", "b.flac"));

class LossyRecording : public Recording, public testing::WithParamInterface<const char*> {};

TEST_P(LossyRecording, HasTheRightLengthAndLevel) {
    const auto samples = packets::tone(96000);
    Recorder recorder;
    ASSERT_TRUE(recorder.open(path(GetParam())));
    EXPECT_EQ(recorder.write(samples.data(), 96000, 48000), SinkState::Open);
    EXPECT_EQ(recorder.finish(), SinkState::Open);
    SF_INFO info;
    const auto recorded = read(path(GetParam()), info);
    EXPECT_NEAR(static_cast<double>(info.frames), 96000.0, 2000.0);
    vxlisten::LevelMeter meter;
    meter.add(recorded.data() + 48000, 48000);
    EXPECT_NEAR(meter.rmsDbfs(0), -13.3, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Recording, LossyRecording, testing::Values("a.ogg", "b.opus"));

TEST_F(Recording, OpusFileOfA44100StreamKeepsItsLengthInTime) {
    const auto samples = noise(44100);
    Recorder recorder;
    ASSERT_TRUE(recorder.open(path("a.opus")));
    recorder.write(samples.data(), 44100, 44100);
    recorder.finish();
    SF_INFO info;
    read(path("a.opus"), info);
    EXPECT_EQ(info.samplerate, 48000);
    EXPECT_NEAR(static_cast<double>(info.frames), 48000.0, 1500.0);
}

TEST_F(Recording, AChangeOfSampleRateKeepsTheLengthInTime) {
    const auto samples = noise(48000);
    Recorder recorder;
    ASSERT_TRUE(recorder.open(path("a.wav")));
    recorder.write(samples.data(), 44100, 44100);
    recorder.write(samples.data(), 48000, 48000);
    recorder.finish();
    SF_INFO info;
    read(path("a.wav"), info);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_NEAR(static_cast<double>(info.frames), 88200.0, 300.0);
}

class FullDisc : public Recording, public testing::WithParamInterface<const char*> {};

TEST_P(FullDisc, IsAFailureNotAShortRecording) {
    const auto samples = noise(48000);
    Recorder recorder;
    ASSERT_TRUE(recorder.open(path(GetParam())));
    const FileSizeLimit limit(20000);
    SinkState state = SinkState::Open;
    for (int i = 0; i < 10 && state == SinkState::Open; ++i) {
        state = recorder.write(samples.data(), 48000, 48000);
    }
    const SinkState finished = recorder.finish();
    EXPECT_EQ(finished, SinkState::Failed);
    EXPECT_NE(recorder.error().find("File too large"), std::string::npos) << recorder.error();
}

INSTANTIATE_TEST_SUITE_P(Recording, FullDisc,
                         testing::Values("a.wav", "a.flac", "a.ogg", "a.opus"));

TEST_F(Recording, AWavFileCanBeReadBeforeItIsFinished) {
    const auto samples = noise(48000);
    Recorder recorder;
    ASSERT_TRUE(recorder.open(path("a.wav")));
    recorder.write(samples.data(), 48000, 48000);
    SF_INFO info;
    EXPECT_EQ(read(path("a.wav"), info), samples);
}

TEST_F(Recording, AFolderThatIsNotThereIsToldAtOnce) {
    Recorder recorder;
    EXPECT_FALSE(recorder.open(path("missing/a.wav")));
    EXPECT_NE(recorder.error().find("No such file"), std::string::npos);
}

TEST_F(Recording, WithoutSoundLeavesNoFileBehindAndAnOldOneAlone) {
    std::ofstream(path("old.wav")) << "precious";
    Recorder created;
    Recorder old;
    ASSERT_TRUE(created.open(path("new.wav")));
    ASSERT_TRUE(old.open(path("old.wav")));
    EXPECT_EQ(created.finish(), SinkState::Open);
    EXPECT_EQ(old.finish(), SinkState::Open);
    EXPECT_FALSE(std::filesystem::exists(path("new.wav")));
    EXPECT_EQ(std::filesystem::file_size(path("old.wav")), 8u);
}

TEST_F(Recording, EndingsAreKnownWhateverTheirCase) {
    EXPECT_TRUE(Recorder::knowsEnding("x.FLAC"));
    EXPECT_FALSE(Recorder::knowsEnding("x.mp3"));
    EXPECT_FALSE(Recorder::knowsEnding("wav"));
    EXPECT_FALSE(Recorder::knowsEnding(""));
}

TEST(PipeSink, BytesLeaveAsTheyAre) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const auto samples = packets::ramp(1000, -500);
    PipeSink sink(ends[1]);
    EXPECT_EQ(sink.write(samples.data(), 1000, 48000), SinkState::Open);
    std::vector<std::int16_t> received(2000);
    EXPECT_EQ(read(ends[0], received.data(), 4000), 4000);
    EXPECT_EQ(received, samples);
    close(ends[0]);
    close(ends[1]);
}

TEST(PipeSink, AClosedPipeIsNoError) {
    signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    close(ends[0]);
    const auto samples = packets::ramp(100, 0);
    PipeSink sink(ends[1]);
    EXPECT_EQ(sink.write(samples.data(), 100, 48000), SinkState::Closed);
    EXPECT_EQ(sink.write(samples.data(), 100, 48000), SinkState::Closed);
    EXPECT_EQ(sink.error(), "");
    close(ends[1]);
}

TEST(PipeSink, AReaderThatHasGoneIsNoticedWithoutWriting) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const PipeSink sink(ends[1]);
    EXPECT_FALSE(sink.readerGone());
    close(ends[0]);
    EXPECT_TRUE(sink.readerGone());
    close(ends[1]);
}

TEST(PipeSink, AFullDeviceIsAFailure) {
    std::FILE* const full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    const auto samples = packets::ramp(100, 0);
    PipeSink sink(fileno(full));
    EXPECT_EQ(sink.write(samples.data(), 100, 48000), SinkState::Failed);
    EXPECT_NE(sink.error().find("No space left"), std::string::npos);
    std::fclose(full);
}
