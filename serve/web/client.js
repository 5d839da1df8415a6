// lumora2 client: a live avatar session in any page (an ES module, served at /client.js).
//
//   import { Session } from '/client.js';
//   const session = await Session.create({ avatar: 'ava' });
//   await session.play(document.querySelector('video'));
//   session.on('utterance_started', (e) => console.log('speaking', e.utterance));
//   await session.say('Hello there.');
//   await session.interrupt();
//
// Sessions, speech and events are the server's HTTP API (docs/SERVE.md); this module only makes
// them easy to reach from a page: WHEP for the picture and sound, fetch for the calls, an
// EventSource for the events, and a WebSocket for speech and text as they are produced.

// An API call that failed: its HTTP status, the server's one line, and its reason word.
export class ApiError extends Error {
  constructor(status, message, reason) {
    super(message);
    this.status = status;
    this.reason = reason;
  }
}

// The ICE servers an answer lists in its Link headers (rel="ice-server"), for the browser's side.
export function iceServersFrom(linkHeader) {
  const servers = [];
  for (const part of (linkHeader || '').split(/,(?=\s*<)/)) {
    const url = part.match(/<([^>]+)>/);
    if (!url || !/rel="?ice-server"?/.test(part)) continue;
    const field = (name) => {
      const m = part.match(new RegExp(`${name}="([^"]*)"`));
      return m ? m[1] : undefined;
    };
    const server = { urls: url[1] };
    if (field('username') !== undefined) server.username = field('username');
    if (field('credential') !== undefined) server.credential = field('credential');
    servers.push(server);
  }
  return servers;
}

export class Session {
  // Starts a session of `avatar` on the server at `base` (default: this page's own).
  static async create({ avatar, base = '', token = null } = {}) {
    const info = await request(base + '/v1/sessions', token, {
      method: 'POST', headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ avatar }),
    }).then((r) => r.json());
    return new Session(info, { base, token });
  }

  // A session created elsewhere: `info` is the JSON POST /v1/sessions answered.
  constructor(info, { base = '', token = null } = {}) {
    this.info = info;
    this.id = info.id;
    this.base = base;
    this.token = token;
    this.pc = null;
    this.stream = null;
    this.listeners = new Map();
    this.events = null;
    this.lastEventId = 0;
  }

  url(name) { return this.base + this.info.urls[name]; }

  // Plays the session in `video`: both tracks in one MediaStream, so the browser keeps sound and
  // mouth together. Resolves once the connection is up. The ICE servers the server names for the
  // session (its `ice_servers`, with TURN credentials that expire) are used; `iceServers` adds the
  // page's own, and `iceTransportPolicy: 'relay'` keeps the media on the TURN servers.
  async play(video, { iceServers = [], iceTransportPolicy = 'all' } = {}) {
    const pc = new RTCPeerConnection({
      iceServers: iceServers.concat(this.info.ice_servers || []), iceTransportPolicy,
    });
    this.pc = pc;
    this.stream = new MediaStream();
    video.srcObject = this.stream;
    pc.addTransceiver('video', { direction: 'recvonly' });
    pc.addTransceiver('audio', { direction: 'recvonly' });
    pc.ontrack = (event) => {
      this.stream.addTrack(event.track);
      video.play().catch(() => this.emit('autoplay_blocked', {}));
    };
    await pc.setLocalDescription(await pc.createOffer());
    await gathered(pc);
    const response = await request(this.url('whep'), this.token, {
      method: 'POST', headers: { 'Content-Type': 'application/sdp' }, body: pc.localDescription.sdp,
    });
    this.viewer = response.headers.get('Location');
    await pc.setRemoteDescription({ type: 'answer', sdp: await response.text() });
    await new Promise((resolve, reject) => {
      const check = () => {
        if (pc.connectionState === 'connected') resolve();
        if (pc.connectionState === 'failed') reject(new Error('the connection failed'));
      };
      pc.addEventListener('connectionstatechange', check);
      check();
    });
    return pc;
  }

  // Says a text in the avatar's voice; `interrupt` cuts what plays first.
  say(text, { interrupt = false } = {}) {
    return this.call('say', {
      method: 'POST', headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(interrupt ? { text, interrupt } : { text }),
    });
  }

  // Speaks a recording (a Blob or bytes of any audio file).
  speak(audio, { interrupt = false } = {}) {
    const type = audio.type || 'application/octet-stream';
    return this.call('speech', {
      method: 'POST', headers: { 'Content-Type': type }, body: audio,
    }, interrupt ? '?interrupt=true' : '');
  }

  // Cuts what plays and drops what is queued: what was cut, and how much of it was heard.
  interrupt() {
    return this.call('interrupt', { method: 'POST', headers: { 'Content-Type': 'application/json' } });
  }

  status() { return this.call('session', {}); }

  // Stops watching (the WHEP resource is deleted): the session lives on and takes a new viewer.
  async stop() {
    if (this.pc) this.pc.close();
    this.pc = null;
    const viewer = this.viewer;
    this.viewer = null;
    if (viewer) {
      await request(new URL(viewer, new URL(this.url('whep'), location.href)).href, this.token,
        { method: 'DELETE' }).catch(() => {});
    }
  }

  // Ends the session.
  async close() {
    if (this.events) this.events.close();
    if (this.pc) this.pc.close();
    await request(this.url('session'), this.token, { method: 'DELETE' }).catch(() => {});
  }

  // Calls `fn(event)` for every event named `name` ('*': every event), from now on.
  on(name, fn) {
    if (!this.listeners.has(name)) this.listeners.set(name, []);
    this.listeners.get(name).push(fn);
    if (!this.events) this.listen();
    return this;
  }

  emit(name, event) {
    for (const fn of (this.listeners.get(name) || []).concat(this.listeners.get('*') || [])) fn(event);
  }

  listen() {
    let url = this.url('events');
    if (this.token) url += '?token=' + encodeURIComponent(this.token);
    // EventSource reconnects by itself and resumes after the last event it had (Last-Event-ID).
    this.events = new EventSource(url);
    const forward = (message) => {
      const event = JSON.parse(message.data);
      this.lastEventId = event.id;
      this.emit(event.event, event);
      if (event.event === 'session_ended') this.events.close();
    };
    for (const name of EVENT_NAMES) this.events.addEventListener(name, forward);
  }

  // Speech as it is produced, over the audio WebSocket: sendPcm(Int16Array of 16 kHz mono),
  // sendText(words) for an agent's words as they are written, end() to finish the utterance,
  // interrupt(). Its messages (answers and events) go to `onMessage`.
  openAudio({ format = 's16le', onMessage = () => {} } = {}) {
    const address = new URL(this.url('audio'), location.href);
    address.protocol = address.protocol === 'https:' ? 'wss:' : 'ws:';
    address.searchParams.set('format', format);
    if (this.token) address.searchParams.set('token', this.token);
    const socket = new WebSocket(address);
    socket.binaryType = 'arraybuffer';
    const open = new Promise((resolve, reject) => {
      socket.onopen = resolve;
      socket.onerror = () => reject(new Error('the audio socket did not open'));
    });
    socket.onmessage = (m) => { if (typeof m.data === 'string') onMessage(JSON.parse(m.data)); };
    const send = async (data) => { await open; socket.send(data); };
    return {
      socket,
      sendPcm: (pcm) => send(pcm.buffer ? pcm.buffer : pcm),
      sendText: (words) => send(JSON.stringify({ text: words })),
      end: () => send(JSON.stringify({ end: true })),
      interrupt: () => send(JSON.stringify({ interrupt: true })),
      close: () => socket.close(),
    };
  }

  async call(name, options, query = '') {
    return (await request(this.url(name) + query, this.token, options)).json();
  }
}

export const EVENT_NAMES = ['utterance_queued', 'sentence_made', 'utterance_made', 'utterance_started',
  'utterance_finished', 'utterance_interrupted', 'stall', 'viewer_connected', 'viewer_left',
  'child_respawned', 'session_ended'];

async function request(url, token, options) {
  const headers = Object.assign({}, options.headers || {});
  if (token) headers.Authorization = 'Bearer ' + token;
  const response = await fetch(url, Object.assign({}, options, { headers }));
  if (!response.ok) {
    let body = {};
    try { body = await response.json(); } catch (e) { /* not JSON */ }
    throw new ApiError(response.status, body.error || `${response.status} ${response.statusText}`,
      body.reason);
  }
  return response;
}

// The offer goes once gathering is complete, or as soon as a relay candidate is there (a TURN
// server that does not answer would hold it for seconds), or after 3 s with what there is.
function gathered(pc) {
  return new Promise((resolve) => {
    if (pc.iceGatheringState === 'complete') return resolve();
    setTimeout(resolve, 3000);
    pc.addEventListener('icecandidate', (e) => { if (e.candidate && e.candidate.type === 'relay') resolve(); });
    pc.addEventListener('icegatheringstatechange', () => {
      if (pc.iceGatheringState === 'complete') resolve();
    });
  });
}
