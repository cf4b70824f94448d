// When the output's frames are heard. No DOM, no clock.

const WINDOW_MS = 10000;
const READY_STAMPS = 10;
const MIN_STAMPS = 60; // So many tell how fast the output runs.
const MAX_SLOPE = 5e-4;
const JUMP_MS = 12;

function median(values) {
  return [...values].sort((a, b) => a - b)[values.length >> 1];
}

/**
 * Joins the clock of the output's frames with this computer's, by noisy time stamps: the line
 * through the medians of the last ten seconds. Times are in milliseconds.
 */
export class OutputTimes {
  #stamps = []; // {frame, residual}
  #slope = 0;
  #offset = 0;

  /** Notes that the frame at `frame` of the output's clock is heard at `heard`. */
  note(frame, heard) {
    const residual = heard - frame;
    if (this.#stamps.length > 0 && frame <= this.#stamps.at(-1).frame) {
      return;
    }
    this.#stamps = this.#stamps.filter((stamp) => frame - stamp.frame < WINDOW_MS);
    this.#stamps.push({ frame, residual });
    this.#forgetJump();
    this.#fit();
  }

  /** Where the last ones are all elsewhere the output has paused. */
  #forgetJump() {
    const last = this.#stamps.slice(-READY_STAMPS);
    const far = ({ frame, residual }) => Math.abs(residual - this.#at(frame)) > JUMP_MS;
    if (this.#stamps.length > READY_STAMPS && last.every(far)) {
      this.#stamps = last;
    }
  }

  #at(frame) {
    return this.#offset + this.#slope * frame;
  }

  #fit() {
    const stamps = this.#stamps;
    this.#slope = 0;
    if (stamps.length >= MIN_STAMPS) {
      const half = stamps.length >> 1;
      const [early, late] = [stamps.slice(0, half), stamps.slice(half)].map((part) => ({
        frame: median(part.map(({ frame }) => frame)),
        residual: median(part.map(({ residual }) => residual)),
      }));
      const slope = (late.residual - early.residual) / (late.frame - early.frame);
      this.#slope = Math.min(MAX_SLOPE, Math.max(-MAX_SLOPE, slope));
    }
    this.#offset = median(stamps.map(({ frame, residual }) => residual - this.#slope * frame));
  }

  /** True once the times can be relied on. */
  get ready() {
    return this.#stamps.length >= READY_STAMPS;
  }

  /** The time of the output's clock whose frame is heard at `heard`. */
  frameAt(heard) {
    return (heard - this.#offset) / (1 + this.#slope);
  }
}
