#include "stream/opus_bank.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/call_faults.h"
#include "tests/support/child_run.h"

namespace {

template <class Request>
opus_int32 valueOf(OpusEncoder* encoder, Request request) {
    opus_int32 value = -1;
    EXPECT_EQ(opus_encoder_ctl(encoder, request, &value), OPUS_OK);
    return value;
}

TEST(OpusBank, HoldsOneEncoderPerCompressedRateCode) {
    const ChildRun run = runChild([] {
        fillOpusBank();
        const opus_int32 bitRates[] = {0, 64000, 128000, 256000, 0, 20000};
        ASSERT_EQ(opusEnc.size(), 6U);
        for (std::size_t code = 0; code < opusEnc.size(); ++code) {
            SCOPED_TRACE(code);
            ASSERT_EQ(opusEnc[code] != nullptr, bitRates[code] != 0);
            if (opusEnc[code] != nullptr) {
                EXPECT_EQ(valueOf(opusEnc[code], OPUS_GET_BITRATE_REQUEST), bitRates[code]);
                EXPECT_EQ(valueOf(opusEnc[code], OPUS_GET_SIGNAL_REQUEST), OPUS_SIGNAL_MUSIC);
                EXPECT_EQ(valueOf(opusEnc[code], OPUS_GET_SAMPLE_RATE_REQUEST), 48000);
                EXPECT_EQ(valueOf(opusEnc[code], OPUS_GET_APPLICATION_REQUEST),
                          OPUS_APPLICATION_AUDIO);
            }
        }
        EXPECT_EQ(countOf(Call::OpusEncoderCreate), 4) << "code 4 is not even tried";
    });
    EXPECT_EQ(run.out, "");
}

CHILD_TEST(OpusBank, OtherSettingsStayTheLibrarysDefaults) {
    fillOpusBank();
    int error = 0;
    OpusEncoder* const plain = opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, &error);
    for (const int request :
         {OPUS_GET_COMPLEXITY_REQUEST, OPUS_GET_VBR_REQUEST, OPUS_GET_DTX_REQUEST,
          OPUS_GET_INBAND_FEC_REQUEST, OPUS_GET_PACKET_LOSS_PERC_REQUEST,
          OPUS_GET_LSB_DEPTH_REQUEST, OPUS_GET_MAX_BANDWIDTH_REQUEST}) {
        EXPECT_EQ(valueOf(opusEnc[1], request), valueOf(plain, request)) << request;
    }
    opus_encoder_destroy(plain);
}

/// A positive error comes together with an encoder.
class MissingEncoder : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(MissingEncoder, IsWarnedOfOnceAndTheOthersAreThere) {
    const std::size_t codes[] = {1, 2, 3, 5};
    const auto [nth, error] = GetParam();
    const std::size_t missing = codes[nth - 1];
    const ChildRun run = runChild([nth = nth, error = error, missing, &codes] {
        failCall(Call::OpusEncoderCreate, nth, error);
        fillOpusBank();
        for (const std::size_t code : codes) {
            EXPECT_EQ(opusEnc.at(code) == nullptr, code == missing) << code;
        }
    });
    EXPECT_EQ(run.out, "Warning, could not initialize Opus encoder " + std::to_string(missing) +
                           (error < 0 ? " (memory allocation failed)\n" : " (internal error)\n"));
}

INSTANTIATE_TEST_SUITE_P(OpusBank, MissingEncoder,
                         testing::Combine(testing::Values(1, 2, 3, 4),
                                          testing::Values(OPUS_ALLOC_FAIL, -OPUS_INTERNAL_ERROR)));

TEST(OpusBank, WithoutAnyEncoderFourWarningsArePrinted) {
    const ChildRun run = runChild([] {
        failCall(Call::OpusEncoderCreate, EVERY_CALL, OPUS_INTERNAL_ERROR);
        fillOpusBank();
        for (const OpusEncoder* encoder : opusEnc) {
            EXPECT_EQ(encoder, nullptr);
        }
    });
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 4);
}

}  // namespace
