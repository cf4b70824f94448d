// When sound is due that is to be heard at a chosen time. No DOM: also runs in an AudioWorklet.

import { DriftControl } from './drift_control.js';

const PPM_PER_MS = 200; // Ten seconds to come into step.
// What is further from its time begins anew: at first little is known of the times, and later it
// results from an interruption.
const MAX_LATENESS_MS = 20;
const FIRST_MAX_LATENESS_MS = 8;
const FIRST_MS = 8000;
const EARLINESS_LOSS_MS = 0.05; // With each packet.

/**
 * All times are those of the output's clock, in milliseconds. A time that cannot be kept is put off
 * by as much as is needed; it stays so until restart().
 */
export class Schedule {
  #putOff = 0;
  #earliness = -Infinity; // Of the quickest packet lately.
  #begin = null; // Time at which the first sound was played.
  #end = null; // When what comes after the latest block is due.
  #time = 0;
  #late = 0;
  #drift = new DriftControl(PPM_PER_MS);

  restart() {
    this.#putOff = 0;
    this.#earliness = -Infinity;
    this.#begin = null;
    this.#end = null;
  }

  /** Notes that a packet came so long before it is due. */
  noteArrival(earliness) {
    this.#earliness = Math.max(earliness, this.#earliness - EARLINESS_LOSS_MS);
  }

  /** Puts everything off so that the quickest packets come `leastEarliness` before they are due. */
  putOff(leastEarliness) {
    this.#putOff = Math.max(this.#putOff, leastEarliness - this.#earliness);
  }

  /** When a block is to be played that is due at `due`. */
  timeOf(due) {
    return due + this.#putOff;
  }

  /** Notes the block that has just been handed on; `due` is undefined for a fade to silence. */
  noteBlock(due, milliseconds) {
    this.#end = due === undefined ? null : due + milliseconds;
  }

  /** Notes that what is handed on next is played at `time`. */
  noteTime(time) {
    this.#time = time;
    this.#begin ??= time;
    this.#late = this.#end === null ? 0 : time - this.timeOf(this.#end);
  }

  /** Parts per million to play faster. */
  correction(seconds) {
    return this.#drift.update(this.#late, seconds);
  }

  /** How much later the sound is played than it is to be, put off or not. */
  get late() {
    return this.#late;
  }

  /** True when that is more than correction() can correct in a while. */
  get astray() {
    const most = this.#time - this.#begin < FIRST_MS ? FIRST_MAX_LATENESS_MS : MAX_LATENESS_MS;
    return Math.abs(this.#late) > most;
  }

  /** By how much it is put off. */
  get putOffMs() {
    return this.#putOff;
  }
}
