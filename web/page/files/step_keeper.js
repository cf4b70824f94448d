// Rooms in step: when packets are to be heard that came with a chosen delay.

import { OutputTimes } from './sound/output_times.js';
import { SendTimes } from './sound/send_times.js';

const STAMP_MS = 100;
const TRIP_MS = 1500; // At least one in each span of EarliestLine.
const TRIP_URL = `${location.origin}/page/silence.flac`;
const MAX_LATENCY_MS = 2000;

/** Times packets by when the server sent them and by when the output is heard. */
export class StepKeeper {
  #context;
  #asksOutput;
  #delayMs;
  #sends = null;
  #format = null;
  #output = new OutputTimes();
  #trip = 0; // One that was measured since the last packet, 0: none.
  #timers;

  /** `asksOutput`: the context may be asked when its output is heard. */
  constructor(context, delayMs, asksOutput) {
    this.#context = context;
    this.#delayMs = delayMs;
    this.#asksOutput = asksOutput;
    this.#timers = [setInterval(() => this.#stamp(), STAMP_MS),
      setInterval(() => this.#measureTrip(), TRIP_MS)];
    this.#measureTrip();
  }

  close() {
    this.#timers.forEach(clearInterval);
  }

  /** From the sending to the loudspeaker. */
  get delayMs() {
    return this.#delayMs;
  }

  /** Another stream begins. */
  restart(format) {
    this.#format = format;
    this.#sends = new SendTimes(format.format === 'opus');
  }

  /** The output's clock stood still. */
  forgetOutput() {
    this.#output = new OutputTimes();
  }

  /** {due, earliness} of a packet that comes now, see Playout.push(); null before they are known. */
  take(packet) {
    const rate = this.#format.sampleRate;
    this.#sends.note(packet, rate, performance.now(), this.#trip);
    this.#trip = 0;
    if (!this.#sends.ready || !this.#output.ready) {
      return null;
    }
    const due = this.#output.frameAt(this.#sends.sentAt(packet, rate) + this.#delayMs);
    return { due, earliness: due - 1000 * this.#context.currentTime };
  }

  #stamp() {
    if (this.#context.state === 'running') {
      const { frame, heard } = this.#asksOutput ? this.#askedStamp() : this.#plainStamp();
      this.#output.note(frame, heard);
    }
  }

  #askedStamp() {
    const { contextTime, performanceTime } = this.#context.getOutputTimestamp();
    const latency = this.#context.currentTime - contextTime;
    if (contextTime > 0 && latency >= 0 && latency < MAX_LATENCY_MS / 1000) {
      return { frame: 1000 * contextTime, heard: performanceTime };
    }
    const { frame, heard } = this.#plainStamp();
    return { frame, heard: heard + 1000 * (this.#context.outputLatency ?? 0) };
  }

  #plainStamp() {
    const frame = 1000 * this.#context.currentTime;
    return { frame, heard: performance.now() + 1000 * (this.#context.baseLatency ?? 0) };
  }

  /** The round trip to velantrix-web; the browser tells how long the answer took alone. */
  async #measureTrip() {
    try {
      await fetch(TRIP_URL, { method: 'HEAD', cache: 'no-store' });
    } catch {
      return; // The connection will say what is wrong.
    }
    const [latest] = performance.getEntriesByName(TRIP_URL).slice(-1);
    this.#trip = latest ? latest.responseStart - latest.requestStart : 0;
    performance.clearResourceTimings();
  }
}
