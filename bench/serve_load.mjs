// How many live sessions one lumora2-serve holds: sessions are opened one by one, each received by
// its own chromium page over WebRTC and speaking all the time (16 kHz PCM streamed over the
// session's WebSocket at the sound's own pace, one utterance after another), until the server
// refuses one, the cap is reached or time runs out. All of them then speak on for a settle period.
// Prints one JSON object: the sessions held and how many of them never stalled, the refusal
// (status, Retry-After, body), frames received a second per session over the settle period (the
// browser's getStats), speech to its first frame (the session's status), and resident memory of
// the server and its children (/metrics, the sessions' status, and /proc when it started the server).
//
// node bench/serve_load.mjs (--url URL | --build DIR [--max-sessions auto|N] [--server-cpus LIST])
//                           [--cap 12] [--settle 20] [--utterance 4] [--minutes 10]
import { spawn, spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir, cpus, loadavg } from 'node:os';
import { join } from 'node:path';
import { bursts, call, fps, inbound, launchBrowser, playwright, receive, sleep, until } from '../tests/serve/browser/viewer.mjs';

const opt = { cap: '12', settle: '20', utterance: '4', minutes: '10', 'max-sessions': 'auto' };
for (let i = 2; i < process.argv.length; i += 2) opt[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const cap = Number(opt.cap), settle = Number(opt.settle) * 1000, deadline = Date.now() + Number(opt.minutes) * 60000;
if (!opt.url && !opt.build) throw new Error('give --url URL or --build DIR');
if (!playwright()) throw new Error('playwright-core is not installed (scripts/install-deps.sh runs npm ci)');

const rssKiB = (pid) => Number((readFileSync(`/proc/${pid}/status`, 'utf8').match(/VmRSS:\s+(\d+)/) || [0, 0])[1]);
const mib = (kib) => Math.round(kib / 1024);
const median = (xs) => (xs.length ? Math.round([...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)]) : null);
// Speech to its first frame rendered and sent, [rendered, sent] a pair per utterance: median, most.
const spread = (pairs) => Object.fromEntries(['speech_to_first_rendered_ms', 'speech_to_first_frame_ms'].map((name, i) => {
  const xs = pairs.map((p) => p[i]);
  return [name, { median: median(xs), max: xs.length ? Math.round(Math.max(...xs)) : null }];
}));

// A server of its own on 127.0.0.1, with the reference family.
let server = null, family = null, base = opt.url && opt.url.replace(/\/$/, '');
if (!base) {
  const bin = (p) => join(opt.build, p);
  family = mkdtempSync(join(tmpdir(), 'lumora2-bench-load-'));
  const made = spawnSync(bin('tools/family/lumora2-family'), ['--out', family, '--host', bin('host/lumora2-model')], { stdio: 'ignore' });
  if (made.status !== 0) throw new Error('lumora2-family failed');
  // With --server-cpus the server and its children keep those processors to themselves (the
  // viewers run elsewhere, as they would in use): its measured capacity is for those alone.
  const command = [bin('host/lumora2-serve'), '--engine', join(family, 'vivra.model'), '--avatars', family,
    '--listen', '127.0.0.1:0', '--max-sessions', opt['max-sessions']];
  if (opt['server-cpus']) command.unshift('taskset', '-c', opt['server-cpus']);
  server = spawn(command[0], command.slice(1), { stdio: ['ignore', 'pipe', 'inherit'] });
  base = await new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => reject(new Error('lumora2-serve did not start in 20 s')), 20000);
    server.stdout.on('data', (c) => {
      out += c;
      const m = out.match(/listening on (http:\/\/127\.0\.0\.1:\d+)\/(.*)/);
      if (m) { clearTimeout(timer); console.error(m[0]); resolve(m[1]); }
    });
    server.on('exit', (code) => reject(new Error('lumora2-serve exited with ' + code)));
  });
}

// Resident bytes by process kind from /metrics ({} where the server has none).
async function metrics() {
  const r = await call(base + '/metrics', { ms: 5000 }).catch(() => null);
  const out = {};
  if (!r || r.status !== 200 || typeof r.body !== 'string') return out;
  for (const m of r.body.matchAll(/^lumora2_resident_bytes\{process="(\w+)"\}\s+([\d.e+]+)/gm)) out[m[1]] = Number(m[2]);
  return out;
}

// In the page: one utterance after another streamed over the session's WebSocket, each `seconds`
// long, in 20 ms messages sent when their first sample is due, the next one right after the last
// one's end. A full speech queue closes the socket: the page comes back a second later, as a
// client would. window.speaking counts what went, the answers and the refusals.
function speakAlways([url, seconds, pcm]) {
  const sent = window.speaking = { samples: 0, utterances: 0, answers: 0, queue_full: 0, start: performance.now(), error: null, stop: false };
  const samples = Int16Array.from(pcm);
  const wait = (ms) => new Promise((r) => setTimeout(r, ms));
  const stream = async () => {
    const ws = new WebSocket(`ws://${location.host}${url}`);
    let refused = null;
    ws.onmessage = (e) => { const r = JSON.parse(e.data); if (r.error) refused = r.error; else sent.answers += 1; };
    await new Promise((r, j) => { ws.onopen = r; ws.onerror = () => j(new Error('the socket failed')); });
    const start = performance.now();
    let paced = 0;
    while (!sent.stop && !refused && ws.readyState === WebSocket.OPEN) {
      for (let i = 0; i < seconds * 16000 && !sent.stop && ws.readyState === WebSocket.OPEN; i += 320) {
        ws.send(samples.slice(i, i + 320).buffer);
        sent.samples += 320;
        paced += 320;
        await wait(Math.max(0, start + (paced / 16000) * 1000 - performance.now()));
      }
      ws.send(JSON.stringify({ end: true }));
      sent.utterances += 1;
    }
    ws.close();
    return refused || (sent.stop ? null : 'the socket closed');
  };
  (async () => {
    while (!sent.stop) {
      const why = await stream();
      if (!why) break;
      if (!/queue is full/.test(why)) throw new Error(why);
      sent.queue_full += 1;
      await wait(1000);
    }
  })().catch((e) => { sent.error = String(e.message || e); });
}

const result = {
  server: base, cores: cpus().length, max_sessions: server ? opt['max-sessions'] : null, cap, settle_s: settle / 1000,
  held: 0, zero_stall_sessions: 0, zero_stall_sessions_in_settle: 0, refused: null, sessions: [],
};
const sessions = [];
let browser = null;
const status = async (s) => (await call(base + s.url, { ms: 5000 })).body;
// Each session's latest speech-to-first-frame figures, kept whenever another utterance was spoken.
async function sample() {
  for (const s of sessions) {
    const st = await status(s).catch(() => null);  // no answer in time: busy, not ended
    if (!st) continue;
    if (st.error) { s.ended = s.ended || st.error; continue; }
    s.last = st;
    if (st.utterances_spoken !== s.spoken && st.speech_to_first_frame_ms !== null) {
      s.spoken = st.utterances_spoken;
      s.latency.push([st.speech_to_first_rendered_ms, st.speech_to_first_frame_ms]);
    }
  }
}
let sampler = null;
try {
  const { avatars } = (await call(base + '/v1/avatars')).body;
  browser = await launchBrowser();
  sampler = setInterval(() => { sample().catch(() => {}); }, 1000);
  const pcm = Array.from(bursts(Number(opt.utterance)));
  while (sessions.length < cap && Date.now() < deadline) {
    const avatar = avatars[sessions.length % avatars.length].code;
    // The server measures what its sessions cost as they speak: a refusal counts once /readyz has
    // said full for 10 s on end (a balancer would have sent the session elsewhere meanwhile).
    if (sessions.length > 0) {
      await until(async () => (await call(base + '/readyz').catch(() => ({}))).status === 200, 10000).catch(() => {});
    }
    const asked = Date.now();
    // An overloaded server may not answer at all: that ends the admissions as a refusal would.
    const made = await call(base + '/v1/sessions', { method: 'POST', json: { avatar }, ms: 30000 })
      .catch((e) => ({ status: null, headers: new Headers(), body: String(e.message || e) }));
    if (made.status !== 201) {
      result.refused = { after: sessions.length, status: made.status, retry_after: made.headers.get('retry-after'), body: made.body,
        readyz: (await call(base + '/readyz').catch(() => ({}))).body };
      break;
    }
    const s = { avatar, id: made.body.id, url: made.body.urls.session, latency: [], spoken: 0 };
    sessions.push(s);
    try {
      s.page = await browser.newPage();
      await s.page.goto(base + '/');
      await receive(s.page, made.body.urls.whep);
      s.connect_ms = Date.now() - asked;
      await until(async () => (await status(s)).child === 'ready', 60000);
      s.ready_ms = Date.now() - asked;
      await s.page.evaluate(speakAlways, [made.body.urls.audio, Number(opt.utterance), pcm]);
    } catch (e) {
      s.ended = 'not received: ' + (e.message || e).split('\n')[0];
      break;
    }
    await sleep(3000);  // the new session's speech under way before the next one comes
    const m = await metrics();
    console.error(`session ${sessions.length} (${avatar}): connected in ${s.connect_ms} ms, child ready in ${s.ready_ms} ms, ` +
      `stalls so far ${sessions.map((x) => (x.last && x.last.stalls) || 0).join(' ')}` +
      (m.server ? `; resident ${mib(m.server / 1024)} MiB server, ${mib(m.children / 1024)} MiB children` : ''));
  }
  // Every session speaks on for the settle period; the browser's figures at either end of it.
  const watched = sessions.filter((s) => !s.ended);
  const before = await Promise.all(watched.map((s) => inbound(s.page)));
  const stallsBefore = await Promise.all(watched.map((s) => status(s).then((st) => st.stalls).catch(() => null)));
  await sleep(Math.min(settle, Math.max(0, deadline - Date.now())));
  const after = await Promise.all(watched.map((s) => inbound(s.page)));
  await sample();
  const m = await metrics();
  result.held = sessions.filter((s) => !s.ended).length;
  result.zero_stall_sessions = sessions.filter((s) => !s.ended && s.last && s.last.stalls === 0).length;
  result.memory_mib = {
    server_metrics: m.server ? mib(m.server / 1024) : null, children_metrics: m.children ? mib(m.children / 1024) : null,
    children_status: mib(sessions.reduce((a, s) => a + ((s.last && s.last.child_rss_kib) || 0), 0)),
    server_proc: server ? mib(rssKiB(server.pid)) : null,
  };
  result.load_average = loadavg().map((x) => +x.toFixed(2));
  for (const s of sessions) {
    const k = watched.indexOf(s), st = s.last || {};
    const sent = k < 0 ? {} : await s.page.evaluate(() => ({ ...window.speaking, elapsed: performance.now() - window.speaking.start }));
    result.sessions.push({
      avatar: s.avatar, state: st.state, ended: s.ended || null, stalls: st.stalls, stalls_in_settle: k < 0 ? null : st.stalls - stallsBefore[k],
      stalled_s: st.stalled_seconds && +st.stalled_seconds.toFixed(2), last_stall: st.last_stall ?? null, fps_received: k < 0 ? null : +fps(before[k], after[k]).toFixed(1),
      audio_samples_received: k < 0 ? null : after[k].audio && after[k].audio.totalSamplesReceived,
      utterances_streamed: sent.utterances, utterances_answered: sent.answers, queue_full: sent.queue_full, utterances_spoken: st.utterances_spoken,
      // how far the page kept up with real time (1.0: exactly)
      send_pace: k < 0 ? null : +((sent.samples / 16) / sent.elapsed).toFixed(2),
      speech_error: sent.error,
      ...spread(s.latency),
      connect_ms: s.connect_ms, child_ready_ms: s.ready_ms, child_rss_mib: mib(st.child_rss_kib || 0),
    });
  }
  result.zero_stall_sessions_in_settle = result.sessions.filter((s) => !s.ended && s.stalls_in_settle === 0).length;
  Object.assign(result, spread(sessions.flatMap((s) => s.latency)));
} catch (error) {
  result.error = String(error.stack || error);
} finally {
  clearInterval(sampler);
  for (const s of sessions) {
    await s.page?.evaluate(() => { if (window.speaking) window.speaking.stop = true; }).catch(() => {});
    await call(base + s.url, { method: 'DELETE', ms: 5000 }).catch(() => {});
  }
  if (browser) await browser.close().catch(() => {});
  if (server && server.exitCode === null) {
    const timer = setTimeout(() => server.kill('SIGKILL'), 20000);
    const code = await new Promise((r) => { server.on('exit', r); server.kill('SIGTERM'); });
    clearTimeout(timer);
    result.server_exit = code;
  }
  if (family) rmSync(family, { recursive: true, force: true });
}
console.log(JSON.stringify(result, null, 1));
