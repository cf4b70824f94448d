// The line of earliest arrivals. No DOM, no clock.

const SPAN_SECONDS = 2.5; // In which the server's sendings come as early as they can once.
const MAX_SPANS = 32;
const SLOPE_SPANS = 5; // So many tell how fast the other clock runs.
const MAX_SLOPE = 0.5; // Milliseconds a second.
const JUMP_MS = 30;
const SHIFT_MS = 5;
// When all arrivals of the last spans are later than the line by so much, it is abandoned.
const SHIFTS = [{ count: 1, limit: JUMP_MS }, { count: 3, limit: SHIFT_MS }];

function shortestTrip(spans) {
  return Math.min(...spans.map(({ trip }) => trip));
}

/**
 * Against another clock everything arrives late, by more or by less: the earliest arrivals of a while
 * lie on a line, whose slope is the difference between the clocks. Times in milliseconds, where
 * nothing else is said.
 */
export class EarliestLine {
  #spans = []; // {begin, time, least, trip}; the newest one last.
  #slope = 0;
  #offset = 0;

  /**
   * Notes an arrival `residual` after its sending at `time` (seconds, other clock). `trip` is a
   * round trip since the last call, 0: none.
   */
  note(time, residual, trip) {
    if (this.#spans.length > 0 && this.at(time) - residual > JUMP_MS) {
      this.#spans = []; // One of the clocks has jumped.
    }
    let span = this.#spans.at(-1);
    if (!span || time - span.begin >= SPAN_SECONDS) {
      this.#judge();
      span = { begin: time, time, least: Infinity, trip: Infinity };
      this.#spans = [...this.#spans, span].slice(-MAX_SPANS);
    }
    if (residual < span.least) {
      Object.assign(span, { time, least: residual });
    }
    span.trip = Math.min(span.trip, trip || Infinity);
    this.#fit();
  }

  /** Forgets what was before one of the clocks jumped. */
  #judge() {
    const spans = this.#spans;
    for (const { count, limit } of SHIFTS) {
      const late = Math.min(...spans.slice(-count).map(({ time, least }) => least - this.at(time)));
      if (spans.length > count && late > limit) {
        if (!this.#slower(count, late)) {
          spans.splice(0, spans.length - count);
        }
        return;
      }
    }
    if (spans.length >= SLOPE_SPANS) {
      this.#slope = Math.min(MAX_SLOPE, Math.max(-MAX_SLOPE, this.#edge()));
      this.#fit();
    }
    const near = ({ time, least }) => least - this.at(time) < SHIFT_MS;
    if (spans.length > 0 && near(spans.at(-1))) {
      this.#spans = spans.filter(near);
    }
  }

  /** True when the network explains that the last `count` spans are `late`: the line stays. */
  #slower(count, late) {
    const before = shortestTrip(this.#spans.slice(0, -count));
    const since = shortestTrip(this.#spans.slice(-count));
    // Of a way that is slower in one direction the round trip shows the excess once, else twice.
    return since < Infinity && since - before >= late / 2;
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

  /** Half the shortest round trip, 0 before any. */
  get halfTrip() {
    const trip = shortestTrip(this.#spans);
    return trip < Infinity ? trip / 2 : 0;
  }

  /** How long after `time` (seconds) the earliest arrivals come. */
  at(time) {
    return this.#offset + this.#slope * time;
  }
}
