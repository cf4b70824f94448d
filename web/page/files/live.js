// The connection to /live, which comes back by itself.

import { readPacket } from './sound/packets.js';

export const FIRST_PAUSE_MS = 300;
export const MAX_PAUSE_MS = 5000;
const SILENCE_MS = 6000; // Without a message for so long the connection is lost:
const WAITING_MS = 30000; // after sound, and while it waits for the server.

/**
 * Calls of `listener`: onConnecting(), onFormat({format, sampleRate, title}), onWaiting(),
 * onPacket(packet of readPacket), onLost(milliseconds until the next try).
 */
export class LiveConnection {
  #listener;
  #url;
  #arrivals;
  #socket = null;
  #pause = FIRST_PAUSE_MS;
  #retry = 0;
  #watch = 0;
  #onOnline = () => this.#connectSoon();

  /** `arrivals`: packets tell when they came to velantrix-web. */
  constructor(url, arrivals, listener) {
    this.#url = arrivals ? `${url}&arrivals=1` : url;
    this.#arrivals = arrivals;
    this.#listener = listener;
    addEventListener('online', this.#onOnline);
    this.#connect();
  }

  close() {
    removeEventListener('online', this.#onOnline);
    clearTimeout(this.#retry);
    this.#leave();
  }

  #leave() {
    clearTimeout(this.#watch);
    const socket = this.#socket;
    this.#socket = null;
    socket?.close();
  }

  #connectSoon() {
    if (this.#socket === null) {
      clearTimeout(this.#retry);
      this.#connect();
    }
  }

  #connect() {
    this.#listener.onConnecting();
    const socket = new WebSocket(this.#url);
    socket.binaryType = 'arraybuffer';
    this.#socket = socket;
    this.#expectMessage(SILENCE_MS);
    socket.onmessage = ({ data }) => socket === this.#socket && this.#take(data);
    socket.onclose = () => socket === this.#socket && this.#lose();
  }

  #expectMessage(milliseconds) {
    clearTimeout(this.#watch);
    this.#watch = setTimeout(() => this.#lose(), milliseconds);
  }

  #take(data) {
    this.#pause = FIRST_PAUSE_MS;
    if (data instanceof ArrayBuffer) {
      this.#expectMessage(SILENCE_MS);
      const packet = readPacket(data, this.#arrivals);
      if (packet) {
        this.#listener.onPacket(packet);
      }
      return;
    }
    const message = parsed(data);
    this.#expectMessage(message.state === 'waiting' ? WAITING_MS : SILENCE_MS);
    if (message.state === 'waiting') {
      this.#listener.onWaiting();
    } else if (message.sampleRate > 0) {
      this.#listener.onFormat(message);
    }
  }

  #lose() {
    this.#leave();
    const pause = this.#pause * (0.8 + 0.4 * Math.random());
    this.#pause = Math.min(MAX_PAUSE_MS, 2 * this.#pause);
    this.#retry = setTimeout(() => this.#connect(), pause);
    this.#listener.onLost(pause);
  }
}

function parsed(text) {
  try {
    return Object(JSON.parse(text));
  } catch {
    return {};
  }
}
