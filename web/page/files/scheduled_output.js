// Plays through a row of AudioBufferSourceNodes, each scheduled to begin where the one before ends:
// wherever there is no AudioWorklet.

import { Lead } from './sound/lead.js';
import { Playout } from './sound/playout.js';

const PIECE_SECONDS = 0.01;
const MAX_PIECES = 2;
const TIMER_MS = 8;
const FADE_SECONDS = 0.003;
const MIN_PERIOD_SECONDS = 0.01;
const FIGURES_MS = 50;

/** Gives sound to the node `target`; `onFigures` hears the figures of Playout some 20 times a second. */
export class ScheduledOutput {
  #context;
  #playout;
  #lead;
  #fader;
  #left;
  #right;
  #end = 0; // Frames of the context's clock until which sound is scheduled.
  #margin; // Seconds before that in which nothing can be changed any more.
  #lastPump = null;
  #timers;

  constructor(context, target, bufferMs, onFigures) {
    this.#context = context;
    this.#playout = new Playout(context.sampleRate, bufferMs);
    // The context renders so much at once, and its clock may lag behind by as much.
    const period = Math.max(MIN_PERIOD_SECONDS, context.baseLatency ?? 0);
    this.#margin = period + FADE_SECONDS;
    this.#lead = new Lead(period + this.#margin + TIMER_MS / 1000, this.#margin);
    const frames = Math.round(PIECE_SECONDS * context.sampleRate);
    this.#left = new Float32Array(frames);
    this.#right = new Float32Array(frames);
    this.#fader = context.createGain();
    this.#fader.connect(target);
    const tell = () => onFigures(this.#figures());
    this.#timers = [setInterval(() => this.#pump(), TIMER_MS), setInterval(tell, FIGURES_MS)];
  }

  #figures() {
    const figures = this.#playout.takeFigures();
    figures.underruns += this.#lead.late;
    return { ...figures, leadMs: 1000 * this.#lead.seconds };
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
    const now = this.#context.currentTime;
    const rate = this.#context.sampleRate;
    if (this.#context.state !== 'running') {
      return;
    }
    this.#lead.pass(this.#lastPump === null ? 0 : now - this.#lastPump);
    this.#lastPump = now;
    const goal = Math.floor((now + this.#lead.seconds) * rate);
    const late = this.#end / rate < now + this.#margin;
    if (!late && this.#end >= goal) {
      return;
    }
    if (late) {
      this.#startAgain(now);
    } else {
      this.#fader.gain.cancelScheduledValues(this.#end / rate - FADE_SECONDS);
    }
    // Little at a time: behind a pause of the page more packets wait for their turn.
    for (let pieces = 0; this.#end < goal && (late || pieces < MAX_PIECES); ++pieces) {
      this.#schedulePiece(rate);
    }
    this.#fadeAt(this.#end / rate);
  }

  /** What was scheduled fades out, or has done so. */
  #startAgain(now) {
    if (this.#end > 0) {
      this.#lead.noteLate();
    }
    const rate = this.#context.sampleRate;
    this.#end = Math.ceil(Math.max((now + this.#margin) * rate, this.#end));
    const begin = this.#end / rate;
    this.#fader.gain.setValueAtTime(0, begin);
    this.#fader.gain.linearRampToValueAtTime(1, begin + FADE_SECONDS);
  }

  #schedulePiece(rate) {
    const frames = this.#left.length;
    // The time at which it is heard, so that the clock of the figures runs evenly.
    this.#playout.render(this.#left, this.#right, 0, frames, (1000 * this.#end) / rate);
    const buffer = this.#context.createBuffer(2, frames, rate);
    buffer.copyToChannel(this.#left, 0);
    buffer.copyToChannel(this.#right, 1);
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
