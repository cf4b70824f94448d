// When the server sent its packets, by this computer's clock. No DOM, no clock.

import { EarliestLine } from './earliest_line.js';

const RAW_FRAMES = 338;
const OPUS_LOOK_AHEAD = 312; // Frames that the encoder holds back.
const SECOND_PASS_MS = 0.5; // Compressed packets leave after a short wait for the uncompressed.
const READY_SECONDS = 2;

/**
 * The server sends a packet to all clients at once. So the earliest arrivals of its packets are a
 * clock that all listeners share: here at velantrix-web, whose own clock is found in the same way.
 * Times are in milliseconds.
 */
export class SendTimes {
  #opus;
  #first = null; // The first packet's number,
  #origin = 0; // and when it came to velantrix-web.
  #begin = 0;
  #ready = false;
  #sending = new EarliestLine();
  #way = new EarliestLine();

  /** Of a stream of Opus packets, or of uncompressed ones. */
  constructor(opus) {
    this.#opus = opus;
  }

  /**
   * Takes a packet of readPacket(), of a stream at `rate` Hz, that came here at `now`. `trip` is a
   * round trip to velantrix-web since the last call, 0: none.
   */
  note({ sequence, frames, arrival, serverTrip }, rate, now, trip) {
    if (this.#first === null) {
      this.#first = sequence;
      this.#origin = arrival;
      this.#begin = now;
    }
    const position = this.#position(sequence, frames) + this.#lead(sequence, frames);
    const time = position / rate;
    this.#sending.note(time, arrival - this.#origin - 1000 * time, serverTrip);
    this.#way.note((arrival - this.#origin) / 1000, now - arrival, trip);
    this.#ready = this.#ready || now - this.#begin >= 1000 * READY_SECONDS;
  }

  /** True once enough has come to tell times. */
  get ready() {
    return this.#ready;
  }

  #position(sequence, frames) {
    return ((sequence - this.#first) | 0) * frames;
  }

  /**
   * Frames that a compressed packet is sent later than an uncompressed one with the same first
   * frame: when the uncompressed one with its last frame is.
   */
  #lead(sequence, frames) {
    const over = (RAW_FRAMES - (((sequence + 1) * frames) % RAW_FRAMES)) % RAW_FRAMES;
    return this.#opus ? frames - RAW_FRAMES + over : 0;
  }

  /**
   * When the first frame of a packet counts as sent: what was captured at the same moment has the
   * same time, in whatever packets it comes.
   */
  sentAt({ sequence, frames }, rate) {
    const held = this.#opus ? OPUS_LOOK_AHEAD : 0;
    const time = (this.#position(sequence, frames) - held) / rate;
    const sent = 1000 * time + this.#sending.at(time) - (this.#opus ? SECOND_PASS_MS : 0);
    return this.#origin + sent + this.#way.at(sent / 1000) - this.#sending.halfTrip -
      this.#way.halfTrip;
  }
}
