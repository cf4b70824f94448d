// Plays through an AudioWorklet: in secure contexts only.

import { FIRST_PAUSE_MS, MAX_PAUSE_MS } from './live.js';

const MODULE = `${location.origin}/page/worklet.js`;
let loaded = null; // The page has one context.

/** Tries until it succeeds: velantrix-web may be away. */
async function load(context) {
  for (let pause = FIRST_PAUSE_MS; ; pause = Math.min(MAX_PAUSE_MS, 2 * pause)) {
    try {
      // When addModule() has failed, Chromium never loads it in this context.
      if (!(await fetch(MODULE)).ok) {
        throw new Error('away');
      }
      await context.audioWorklet.addModule(MODULE);
      return;
    } catch {
      await new Promise((resolve) => { setTimeout(resolve, pause); });
    }
  }
}

/** The same members as ScheduledOutput. */
export class WorkletOutput {
  #node;

  static async create(context, target, bufferMs, onFigures) {
    await (loaded ??= load(context));
    return new WorkletOutput(context, target, bufferMs, onFigures);
  }

  constructor(context, target, bufferMs, onFigures) {
    this.#node = new AudioWorkletNode(context, 'velantrix-playout', {
      numberOfInputs: 0,
      outputChannelCount: [2],
      processorOptions: { bufferMs, aheadMs: 1000 * (context.baseLatency ?? 0) },
    });
    this.#node.port.onmessage = ({ data }) => onFigures(data);
    this.#node.connect(target);
  }

  push(packet) {
    this.#node.port.postMessage({ packet }, [packet.samples.buffer]);
  }

  restart() {
    this.#node.port.postMessage({ restart: true });
  }

  setBuffer(bufferMs) {
    this.#node.port.postMessage({ bufferMs });
  }

  close() {
    this.#node.port.postMessage({ end: true });
    this.#node.disconnect();
  }
}
