// Follows the difference between two clocks. No DOM: also runs in an AudioWorklet.

export const MAX_PPM = 500; // Less than one cent of pitch.

// One ppm moves the depth by a microsecond a second, so that these gains make a critically damped
// loop with a time constant of 50 s: fast against the drift of clocks, slow against jitter.
const PPM_PER_MS = 40;
const PPM_PER_MS_SECOND = 0.4;
// Beyond this the depth is off for another reason than drift, from which nothing is learnt.
const LEARNING_LIMIT_MS = 15;

function limited(ppm) {
  return Math.min(MAX_PPM, Math.max(-MAX_PPM, ppm));
}

/** Proportional-integral: the integral settles at the difference between the clocks. */
export class DriftControl {
  #integral = 0;

  /** Parts per million to play faster, for a depth that was off by `deviationMs` for `seconds`. */
  update(deviationMs, seconds) {
    if (Math.abs(deviationMs) < LEARNING_LIMIT_MS) {
      this.#integral = limited(this.#integral + PPM_PER_MS_SECOND * deviationMs * seconds);
    }
    return limited(PPM_PER_MS * deviationMs + this.#integral);
  }
}
