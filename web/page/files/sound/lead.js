// How far ahead of the clock buffers are scheduled. No DOM.

const MAX_SECONDS = 0.25;
const GROWTH = 1.5;
const SHRINK_PER_SECOND = 0.0001;

/** Grows when the page was too late to schedule, for its timers come when they like. */
export class Lead {
  #least;
  #seconds;
  #late = 0;

  constructor(leastSeconds) {
    this.#least = leastSeconds;
    this.#seconds = leastSeconds;
  }

  get seconds() {
    return this.#seconds;
  }

  /** How often it was too late. */
  get late() {
    return this.#late;
  }

  noteLate() {
    this.#late += 1;
    this.#seconds = Math.min(MAX_SECONDS, this.#seconds * GROWTH);
  }

  pass(seconds) {
    this.#seconds = Math.max(this.#least, this.#seconds - SHRINK_PER_SECOND * seconds);
  }
}
