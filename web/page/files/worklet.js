// The AudioWorklet's side of worklet_output.js.

import { Playout } from './sound/playout.js';

const FIGURES_INTERVAL = 0.05; // Seconds.

class PlayoutProcessor extends AudioWorkletProcessor {
  #playout;
  #told = 0;
  #ended = false;

  constructor({ processorOptions }) {
    super();
    this.#playout = new Playout(sampleRate, processorOptions.bufferMs);
    this.#playout.setAhead(processorOptions.aheadMs);
    this.#playout.setUnusable(processorOptions.aheadMs);
    this.port.onmessage = ({ data }) => this.#take(data);
  }

  #take({ packet, bufferMs, restart, end }) {
    if (packet) {
      this.#playout.push(packet, 1000 * currentTime);
    } else if (bufferMs) {
      this.#playout.setBuffer(bufferMs);
    } else if (restart) {
      this.#playout.restart();
    }
    this.#ended ||= Boolean(end);
  }

  process(_, [[left, right]]) {
    this.#playout.render(left, right, 0, left.length, 1000 * currentTime);
    if (currentTime - this.#told >= FIGURES_INTERVAL) {
      this.#told = currentTime;
      this.port.postMessage(this.#playout.takeFigures());
    }
    return !this.#ended;
  }
}

registerProcessor('velantrix-playout', PlayoutProcessor);
