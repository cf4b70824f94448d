// Any ratio of sample rates, which may change while it plays. No DOM: also runs in an AudioWorklet.

const TAPS = 32;
const HALF = TAPS / 2;
const PHASES = 256;
const KAISER_BETA = 8; // 80 dB, flat to 20 kHz at 48 kHz.
const CAPACITY = 16384; // Frames.

function bessel(x) {
  let sum = 1;
  let term = 1;
  for (let i = 1; term > 1e-12 * sum; ++i) {
    term *= (x / (2 * i)) ** 2;
    sum += term;
  }
  return sum;
}

/** Coefficients of a windowed sinc, TAPS for each phase, and once more for the phase after. */
function makeTable(cutoff) {
  const table = new Float32Array((PHASES + 1) * TAPS);
  for (let phase = 0; phase <= PHASES; ++phase) {
    let sum = 0;
    for (let tap = 0; tap < TAPS; ++tap) {
      const x = tap - HALF + 1 - phase / PHASES;
      const inside = Math.max(0, 1 - (x / HALF) ** 2);
      const sinc = x === 0 ? 1 : Math.sin(Math.PI * cutoff * x) / (Math.PI * cutoff * x);
      const value = sinc * bessel(KAISER_BETA * Math.sqrt(inside));
      table[phase * TAPS + tap] = value;
      sum += value;
    }
    for (let tap = 0; tap < TAPS; ++tap) {
      table[phase * TAPS + tap] /= sum;
    }
  }
  return table;
}

/** Stereo; takes interleaved samples, gives them by channel. */
export class Resampler {
  #input = new Float32Array(2 * CAPACITY);
  #end = TAPS; // Frames in #input.
  #position = HALF; // Of the next output, in frames of #input.
  #ratio = 1;
  #step = 1;
  #table = makeTable(1);

  /** Sets the rates in Hz and forgets what waits. */
  setRates(from, to) {
    this.#table = makeTable(Math.min(1, to / from));
    this.#ratio = from / to;
    this.#step = this.#ratio;
    this.#input.fill(0);
    this.#end = TAPS;
    this.#position = HALF;
  }

  /** Plays so many parts per million faster. */
  setCorrection(ppm) {
    this.#step = this.#ratio * (1 + ppm * 1e-6);
  }

  /** Appends samples, or so many frames of silence when there are none. */
  push(samples, frames = samples.length / 2) {
    if (this.#end + frames > CAPACITY) {
      this.#dropPlayed();
    }
    const room = Math.min(frames, CAPACITY - this.#end);
    if (samples) {
      this.#input.set(samples.subarray(0, 2 * room), 2 * this.#end);
    } else {
      this.#input.fill(0, 2 * this.#end, 2 * (this.#end + room));
    }
    this.#end += room;
  }

  #dropPlayed() {
    const played = Math.floor(this.#position) - HALF;
    this.#input.copyWithin(0, 2 * played, 2 * this.#end);
    this.#end -= played;
    this.#position -= played;
  }

  /** Output frames that can be made now. */
  get available() {
    return Math.max(0, Math.ceil((this.#end - HALF - this.#position) / this.#step));
  }

  /** Input frames between the next output frame and the next input frame. */
  get waiting() {
    return this.#end - this.#position;
  }

  /** Input frames that are missing to make so many output frames. */
  missing(frames) {
    const last = Math.floor(this.#position + (frames - 1) * this.#step);
    return Math.max(0, last + HALF + 1 - this.#end);
  }

  /** Writes `frames` frames, at most as many as available, from `offset` on. */
  pull(left, right, offset, frames) {
    const input = this.#input;
    const table = this.#table;
    for (let i = offset; i < offset + frames; ++i) {
      const whole = Math.floor(this.#position);
      const phase = (this.#position - whole) * PHASES;
      const row = Math.floor(phase);
      const share = phase - row;
      let at = 2 * (whole - HALF + 1);
      let one = row * TAPS;
      let l = 0;
      let r = 0;
      for (const end = one + TAPS; one < end; ++one, at += 2) {
        const coefficient = table[one] + share * (table[one + TAPS] - table[one]);
        l += coefficient * input[at];
        r += coefficient * input[at + 1];
      }
      left[i] = l;
      right[i] = r;
      this.#position += this.#step;
    }
  }
}
