// Plays through a row of AudioBufferSourceNodes, each scheduled to begin where the one before ends:
// wherever there is no AudioWorklet.

import { Playout } from './sound/playout.js';

const MAX_PIECE_SECONDS = 0.02;
const TIMER_MS = 8;
const FADE_SECONDS = 0.003;
const MIN_PERIOD_SECONDS = 0.01;
const FIGURES_MS = 50;
const PAUSE_MS = 25; // Of the page's thread, as to collect garbage; more is rare.

/**
 * Plays into the node `target`; calls `onFigures` about 20 times a second. Scheduling early covers
 * late packets and a busy page.
 */
export class ScheduledOutput {
  #context;
  #playout;
  #fader;
  #left;
  #right;
  #end = 0; // Frames of the context's clock until which sound is scheduled.
  #margin; // Seconds before the end in which nothing can be changed;
  #least; // something must follow by then, if only silence.
  #timers;

  constructor(context, target, bufferMs, onFigures) {
    this.#context = context;
    this.#playout = new Playout(context.sampleRate, bufferMs);
    // The context renders so much at once, and its clock may lag behind by as much.
    const period = Math.max(MIN_PERIOD_SECONDS, context.baseLatency ?? 0);
    this.#margin = period + FADE_SECONDS;
    this.#least = period + this.#margin;
    this.#playout.setUnusable(1000 * this.#least + PAUSE_MS);
    const frames = Math.round(MAX_PIECE_SECONDS * context.sampleRate);
    this.#left = new Float32Array(frames);
    this.#right = new Float32Array(frames);
    this.#fader = context.createGain();
    this.#fader.connect(target);
    const tell = () => onFigures(this.#playout.takeFigures());
    this.#timers = [setInterval(() => this.#pump(), TIMER_MS), setInterval(tell, FIGURES_MS)];
  }

  push(packet) {
    this.#playout.push(packet, performance.now());
    this.#pump(); // Timers of a page that nobody looks at are slow, messages are not.
  }

  restart() {
    this.#playout.restart();
  }

  setBuffer(bufferMs) {
    this.#playout.setBuffer(bufferMs);
  }

  close() {
    this.#timers.forEach(clearInterval);
    this.#fader.disconnect();
  }

  #pump() {
    if (this.#context.state !== 'running') {
      return;
    }
    const rate = this.#context.sampleRate;
    const now = this.#context.currentTime;
    const late = this.#end < (now + this.#margin) * rate;
    if (late) {
      this.#startAgain(now);
    }
    const due = (now + this.#least) * rate;
    const limit = Math.max(due, (now + this.#playout.targetMs / 1000) * rate);
    if (this.#end >= limit || this.#wanted(due) <= 0) {
      return;
    }
    if (!late) {
      this.#fader.gain.cancelScheduledValues(this.#end / rate - FADE_SECONDS);
    }
    do {
      this.#schedulePiece(this.#wanted(due), now);
    } while (this.#end < limit && this.#wanted(due) > 0);
    this.#fadeAt(this.#end / rate);
  }

  /** How many frames can follow now, be they silence because sound is missing. */
  #wanted(due) {
    const wanted = Math.max(this.#playout.available, Math.ceil(due - this.#end));
    return Math.min(wanted, this.#left.length);
  }

  /** What was scheduled has faded out. */
  #startAgain(now) {
    const rate = this.#context.sampleRate;
    this.#playout.noteBreak();
    this.#end = Math.ceil(Math.max((now + this.#margin) * rate, this.#end));
    const begin = this.#end / rate;
    this.#fader.gain.setValueAtTime(0, begin);
    this.#fader.gain.linearRampToValueAtTime(1, begin + FADE_SECONDS);
  }

  #schedulePiece(frames, now) {
    const rate = this.#context.sampleRate;
    this.#playout.setAhead(1000 * (this.#end / rate - now));
    // The time at which it is heard, so that the clock of the figures runs evenly.
    this.#playout.render(this.#left, this.#right, 0, frames, (1000 * this.#end) / rate);
    const buffer = this.#context.createBuffer(2, frames, rate);
    buffer.copyToChannel(this.#left.subarray(0, frames), 0);
    buffer.copyToChannel(this.#right.subarray(0, frames), 1);
    const source = this.#context.createBufferSource();
    source.buffer = buffer;
    source.connect(this.#fader);
    source.start(this.#end / rate);
    this.#end += frames;
  }

  /** Fades out where the schedule ends, until the next piece takes that back. */
  #fadeAt(end) {
    const { gain } = this.#fader;
    gain.setValueAtTime(1, end - FADE_SECONDS);
    gain.linearRampToValueAtTime(0, end);
  }
}
