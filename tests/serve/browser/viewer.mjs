// Viewers of lumora2-serve sessions in Debian's chromium (driven by playwright-core), shared by the
// browser tests, the router test and bench/serve_load.mjs: the browser, JSON calls with a time limit, a page that
// receives a session over WebRTC, the browser's receive figures, and speech to send.
import { createRequire } from 'node:module';

export const CHROMIUM = '/usr/bin/chromium';
const CHROMIUM_ARGS = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--allow-loopback-in-peer-connection', '--disable-features=WebRtcHideLocalIpsWithMdns',
  '--autoplay-policy=no-user-gesture-required'];

export const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// playwright-core's chromium, or null where it is not installed.
export function playwright() {
  try {
    return createRequire(import.meta.url)('playwright-core').chromium;
  } catch {
    return null;
  }
}

export function launchBrowser() {
  return playwright().launch({ executablePath: CHROMIUM, args: CHROMIUM_ARGS });
}

// One HTTP call, given up after `ms`: {status, headers, body} with body parsed when it is JSON.
export async function call(url, { method = 'GET', json, body, ms = 10000 } = {}) {
  const init = { method, signal: AbortSignal.timeout(ms), body };
  if (json !== undefined) {
    init.body = JSON.stringify(json);
    init.headers = { 'Content-Type': 'application/json' };
  }
  const r = await fetch(url, init);
  const text = await r.text();
  let parsed = text;
  try { parsed = JSON.parse(text); } catch { /* not JSON */ }
  return { status: r.status, headers: r.headers, body: parsed };
}

// Polls `probe` every `every` ms until it returns something truthy, for at most `ms`.
export async function until(probe, ms, every = 200) {
  const end = Date.now() + ms;
  for (;;) {
    const value = await probe().catch(() => null);
    if (value || Date.now() > end) return value;
    await sleep(every);
  }
}

// In the page (whose origin is the server or the router): receives the session whose WHEP URL is
// given, both tracks on one <video>, as the live page does. Resolves once the peer is connected.
export async function receive(page, whep) {
  await page.evaluate(async (url) => {
    const pc = new RTCPeerConnection();
    const video = document.createElement('video');
    video.muted = true;
    document.body.append(video);
    const stream = new MediaStream();
    video.srcObject = stream;
    pc.addTransceiver('video', { direction: 'recvonly' });
    pc.addTransceiver('audio', { direction: 'recvonly' });
    pc.ontrack = (e) => { stream.addTrack(e.track); video.play().catch(() => {}); };
    await pc.setLocalDescription(await pc.createOffer());
    if (pc.iceGatheringState !== 'complete') {
      await new Promise((r) => pc.addEventListener('icegatheringstatechange', () => pc.iceGatheringState === 'complete' && r()));
    }
    const answer = await fetch(url, { method: 'POST', headers: { 'Content-Type': 'application/sdp' }, body: pc.localDescription.sdp });
    if (answer.status !== 201) throw new Error(`WHEP answered ${answer.status}: ${await answer.text()}`);
    await pc.setRemoteDescription({ type: 'answer', sdp: await answer.text() });
    window.viewer = { pc, stream };
  }, whep);
  await page.waitForFunction(() => window.viewer.pc.connectionState === 'connected', null, { timeout: 20000 });
}

// The browser's inbound-rtp figures of a page's peer ({video, audio}); `pc` names where the page
// keeps its RTCPeerConnection.
export function inbound(page, pc = 'viewer') {
  return page.evaluate(async (where) => {
    const out = {};
    (await window[where].pc.getStats()).forEach((r) => { if (r.type === 'inbound-rtp') out[r.kind] = r; });
    return JSON.parse(JSON.stringify(out));
  }, pc);
}

// Frames decoded a second between two inbound() samples.
export const fps = (a, b) => (b.video.framesDecoded - a.video.framesDecoded) / ((b.video.timestamp - a.video.timestamp) / 1000);

// 16 kHz mono 16-bit PCM: 220 Hz bursts of `on` s every `on + off` s (one utterance: the gaps are
// shorter than the silence that splits speech), inside `lead` s of silence at either end.
export function bursts(seconds, { on = 0.4, off = 0.5, lead = 0.2 } = {}) {
  const rate = 16000, pcm = new Int16Array(Math.ceil(seconds * rate));
  for (let t = lead; t + on < seconds - lead; t += on + off) {
    const s = Math.round(t * rate);
    for (let i = 0; i < on * rate; ++i) pcm[s + i] = Math.round(9000 * Math.sin(2 * Math.PI * 220 * i / rate));
  }
  return pcm;
}

// The same as a WAV file, for /speech.
export function wav(seconds) {
  const pcm = bursts(seconds);
  const h = Buffer.alloc(44);
  h.write('RIFF', 0); h.writeUInt32LE(36 + pcm.byteLength, 4); h.write('WAVEfmt ', 8); h.writeUInt32LE(16, 16);
  h.writeUInt16LE(1, 20); h.writeUInt16LE(1, 22); h.writeUInt32LE(16000, 24); h.writeUInt32LE(32000, 28);
  h.writeUInt16LE(2, 32); h.writeUInt16LE(16, 34); h.write('data', 36); h.writeUInt32LE(pcm.byteLength, 40);
  return Buffer.concat([h, Buffer.from(pcm.buffer)]);
}
