// What the listener chose, kept by the browser where it lets us.

const KEY = 'velantrix';
const DEFAULTS = { volume: 100, muted: false, quality: 'pcm', buffer: 40 };

function load() {
  try {
    return JSON.parse(localStorage.getItem(KEY)) ?? {};
  } catch {
    return {};
  }
}

export const QUALITIES = ['pcm', '256', '128', '64', '20'];
export const BUFFERS = [40, 80, 150, 300, 600];

const kept = load();
const fits = {
  volume: (value) => Number.isFinite(value) && value >= 0 && value <= 100,
  muted: (value) => typeof value === 'boolean',
  quality: (value) => QUALITIES.includes(value),
  buffer: (value) => BUFFERS.includes(value),
};

/** The choices: volume (0 to 100), muted, quality (one of QUALITIES), buffer (ms). */
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
