// From the connection to the loudspeaker. Knows nothing of the page's elements.

import { LiveConnection } from './live.js';
import { OpusDecoder } from './opus.js';
import { ScheduledOutput } from './scheduled_output.js';
import { samplesOfPcm } from './sound/packets.js';
import { WorkletOutput } from './worklet_output.js';

const VOLUME_SECONDS = 0.02;
// A computer's output may have the least latency, a phone's needs its rest.
const LATENCY_HINT = matchMedia('(pointer: fine)').matches ? 0 : 'interactive';
// Firefox deadlocks with PulseAudio when a page asks for outputLatency or getOutputTimestamp()
// while it plays: one time of a hundred or so.
const asksOutput = !CSS.supports('-moz-appearance', 'none');

export const State = {
  STOPPED: 'stopped',
  CONNECTING: 'connecting',
  WAITING: 'waiting',
  PLAYING: 'playing',
  AWAY: 'away',
};

function liveUrl(quality) {
  const url = new URL('/live', location.href);
  url.protocol = location.protocol === 'https:' ? 'wss:' : 'ws:';
  url.search = quality === 'pcm' ? '?format=pcm' : `?format=opus&rate=${quality}`;
  return url.href;
}

/**
 * Calls of `listener`: onState(one of State), onTitle(text), onFigures(figures). The figures are
 * those of Playout, and outputMs (of the browser and the device; null when unknown), leadMs,
 * sampleRate, bytes (until now).
 */
export class Player {
  #listener;
  #context = null;
  #gain = null;
  #output = null;
  #connection = null;
  #decoder = null;
  #format = null;
  #state = State.STOPPED;
  #hasPlayed = false;
  #bytes = 0;
  #starts = 0;

  constructor(listener) {
    this.#listener = listener;
  }

  get state() {
    return this.#state;
  }

  #tell(state) {
    if (state !== this.#state) {
      this.#state = state;
      this.#listener.onState(state);
    }
  }

  /** Begins to play; within a touch or key press, or the browser refuses. */
  async start({ quality, bufferMs, volume }) {
    const start = ++this.#starts;
    this.#tell(State.CONNECTING);
    this.#openContext(volume);
    const output = await this.#makeOutput(bufferMs);
    if (start !== this.#starts) {
      output.close();
      return;
    }
    this.#output = output;
    this.connect(quality);
  }

  #openContext(volume) {
    this.#context ??= new AudioContext({ latencyHint: LATENCY_HINT });
    this.#context.resume();
    if (!this.#gain) {
      this.#gain = this.#context.createGain();
      this.#gain.gain.value = volume;
      this.#gain.connect(this.#context.destination);
    }
  }

  async #makeOutput(bufferMs) {
    const onFigures = (figures) => this.#takeFigures(figures);
    const parts = [this.#context, this.#gain, bufferMs, onFigures];
    return this.#context.audioWorklet
      ? WorkletOutput.create(...parts) : new ScheduledOutput(...parts);
  }

  /** Listens with another quality from now on. */
  connect(quality) {
    this.#disconnect();
    this.#decoder = new OpusDecoder((sequence, samples) => this.#play(sequence, samples));
    this.#connection = new LiveConnection(liveUrl(quality), {
      onConnecting: () => this.#hasPlayed || this.#tell(State.CONNECTING),
      onFormat: (format) => this.#takeFormat(format),
      onWaiting: () => this.#pause(this.#hasPlayed ? State.AWAY : State.WAITING),
      onPacket: (packet) => this.#takePacket(packet),
      onLost: () => this.#pause(State.AWAY),
    });
  }

  #disconnect() {
    this.#connection?.close();
    this.#decoder?.close();
    this.#connection = null;
    this.#decoder = null;
    this.#format = null;
    this.#output?.restart();
  }

  /** Ends the sound and the connection. */
  stop() {
    this.#starts += 1;
    this.#disconnect();
    this.#output?.close();
    this.#output = null;
    this.#context?.suspend();
    this.#hasPlayed = false;
    this.#tell(State.STOPPED);
  }

  setVolume(volume) {
    this.#gain?.gain.setTargetAtTime(volume, this.#context.currentTime, VOLUME_SECONDS);
  }

  setBuffer(bufferMs) {
    this.#output?.setBuffer(bufferMs);
  }

  #pause(state) {
    this.#format = null; // It comes again before the sound.
    this.#output?.restart();
    this.#tell(state);
  }

  #takeFormat(format) {
    this.#format = format;
    this.#output.restart();
    this.#listener.onTitle(String(format.title ?? ''));
  }

  #takePacket(packet) {
    this.#bytes += packet.payload.byteLength;
    if (this.#format?.format === 'opus') {
      this.#decoder.decode(packet);
      return;
    }
    const samples = this.#format && samplesOfPcm(packet);
    if (samples) {
      this.#play(packet.sequence, samples);
    }
  }

  #play(sequence, samples) {
    this.#output?.push({ sequence, rate: this.#format.sampleRate, samples });
  }

  #takeFigures(figures) {
    if (figures.playing && this.#connection && this.#format) {
      this.#hasPlayed = true;
      this.#tell(State.PLAYING);
    }
    const { baseLatency = 0, outputLatency = 0 } = asksOutput ? this.#context : {};
    this.#listener.onFigures({
      leadMs: 0,
      ...figures,
      outputMs: asksOutput ? 1000 * Math.max(baseLatency, outputLatency) : null,
      sampleRate: this.#format?.sampleRate ?? 0,
      bytes: this.#bytes,
    });
  }
}
