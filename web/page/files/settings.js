// What the listener chose, kept by the browser where it lets us.

const KEY = 'velantrix';
const DEFAULTS = { volume: 100, muted: false, quality: 'pcm', buffer: 40, delay: '' };

function load() {
  try {
    return JSON.parse(localStorage.getItem(KEY)) ?? {};
  } catch {
    return {};
  }
}

export const QUALITIES = ['pcm', '256', '128', '64', '20'];
const MAX_DELAY_MS = 10000;

export const BUFFERS = [40, 80, 150, 300, 600];

/** The delay in milliseconds that a text says: null for none, undefined when it says nothing. */
export function delayOf(text) {
  if (text === '') {
    return null;
  }
  const delay = /^(\d+\.?\d*|\.\d+)$/.test(text) ? Number(text) : 0;
  return delay > 0 && delay <= MAX_DELAY_MS ? delay : undefined;
}

const kept = load();
const fits = {
  volume: (value) => Number.isFinite(value) && value >= 0 && value <= 100,
  muted: (value) => typeof value === 'boolean',
  quality: (value) => QUALITIES.includes(value),
  buffer: (value) => BUFFERS.includes(value),
  delay: (value) => typeof value === 'string' && delayOf(value) !== undefined,
};

/**
 * The choices: volume (0 to 100), muted, quality (one of QUALITIES), buffer (ms), delay (a text for
 * delayOf()).
 */
export const settings = Object.fromEntries(Object.entries(DEFAULTS).map(
  ([name, usual]) => [name, fits[name](kept[name]) ? kept[name] : usual]));

/** Changes a choice and keeps it. */
export function choose(name, value) {
  settings[name] = value;
  try {
    localStorage.setItem(KEY, JSON.stringify(settings));
  } catch {
    // A private window may refuse: then it lasts as long as the page.
  }
}
