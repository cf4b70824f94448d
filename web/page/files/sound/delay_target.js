// How much sound to keep buffered. No DOM: also runs in an AudioWorklet.

export const MIN_BUFFER_MS = 40;
const MAX_TARGET_MS = 1000;
const WINDOW_MS = 10000;
const BINS = 800; // Of a millisecond each.
const MEMORY = 1 - 1 / 4000; // Weight that a packet keeps when the next one comes.
const UNCOVERED = 0.002; // Share of the packets that may come too late,
const EXCEPTIONS = 1; // but so many at any rate.
const SETTLING_MS = 1500; // While the page starts, arrivals say nothing about the network.
const CATCHING_UP_MS = 1;
const SAFETY_MS = 5;
const USUAL_JITTER_MS = 10;
const UNDERRUN_EXTRA_MS = 15;
const MAX_EXTRA_MS = 300;
const EXTRA_LOSS_PER_SECOND = 1;

/**
 * The target: at least what the user chose, and as much more as recent jitter and recent
 * underruns require. It grows as soon as a few packets have come later than it
 * covers and shrinks when that has not happened for half a minute or so. Packets that catch up after
 * a delay count as one with it. All times are given, in milliseconds.
 */
export class DelayTarget {
  #chosen;
  #unusable = 0;
  #extra = 0;
  #packetMs = 0;
  #jitter = 0;
  #quickest = null; // Smallest transit time, of an older and the present window.
  #quickestNow = 0; // The same, of the present window.
  #windowEnd = 0;
  #lastLateness = 0;
  #lateness = new Float64Array(BINS); // How many packets were how late, fading with time.
  #total = 0;
  #settling = SETTLING_MS;

  constructor(chosenMs) {
    this.choose(chosenMs);
  }

  choose(milliseconds) {
    this.#chosen = Math.max(MIN_BUFFER_MS, milliseconds);
  }

  /** So much of what is buffered is with the output, where it covers no late packet. */
  setUnusable(milliseconds) {
    this.#unusable = milliseconds;
  }

  /** Notes that the packet at `mediaTime` of its stream came at `arrival` and lasts `packetMs`. */
  noteArrival(mediaTime, arrival, packetMs) {
    const transit = arrival - mediaTime;
    this.#packetMs = packetMs;
    if (this.#settling > 0) {
      this.#settling -= packetMs;
      return;
    }
    if (this.#quickest === null) {
      this.#quickest = transit;
      this.#quickestNow = transit;
      this.#windowEnd = arrival + WINDOW_MS;
    }
    this.#quickestNow = Math.min(this.#quickestNow, transit);
    this.#quickest = Math.min(this.#quickest, transit);
    if (arrival >= this.#windowEnd) {
      this.#quickest = this.#quickestNow;
      this.#quickestNow = transit;
      this.#windowEnd = arrival + WINDOW_MS;
    }
    const lateness = transit - this.#quickest;
    const sameDelay = lateness < this.#lastLateness - CATCHING_UP_MS;
    this.#lastLateness = lateness;
    if (!sameDelay) {
      this.#count(lateness);
    }
  }

  #count(lateness) {
    for (let i = 0; i < BINS; ++i) {
      this.#lateness[i] *= MEMORY;
    }
    this.#total = this.#total * MEMORY + 1;
    this.#lateness[Math.min(BINS - 1, Math.max(0, Math.floor(lateness)))] += 1;
    const allowed = Math.max(EXCEPTIONS, UNCOVERED * this.#total);
    let late = 0;
    let i = BINS;
    while (i > 0 && (late += this.#lateness[i - 1]) <= allowed) {
      --i;
    }
    this.#jitter = i;
  }

  /** Forgets what was, as for a new stream: the end of the last one was not jitter. */
  restart() {
    this.#extra = 0;
    this.#settling = SETTLING_MS;
    this.#quickest = null;
    this.#lateness.fill(0);
    this.#total = 0;
    this.#jitter = 0;
  }

  noteUnderrun() {
    if (this.#settling <= 0) {
      this.#extra = Math.min(this.#extra + UNDERRUN_EXTRA_MS, MAX_EXTRA_MS);
    }
  }

  /** Lets time pass, after which an old underrun weighs less. */
  pass(seconds) {
    this.#extra = Math.max(0, this.#extra - EXTRA_LOSS_PER_SECOND * seconds);
  }

  /** What is to be buffered, in the output too. */
  get milliseconds() {
    return Math.min(MAX_TARGET_MS, Math.max(this.#chosen, this.#needed) + this.#extra);
  }

  get #needed() {
    return this.#jitter + this.#packetMs + SAFETY_MS + this.#unusable;
  }

  /** How long before it is due the quickest packet must come, so that nearly all come in time. */
  get leastEarliness() {
    const guessed = this.#settling > 0 ? USUAL_JITTER_MS : 0;
    return this.#needed + guessed + this.#extra;
  }

  /** How late nearly all packets are at most, against the quickest ones. */
  get jitter() {
    return this.#jitter;
  }
}
