// Messages of /live and their sequence numbers. No DOM: also runs in an AudioWorklet.

const HEADER_BYTES = 8;
const ARRIVAL_BYTES = 12;
const MAX_FRAMES = 5760; // The longest Opus packet.
const MAX_GAP = 100; // Packets; more are no loss but another place in the stream.

/**
 * Reads a binary message: {sequence, frames, payload}, payload a Uint8Array over the same memory;
 * with `arrivals` also arrival, when it came to velantrix-web, in milliseconds of its clock, and
 * serverTrip, a round trip to the server since the packet before, 0: none. Null when it is no packet.
 */
export function readPacket(buffer, arrivals = false) {
  const payloadAt = HEADER_BYTES + (arrivals ? ARRIVAL_BYTES : 0);
  if (buffer.byteLength <= payloadAt) {
    return null;
  }
  const header = new DataView(buffer);
  const frames = header.getUint32(4, true);
  if (frames === 0 || frames > MAX_FRAMES) {
    return null;
  }
  return {
    sequence: header.getUint32(0, true),
    frames,
    arrival: arrivals ? Number(header.getBigUint64(HEADER_BYTES, true)) / 1000 : undefined,
    serverTrip: arrivals ? header.getUint32(HEADER_BYTES + 8, true) / 1000 : undefined,
    payload: new Uint8Array(buffer, payloadAt),
  };
}

/** Interleaved stereo samples (-1 to 1) of 16-bit ones; null when the length does not fit. */
export function samplesOfPcm({ frames, payload }) {
  if (payload.byteLength !== frames * 4) {
    return null;
  }
  const view = new DataView(payload.buffer, payload.byteOffset, payload.byteLength);
  const samples = new Float32Array(frames * 2);
  for (let i = 0; i < samples.length; ++i) {
    samples[i] = view.getInt16(2 * i, true) / 32768;
  }
  return samples;
}

/** Follows sequence numbers, which come in order and wrap at 2^32. */
export class SequenceTracker {
  #expected = null;

  /** {start, missing}: whether it has nothing to do with those before, and how many are lost. */
  observe(sequence) {
    const missing = this.#expected === null ? 0 : (sequence - this.#expected) >>> 0;
    const start = this.#expected === null || missing > MAX_GAP;
    this.#expected = sequence + 1;
    return { start, missing: start ? 0 : missing };
  }

  /** The next number begins a new stream. */
  restart() {
    this.#expected = null;
  }
}
