// The lock screen of a phone and the media keys of a keyboard.

/**
 * Browsers give these to pages with a media element only, so a silent one plays along. `play` and
 * `stop` are called for the keys.
 */
export class MediaKeys {
  #silence = new Audio();

  constructor(play, stop) {
    this.#silence.loop = true;
    this.#silence.preload = 'none';
    this.#silence.src = '/page/silence.flac';
    const session = navigator.mediaSession;
    session?.setActionHandler('play', play);
    session?.setActionHandler('pause', stop);
    session?.setActionHandler('stop', stop);
  }

  /** Begins; within a touch or key press. */
  start() {
    this.#silence.play().catch(() => {}); // Then there is no lock screen, but there is sound.
    this.#tell('playing');
  }

  stop() {
    this.#silence.pause();
    this.#tell('paused');
  }

  #tell(state) {
    if (navigator.mediaSession) {
      navigator.mediaSession.playbackState = state;
    }
  }

  describe(title, text) {
    if (navigator.mediaSession) {
      navigator.mediaSession.metadata = new MediaMetadata({
        title,
        artist: text,
        artwork: [{ src: '/page/velantrix-server-512.png', sizes: '512x512', type: 'image/png' }],
      });
    }
  }
}
