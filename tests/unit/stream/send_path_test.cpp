#include "stream/send_path.h"

#include <algorithm>
#include <cstring>
#include <thread>

#include <opus/opus.h>

#include "stream/capture_rate.h"
#include "stream/client_table.h"
#include "stream/opus_bank.h"
#include "stream/service_step.h"
#include "tests/support/call_faults.h"
#include "tests/support/named_case.h"
#include "tests/unit/stream/send_path_fixture.h"

namespace {

using Arguments = std::vector<std::vector<int>>;

TEST_F(SendPath, WithoutClientsOnlyTheCountersAdvance) {
    process(RAW);
    EXPECT_EQ(seqNum, 1U);
    EXPECT_EQ(seqNumComp, 0U);
    process(COMPRESSED);
    process(COMPRESSED);
    EXPECT_EQ(seqNum, 1U);
    EXPECT_EQ(seqNumComp, 2U);
    EXPECT_EQ(countOf(Call::OpusEncode), 0);
    EXPECT_EQ(countOf(Call::EnetPacketCreate), 0);
    EXPECT_EQ(countOf(Call::EnetHostService), 3);
}

TEST_F(SendPath, RawPacketIsTheBlockBehindAHeader) {
    TestClient& client = stream(RELIABLE);
    seqNum = 0x01020304;
    const std::vector<unsigned char> samples = payloadOf(RAW);
    process(RAW);
    const ReceivedPacket& packet = receive(client);
    const std::vector<unsigned char> header(packet.bytes.begin(), packet.bytes.begin() + 16);
    EXPECT_EQ(header, (std::vector<unsigned char>{0, 0, 0, 0, 4, 3, 2, 1, 3, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(packet.bytes.size(), 1368U);
    EXPECT_EQ(payloadOf(packet), samples);
    EXPECT_EQ(payloadOf(RAW), samples) << "the samples of the buffer were altered";
}

TEST_F(SendPath, CountersWrap) {
    TestClient& client = stream(RELIABLE);
    seqNum = 0xFFFFFFFF;
    process(RAW);
    EXPECT_EQ(receive(client).header.seq, 0xFFFFFFFF);
    process(RAW);
    EXPECT_EQ(receive(client).header.seq, 0U);
    seqNumComp = 0xFFFFFFFF;
    process(COMPRESSED);
    EXPECT_EQ(seqNumComp, 0U);
}

/// A client's choice, the capture rate, and the flags and delivery of what it receives.
struct FlagsCase {
    std::uint32_t request;
    bool is48k;
    std::uint32_t flags;
};

void PrintTo(const FlagsCase& flagsCase, std::ostream* out) {
    *out << "request " << flagsCase.request << (flagsCase.is48k ? " at 48000" : " at 44100");
}

class PacketFlags : public SendPath, public testing::WithParamInterface<FlagsCase> {};

TEST_P(PacketFlags, TellDeliveryRateAndCode) {
    const FlagsCase& expected = GetParam();
    vxOptionAltRate.store(expected.is48k);
    TestClient& client = stream(expected.request);
    process(expected.request >> 6 == 0 ? RAW : COMPRESSED);
    const ReceivedPacket& packet = receive(client);
    EXPECT_EQ(packet.header.flags, expected.flags);
    EXPECT_EQ(packet.header.msgId, 0U);
    EXPECT_EQ(packet.reliable, (expected.flags & 1) != 0);
}

INSTANTIATE_TEST_SUITE_P(SendPath, PacketFlags,
                         testing::Values(FlagsCase{RELIABLE, true, 3},
                                         FlagsCase{RELIABLE, false, 1},
                                         FlagsCase{BEST_EFFORT, true, 2},
                                         FlagsCase{BEST_EFFORT, false, 0},
                                         FlagsCase{RELIABLE | rate(1), true, 0x43},
                                         FlagsCase{RELIABLE | rate(2), false, 0x81},
                                         FlagsCase{BEST_EFFORT | rate(3), true, 0xC2},
                                         FlagsCase{BEST_EFFORT | rate(4), false, 0x100},
                                         FlagsCase{BEST_EFFORT | rate(5), true, 0x142},
                                         FlagsCase{RELIABLE | rate(6), true, 0x183},
                                         FlagsCase{RELIABLE | rate(7), true, 0x1C3}));

class OpusCode : public SendPath, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(OpusCode, ClientsReceiveOneOpusPacketABlock) {
    TestClient& client = stream(RELIABLE | rate(GetParam()));
    int error = 0;
    OpusDecoder* const decoder = opus_decoder_create(48000, 2, &error);
    for (std::uint32_t block = 0; block < 5; ++block) {
        process(COMPRESSED);
        const ReceivedPacket& packet = receive(client);
        EXPECT_EQ(packet.header.seq, block);
        EXPECT_GE(packet.bytes.size(), 17U);
        EXPECT_LE(packet.bytes.size(), 1368U);
        opus_int16 samples[480 * 2];
        EXPECT_EQ(opus_decode(decoder, packet.bytes.data() + 16,
                              static_cast<opus_int32>(packet.bytes.size()) - 16, samples, 480, 0),
                  480);
    }
    opus_decoder_destroy(decoder);
}

TEST_P(OpusCode, PacketIsTheEncodedBlock) {
    TestClient& client = stream(RELIABLE | rate(GetParam()));
    std::vector<unsigned char> encoder(static_cast<std::size_t>(opus_encoder_get_size(2)));
    std::memcpy(encoder.data(), opusEnc[GetParam()], encoder.size());
    std::vector<opus_int16> samples(480 * 2);
    std::memcpy(samples.data(), buffer.data() + 16, samples.size() * 2);
    std::vector<unsigned char> packet(1352);
    packet.resize(static_cast<std::size_t>(
        opus_encode(reinterpret_cast<OpusEncoder*>(encoder.data()), samples.data(), 480,
                    packet.data(), static_cast<opus_int32>(packet.size()))));
    process(COMPRESSED);
    EXPECT_EQ(payloadOf(receive(client)), packet);
}

TEST_P(OpusCode, FailedEncoderGivesTheUncompressedFallback) {
    TestClient& client = stream(rate(GetParam()));
    for (const int error : {OPUS_BAD_ARG, OPUS_INTERNAL_ERROR, RETURN_ZERO}) {
        SCOPED_TRACE(error);
        failCall(Call::OpusEncode, 1, error);
        process(COMPRESSED);
        const ReceivedPacket& packet = receive(client);
        EXPECT_EQ(packet.bytes.size(), 1936U);
        EXPECT_EQ(packet.header.rateCode(), GetParam());
        EXPECT_EQ(payloadOf(packet), payloadOf(COMPRESSED));
    }
    process(COMPRESSED);
    EXPECT_LE(receive(client).bytes.size(), 1368U);
}

TEST_P(OpusCode, MissingEncoderGivesTheUncompressedFallback) {
    OpusEncoder* const taken = opusEnc.at(GetParam());
    opusEnc.at(GetParam()) = nullptr;
    TestClient& client = stream(RELIABLE | rate(GetParam()));
    process(COMPRESSED);
    EXPECT_EQ(receive(client).bytes.size(), 1936U);
    EXPECT_EQ(countOf(Call::OpusEncode), 0);
    opus_encoder_destroy(taken);
}

INSTANTIATE_TEST_SUITE_P(SendPath, OpusCode, testing::Values(1U, 2U, 3U, 5U));

class CodeWithoutEncoder : public SendPath, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(CodeWithoutEncoder, GetsTheFallbackOfEveryCompressedBlock) {
    TestClient& client = stream(RELIABLE | rate(GetParam()));
    for (std::uint32_t block = 0; block < 4; ++block) {
        process(COMPRESSED);
        const ReceivedPacket& packet = receive(client);
        EXPECT_EQ(packet.bytes.size(), 1936U);
        EXPECT_EQ(packet.header.seq, block);
        EXPECT_EQ(packet.header.rateCode(), GetParam());
        EXPECT_EQ(payloadOf(packet), payloadOf(COMPRESSED));
    }
    EXPECT_EQ(countOf(Call::OpusEncode), 0);
}

INSTANTIATE_TEST_SUITE_P(SendPath, CodeWithoutEncoder, testing::Values(4U, 6U, 7U));

TEST_F(SendPath, EachRateCodeInUseIsEncodedOnce) {
    stream(RELIABLE | rate(1));
    stream(BEST_EFFORT | rate(1));
    stream(RELIABLE | rate(3));
    stream(RELIABLE);
    resetCalls();
    process(COMPRESSED);
    EXPECT_EQ(countOf(Call::OpusEncode), 2);
    EXPECT_EQ(countOf(Call::EnetPeerSend), 3);
    process(RAW);
    EXPECT_EQ(countOf(Call::OpusEncode), 2);
    EXPECT_EQ(countOf(Call::EnetPeerSend), 4);
}

TEST_F(SendPath, EachPacketIsFlushedAndTheHostServicedLast) {
    stream(RELIABLE);
    stream(BEST_EFFORT);
    resetCalls();
    process(RAW);
    EXPECT_EQ(callLog(),
              (std::vector<std::string>{"enet_packet_create", "enet_peer_send", "enet_host_flush",
                                        "enet_packet_create", "enet_peer_send", "enet_host_flush",
                                        "capture report", "enet_host_service"}));
}

TEST_F(SendPath, HostIsServicedForAtMostOneMillisecond) {
    resetCalls();
    process(RAW);
    process(COMPRESSED);
    process(0);
    EXPECT_EQ(argumentsOf(Call::EnetHostService), (Arguments{{1}, {1}, {1}}));
}

TEST_F(SendPath, BlockIsEncodedAs480FramesIntoAtMost1352Bytes) {
    stream(RELIABLE | rate(1));
    stream(RELIABLE | rate(3));
    resetCalls();
    process(COMPRESSED);
    EXPECT_EQ(argumentsOf(Call::OpusEncode), (Arguments{{480, 1352}, {480, 1352}}));
}

TEST_F(SendPath, ClientThatAskedForNothingReceivesNothing) {
    connect(COMPANY | 1);
    resetCalls();
    process(RAW);
    process(COMPRESSED);
    EXPECT_EQ(countOf(Call::EnetPacketCreate), 0);
    EXPECT_EQ(countOf(Call::OpusEncode), 0);
}

TEST_F(SendPath, ClientThatIsBeingDisconnectedIsSkipped) {
    stream(RELIABLE);
    stream(RELIABLE | rate(1));
    for (const std::size_t index : {0U, 1U}) {
        enet_peer_disconnect(clientConn.at(index).peer, 0);
        ASSERT_NE(clientConn.at(index).peer->state, ENET_PEER_STATE_CONNECTED);
    }
    resetCalls();
    process(RAW);
    process(COMPRESSED);
    EXPECT_EQ(countOf(Call::EnetPacketCreate), 0);
    EXPECT_EQ(countOf(Call::OpusEncode), 0) << "encoded for nobody";
}

TEST_F(SendPath, NewChoiceHoldsFromTheNextBlockOn) {
    TestClient& client = stream(RELIABLE);
    process(RAW);
    EXPECT_EQ(receive(client).header.flags, 3U);
    tell(client, dataRequest(rate(2)));
    resetCalls();
    process(RAW);
    EXPECT_EQ(countOf(Call::EnetPacketCreate), 0);
    process(COMPRESSED);
    EXPECT_EQ(receive(client).header.flags, 0x82U);
}

/// A call and what it does: packets for a raw client, counters, the capture report.
struct LengthCase : NamedCase {
    int length;
    bool hasInput;
    int packets;
    std::uint32_t rawCount;
    std::uint32_t compressedCount;
    int captureReports;
};

class BufferLength : public SendPath, public testing::WithParamInterface<LengthCase> {};

TEST_P(BufferLength, ChoosesWhatHappens) {
    const LengthCase& expected = GetParam();
    TestClient& client = stream(RELIABLE);
    resetCalls();
    process(expected.length, expected.hasInput);
    EXPECT_EQ(countOf(Call::EnetPacketCreate), expected.packets);
    EXPECT_EQ(seqNum, expected.rawCount);
    EXPECT_EQ(seqNumComp, expected.compressedCount);
    EXPECT_EQ(core().captureReports, expected.captureReports);
    EXPECT_EQ(countOf(Call::EnetHostService), 1);
    if (expected.packets > 0) {
        const ReceivedPacket& packet = receive(client);
        EXPECT_EQ(packet.bytes.size(), static_cast<std::size_t>(expected.length));
        EXPECT_EQ(payloadOf(packet), payloadOf(expected.length));
    }
}

INSTANTIATE_TEST_SUITE_P(SendPath, BufferLength,
                         testing::Values(LengthCase{"UsualBlock", 1368, true, 1, 1, 0, 1},
                                         LengthCase{"SubstitutedSilence", 1368, false, 1, 1, 0, 0},
                                         LengthCase{"OneFrame", 20, true, 1, 1, 0, 1},
                                         LengthCase{"HeaderOnly", 16, true, 1, 1, 0, 0},
                                         LengthCase{"BelowTheHeader", 15, true, 0, 0, 0, 0},
                                         LengthCase{"Nothing", 0, true, 0, 0, 0, 0},
                                         LengthCase{"Negative", -1, true, 0, 0, 0, 0},
                                         LengthCase{"JustBelowCompressed", 1932, true, 1, 1, 0, 1},
                                         LengthCase{"JustAboveCompressed", 1940, true, 1, 1, 0, 1},
                                         LengthCase{"Compressed", 1936, true, 0, 0, 1, 0}),
                         CASE_NAME);

TEST_F(SendPath, CaptureIsReportedWithoutClientsToo) {
    process(RAW);
    EXPECT_EQ(callLog(), (std::vector<std::string>{"capture report", "enet_host_service"}));
}

TEST_F(SendPath, FailedPacketCostsOneClientOnePacket) {
    TestClient& first = stream(RELIABLE);
    TestClient& second = stream(RELIABLE);
    failCall(Call::EnetPacketCreate, 1, 1);
    process(RAW);
    process(RAW);
    pumpUntil([&] { return first.packets.size() == 1 && second.packets.size() == 2; });
    EXPECT_EQ(first.packets[0].header.seq, 1U);
    EXPECT_EQ(second.packets[0].header.seq, 0U);
}

TEST_F(SendPath, RefusedPacketIsGivenBack) {
    TestClient& first = stream(RELIABLE);
    TestClient& second = stream(RELIABLE);
    resetCalls();
    failCall(Call::EnetPeerSend, 1, 1);
    process(RAW);
    EXPECT_EQ(countOf(Call::EnetPacketDestroy), 1);
    process(RAW);
    pumpUntil([&] { return first.packets.size() == 1 && second.packets.size() == 2; });
    EXPECT_EQ(countOf(Call::EnetPacketDestroy), 1);
}

TEST_F(SendPath, ResultIsThatOfTheServiceStep) {
    EXPECT_EQ(process(RAW), 0);
    failCall(Call::EnetHostService, 1, -1);
    EXPECT_EQ(process(RAW), -1);
    failCall(Call::EnetHostService, 1, -1);
    EXPECT_EQ(process(0), -1);
    clients.push_back(std::make_unique<TestClient>(COMPANY | 1));
    int result = 0;
    pumpUntil([this, &result] {
        result = process(COMPRESSED);
        clients[0]->service();
        return connectCount == 1;
    });
    EXPECT_EQ(result, 1);
}

TEST_F(SendPath, BlockFromASecondThreadFailsAnAssertion) {
    process(RAW);
    const auto processElsewhere = [this] { std::thread([this] { process(RAW); }).join(); };
    EXPECT_DEBUG_DEATH(processElsewhere(), "captureThread");
}

TEST_F(SendPath, PreparationWhileTheCaptureRunsFailsAnAssertion) {
    process(RAW);
    const auto prepareElsewhere = [] { std::thread(fillOpusBank).join(); };
    EXPECT_DEBUG_DEATH(prepareElsewhere(), "captureThread");
}

TEST(TwosCompShort, IsTheUnsignedValueOfItsBytes) {
    EXPECT_EQ(twosCompShort(0, 0), 0);
    EXPECT_EQ(twosCompShort(0, 255), 255);
    EXPECT_EQ(twosCompShort(1, 2), 258);
    EXPECT_EQ(twosCompShort(0x80, 0), 32768);
    EXPECT_EQ(twosCompShort(255, 255), 65535);
}

}  // namespace
