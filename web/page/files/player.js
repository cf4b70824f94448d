// From the connection to the loudspeaker. Knows nothing of the page's elements.

import { LiveConnection } from './live.js';
import { OpusDecoder } from './opus.js';
import { ScheduledOutput } from './scheduled_output.js';
import { samplesOfPcm } from './sound/packets.js';
import { StepKeeper } from './step_keeper.js';
import { WorkletOutput } from './worklet_output.js';

const VOLUME_SECONDS = 0.02;
// Firefox deadlocks with PulseAudio when a page asks for outputLatency or getOutputTimestamp()
// while it plays: about once in a hundred starts.
const asksOutput = !CSS.supports('-moz-appearance', 'none');

export const State = {
  STOPPED: 'stopped',
  CONNECTING: 'connecting',
  WAITING: 'waiting',
  PLAYING: 'playing',
  AWAY: 'away',
};

function liveUrl(quality) {
  const url = new URL('/live', location.origin); // A password in the address has been used.
  url.protocol = location.protocol === 'https:' ? 'wss:' : 'ws:';
  url.search = quality === 'pcm' ? '?format=pcm' : `?format=opus&rate=${quality}`;
  return url.href;
}

/**
 * Calls of `listener`: onState(one of State), onTitle(text), onFigures(figures). The figures are
 * those of Playout, and outputMs (of the browser and the device; null when unknown), sampleRate,
 * bytes (until now), inStepMs (how much later than the chosen delay the sound is heard; null when
 * unknown).
 */
export class Player {
  #listener;
  #context = null;
  #gain = null;
  #output = null;
  #connection = null;
  #decoder = null;
  #keeper = null;
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
  async start({ quality, bufferMs, volume, delayMs }) {
    const start = ++this.#starts;
    this.#tell(State.CONNECTING);
    this.#openContext(volume);
    const output = await this.#makeOutput(bufferMs);
    if (start !== this.#starts) {
      output.close();
      return;
    }
    this.#output = output;
    this.connect(quality, delayMs);
  }

  #openContext(volume) {
    this.#context ??= this.#makeContext();
    this.#context.resume();
    if (!this.#gain) {
      this.#gain = this.#context.createGain();
      this.#gain.gain.value = volume;
      this.#gain.connect(this.#context.destination);
    }
  }

  #makeContext() {
    const context = new AudioContext({ latencyHint: 'interactive' });
    context.onstatechange = () => { // As before and after a phone call.
      if (this.#output && context.state === 'running') {
        this.#keeper?.forgetOutput();
        this.#output.restart();
      } else if (this.#output) {
        context.resume().catch(() => {});
      }
    };
    return context;
  }

  async #makeOutput(bufferMs) {
    const onFigures = (figures) => this.#takeFigures(figures);
    const parts = [this.#context, this.#gain, bufferMs, onFigures];
    return this.#context.audioWorklet
      ? WorkletOutput.create(...parts) : new ScheduledOutput(...parts);
  }

  /**
   * Listens with another quality from now on; heard `delayMs` after the server sent it, or as early
   * as the buffer allows when that is null.
   */
  connect(quality, delayMs) {
    this.#disconnect();
    this.#decoder = new OpusDecoder((packet, samples) => this.#play(packet, samples));
    this.#keeper = delayMs && new StepKeeper(this.#context, delayMs, asksOutput);
    this.#connection = new LiveConnection(liveUrl(quality), Boolean(delayMs), {
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
    this.#keeper?.close();
    this.#keeper = null;
    this.#connection = null;
    this.#decoder = null;
    this.#format = null;
    this.#output?.restart();
  }

  /** Goes on after an interruption; within a touch or key press. */
  resume() {
    this.#context.resume();
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
    this.#keeper?.restart(format);
    this.#output.restart();
    this.#listener.onTitle(String(format.title ?? ''));
  }

  #takePacket(packet) {
    this.#bytes += packet.payload.byteLength;
    const times = this.#format && this.#keeper ? this.#keeper.take(packet) : {};
    if (!this.#format || !times) {
      return;
    }
    const timed = { ...packet, ...times };
    if (this.#format.format === 'opus') {
      this.#decoder.decode(timed);
      return;
    }
    const samples = samplesOfPcm(packet);
    if (samples) {
      this.#play(timed, samples);
    }
  }

  #play({ sequence, due, earliness }, samples) {
    const rate = this.#format?.sampleRate; // It may have gone while a packet was decoded.
    if (rate) {
      this.#output?.push({ sequence, rate, samples, due, earliness });
    }
  }

  #takeFigures(figures) {
    if (figures.playing && this.#connection && this.#format) {
      this.#hasPlayed = true;
      this.#tell(State.PLAYING);
    }
    this.#listener.onFigures({
      ...figures,
      inStepMs: asksOutput ? figures.lateMs : null,
      outputMs: asksOutput ? 1000 * (this.#context.outputLatency ?? 0) : null,
      sampleRate: this.#format?.sampleRate ?? 0,
      bytes: this.#bytes,
    });
  }
}
