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

/** Calls `onSamples(sequence, interleaved samples)` for every packet that it could decode. */
export class OpusDecoder {
  #onSamples;
  #decoder = null;

  constructor(onSamples) {
    this.#onSamples = onSamples;
  }

  decode({ sequence, payload }) {
    if (this.#decoder === null || this.#decoder.state === 'closed') {
      this.#open();
    }
    // The time stamp is ours to choose and comes back with the sound.
    this.#decoder.decode(new EncodedAudioChunk({ type: 'key', timestamp: sequence, data: payload }));
  }

  #open() {
    this.#decoder = new AudioDecoder({
      output: (sound) => this.#take(sound),
      error: () => {}, // The decoder is closed then; the next packet gets a new one.
    });
    this.#decoder.configure(config());
  }

  #take(sound) {
    const { numberOfFrames: frames, numberOfChannels: channels, timestamp } = sound;
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
    this.#onSamples(timestamp, samples);
  }

  close() {
    if (this.#decoder?.state === 'configured') {
      this.#decoder.close();
    }
    this.#decoder = null;
  }
}
