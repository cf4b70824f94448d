// Opus packets through WebCodecs, which browsers have in secure contexts only.

const RATE = 48000;

/** Whether this browser decodes Opus for us. */
export async function canDecodeOpus() {
  if (!('AudioDecoder' in globalThis)) {
    return false;
  }
  try {
    const { supported } = await AudioDecoder.isConfigSupported(config());
    return supported;
  } catch {
    return false;
  }
}

function config() {
  return { codec: 'opus', sampleRate: RATE, numberOfChannels: 2 };
}

/** Calls `onSamples(packet, interleaved samples)` for every packet that it could decode. */
export class OpusDecoder {
  #onSamples;
  #decoder = null;
  #packets = []; // Inside the decoder, whose own time stamps browsers change.
  #time = 0; // Microseconds.

  constructor(onSamples) {
    this.#onSamples = onSamples;
  }

  decode(packet) {
    const { frames, payload } = packet;
    if (this.#decoder === null || this.#decoder.state === 'closed') {
      this.#open();
    }
    this.#packets.push(packet);
    this.#decoder.decode(
      new EncodedAudioChunk({ type: 'key', timestamp: this.#time, data: payload }));
    this.#time += Math.round((frames * 1e6) / RATE);
  }

  #open() {
    this.#packets = [];
    this.#decoder = new AudioDecoder({
      output: (sound) => this.#take(sound),
      error: () => {}, // The decoder is closed then; the next packet gets a new one.
    });
    this.#decoder.configure(config());
  }

  #take(sound) {
    const { numberOfFrames: frames, numberOfChannels: channels } = sound;
    const samples = new Float32Array(2 * frames);
    const plane = new Float32Array(frames);
    for (let channel = 0; channel < 2; ++channel) {
      const planeIndex = Math.min(channel, channels - 1);
      sound.copyTo(plane, { planeIndex, format: 'f32-planar' });
      for (let i = 0; i < frames; ++i) {
        samples[2 * i + channel] = plane[i];
      }
    }
    sound.close();
    this.#onSamples(this.#packets.shift(), samples);
  }

  close() {
    if (this.#decoder?.state === 'configured') {
      this.#decoder.close();
    }
    this.#decoder = null;
  }
}
