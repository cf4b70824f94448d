// An unbroken row of blocks out of the packets that wait: fades where the sound stops, starts or
// leaps. No DOM: also runs in an AudioWorklet.

import { crossfade, fade, mirror } from './splicing.js';

const FADE_IN_FRAMES = 240;
const MAX_FRAMES = 720000; // For the longest delay; while the output stands still, more comes.

export const Join = { GOES_ON: 0, FADE_IN: 1, NEW_STREAM: 2 };
export const Kind = { SOUND: 0, CONCEALED: 1, RAN_DRY: 2, ENDED: 3 };

/**
 * Blocks are {samples, frames, rate, join, concealed, due}, samples interleaved; the source owns
 * them and changes them. What next() returns is {kind, samples, frames, due}, valid until the next
 * call.
 */
export class BlockSource {
  #blocks = [];
  #frames = 0;
  #pausing = true;
  #fadeIn = true;
  #streamChanged = false; // A new stream waits, the sound is still the old.
  #tail = null; // Samples that the next block fades over from.
  #last = null; // Samples of the latest block.

  push(block) {
    if (block.join === Join.NEW_STREAM) {
      this.#blocks.length = 0;
      this.#frames = 0;
      this.#tail = null;
      this.#streamChanged = !this.#pausing;
    }
    this.#blocks.push(block);
    this.#frames += block.frames;
    while (this.#frames > MAX_FRAMES) {
      this.#take();
    }
  }

  /** The next block; not while pausing. */
  next() {
    if (this.#streamChanged || this.#blocks.length === 0) {
      return this.#fadeOut();
    }
    const block = this.#take();
    const samples = block.samples;
    if (this.#tail) {
      crossfade(samples, this.#tail, Math.min(block.frames, this.#tail.length / 2));
    } else if (this.#fadeIn || block.join === Join.FADE_IN) {
      fade(samples, Math.min(block.frames, FADE_IN_FRAMES), 0, 1);
    }
    this.#tail = null;
    this.#fadeIn = false;
    this.#last = samples;
    const kind = block.concealed ? Kind.CONCEALED : Kind.SOUND;
    return { kind, samples, frames: block.frames, due: block.due };
  }

  #take() {
    const block = this.#blocks.shift();
    this.#frames -= block.frames;
    return block;
  }

  #fadeOut() {
    const kind = this.#streamChanged ? Kind.ENDED : Kind.RAN_DRY;
    this.#pausing = true;
    this.#streamChanged = false;
    const samples = (this.#tail ?? this.#last)?.slice() ?? new Float32Array(0);
    if (!this.#tail) {
      mirror(samples);
    }
    fade(samples, samples.length / 2, 1, 0);
    return { kind, samples, frames: samples.length / 2 };
  }

  /** True while nothing is played, until resume(). */
  get pausing() {
    return this.#pausing;
  }

  /** What comes next is a fade to a pause, as at the end of a stream. */
  leave() {
    this.#streamChanged = !this.#pausing;
  }

  /** Pauses: the sound has broken off already. */
  stop() {
    this.#pausing = true;
    this.#streamChanged = false;
  }

  /** Ends the pause; the next block fades in. */
  resume() {
    this.#pausing = false;
    this.#fadeIn = true;
    this.#tail = null;
    this.#last = null;
  }

  /** Leaves out up to so many blocks; the sound before fades over into the sound after them. */
  skip(blocks) {
    let left = Math.min(blocks, this.#blocks.length);
    if (left > 0 && !this.#pausing && !this.#streamChanged) {
      this.#tail = this.next().samples;
      --left;
    }
    for (; left > 0; --left) {
      this.#take();
    }
  }

  /** When the next block is due; undefined for no time. */
  get due() {
    return this.#blocks[0]?.due;
  }

  get empty() {
    return this.#blocks.length === 0;
  }

  /** Frames that wait. */
  get frames() {
    return this.#frames;
  }
}
