// Plays a stream of packets at the pace of an output: keeps the right amount of sound buffered,
// whatever the network and the two clocks do, and resamples to the output's rate. Times are given,
// in milliseconds, not taken from a clock. No DOM: the same code runs in an AudioWorklet and beside
// scheduled buffers.

import { BlockSource, Join, Kind } from './block_source.js';
import { DelayTarget } from './delay_target.js';
import { DriftControl, MAX_PPM } from './drift_control.js';
import { SequenceTracker } from './packets.js';
import { Resampler } from './resampler.js';
import { Schedule } from './schedule.js';
import { fade, mirror, stretch } from './splicing.js';

const CONTROL_INTERVAL = 0.25; // Seconds.
const DEPTH_MEMORY = 2; // Seconds over which the depth is averaged.
const MAX_STEP = 1; // Seconds; a longer pause of the output is cut to it.
const MIN_EXCESS_MS = 40;
const EXCESS_SHARE = 0.5;
// Outputs take their time to begin, and sound piles up meanwhile.
const BEGIN_SECONDS = 4;
const BEGIN_EXCESS_MS = 12;
// A large shortage is made up by stretching; drift correction is too slow.
const MAX_SHORTAGE_MS = 15;
const SHORTAGE_SHARE = 0.3;
const SMALL_SHORTAGE_MS = 4;
const STRETCH_INTERVAL = 8; // Packets.

export class Playout {
  #outputRate;
  #target;
  #source = new BlockSource();
  #tracker = new SequenceTracker();
  #drift = new DriftControl();
  #schedule = new Schedule();
  #timed = false; // Sound has a time at which it is due.
  #resampler = new Resampler();
  #resamplerRate = 0;
  #rate = 0; // Of the sound that waits.
  #latest = null; // The latest packet's samples and frames.
  #packets = 0; // Of the stream, lost ones too.
  #lastRender = null;
  #aheadMs = 0;
  #meanDepth = 0;
  #sinceBegin = 0; // Seconds since it began to play,
  #sinceDepth = 0; // the depth was looked at,
  #sinceControl = 0; // and the correction set.
  #sinceStretch = 0;
  #stretching = false;
  #everPlayed = false;
  #fresh = false; // Something has come since the depth was looked at.
  #ending = false; // The stream has ended; what is buffered is played.
  #peak = [0, 0];
  #figures = {
    playing: false,
    depthMs: 0, // What waits here and in the output.
    correctionPpm: 0,
    lost: 0, // Packets.
    underruns: 0,
    skipped: 0, // Packets left out to catch up.
    stretched: 0, // Packets played longer, to buffer more.
  };

  /** `bufferMs` is the minimum to keep buffered. */
  constructor(outputRate, bufferMs) {
    this.#outputRate = outputRate;
    this.#target = new DelayTarget(bufferMs);
  }

  /** So many milliseconds of sound wait in the output, rendered but not yet on their way. */
  setAhead(milliseconds) {
    this.#aheadMs = milliseconds;
  }

  /** So many of them are there always, and cover no packet that comes late. */
  setUnusable(milliseconds) {
    this.#target.setUnusable(milliseconds);
  }

  setBuffer(milliseconds) {
    this.#target.choose(milliseconds);
  }

  /** The stream has ended: what comes next has nothing to do with it. */
  restart() {
    this.#tracker.restart();
    this.#ending = true;
  }

  /**
   * Takes a packet over: its sequence number, its rate in Hz, its interleaved samples. It may have
   * `due`, the time of the output's clock at which it is to be played, and then `earliness`, how
   * long before that it came.
   */
  push({ sequence, rate, samples, due, earliness }, now) {
    const { start, missing } = this.#tracker.observe(sequence);
    const frames = samples.length / 2;
    const newStream = start || rate !== this.#rate;
    if (newStream) {
      this.#target.restart();
      this.#packets = 0;
      this.#rate = rate;
      this.#ending = false;
      this.#timed = due !== undefined;
      this.#schedule.restart();
    } else {
      this.#conceal(missing, due);
    }
    if (this.#timed) {
      this.#schedule.noteArrival(earliness);
    }
    const join = newStream ? Join.NEW_STREAM : missing > 0 ? Join.FADE_IN : Join.GOES_ON;
    this.#latest = samples;
    const packetMs = (1000 * frames) / rate;
    this.#target.noteArrival(this.#packets * packetMs, now, packetMs);
    this.#packets += 1;
    this.#fresh = true;
    this.#source.push({ samples, frames, join, concealed: false, due });
  }

  /** Queues what stands for lost packets: an echo that fades out, then silence. */
  #conceal(missing, dueAfter) {
    for (let i = 0; i < missing; ++i) {
      const due = this.#timed ? dueAfter - (missing - i) * this.#packetMs : undefined;
      const samples = i === 0 ? this.#latest.slice() : new Float32Array(this.#latest.length);
      if (i === 0) {
        mirror(samples);
        fade(samples, samples.length / 2, 1, 0);
      }
      this.#source.push({
        samples, frames: samples.length / 2, join: Join.GOES_ON, concealed: true, due,
      });
    }
    this.#packets += missing;
    this.#figures.lost += missing;
  }

  /** Writes the next `frames` frames from `offset` on. `now` is the time of the call. */
  render(left, right, offset, frames, now) {
    const seconds = this.#lastRender === null
      ? 0 : Math.min(MAX_STEP, Math.max(0, (now - this.#lastRender) / 1000));
    this.#lastRender = now;
    this.#target.pass(seconds);
    if (this.#timed) {
      this.#keepTime(now, frames);
    } else {
      this.#watchStart();
    }
    this.#watchDepth(seconds);
    this.#produce(frames);
    this.#resampler.pull(left, right, offset, frames);
    this.#watchLevel(left, 0, offset, frames);
    this.#watchLevel(right, 1, offset, frames);
    this.#control(seconds);
  }

  /** Output frames of sound that there are now; 0 while nothing is played. */
  get available() {
    if (this.#source.pausing) {
      return 0;
    }
    const waiting = (this.#source.frames * this.#outputRate) / this.#rate;
    return this.#resampler.available + Math.floor(waiting * (1 - MAX_PPM * 1e-6));
  }

  /** What is to be buffered, in the output too; milliseconds. */
  get targetMs() {
    return this.#target.milliseconds;
  }

  /** The output had nothing more to play, and has fallen silent. */
  noteBreak() {
    if (!this.#source.pausing) {
      this.#source.stop();
      this.#noteInterruption();
    }
  }

  #noteInterruption() {
    this.#figures.playing = false;
    if (!this.#ending) {
      this.#figures.underruns += 1;
      this.#target.noteUnderrun();
    }
  }

  #watchStart() {
    if (!this.#source.pausing || this.#source.empty) {
      return;
    }
    const depth = (1000 * this.#source.frames) / this.#rate + this.#aheadMs;
    const excess = depth - this.#target.milliseconds;
    if (excess < 0) {
      return;
    }
    this.#setRates();
    const packets = Math.floor(excess / this.#packetMs);
    this.#source.skip(packets);
    // What came before the output was ready has never been missed.
    this.#figures.skipped += this.#everPlayed ? packets : 0;
    this.#begin(this.#target.milliseconds);
  }

  #setRates() {
    if (this.#resamplerRate !== this.#rate) {
      this.#resamplerRate = this.#rate;
      this.#resampler.setRates(this.#rate, this.#outputRate);
    }
  }

  #begin(depthMs) {
    this.#everPlayed = true;
    this.#source.resume();
    this.#sinceBegin = 0;
    this.#meanDepth = depthMs;
    this.#figures.playing = true;
  }

  /** The next output frame is played at `now`, and `frames` of them are wanted. */
  #keepTime(now, frames) {
    if (this.#source.pausing) {
      this.#place(now, frames);
      return;
    }
    this.#schedule.noteTime(now + this.#resamplerMs);
    if (this.#schedule.astray) {
      this.#source.leave();
    }
  }

  /** Begins with the first block that is not due before it can be played, when it is due. */
  #place(now, frames) {
    if (this.#source.empty) {
      return;
    }
    this.#setRates();
    this.#schedule.putOff(this.#target.leastEarliness);
    const begin = now + this.#resamplerMs;
    while (!this.#source.empty && this.#schedule.timeOf(this.#source.due) < begin) {
      this.#source.skip(1);
    }
    const wait = this.#source.empty
      ? Infinity : this.#schedule.timeOf(this.#source.due) - begin;
    if (wait < (1000 * frames) / this.#outputRate) {
      this.#resampler.push(null, Math.round((wait * this.#rate) / 1000));
      this.#begin(this.#depthMs);
    }
  }

  get #resamplerMs() {
    return (1000 * this.#resampler.waiting) / this.#resamplerRate;
  }

  #produce(wanted) {
    while (!this.#source.pausing && this.#resampler.available < wanted) {
      this.#playBlock();
    }
    const missing = this.#resampler.missing(wanted);
    if (missing > 0) {
      this.#resampler.push(null, missing);
    }
  }

  #playBlock() {
    const block = this.#source.next();
    let samples = block.samples;
    switch (block.kind) {
      case Kind.RAN_DRY:
        this.#noteInterruption();
        break;
      case Kind.ENDED:
        this.#figures.playing = false;
        break;
      case Kind.SOUND:
        samples = this.#timed ? samples : this.#stretched(samples);
        break;
    }
    this.#schedule.noteBlock(block.due, (1000 * block.frames) / this.#resamplerRate);
    this.#resampler.push(samples);
  }

  #stretched(samples) {
    const target = this.#target.milliseconds;
    const shortage = target - this.#meanDepth;
    const most = Math.min(MAX_SHORTAGE_MS, SHORTAGE_SHARE * target);
    this.#stretching = shortage > (this.#stretching ? Math.min(SMALL_SHORTAGE_MS, most) : most);
    if (++this.#sinceStretch < STRETCH_INTERVAL || !this.#stretching) {
      return samples;
    }
    const longer = stretch(samples);
    if (longer !== samples) {
      this.#figures.stretched += 1;
      this.#meanDepth += (1000 * (longer.length - samples.length)) / 2 / this.#rate;
      this.#sinceStretch = 0;
    }
    return longer;
  }

  get #packetMs() {
    return (1000 * this.#latest.length) / 2 / this.#rate;
  }

  get #depthMs() {
    const waiting = this.#rate > 0 ? (1000 * this.#source.frames) / this.#rate : 0;
    return this.#aheadMs + waiting + (1000 * this.#resampler.available) / this.#outputRate;
  }

  #watchLevel(samples, channel, offset, frames) {
    let peak = this.#peak[channel];
    for (let i = offset; i < offset + frames; ++i) {
      peak = Math.max(peak, Math.abs(samples[i]));
    }
    this.#peak[channel] = peak;
  }

  /** The depth is what waits when the output comes for more and something has come meanwhile. */
  #watchDepth(seconds) {
    if (this.#source.pausing) {
      this.#figures.depthMs = this.#depthMs;
      return;
    }
    this.#sinceDepth += seconds;
    this.#sinceBegin += seconds;
    if (!this.#fresh) {
      return;
    }
    this.#fresh = false;
    const share = Math.min(1, this.#sinceDepth / DEPTH_MEMORY);
    this.#sinceDepth = 0;
    this.#meanDepth += (this.#depthMs - this.#meanDepth) * share;
    this.#figures.depthMs = this.#meanDepth;
    const target = this.#target.milliseconds;
    const most = this.#sinceBegin < BEGIN_SECONDS
      ? BEGIN_EXCESS_MS : Math.max(MIN_EXCESS_MS, EXCESS_SHARE * target);
    if (!this.#timed && this.#meanDepth > target + most) {
      this.#skipDown(target);
    }
  }

  /** At the begin and after an interruption much more may wait than needed. */
  #skipDown(target) {
    const excess = Math.min(this.#depthMs, this.#meanDepth) - target;
    const packets = Math.floor(excess / this.#packetMs);
    if (packets >= 1) {
      this.#source.skip(packets);
      this.#figures.skipped += packets;
      this.#meanDepth = this.#depthMs;
    }
  }

  #control(seconds) {
    this.#sinceControl += seconds;
    if (this.#sinceControl < CONTROL_INTERVAL) {
      return;
    }
    if (!this.#source.pausing) {
      const deviation = this.#meanDepth - this.#target.milliseconds;
      this.#figures.correctionPpm = this.#timed
        ? this.#schedule.correction(this.#sinceControl)
        : this.#drift.update(deviation, this.#sinceControl);
      this.#resampler.setCorrection(this.#figures.correctionPpm);
    }
    this.#sinceControl = 0;
  }

  /** A copy of the figures; the peaks (0 to 1, left and right) are those since the last call. */
  takeFigures() {
    const peak = this.#peak;
    this.#peak = [0, 0];
    return {
      ...this.#figures,
      lateMs: this.#timed ? this.#schedule.late + this.#schedule.putOffMs : null,
      putOffMs: this.#timed ? this.#schedule.putOffMs : 0,
      peak,
      targetMs: this.#target.milliseconds,
      jitterMs: this.#target.jitter,
    };
  }
}
