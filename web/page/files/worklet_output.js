// Plays through an AudioWorklet: in secure contexts only.

/** The same members as ScheduledOutput. */
export class WorkletOutput {
  #node;

  static async create(context, target, bufferMs, onFigures) {
    await context.audioWorklet.addModule(new URL('worklet.js', import.meta.url));
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
