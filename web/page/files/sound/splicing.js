// Fades and joints of interleaved stereo samples. No DOM: also runs in an AudioWorklet.

const STRETCH_MIN_FRAMES = 300;
const STRETCH_FADE_FRAMES = 60;
const STRETCH_MIN_LAG = 100;
const STRETCH_MAX_LAG = 240;

/** Changes the volume of the first `count` frames evenly. */
export function fade(samples, count, from, to) {
  for (let i = 0; i < count; ++i) {
    const gain = from + ((to - from) * i) / count;
    samples[2 * i] *= gain;
    samples[2 * i + 1] *= gain;
  }
}

/** Fades the first `count` frames in while those of `other` fade out. */
export function crossfade(samples, other, count) {
  for (let i = 0; i < 2 * count; ++i) {
    const gain = (i >> 1) / count;
    samples[i] = gain * samples[i] + (1 - gain) * other[i];
  }
}

/** Turns the order of all frames round, so that they go on without a step from where they ended. */
export function mirror(samples) {
  const frames = samples.length / 2;
  for (let i = 0, j = frames - 1; i < j; ++i, --j) {
    for (let channel = 0; channel < 2; ++channel) {
      const kept = samples[2 * i + channel];
      samples[2 * i + channel] = samples[2 * j + channel];
      samples[2 * j + channel] = kept;
    }
  }
}

function likeness(samples, frames, lag) {
  let together = 0;
  let here = 1e-9;
  let there = 1e-9;
  for (let i = frames - STRETCH_FADE_FRAMES; i < frames; ++i) {
    const a = samples[2 * i] + samples[2 * i + 1];
    const b = samples[2 * (i - lag)] + samples[2 * (i - lag) + 1];
    together += a * b;
    here += a * a;
    there += b * b;
  }
  return together / Math.sqrt(here * there);
}

function bestLag(samples, frames) {
  let best = STRETCH_MIN_LAG;
  let alike = -2;
  const last = Math.min(STRETCH_MAX_LAG, frames - STRETCH_FADE_FRAMES);
  for (let lag = STRETCH_MIN_LAG; lag <= last; ++lag) {
    const now = likeness(samples, frames, lag);
    if (now > alike) {
      alike = now;
      best = lag;
    }
  }
  return best;
}

/**
 * The samples with a piece near their end played twice, where the sound repeats itself best: the
 * pitch stays. Blocks that are too short come back as they are.
 */
export function stretch(samples) {
  const frames = samples.length / 2;
  if (frames < STRETCH_MIN_FRAMES) {
    return samples;
  }
  const lag = bestLag(samples, frames);
  const longer = new Float32Array(samples.length + 2 * lag);
  longer.set(samples);
  const joint = 2 * (frames - STRETCH_FADE_FRAMES);
  longer.set(samples.subarray(joint - 2 * lag), joint);
  crossfade(longer.subarray(joint), samples.subarray(joint), STRETCH_FADE_FRAMES);
  return longer;
}
