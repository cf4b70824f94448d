// The line of earliest arrivals. No DOM, no clock.

const SPAN_SECONDS = 2.5; // In which the server's sendings come as early as they can once.
const MAX_SPANS = 12;
const SLOPE_SPANS = 5; // So many tell how fast the other clock runs.
const MAX_SLOPE = 0.5; // Milliseconds a second.
const JUMP_MS = 30;

/**
 * Against another clock everything arrives late, by more or by less: the earliest arrivals of a while
 * lie on a line, whose slope is the difference between the clocks.
 */
export class EarliestLine {
  #spans = []; // {begin, time, least}; the newest one last.
  #slope = 0;
  #offset = 0;

  /** Notes an arrival `residual` ms after its sending at `time` (seconds, other clock). */
  note(time, residual) {
    if (this.#spans.length > 0 && this.at(time) - residual > JUMP_MS) {
      this.#spans = []; // One of the clocks has jumped.
    }
    let span = this.#spans.at(-1);
    if (!span || time - span.begin >= SPAN_SECONDS) {
      this.#judge();
      span = { begin: time, time, least: Infinity };
      this.#spans.push(span);
    }
    if (residual < span.least) {
      Object.assign(span, { time, least: residual });
    }
    this.#fit();
  }

  /** Forgets what is old, and what was before the other clock jumped. */
  #judge() {
    const spans = this.#spans;
    if (spans.length > 1 && spans.at(-1).least - this.at(spans.at(-1).time) > JUMP_MS) {
      spans.splice(0, spans.length - 1);
    } else if (spans.length === MAX_SPANS) {
      spans.shift();
    }
    this.#slope = spans.length < SLOPE_SPANS
      ? 0 : Math.min(MAX_SLOPE, Math.max(-MAX_SLOPE, this.#edge()));
  }

  /** The slope of the edge below the mean time, of the hull under all spans. */
  #edge() {
    const hull = [];
    for (const c of this.#spans) {
      while (hull.length >= 2) {
        const [a, b] = hull.slice(-2);
        if ((b.least - a.least) * (c.time - a.time) < (c.least - a.least) * (b.time - a.time)) {
          break;
        }
        hull.pop();
      }
      hull.push(c);
    }
    const mean = this.#spans.reduce((sum, { time }) => sum + time, 0) / this.#spans.length;
    const found = hull.findIndex(({ time }, i) => i > 0 && time >= mean);
    const edge = found < 0 ? hull.length - 1 : found;
    const [from, to] = hull.slice(edge - 1, edge + 1);
    return (to.least - from.least) / (to.time - from.time);
  }

  #fit() {
    this.#offset = Math.min(
      ...this.#spans.map(({ time, least }) => least - this.#slope * time));
  }

  /** How many ms after `time` (seconds) the earliest arrivals come. */
  at(time) {
    return this.#offset + this.#slope * time;
  }
}
