// Follows the difference between two clocks. No DOM: also runs in an AudioWorklet.

export const MAX_PPM = 500; // Less than one cent of pitch.

// A loop with a time constant of 50 s: fast against the drift of clocks, slow against jitter.
const PPM_PER_MS = 40;
// Beyond this the depth is off for another reason than drift, from which nothing is learnt.
const LEARNING_LIMIT_MS = 15;

function limited(ppm) {
  return Math.min(MAX_PPM, Math.max(-MAX_PPM, ppm));
}

/** Proportional-integral: the integral settles at the difference between the clocks. */
export class DriftControl {
  #integral = 0;
  #gain;

  /** `ppmPerMs`: the greater, the sooner a deviation is corrected. */
  constructor(ppmPerMs = PPM_PER_MS) {
    this.#gain = ppmPerMs;
  }

  /** Parts per million to play faster, for a depth that was off by `deviationMs` for `seconds`. */
  update(deviationMs, seconds) {
    if (Math.abs(deviationMs) < LEARNING_LIMIT_MS) {
      // One ppm moves the depth by a microsecond a second: this makes a critically damped loop.
      const gain = this.#gain ** 2 / 4000;
      this.#integral = limited(this.#integral + gain * deviationMs * seconds);
    }
    return limited(this.#gain * deviationMs + this.#integral);
  }
}
