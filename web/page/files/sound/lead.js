// How far ahead of the clock buffers are scheduled. No DOM.

const MAX_SECONDS = 0.3;
const SETTLING_SECONDS = 1; // The page is busy while it begins.
const SHRINK_PER_SECOND = 0.001;

/** As far as the page was kept from scheduling lately, for its timers come when they like. */
export class Lead {
  #least;
  #margin;
  #seconds;
  #age = 0;
  #late = 0;

  /** `margin`: seconds before the end of what is scheduled in which nothing can follow any more. */
  constructor(leastSeconds, margin) {
    this.#least = leastSeconds;
    this.#margin = margin;
    this.#seconds = leastSeconds;
  }

  get seconds() {
    return this.#seconds;
  }

  /** How often it was too late. */
  get late() {
    return this.#late;
  }

  /** Notes that there was no occasion to schedule for so long. */
  pass(seconds) {
    this.#age += seconds;
    const wanted = this.#age > SETTLING_SECONDS ? this.#margin + seconds : 0;
    const shrunk = Math.max(this.#least, this.#seconds - SHRINK_PER_SECOND * seconds);
    this.#seconds = Math.min(MAX_SECONDS, Math.max(shrunk, wanted));
  }

  noteLate() {
    this.#late += 1;
  }
}
