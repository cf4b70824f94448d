// The page: its elements and what they show.

import { MediaKeys } from './media_session.js';
import { canDecodeOpus } from './opus.js';
import { Player, State } from './player.js';
import { choose, delayOf, settings } from './settings.js';

const MIN_DB = -60;
const PEAK_FALL = 26; // dB a second, looks natural.
const HOLD_SECONDS = 1.2;
const TEXT_INTERVAL_MS = 500;

const TEXTS = {
  [State.STOPPED]: ['Ready', 'Press play to listen.'],
  [State.CONNECTING]: ['Connecting', 'One moment.'],
  [State.WAITING]: ['Waiting for the server', 'Playback starts when the server is available.'],
  [State.PLAYING]: ['Playing', 'Live from the server.'],
  [State.AWAY]: ['The server is away', 'Playback resumes when the server is back.'],
};

const element = (id) => document.getElementById(id);
const show = (id, text) => {
  if (element(id).textContent !== text) {
    element(id).textContent = text;
  }
};

const linked = new URLSearchParams(location.search).get('delay'); // For this visit.
let delayText = linked ?? settings.delay;
let emptyLink = linked === '';

const player = new Player({ onState: showState, onTitle: showTitle, onFigures: showFigures });
const mediaKeys = new MediaKeys(play, stop);
let opus = false;

function quality() {
  return opus ? settings.quality : 'pcm';
}

function qualityText() {
  return quality() === 'pcm' ? 'Uncompressed' : `${quality()} kbit/s`;
}

/** The chosen delay in ms, or null. */
function delay() {
  return delayOf(delayText) ?? null;
}

/** The gain of the slider, which the ear hears as even steps. */
function gain() {
  return settings.muted ? 0 : (settings.volume / 100) ** 2;
}

function play() {
  mediaKeys.start();
  if (player.state === State.STOPPED) {
    player.start({
      quality: quality(), bufferMs: settings.buffer, volume: gain(), delayMs: delay(),
    });
  } else {
    player.resume();
  }
}

function stop() {
  player.stop();
  mediaKeys.stop();
}

function toggle() {
  if (player.state === State.STOPPED) {
    play();
  } else {
    stop();
  }
}

// What it shows.

function showState(state) {
  document.documentElement.dataset.state = state;
  const [text, hint] = TEXTS[state];
  show('state', text);
  show('hint', hint);
  element('play').setAttribute('aria-label', state === State.STOPPED ? 'Play' : 'Pause');
  mediaKeys.describe(element('title').textContent, text);
  if (state === State.STOPPED) {
    for (const id of ['delay', 'quality-now', 'buffer-now']) {
      show(id, '–');
    }
  } else {
    show('quality-now', qualityText());
  }
  if (state !== State.PLAYING) {
    showLevels([0, 0], true);
  }
}

function showTitle(title) {
  if (title) {
    show('title', title);
    document.title = `${title} · Velantrix`;
    mediaKeys.describe(title, element('state').textContent);
  }
}

const bars = ['level-left', 'level-right'].map((id) => ({
  bar: element(id),
  cover: element(id).querySelector('i'),
  hold: element(id).querySelector('b'),
  level: MIN_DB,
  held: MIN_DB,
  heldAt: 0,
}));
const rings = [['.ring-near', 0.86, 1.04], ['.ring-far', 0.74, 1.06]].map(
  ([selector, least, most]) => ({ ring: document.querySelector(selector), least, most }));
let levelsAt = 0;

function showLevels(peak, atOnce = false) {
  const now = performance.now() / 1000;
  const fall = atOnce ? -MIN_DB : PEAK_FALL * Math.min(1, now - levelsAt);
  levelsAt = now;
  bars.forEach((one, channel) => {
    const db = Math.max(MIN_DB, 20 * Math.log10(peak[channel] || 1e-9));
    one.level = Math.max(Math.min(0, db), one.level - fall);
    if (one.level >= one.held || now - one.heldAt > HOLD_SECONDS) {
      one.held = one.level;
      one.heldAt = now;
    }
    const share = 1 - one.level / MIN_DB;
    one.cover.style.transform = `scaleX(${(1 - share).toFixed(4)})`;
    one.hold.style.transform = `translateX(${(100 * (1 - one.held / MIN_DB)).toFixed(2)}%)`;
  });
  const loudest = Math.max(...bars.map(({ level }) => 1 - level / MIN_DB));
  rings.forEach(({ ring, least, most }) => {
    ring.style.transform = `scale(${(least + (most - least) * loudest).toFixed(3)})`;
  });
}

let textsAt = 0;
let bytesBefore = 0;

function showFigures(figures) {
  if (player.state === State.STOPPED) {
    return;
  }
  if (!document.hidden) {
    showLevels(player.state === State.PLAYING ? figures.peak : [0, 0]);
  }
  const now = performance.now();
  if (now - textsAt >= TEXT_INTERVAL_MS) {
    showTexts(figures, (now - textsAt) / 1000);
    textsAt = now;
  }
}

const ms = (value) => `${Math.round(value)} ms`;

function showTexts(figures, seconds) {
  const playing = player.state === State.PLAYING;
  const shown = ms(figures.lateMs === null
    ? figures.depthMs + (figures.outputMs ?? 0) : delay() + figures.lateMs);
  show('delay', !playing ? '–' : figures.outputMs === null ? `> ${shown}` : shown);
  show('buffer-now', ms(figures.targetMs));
  for (const { bar, level } of bars) {
    bar.setAttribute('aria-valuenow', Math.round(level));
    bar.setAttribute('aria-valuetext', level > MIN_DB ? `${Math.round(level)} decibels` : 'silent');
  }
  const kilobits = (8 * (figures.bytes - bytesBefore)) / 1000 / seconds;
  bytesBefore = figures.bytes;
  show('figure-rate', playing ? `${figures.sampleRate / 1000} kHz` : '–');
  show('figure-data', `${Math.round(Math.max(0, kilobits))} kbit/s`);
  show('figure-jitter', ms(figures.jitterMs));
  show('figure-correction', `${Math.round(figures.correctionPpm)} ppm`);
  showStep(playing, figures);
  show('figure-lost', String(figures.lost));
  show('figure-underruns', String(figures.underruns));
}

function showStep(playing, { lateMs, inStepMs, putOffMs }) {
  const known = playing && inStepMs !== null;
  show('figure-in-step', known ? `${inStepMs.toFixed(1)} ms` : '–');
  if (playing && lateMs !== null) {
    show('delay-problem', putOffMs > 0
      ? `A delay of ${delay()} ms is not possible here: playing at ${Math.ceil(delay() + putOffMs)} ms.`
      : '');
  }
}

// What is chosen.

function showVolume() {
  const text = settings.muted ? 'Muted' : `${settings.volume} %`;
  element('volume').value = settings.volume;
  element('volume').setAttribute('aria-valuetext', text);
  element('volume').style.setProperty('--value', `${settings.volume}%`);
  show('volume-text', text);
  element('mute').setAttribute('aria-pressed', String(settings.muted));
}

function setVolume(name, value) {
  choose(name, value);
  showVolume();
  player.setVolume(gain());
}

function mute() {
  setVolume('muted', !settings.muted);
}

element('play').addEventListener('click', toggle);
element('mute').addEventListener('click', mute);
element('volume').addEventListener('input', ({ target }) => {
  choose('muted', false);
  setVolume('volume', Number(target.value));
});

element('quality').addEventListener('change', ({ target }) => {
  choose('quality', target.value);
  if (player.state !== State.STOPPED) {
    show('quality-now', qualityText());
    player.connect(quality(), delay());
  }
});

element('buffer').addEventListener('change', ({ target }) => {
  choose('buffer', Number(target.value));
  player.setBuffer(settings.buffer);
});

function showDelay() {
  element('chosen-delay').value = delayText;
  const wrong = emptyLink || delayOf(delayText) === undefined;
  element('chosen-delay').setAttribute('aria-invalid', String(wrong));
  show('delay-problem', wrong
    ? `“${delayText}” is not a delay above 0 and up to 10000 ms; none is used.` : '');
}

element('chosen-delay').addEventListener('change', ({ target }) => {
  const before = delay();
  emptyLink = false;
  delayText = target.value.trim();
  if (delayOf(delayText) !== undefined) {
    choose('delay', delayText);
  }
  showDelay();
  if (player.state !== State.STOPPED && delay() !== before) {
    player.connect(quality(), delay());
  }
});

document.addEventListener('keydown', (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey || event.repeat
      || event.target.matches('input[type=text]')) {
    return;
  }
  if (event.key === ' ' && !event.target.closest('button, input, summary, a')) {
    event.preventDefault();
    toggle();
  } else if (event.key === 'm' || event.key === 'M') {
    mute();
  }
});

function showQualities() {
  for (const input of document.querySelectorAll('input[name=quality]')) {
    input.disabled = input.value !== 'pcm' && !opus;
    input.checked = input.value === quality();
  }
  element('note-insecure').hidden = opus || isSecureContext;
  element('note-no-decoder').hidden = opus || !isSecureContext;
}

/** The address is that of the QR code, which another device can reach. */
async function showAddress() {
  let address = location.origin;
  try {
    const picture = await (await fetch(`${location.origin}/qr.svg`)).text();
    const title = new DOMParser().parseFromString(picture, 'image/svg+xml').querySelector('title');
    address = title?.textContent || address;
  } catch {
    // Then it is the one of this page.
  }
  element('address').href = address;
  show('address', address.replace(/^http:\/\//, '').replace(/\/$/, ''));
}

async function showServersTitle() {
  try {
    showTitle((await (await fetch(`${location.origin}/status`)).json()).title);
  } catch {
    // It comes with the sound, too.
  }
}

showVolume();
showDelay();
document.querySelector(`input[name=buffer][value="${settings.buffer}"]`).checked = true;
opus = await canDecodeOpus();
showQualities();
show('figure-output', isSecureContext ? 'AudioWorklet' : 'scheduled buffers');
document.documentElement.dataset.ready = '';
showAddress();
showServersTitle();
