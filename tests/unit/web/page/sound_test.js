// Tests of web/page/files/sound/, which run inside a browser: see tests/system/test_web_page.py.
// Every exported function is a test; one that throws has failed.

import { DelayTarget } from '/page/sound/delay_target.js';
import { DriftControl } from '/page/sound/drift_control.js';
import { EarliestLine } from '/page/sound/earliest_line.js';
import { OutputTimes } from '/page/sound/output_times.js';
import { readPacket, samplesOfPcm, SequenceTracker } from '/page/sound/packets.js';
import { Playout } from '/page/sound/playout.js';
import { Resampler } from '/page/sound/resampler.js';
import { SendTimes } from '/page/sound/send_times.js';
import { delayOf } from '/page/settings.js';

const RATE = 48000;
const PACKET_FRAMES = 338;
const PACKET_MS = (1000 * PACKET_FRAMES) / RATE;
const TONE = 1065; // Half a period more than whole ones in a packet.
const AMPLITUDE = 0.5;
// The largest step between neighbouring samples of the tone.
const TONE_STEP = (AMPLITUDE * 2 * Math.PI * TONE) / RATE;

let seed = 1;
const random = () => (seed = (seed * 16807) % 2147483647) / 2147483647;

function check(fact, text) {
  if (!fact) {
    throw new Error(text);
  }
}

function near(value, expected, tolerance, text) {
  check(Math.abs(value - expected) <= tolerance, `${text}: ${value} is not ${expected}`);
}

// The messages of /live.

function message(sequence, frames, payloadBytes) {
  const buffer = new ArrayBuffer(8 + payloadBytes);
  new DataView(buffer).setUint32(0, sequence, true);
  new DataView(buffer).setUint32(4, frames, true);
  return buffer;
}

export function aMessageGivesItsNumberAndItsSamples() {
  const buffer = message(0xfffffffe, 2, 8);
  new DataView(buffer).setInt16(8, -32768, true);
  new DataView(buffer).setInt16(14, 16384, true);
  const packet = readPacket(buffer);
  check(packet.sequence === 0xfffffffe && packet.frames === 2, 'the header');
  check(samplesOfPcm(packet).join() === '-1,0,0,0.5', 'the samples');
}

export function damagedMessagesAreNoSound() {
  for (const bad of [new ArrayBuffer(0), message(1, 1, 0), message(1, 0, 4), message(1, 1e6, 4)]) {
    check(readPacket(bad) === null, `of ${bad.byteLength} bytes`);
  }
  check(samplesOfPcm(readPacket(message(1, 338, 4))) === null, 'samples that are missing');
}

export function numbersWrapWithoutALoss() {
  const tracker = new SequenceTracker();
  check(tracker.observe(0xffffffff).start, 'the first is a start');
  const step = tracker.observe(0);
  check(!step.start && step.missing === 0, 'the next goes on');
}

export function aGapCountsTheLostAndALeapIsANewStream() {
  const tracker = new SequenceTracker();
  tracker.observe(10);
  check(tracker.observe(13).missing === 2, 'two are lost');
  check(tracker.observe(13 + 5000).start, 'forwards');
  check(tracker.observe(7).start, 'backwards');
  tracker.restart();
  check(tracker.observe(8).start, 'after a restart');
}

// The delay target.

function arrive(target, count, late, from = 0) {
  for (let i = from; i < from + count; ++i) {
    target.noteArrival(i * PACKET_MS, i * PACKET_MS + late(i), PACKET_MS);
  }
}

export function theBufferIsFortyMillisecondsOnAnEvenNetwork() {
  const target = new DelayTarget(0);
  arrive(target, 2000, () => 0);
  near(target.milliseconds, 40, 0, 'the least');
  target.choose(150);
  near(target.milliseconds, 150, 0, 'the choice');
}

export function whatWaitsInTheOutputIsPartOfTheBuffer() {
  const target = new DelayTarget(40);
  target.setUnusable(12);
  arrive(target, 2000, () => 0);
  near(target.milliseconds, 40, 0, 'the least');
  arrive(target, 1000, (i) => (i % 5 === 0 ? 90 : 0), 2000);
  check(target.milliseconds > 102, 'what the network needs waits before the output');
}

export function theBufferCoversUnevenPacketsAndForgetsThem() {
  const target = new DelayTarget(40);
  arrive(target, 1000, (i) => (i % 5 === 0 ? 90 : 0));
  check(target.milliseconds > 90, `covered by ${target.milliseconds}`);
  arrive(target, 15000, () => 0, 1000);
  near(target.milliseconds, 40, 0, 'after two minutes');
}

export function packetsHeldUpTogetherCountOnce() {
  const target = new DelayTarget(40);
  arrive(target, 1000, () => 0);
  // A hundred packets are held up until the last of them is sent, and come within 50 ms.
  arrive(target, 100, (i) => (1099 - i) * PACKET_MS + (i - 999) / 2, 1000);
  arrive(target, 100, () => 0, 1100);
  near(target.milliseconds, 40, 0, 'one stall');
}

export function anUnderrunBuffersMoreForAWhile() {
  const target = new DelayTarget(40);
  target.noteUnderrun();
  near(target.milliseconds, 40, 0, 'while it begins');
  arrive(target, 300, () => 0);
  target.noteUnderrun();
  const more = target.milliseconds;
  check(more > 50, `it has grown to ${more}`);
  target.pass(300);
  near(target.milliseconds, 40, 0, 'after five minutes');
}

// Drift.

export function theCorrectionSettlesAtTheDifferenceOfTheClocks() {
  for (const ppm of [-300, 120, 300]) {
    const drift = new DriftControl();
    let depth = 0;
    let correction = 0;
    for (let t = 0; t < 600; t += 0.25) {
      depth += (ppm - correction) * 0.25e-3;
      correction = drift.update(depth, 0.25);
      check(Math.abs(correction) <= 500, 'never more than a cent');
    }
    near(correction, ppm, 5, 'the correction');
    near(depth, 0, 0.5, 'the deviation');
  }
}

// The resampler.

function sine(frequency, rate, frames, start = 0) {
  const samples = new Float32Array(2 * frames);
  for (let i = 0; i < frames; ++i) {
    samples[2 * i] = AMPLITUDE * Math.sin((2 * Math.PI * frequency * (start + i)) / rate);
    samples[2 * i + 1] = -samples[2 * i];
  }
  return samples;
}

/** Amplitude of the tone, and of what is left without it. */
function measure(all, frequency, rate) {
  const periods = Math.floor((all.length * frequency) / rate);
  const sound = all.subarray(0, Math.round((periods * rate) / frequency));
  const angle = (i) => (2 * Math.PI * frequency * i) / rate;
  let c = 0;
  let s = 0;
  sound.forEach((value, i) => {
    c += value * Math.cos(angle(i));
    s += value * Math.sin(angle(i));
  });
  c *= 2 / sound.length;
  s *= 2 / sound.length;
  let rest = 0;
  sound.forEach((value, i) => {
    rest += (value - c * Math.cos(angle(i)) - s * Math.sin(angle(i))) ** 2;
  });
  return { amplitude: Math.hypot(c, s), rest: Math.sqrt((2 * rest) / sound.length) };
}

function resampled(frequency, from, to, ppm) {
  const resampler = new Resampler();
  resampler.setRates(from, to);
  resampler.setCorrection(ppm);
  const left = new Float32Array(8192);
  const right = new Float32Array(8192);
  let start = 0;
  for (let made = 0; made < left.length; made += 128) {
    while (resampler.available < 128) {
      resampler.push(sine(frequency, from, PACKET_FRAMES, start));
      start += PACKET_FRAMES;
    }
    resampler.pull(left, right, made, 128);
  }
  check(left.every((value, i) => value === -right[i]), 'the channels stay apart');
  return left.subarray(512);
}

export function theResamplerKeepsPitchAndLevel() {
  for (const [from, to] of [[48000, 48000], [44100, 48000], [48000, 44100], [44100, 96000]]) {
    for (const frequency of [375, 3000, 12000]) {
      const { amplitude, rest } = measure(resampled(frequency, from, to, 0), frequency, to);
      near(20 * Math.log10(amplitude / AMPLITUDE), 0, 0.05, `${frequency} Hz of ${from} at ${to}`);
      check(rest < AMPLITUDE * 3e-4, `${frequency} Hz of ${from} at ${to}: rest ${rest}`);
    }
  }
}

export function theCorrectionPlaysThatMuchFaster() {
  for (const ppm of [-500, 500]) {
    const heard = 3000 * (1 + ppm * 1e-6);
    const { rest } = measure(resampled(3000, RATE, RATE, ppm), heard, RATE);
    check(rest < AMPLITUDE * 3e-4, `${ppm} ppm: rest ${rest}`);
  }
}

// The whole, in virtual time: a sender with a clock of its own, a network, an output that asks for
// four blocks of 128 frames at once, as browsers do.

class Session {
  constructor({ ppm = 0, late = () => 0, lost = () => false, bufferMs = 40, rate = RATE } = {}) {
    Object.assign(this, { ppm, late, lost, rate });
    this.playout = new Playout(RATE, bufferMs);
    this.now = 0; // Milliseconds.
    this.sent = 0; // Packets of the stream.
    this.frames = 0;
    this.begin = 0;
    this.onTheWay = [];
    this.stopped = false;
    this.heard = [];
    this.figures = null;
  }

  send() {
    const packetMs = (1000 * PACKET_FRAMES) / this.rate / (1 + this.ppm * 1e-6);
    while (!this.stopped && this.begin + this.sent * packetMs <= this.now) {
      const sent = this.begin + this.sent * packetMs;
      if (!this.lost(this.sent)) {
        const earliest = this.onTheWay.at(-1)?.at ?? 0; // They keep their order.
        this.onTheWay.push({
          at: Math.max(earliest, sent + this.late(this.sent)),
          packet: {
            sequence: this.sent >>> 0,
            rate: this.rate,
            samples: sine(TONE, this.rate, PACKET_FRAMES, this.frames),
          },
        });
      }
      this.sent += 1;
      this.frames += PACKET_FRAMES;
    }
    while (this.onTheWay.length > 0 && this.onTheWay[0].at <= this.now) {
      this.playout.push(this.onTheWay.shift().packet, this.now);
    }
  }

  /** Lets so much time pass; returns what is heard of it on the left. */
  run(seconds) {
    const heard = new Float32Array(Math.round((seconds * RATE) / 512) * 512);
    const right = new Float32Array(512);
    for (let made = 0; made < heard.length; made += 512) {
      this.send();
      const piece = heard.subarray(made, made + 512);
      for (let offset = 0; offset < 512; offset += 128) {
        this.playout.render(piece, right, offset, 128, this.now);
        this.now += 128000 / RATE;
      }
    }
    this.figures = this.playout.takeFigures();
    return heard;
  }
}

function largestStep(sound) {
  let largest = 0;
  for (let i = 1; i < sound.length; ++i) {
    largest = Math.max(largest, Math.abs(sound[i] - sound[i - 1]));
  }
  return largest;
}

/** The least level of pieces of 10 ms, 1 for the tone. */
function quietest(sound) {
  let least = Infinity;
  for (let i = 0; i + 480 <= sound.length; i += 480) {
    const power = sound.subarray(i, i + 480).reduce((sum, value) => sum + value * value, 0) / 480;
    least = Math.min(least, Math.sqrt(2 * power) / AMPLITUDE);
  }
  return least;
}

function noClick(sound, text) {
  const step = largestStep(sound);
  check(step < 1.6 * TONE_STEP, `${text}: a step of ${(step / TONE_STEP).toFixed(1)} of the tone's`);
}

export function theSoundBeginsOnceItIsBufferedAndWithoutAClick() {
  const session = new Session();
  const sound = session.run(1);
  noClick(sound, 'the begin');
  const begin = sound.findIndex((value) => value !== 0) / RATE;
  check(begin > 0.03 && begin < 0.08, `it begins at ${begin} s`);
  check(session.figures.playing && session.figures.underruns === 0, 'it plays');
  near(session.figures.peak[0], AMPLITUDE, 0.01, 'the peak');
}

export function clocksThatDifferAreFollowedWithoutAJump() {
  for (const ppm of [-300, 300]) {
    const session = new Session({ ppm });
    session.run(180);
    const sound = session.run(30);
    noClick(sound, `${ppm} ppm`);
    check(quietest(sound) > 0.99, `${ppm} ppm: no gap`);
    const { underruns, skipped, stretched, depthMs, targetMs, correctionPpm } = session.figures;
    check(underruns === 0 && skipped === 0 && stretched === 0, `${ppm} ppm: no jump`);
    near(correctionPpm, ppm, 60, 'the correction');
    near(depthMs, targetMs, 4, 'the depth');
  }
}

export function whatPilesUpWhileTheOutputBeginsIsLeftOut() {
  const session = new Session();
  session.run(0.2);
  for (let i = 0; i < 4; ++i) {
    session.now += 8; // Nothing is rendered.
    session.send();
  }
  noClick(session.run(4), 'what is left out');
  near(session.figures.depthMs, 40, 12, 'the depth');
}

export function aLostPacketIsFaded() {
  const session = new Session({ lost: (i) => i % 100 === 50 || i % 100 === 51 });
  const sound = session.run(10);
  noClick(sound, 'losses');
  check(session.figures.lost >= 26 && session.figures.underruns === 0, 'they are counted');
  near(session.figures.depthMs, 40, 6, 'and keep their time');
}

export function aNetworkThatBecomesUnevenIsBufferedFor() {
  let uneven = 0;
  const session = new Session({ late: () => uneven * random() });
  session.run(10);
  uneven = 70;
  noClick(session.run(30), 'while it grows');
  const before = session.figures.underruns;
  const sound = session.run(30);
  check(session.figures.targetMs > 60, `the target is ${session.figures.targetMs}`);
  check(session.figures.underruns === before, `${before} underruns, then more`);
  noClick(sound, 'afterwards');
  check(quietest(sound) > 0.6, 'no gap');
}

export function aStallIsCaughtUpWith() {
  let until = -1;
  const session = new Session();
  session.late = () => Math.max(0, until - session.now);
  session.run(5);
  until = session.now + 800;
  noClick(session.run(5), 'the stall');
  check(session.figures.underruns === 1, `${session.figures.underruns} underruns`);
  session.run(5);
  check(session.figures.depthMs < 110, `the depth is ${session.figures.depthMs}`);
}

export function aServerThatComesBackIsHeardAgain() {
  const session = new Session();
  session.run(3);
  session.stopped = true;
  session.playout.restart();
  const end = session.run(1);
  noClick(end, 'the end');
  check(!session.figures.playing && quietest(end) === 0, 'it is silent');
  check(session.figures.underruns === 0, 'which is no interruption');
  Object.assign(session, { stopped: false, begin: session.now, sent: 0, rate: 44100 });
  const again = session.run(2);
  noClick(again, 'the new begin');
  check(session.figures.playing, 'it plays');
  const { amplitude, rest } = measure(again.subarray(-RATE / 10), TONE, RATE);
  near(amplitude, AMPLITUDE, 0.02, 'at the new rate');
  check(rest < 0.1, 'with the right pitch');
}

export function lessBufferIsReachedAtOnce() {
  const session = new Session({ bufferMs: 600 });
  session.run(3);
  session.playout.setBuffer(40);
  noClick(session.run(4), 'while it shrinks');
  check(session.figures.depthMs < 90, `the depth is ${session.figures.depthMs}`);
}

export function moreBufferIsTakenUpWhilePlaying() {
  const session = new Session();
  session.run(3);
  session.playout.setBuffer(150);
  noClick(session.run(20), 'while it grows');
  check(session.figures.underruns === 0, 'no interruption');
  near(session.figures.depthMs, 150, 12, 'the depth');
}

/** An output that takes sound as soon as it is there, as scheduled buffers do. */
class EagerSession extends Session {
  end = 0; // Until when sound is scheduled, milliseconds.
  least = 26;

  pump(heard) {
    if (this.end < this.now) {
      this.playout.noteBreak();
      this.end = this.now;
    }
    const limit = this.now + Math.max(this.least, this.playout.targetMs);
    while (this.end < limit) {
      const frames = Math.min(960, Math.max(
        this.playout.available, Math.ceil(((this.now + this.least - this.end) * RATE) / 1000)));
      if (frames <= 0) {
        return;
      }
      const left = new Float32Array(frames);
      this.playout.setAhead(this.end - this.now);
      this.playout.render(left, new Float32Array(frames), 0, frames, this.end);
      heard.push(...left);
      this.end += (1000 * frames) / RATE;
    }
  }

  run(seconds) {
    const heard = [];
    for (const end = this.now + 1000 * seconds; this.now < end; this.now += 4) {
      this.send();
      this.pump(heard);
    }
    this.figures = this.playout.takeFigures();
    return Float32Array.from(heard);
  }
}

export function soundThatIsTakenAtOnceStillLastsOverLatePackets() {
  const session = new EagerSession({ ppm: 200, late: (i) => (i % 50 === 49 ? 12 : 0) });
  session.playout.setUnusable(session.least);
  session.run(20);
  const sound = session.run(20);
  noClick(sound, 'all');
  check(quietest(sound) > 0.99, 'no gap');
  check(session.figures.underruns === 0, `${session.figures.underruns} underruns`);
  near(session.figures.depthMs, session.figures.targetMs, 6, 'the depth, with what is scheduled');
  near(session.figures.targetMs, 12 + PACKET_MS + 5 + session.least, 4, 'the target');
}

export function soundThatBrokeOffBeginsAgainOnceItIsBuffered() {
  const session = new EagerSession();
  session.playout.setUnusable(session.least);
  session.run(5);
  session.now += 100; // The page is kept from its work.
  session.run(5);
  check(session.figures.underruns === 1, `${session.figures.underruns} underruns`);
  check(session.figures.playing, 'it plays');
  near(session.figures.depthMs, session.figures.targetMs, 12, 'the depth');
}

// Rooms in step.

export function aMessageTellsWhenItCame() {
  const buffer = message(7, 2, 12 + 8);
  new DataView(buffer).setBigUint64(8, 5_000_000_000_250n, true);
  new DataView(buffer).setUint32(16, 1500, true);
  const packet = readPacket(buffer, true);
  near(packet.arrival, 5_000_000_000.25, 1e-6, 'the arrival');
  near(packet.serverTrip, 1.5, 1e-6, 'the round trip');
  check(packet.payload.byteLength === 8, 'the samples after it');
  check(readPacket(message(7, 2, 12), true) === null, 'a message without samples');
}

export function onlyNumbersUpToTenSecondsAreADelay() {
  const says = (text, delay) => check(delayOf(text) === delay, `“${text}” is ${delayOf(text)}`);
  says('', null);
  says('300', 300);
  says('0.5', 0.5);
  says('.5', 0.5);
  says('10000', 10000);
  for (const text of ['0', '-1', '10000.1', 'nan', 'NaN', 'Infinity', '300ms', '1e3', '0x10', ' ',
    '.', '1,5', '٣']) {
    says(text, undefined);
  }
}

/** Packets that the server sends when a block of its capture ends, heard of by two clocks. */
class Sending {
  constructor({ ppm = 0, jitter = 0, opus = false } = {}) {
    Object.assign(this, { ppm, jitter, opus, times: new SendTimes(opus), worst: 0, number: 0 });
  }

  sentAt(frames) {
    return 1e6 + ((1000 * frames) / RATE) * (1 + this.ppm * 1e-6);
  }

  /** Sends for so long; `worst` becomes the greatest error of the last packet's time since. */
  run(seconds) {
    this.worst = 0;
    const frames = this.opus ? 480 : PACKET_FRAMES;
    for (const end = this.number + (seconds * RATE) / frames; this.number < end; ++this.number) {
      const sequence = this.number;
      // The uncompressed packet with the last frame is full, and a block of 337 frames has ended.
      const full = Math.ceil(((sequence + 1) * frames) / PACKET_FRAMES) * PACKET_FRAMES;
      const sent = this.sentAt(Math.ceil(full / 337) * 337) + (this.opus ? 0.5 : 0);
      const now = sent + 9 + this.jitter * random();
      const serverTrip = sequence % 10 === 0 ? 10 + 7 * random() : 0;
      const packet = { sequence, frames, arrival: sent + 77005 + random(), serverTrip };
      this.times.note(packet, RATE, now, sequence % 200 === 0 ? 8 : 0);
      const right = this.sentAt(sequence * frames + PACKET_FRAMES - (this.opus ? 312 : 0));
      this.worst = Math.max(
        this.worst, Math.abs(this.times.sentAt(packet, RATE) - right));
    }
  }
}

export function theEarliestArrivalsTellWhenPacketsWereSent() {
  for (const ppm of [-300, 0, 300]) {
    for (const jitter of [0, 10]) {
      for (const opus of [false, true]) {
        const sending = new Sending({ ppm, jitter, opus });
        sending.run(1.9);
        check(!sending.times.ready, 'not at once');
        sending.run(4);
        check(sending.times.ready, 'then it is ready');
        sending.run(10);
        sending.run(30);
        check(sending.worst < 1.5, `${ppm} ppm, jitter ${jitter}, Opus ${opus}: ${sending.worst}`);
      }
    }
  }
}

/** Arrivals up to 5 ms after a line, 140 a second, and a round trip a second. */
class Arrivals {
  line = new EarliestLine();
  time = 0;

  /** For so many seconds; returns the greatest distance from the least `residual` meanwhile. */
  run(seconds, residual, trip, expected = residual) {
    let worst = 0;
    for (let i = 0; i < 140 * seconds; ++i) {
      this.time += 1 / 140;
      this.line.note(this.time, residual + 5 * random(), i % 140 === 0 ? trip + random() : 0);
      worst = Math.max(worst, Math.abs(this.line.at(this.time) - expected));
    }
    return worst;
  }
}

export function aClockThatLeapsIsFollowed() {
  const arrivals = new Arrivals();
  arrivals.run(20, 100, 10);
  arrivals.run(0.1, 40, 10);
  near(arrivals.line.at(20), 40, 5, 'earlier, at once');
  arrivals.run(20, 90, 10);
  near(arrivals.line.at(40), 90, 1, 'later, after a while');
  arrivals.run(20, 100, 10);
  near(arrivals.line.at(60), 100, 1, 'a little later, after a while');
}

export function aWayThatGetsLongerForAMinuteLeavesTheLine() {
  for (const [there, back] of [[20, 20], [0, 20], [0, 50]]) {
    const arrivals = new Arrivals();
    arrivals.run(40, 100, 10);
    const longer = arrivals.run(60, 100 + back, 10 + there + back, 100);
    const again = arrivals.run(60, 100, 10);
    check(longer < 1 && again < 1, `${there} and ${back} ms longer: ${longer}, then ${again}`);
    near(arrivals.line.halfTrip, 5, 1, 'half of the round trip');
  }
}

export function aWayThatStaysLongerMovesTheLineWithItsRoundTrip() {
  const arrivals = new Arrivals();
  const sent = () => arrivals.line.at(arrivals.time) - arrivals.line.halfTrip;
  arrivals.run(40, 100, 10);
  for (let i = 0; i < 150; ++i) {
    arrivals.run(1, 120, 50);
    near(sent(), 95, 1, `after ${i} s`);
  }
  near(arrivals.line.at(arrivals.time), 120, 1, 'in the end');
}

export function timeStampsThatWaverTellWhenTheOutputIsHeard() {
  const times = new OutputTimes();
  const heard = (frame) => 500 + frame * (1 - 200e-6);
  for (let frame = 0; frame < 60000; frame += 100) {
    check(times.ready === frame > 900, 'it is ready after some');
    times.note(frame, heard(frame) + 2 * random() + (random() < 0.1 ? 20 : 0));
  }
  near(times.frameAt(heard(60000) + 1), 60000, 1, 'the frame');
  for (let frame = 60000; frame < 63000; frame += 100) {
    times.note(frame, heard(frame) + 400);
  }
  near(times.frameAt(heard(63000) + 400), 63000, 3, 'after a pause of the output');
}

/** A session whose packets are due so long after they were sent. */
class TimedSession extends Session {
  constructor({ delay, ...options }) {
    super(options);
    this.delay = delay;
    const push = this.playout.push.bind(this.playout);
    this.playout.push = (packet, now) => {
      const sent = (packet.sequence * PACKET_MS) / (1 + this.ppm * 1e-6);
      const due = sent + this.delay;
      push({ ...packet, due, earliness: due - now }, now);
    };
  }
}

export function soundIsHeardWhenItIsDue() {
  for (const ppm of [-300, 0, 300]) {
    const session = new TimedSession({
      delay: 212.3, ppm, late: () => 20 * random(), lost: (i) => i % 50 === 49,
    });
    const begin = session.run(1).findIndex((value) => value !== 0) / RATE;
    check(Math.abs(begin - 0.2123) < 0.02, `it begins at ${begin} s`);
    for (let i = 0; i < 30; ++i) {
      noClick(session.run(1), `${ppm} ppm`);
      near(session.figures.lateMs, 0, 1.5, `${ppm} ppm: how late it is`);
    }
    check(session.figures.underruns === 0, 'no interruption');
    near(session.figures.correctionPpm, ppm, 30, 'the correction');
  }
}

export function soundThatBeganAtTheWrongTimeBeginsAnewAtOnceAndIsDrawnInLater() {
  const session = new TimedSession({ delay: 200 });
  session.run(3);
  session.delay += 12;
  noClick(session.run(2), 'the new beginning');
  near(session.figures.lateMs, 0, 1, 'after a new beginning');
  session.run(10);
  session.delay += 12;
  const sound = session.run(5);
  check(quietest(sound) > 0.99, 'no new beginning later');
  check(session.figures.lateMs < -8, `${session.figures.lateMs} ms are made good slowly`);
}

export function aTimeThatCannotBeKeptIsPutOff() {
  const session = new TimedSession({ delay: 5 });
  session.run(2);
  const { lateMs, putOffMs, underruns } = session.figures;
  check(putOffMs > 10 && putOffMs < 40, `by ${putOffMs}`);
  near(lateMs, putOffMs, 1, 'which is how late it is');
  check(session.figures.playing && underruns === 0, 'it plays');
}

export function whatComesWhileTheOutputStandsStillIsBounded() {
  const session = new Session();
  session.run(1);
  session.now += 60000;
  session.send();
  check(session.playout.available < 16 * RATE, `${session.playout.available} frames`);
}

export function soundThatBreaksOffComesBackWhenItIsDue() {
  let until = -1;
  const session = new TimedSession({ delay: 200 });
  session.late = (i) => Math.max(0, until - i * PACKET_MS);
  session.run(3);
  until = session.now + 600;
  noClick(session.run(4), 'the stall');
  check(session.figures.underruns === 1, `${session.figures.underruns} underruns`);
  near(session.figures.lateMs, 0, 1, 'how late it is');
}
