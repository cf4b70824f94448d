"""Sound on its way: what is played into the sound server arrives at the clients."""

import ctypes
import ctypes.util

from support.harness import Server, SoundServer, SystemTest
from support.probe import (FLAG_ALT_RATE, FLAG_RELIABLE, HEADER_BYTES, MSGID_AUDIO,
                           RAW_PACKET_BYTES, Probe, samples_of, sequence_gaps)
from support.signals import (channel, dominant_frequency, find_frames, longest_exact_run, noise,
                             rms, silence, sine, tone_amplitude)

BIT_RATES = {1: 64000, 2: 128000, 3: 256000, 5: 20000}
OPUS_FRAME = 480
OPUS_RATE = 48000


class RawStream(SystemTest):
    def receive(self, rate, reliable, seed):
        """Plays noise to one raw client; returns what was played and the packets."""
        played = noise(2 * rate, seed)
        margin = silence(rate // 4)  # The player itself may cut at the ends.
        with SoundServer(rate) as sound, Server(sound=sound, rate=rate) as server, \
                Probe(self.folder) as probe:
            server.wait_for_capture()
            client = probe.connect()
            client.request(0, reliable)
            client.wait_packets(30)
            sound.play_and_wait(margin + played + margin)
            packets = client.wait_packets(100)
            statistics = client.statistics()
            self.assert_ends_cleanly(server)
        self.assertEqual(statistics["fragments"], 0)
        return played, packets

    def check_headers(self, packets, flags):
        self.assertEqual({p.message_id for p in packets}, {MSGID_AUDIO})
        self.assertEqual({p.length for p in packets}, {RAW_PACKET_BYTES})
        self.assertEqual({p.flags for p in packets}, {flags})
        self.assertEqual({p.reserved for p in packets}, {0})

    def check_exact(self, rate):
        seed = 20261121 + rate
        print(f"seed {seed}")
        played, packets = self.receive(rate, True, seed)
        self.check_headers(packets, FLAG_RELIABLE | FLAG_ALT_RATE * (rate == 48000))
        self.assertEqual(sequence_gaps(packets), 0)
        received = samples_of(packets)
        if find_frames(received, played) < 0:
            self.fail(f"longest exact piece: {longest_exact_run(received, played)} of "
                      f"{len(played) // 2} frames")

    def test_reliable_client_gets_every_bit_at_48000(self):
        self.check_exact(48000)

    def test_reliable_client_gets_every_bit_at_44100(self):
        self.check_exact(44100)

    def test_best_effort_packets_are_exact_and_in_order_and_three_quarters_arrive(self):
        seed = 20261122
        print(f"seed {seed}")
        played, packets = self.receive(48000, False, seed)
        self.check_headers(packets, FLAG_ALT_RATE)
        whole = played.tobytes()
        sound = [p for p in packets if any(p.payload) and p.payload in whole]
        # ENet itself drops best-effort packets when answers come late.
        self.assertGreater(len(sound), 0.75 * len(whole) / (RAW_PACKET_BYTES - HEADER_BYTES))
        numbers = [p.seq for p in packets]
        self.assertEqual(numbers, sorted(set(numbers)))


class OpusDecoder:
    """libopus at 48000 Hz, stereo."""

    def __init__(self):
        self.opus = ctypes.CDLL(ctypes.util.find_library("opus") or "libopus.so.0")
        self.opus.opus_decoder_create.restype = ctypes.c_void_p
        error = ctypes.c_int()
        self.decoder = ctypes.c_void_p(
            self.opus.opus_decoder_create(OPUS_RATE, 2, ctypes.byref(error)))
        if error.value != 0:
            raise AssertionError(f"no Opus decoder: {error.value}")

    def decode(self, packets):
        """The decoded samples of all packets, as ctypes shorts in one list."""
        samples = []
        room = (ctypes.c_int16 * (2 * OPUS_FRAME))()
        for packet in packets:
            frames = self.opus.opus_decode(self.decoder, packet.payload, len(packet.payload),
                                           room, OPUS_FRAME, 0)
            if frames != OPUS_FRAME:
                raise AssertionError(f"packet {packet.seq} decodes to {frames} frames")
            samples.extend(room)
        return samples


class OpusStream(SystemTest):
    LEFT, RIGHT, AMPLITUDE = 440.0, 660.0, 9000

    def stream(self, rate, codes, right=None, **options):
        """Plays tones to a client for each rate code; returns their packets by code."""
        tones = sine(self.LEFT, self.AMPLITUDE, 6 * rate, rate, right)
        with SoundServer(rate) as sound, Server(sound=sound, rate=rate, **options) as server, \
                Probe(self.folder) as probe:
            server.wait_for_capture()
            player = sound.play(tones)
            clients = {code: probe.connect() for code in codes}
            for code, client in clients.items():
                client.request(code)
            list(clients.values())[-1].wait_packets(250)
            self.assertIsNone(player.poll(), "the tones still play")
            packets = {code: client.packets() for code, client in clients.items()}
            self.lines = server.out.all()
            self.assert_ends_cleanly(server)
        return packets

    def check_tone(self, code, packets, right=LEFT, factor=1.0):
        samples = OpusDecoder().decode(packets[-150:])
        for index, tone in enumerate((self.LEFT, right)):
            mono = channel(samples, index)[OPUS_RATE // 4:]
            with self.subTest(code=code, channel=index):
                level = tone_amplitude(mono, tone * factor, OPUS_RATE)
                self.assertAlmostEqual(level / self.AMPLITUDE, 1.0, delta=0.12)
                self.assertAlmostEqual(rms(mono) * 2 ** 0.5 / self.AMPLITUDE, 1.0, delta=0.15)
                self.assertAlmostEqual(dominant_frequency(mono, OPUS_RATE), tone * factor,
                                       delta=1.0)

    def check_bit_rate(self, code, packets):
        bits = 8 * sum(len(p.payload) for p in packets[-150:]) / 150 * 100
        self.assertLess(bits, 1.15 * BIT_RATES[code])

    def check_packets(self, code, packets, alt_rate):
        self.assertEqual({p.message_id for p in packets}, {MSGID_AUDIO})
        self.assertEqual({p.flags for p in packets},
                         {FLAG_RELIABLE | FLAG_ALT_RATE * alt_rate | code << 6})
        self.assertTrue(all(HEADER_BYTES < p.length <= RAW_PACKET_BYTES for p in packets))
        self.assertEqual(sequence_gaps(packets), 0)

    def test_every_rate_code_decodes_to_the_tone_that_was_played(self):
        packets = self.stream(48000, BIT_RATES)
        for code in BIT_RATES:
            self.check_packets(code, packets[code], True)
            self.check_bit_rate(code, packets[code])
            self.check_tone(code, packets[code])
        for index, code in enumerate(BIT_RATES):
            self.assertIn(f"Sending compressed audio data to client {index} at rate code {code}",
                          self.lines)

    def test_left_and_right_stay_apart(self):
        codes = [1, 2, 3]  # At 20000 bit/s Opus itself gives the channels up.
        packets = self.stream(48000, codes, self.RIGHT)
        for code in codes:
            self.check_tone(code, packets[code], self.RIGHT)

    def test_capture_at_44100_is_encoded_unchanged_and_marked(self):
        packets = self.stream(44100, [2])[2]
        self.check_packets(2, packets, False)
        self.check_tone(2, packets, factor=48000 / 44100)
