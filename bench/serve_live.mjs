// Benchmarks of lumora2-serve with real viewers (Debian's chromium through playwright-core), each
// figure measured in one run against its target:
//   latency   speech posted -> its first rendered frame sent (target: 300 ms + the engine's first
//             chunk), streamed PCM -> its first rendered frame (target: 1.6 s + 150 ms), and a
//             5-sentence paragraph said -> its first rendered frame sent (400 ms + the first chunk)
//   capacity  1..N sessions at once, each speaking all the time: stalls, the server's CPU per
//             frame per session (target <= 3 ms), each child's resident memory
//   soak      one session for M minutes (default 10), speaking every 10 s: resident memory of the
//             server and the child (target < 5 % growth after the first minute), stalls,
//             descriptors
//   start     POST /v1/sessions -> the first frame decoded at the viewer (requestVideoFrameCallback),
//             through the page's own client module (create, offer, WHEP, connect), for an avatar
//             with no session for 3 s ("cold") and one right after its last session ended
//             ("warm"), N of each (default 5), alternating, with each step's share (the WHEP call
//             within connecting) (target: every median <= 500 ms)
//   talk      a conversation, where the viewer is (on the page's clock, the sound as handed to
//             the browser's output, the lower face as shown): a second into a text, an interrupt
//             -> its sound silent (target <= 150 ms) and the mouth at rest (<= 400 ms), N times
//             (default 5), with where that went (the first cut frame shown, and how many frames
//             after it the mouth was at rest, by the frames' RTP times and the trace's clock); a short text said with "interrupt" a second into a long text, and into
//             a recording -> its first sample at the viewer, against the same text on a quiet
//             session (no slower); 20 tone recordings: their utterance_started/finished positions
//             against the sound received (within one frame, 50 ms), which also places the texts'
//             first samples; words streamed every 50 ms over the WebSocket -> the first sample
//             after the first sentence is complete (<= 400 ms + the engine's first chunk)
//   sync      sound against pictures where the viewer is (tests/serve/browser/av_sync.mjs: how
//             much later a moment's picture is shown than its sound is heard), for a recording of
//             tone bursts and for a paragraph said, N sessions (default 2) with the viewer's
//             processor quiet and N with a busy loop on it: median and spread of each (targets:
//             within one frame, 50 ms, of their median; the median within +45/-125 ms). The
//             server is on processor 0, the browser on processor 1. LUMORA2_BENCH_SERVE names
//             another lumora2-serve to measure (an older one, say) with this build's children.
// node bench/serve_live.mjs BUILD_DIR [latency|capacity|start|talk|soak|sync] [N or minutes]
import { spawn, spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { collect, installProbes, offsets, onsetWindows, parseTrace, rtpClock, settle, soundSpans, stampOf } from '../tests/serve/browser/av_sync.mjs';

const { chromium } = createRequire(import.meta.url)('playwright-core');
const [build = 'build/release', mode = 'latency', countArg] = process.argv.slice(2);
const bin = (p) => join(build, p);

function wav(seconds, burst = 0.4, gap = 0.5) {
  const rate = 16000, pcm = new Int16Array(Math.ceil(seconds * rate));
  for (let t = 0.2; t + burst < seconds - 0.2; t += burst + gap) {
    const s = Math.round(t * rate);
    for (let i = 0; i < burst * rate; ++i) pcm[s + i] = Math.round(9000 * Math.sin(2 * Math.PI * 220 * i / rate));
  }
  const h = Buffer.alloc(44);
  h.write('RIFF', 0); h.writeUInt32LE(36 + pcm.byteLength, 4); h.write('WAVEfmt ', 8); h.writeUInt32LE(16, 16);
  h.writeUInt16LE(1, 20); h.writeUInt16LE(1, 22); h.writeUInt32LE(rate, 24); h.writeUInt32LE(rate * 2, 28);
  h.writeUInt16LE(2, 32); h.writeUInt16LE(16, 34); h.write('data', 36); h.writeUInt32LE(pcm.byteLength, 40);
  return Buffer.concat([h, Buffer.from(pcm.buffer)]);
}

const rssKiB = (pid) => Number((readFileSync(`/proc/${pid}/status`, 'utf8').match(/VmRSS:\s+(\d+)/) || [0, 0])[1]);
const cpuSeconds = (pid) => {
  const f = readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  return (Number(f[11]) + Number(f[12])) / 100;  // utime + stime, in clock ticks of 1/100 s
};
const fds = (pid) => readdirSync(`/proc/${pid}/fd`).length;
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

const family = mkdtempSync(join(tmpdir(), 'lumora2-bench-serve-'));
spawnSync(bin('tools/family/lumora2-family'), ['--out', family, '--host', bin('host/lumora2-model')], { stdio: 'ignore' });
const trace = join(family, 'trace.txt');
const serveCommand = [process.env.LUMORA2_BENCH_SERVE || bin('host/lumora2-serve'), '--engine', join(family, 'vivra.model'),
  '--avatars', family, '--listen', '127.0.0.1:0', '--max-sessions', '8', '--host', bin('host/lumora2-model')];
// sync: the server on processor 0, this process and its browser on processor 1.
if (mode === 'sync') spawnSync('taskset', ['-a', '-p', '-c', '1', String(process.pid)]);
const server = mode === 'sync' || mode === 'talk'
  ? spawn('taskset', ['-c', '0', ...serveCommand], { stdio: ['ignore', 'pipe', 'inherit'], env: { ...process.env, LUMORA2_SERVE_TRACE: trace } })
  : spawn(serveCommand[0], serveCommand.slice(1), { stdio: ['ignore', 'pipe', 'inherit'] });
const port = await new Promise((resolve) => {
  let out = '';
  server.stdout.on('data', (c) => { out += c; const m = out.match(/127\.0\.0\.1:(\d+)\//); if (m) resolve(Number(m[1])); });
});
const base = `http://127.0.0.1:${port}`;
const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync', '--allow-loopback-in-peer-connection',
    '--disable-features=WebRtcHideLocalIpsWithMdns', '--autoplay-policy=no-user-gesture-required'],
});

// A viewer: the page, a session on `avatar`, connected and its child ready.
async function viewer(avatar) {
  const page = await browser.newPage();
  await page.goto(base + '/');
  await page.waitForSelector(`input[name=avatar][value=${avatar}]`);
  await page.check(`input[name=avatar][value=${avatar}]`);
  await page.click('#start');
  await page.waitForFunction(() => window.lumora2.pc && window.lumora2.pc.connectionState === 'connected', null, { timeout: 30000 });
  const url = await page.evaluate(() => window.lumora2.session.urls.session);
  for (let i = 0; i < 300; ++i) {
    if ((await (await fetch(base + url)).json()).child === 'ready') break;
    await sleep(100);
  }
  return { page, url, status: async () => (await fetch(base + url)).json() };
}
async function speak(v, bytes) {
  const speech = v.url + '/speech';
  const r = await fetch(base + speech, { method: 'POST', body: bytes });
  return (await r.json()).duration;
}

const result = {};
try {
  if (mode === 'latency') {
    const v = await viewer('ava');
    await sleep(3000);
    const posted = [];
    for (let k = 0; k < 5; ++k) {
      const before = (await v.status()).utterances_spoken;
      await speak(v, wav(2));
      while ((await v.status()).utterances_spoken === before) await sleep(50);
      posted.push((await v.status()).speech_to_first_frame_ms);
      await sleep(1500);  // from rest: past the last exit dissolve (up to 1 s)
    }
    // Streamed: 16 kHz s16le from the page over the WebSocket, in 20 ms messages at real-time pace.
    const streamed = [], streamedRendered = [];
    for (let k = 0; k < 3; ++k) {
      const before = (await v.status()).utterances_spoken;
      await v.page.evaluate(async () => {
        const url = window.lumora2.session.urls.audio;
        const ws = new WebSocket(`ws://${location.host}${url}`);
        await new Promise((r) => { ws.onopen = r; });
        const rate = 16000, piece = 320, start = performance.now();
        for (let i = 0; i < 3 * rate; i += piece) {
          const pcm = new Int16Array(piece);
          for (let j = 0; j < piece; ++j) pcm[j] = ((i + j) % 14400) < 6400 ? Math.round(9000 * Math.sin(2 * Math.PI * 220 * (i + j) / rate)) : 0;
          ws.send(pcm.buffer);
          // At the sound's own pace: each message when its first sample is due.
          const due = start + ((i + piece) / rate) * 1000;
          await new Promise((r) => setTimeout(r, Math.max(0, due - performance.now())));
        }
        ws.send(JSON.stringify({ end: true }));
        await new Promise((r) => { ws.onmessage = r; });
        ws.close();
      });
      while ((await v.status()).utterances_spoken === before) await sleep(50);
      const s = await v.status();
      streamed.push(s.speech_to_first_frame_ms);
      streamedRendered.push(s.speech_to_first_rendered_ms);
    }
    // Typed: a 5-sentence paragraph said by the embedded voice, fed sentence by sentence.
    const said = [];
    const paragraph = 'The weather is mild today. We will walk along the river after lunch. ' +
      'Bring a coat in case it rains. The path is long but flat. We should be back before dark.';
    for (let k = 0; k < 3; ++k) {
      const before = (await v.status()).utterances_spoken;
      await fetch(base + v.url + '/say', { method: 'POST', headers: { 'Content-Type': 'application/json' },
        body: JSON.stringify({ text: paragraph }) });
      while ((await v.status()).utterances_spoken === before) await sleep(100);
      const t = await v.status();
      said.push([t.say_to_first_frame_ms, t.say_child_first_frame_ms]);
      await sleep(1500);
    }
    const s = await v.status();
    const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];
    result.latency = {
      posted_ms: posted.map(Math.round), posted_median_ms: Math.round(median(posted)),
      posted_target_ms: Math.round(300 + s.render_first_frame_ms),
      // Streamed: the first sample to its first frame rendered (the child needs 1.6 s of sound for
      // it), and to its first frame sent (it waits until no later frame can be late).
      streamed_rendered_ms: streamedRendered.map(Math.round), streamed_rendered_median_ms: Math.round(median(streamedRendered)),
      streamed_rendered_target_ms: 1750,
      streamed_sent_ms: streamed.map(Math.round), streamed_sent_median_ms: Math.round(median(streamed)),
      // Typed: posted -> first frame sent, against 400 ms + the engine's first chunk of that text.
      said_ms: said.map(([a]) => Math.round(a)), said_median_ms: Math.round(median(said.map(([a]) => a))),
      said_target_ms: Math.round(400 + median(said.map(([, b]) => b))),
      stalls: s.stalls, render_fps: Math.round(s.render_fps), render_first_frame_ms: Math.round(s.render_first_frame_ms),
    };
  } else if (mode === 'capacity') {
    const most = Number(countArg || 4);
    result.capacity = [];
    for (let n = 1; n <= most; ++n) {
      const viewers = [];
      for (let k = 0; k < n; ++k) viewers.push(await viewer(k % 2 ? 'bram' : 'ava'));
      await sleep(2000);
      const framesBefore = (await Promise.all(viewers.map((v) => v.status()))).reduce((a, s) => a + s.frames_sent, 0);
      const cpuBefore = cpuSeconds(server.pid);
      const end = Date.now() + 20000;
      const talking = viewers.map(async (v) => { while (Date.now() < end) { await speak(v, wav(4)); await sleep(4200); } });
      await Promise.all(talking);
      const statuses = await Promise.all(viewers.map((v) => v.status()));
      const frames = statuses.reduce((a, s) => a + s.frames_sent, 0) - framesBefore;
      const cpu = cpuSeconds(server.pid) - cpuBefore;
      result.capacity.push({
        sessions: n, stalls: statuses.map((s) => s.stalls), stalled_s: statuses.map((s) => +s.stalled_seconds.toFixed(2)),
        server_ms_per_frame: +(1000 * cpu / frames).toFixed(2), child_rss_mib: statuses.map((s) => Math.round(s.child_rss_kib / 1024)),
        server_rss_mib: Math.round(rssKiB(server.pid) / 1024),
      });
      for (const v of viewers) { await fetch(base + v.url, { method: 'DELETE' }); await v.page.close(); }
      await sleep(2000);
    }
  } else if (mode === 'start') {
    const rounds = Number(countArg || 5);
    const page = await browser.newPage();
    await page.goto(base + '/');
    // In the page: a session of ava from scratch, timed step by step on the page's clock; ended
    // (DELETE) once its first frame is shown.
    const once = () => page.evaluate(async () => {
      const { Session } = await import('/client.js');
      const video = document.createElement('video');
      video.muted = true;
      document.body.append(video);
      const t0 = performance.now();
      const shown = new Promise((resolve) => video.requestVideoFrameCallback((now, meta) => resolve(meta.presentationTime)));
      const session = await Session.create({ avatar: 'ava' });
      const created = performance.now();
      await session.play(video);
      const connected = performance.now();
      const first = await shown;
      const status = await session.status();
      await session.close();
      video.remove();
      // The WHEP call's own share of connecting (the server's pipeline and its candidates).
      const whep = performance.getEntriesByType('resource').filter((e) => e.name.endsWith('/whep')).at(-1);
      return { post: created - t0, connect: connected - created, whep: whep ? whep.duration : NaN, frame: first - t0,
        after_connect: first - connected, server_after_connect: status.first_frame_after_connect_ms };
    });
    const cold = [], warm = [];
    await once();  // the browser's own first peer connection is not a session's
    for (let k = 0; k < rounds; ++k) {
      await sleep(3000);
      cold.push(await once());
      warm.push(await once());
    }
    const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];
    const figures = (runs) => Object.fromEntries(Object.keys(runs[0]).map((k) => [k + '_ms', Math.round(median(runs.map((r) => r[k])))]));
    result.start = {
      cold: { ...figures(cold), frame_all_ms: cold.map((r) => Math.round(r.frame)) },
      warm: { ...figures(warm), frame_all_ms: warm.map((r) => Math.round(r.frame)) },
      target_ms: 500, load: readFileSync('/proc/loadavg', 'utf8').split(' ').slice(0, 3).join(' '),
    };
  } else if (mode === 'talk') {
    const rounds = Number(countArg || 5);
    const v = await viewer('ava');
    await v.page.evaluate(installProbes, 'lumora2');
    await sleep(3000);
    const page = v.page;
    const now = () => page.evaluate(() => performance.now());
    const post = (name, { json, wav: bytes } = {}) => page.evaluate(async ([what, body, b64]) => {
      const init = { method: 'POST', headers: { 'Content-Type': b64 ? 'audio/wav' : 'application/json' } };
      if (body) init.body = JSON.stringify(body);
      if (b64) init.body = Uint8Array.from(atob(b64), (c) => c.charCodeAt(0));
      const at = performance.now();
      const r = await fetch(window.lumora2.session.urls[what], init);
      return { at, status: r.status, body: await r.json() };
    }, [name, json, bytes && bytes.toString('base64')]);
    const event = async (name, utterance, ms = 20000) => {
      for (const end = Date.now() + ms; Date.now() < end; await sleep(20)) {
        const e = await page.evaluate(([n, u]) => window.lumora2.events.find((x) => x.event === n && x.utterance === u), [name, utterance]);
        if (e) return e;
      }
      throw new Error(`no ${name} for utterance ${utterance}`);
    };
    const tone = (seconds) => {
      const pcm = new Int16Array(Math.round(seconds * 16000));
      for (let i = 0; i < pcm.length; ++i) pcm[i] = Math.round(9000 * Math.sin(2 * Math.PI * 220 * i / 16000));
      const h = wav(0.01).subarray(0, 44);
      h.writeUInt32LE(36 + pcm.byteLength, 4); h.writeUInt32LE(pcm.byteLength, 40);
      return Buffer.concat([h, Buffer.from(pcm.buffer)]);
    };
    const SHORT = 'The weather is mild today. We will walk along the river after lunch.';
    const LONG = Array(14).fill('The path is long but flat, and the view is good. We should be back before dark.').join(' ');
    const LEVEL = 0.02;
    // The idle clip's lower face, to tell the mouth at rest.
    const idleFrom = await now();
    await sleep(2000);
    const idle = (await collect(page, idleFrom)).frames.map((f) => f.luma);
    const [restLow, restHigh] = [Math.min(...idle) - 0.5, Math.max(...idle) + 0.5];
    // 20 tone recordings, 0.5 to 1.45 s: their positions against the sound received. One constant
    // (the median) takes the stream's time to the page's clock, less what the browser made up or
    // dropped of the sound by then (that moves the sound); it also places the texts' starts below.
    const tones = [];
    for (let k = 0; k < 20; ++k) {
      const seconds = 0.5 + 0.05 * ((k * 7) % 20);
      const t = await post('speech', { wav: tone(seconds) });
      const s = await event('utterance_started', t.body.utterance), f = await event('utterance_finished', t.body.utterance);
      tones.push({ at: t.at, seconds, points: [s.media_time * 1000, f.media_time * 1000] });
      await sleep(700);
    }
    const cuts = [], quiet = [], afterSay = [], afterRecording = [];
    for (let k = 0; k < rounds; ++k) {
      // Quiet: a short text on a session at rest.
      await sleep(2500);
      const q = await post('say', { json: { text: SHORT } });
      quiet.push({ at: q.at, started: (await event('utterance_started', q.body.utterance)).media_time * 1000,
        frame: (await v.status()).say_to_first_frame_ms });
      await event('utterance_finished', q.body.utterance);
      // A long text interrupted a second into its sound.
      await sleep(2500);
      const long = await post('say', { json: { text: LONG } });
      const longStarted = (await event('utterance_started', long.body.utterance)).media_time * 1000;
      await sleep(1000);
      const t0 = await now();
      const cut = await post('interrupt');
      await sleep(1500);
      const seen = await collect(page, t0 - 2000);
      const heard = soundSpans(seen.blocks, LEVEL).filter((x) => x[0] < t0 + 1000);
      const after = seen.frames.filter((f) => f.t >= t0);
      let rest = after.length;
      while (rest > 0 && after[rest - 1].luma >= restLow && after[rest - 1].luma <= restHigh) --rest;
      // Where the time went, from the frames' RTP times (the trace's clock): the first cut frame
      // (the one whose sound fades) shown, and how many frames after it the mouth was at rest.
      const clock = rtpClock(readFileSync(trace, 'utf8'), await page.evaluate(() => window.lumora2.session.id));
      const ptsOf = (f) => stampOf(f.rtp, clock.video, 90, clock.base);
      const cutPts = longStarted + cut.body.samples_played / 16 - 50;
      const firstCut = after.find((f) => ptsOf(f) >= cutPts - 1);
      cuts.push({ silent: heard.at(-1)[1] - t0, rest: rest < after.length ? after[rest].t - t0 : NaN,
        heard_s: cut.body.samples_played / 16000, output_ms: seen.outputLatency,
        cut_shown: firstCut ? firstCut.t - t0 : NaN, frames_to_rest: rest < after.length ? (ptsOf(after[rest]) - cutPts) / 50 : NaN });
      // A short text with "interrupt", a second into a long text and into a recording.
      for (const [into, list] of [['say', afterSay], ['speech', afterRecording]]) {
        await sleep(2500);
        const first = into === 'say' ? await post('say', { json: { text: LONG } }) : await post('speech', { wav: tone(8) });
        await event('utterance_started', first.body.utterance);
        await sleep(1000);
        const a = await post('say', { json: { text: SHORT, interrupt: true } });
        list.push({ at: a.at, started: (await event('utterance_started', a.body.utterance)).media_time * 1000,
          frame: (await v.status()).say_to_first_frame_ms });
        await event('utterance_finished', a.body.utterance);
      }
    }
    // Streamed text: a word every 50 ms over the WebSocket; the first sentence is complete when
    // the word after its full stop is sent.
    const streamed = [];
    for (let k = 0; k < 3; ++k) {
      await sleep(2500);
      const known = await page.evaluate(() => window.lumora2.events.length);
      const complete = await page.evaluate(async (words) => {
        const ws = new WebSocket(`ws://${location.host}${window.lumora2.session.urls.audio}`);
        await new Promise((r) => { ws.onopen = r; });
        let complete = null;
        for (const [i, word] of words.entries()) {
          ws.send(JSON.stringify({ text: word + ' ' }));
          if (complete === null && i > 0 && /[.!?]$/.test(words[i - 1])) complete = performance.now();
          await new Promise((r) => setTimeout(r, 50));
        }
        ws.send(JSON.stringify({ end: true }));
        await new Promise((r) => { ws.onmessage = (m) => { if (!JSON.parse(m.data).event) r(); }; });
        ws.close();
        return complete;
      }, (SHORT + ' The path is long but flat.').split(' '));
      const n = await page.evaluate((k) => window.lumora2.events.slice(k).find((e) => e.event === 'utterance_queued').utterance, known);
      streamed.push({ at: complete, started: (await event('utterance_started', n)).media_time * 1000 });
      await event('utterance_finished', n);
    }
    const seen = await collect(page, 0);
    const delayed = (t) => (seen.stats.reduce((b, y) => (y.t <= t ? y : b), seen.stats[0]).delayed - seen.stats[0].delayed) / 48;
    const spans = soundSpans(seen.blocks, 0.05, 30);
    const pairs = tones.flatMap((t) => {
      const span = spans.find((x) => x[0] > t.at && x[1] - x[0] > t.seconds * 1000 - 200);
      return t.points.map((p, i) => [p, span ? span[i] - delayed(span[i]) : NaN]);
    });
    const median = (xs) => [...xs].filter(Number.isFinite).sort((a, b) => a - b)[Math.floor(xs.filter(Number.isFinite).length / 2)];
    const shift = median(pairs.map(([p, h]) => h - p));
    const misses = pairs.map(([p, h]) => Math.round(h - p - shift));
    // Post (or the first sentence complete) -> the utterance's first sample handed to the output.
    const atViewer = (x) => x.started + shift + delayed(x.started + shift) - x.at;
    const s = await v.status();
    const m = (xs, f) => Math.round(median(xs.map(f)));
    const chunk = Math.round(s.say_child_first_frame_ms);
    // The browser's jitter buffers over the whole run (mean ms a packet waited): the pictures wait
    // at least as long as the sound, to play with it.
    const inbound = await page.evaluate(() => window.avProbe.inbound());
    const waited = (k) => Math.round(inbound[k].jitterBufferDelay / inbound[k].jitterBufferEmittedCount * 1000);
    result.talk = {
      interrupt_to_silent_ms: cuts.map((c) => Math.round(c.silent)), silent_median_ms: m(cuts, (c) => c.silent), silent_target_ms: 150,
      interrupt_to_rest_ms: cuts.map((c) => Math.round(c.rest)), rest_median_ms: m(cuts, (c) => c.rest), rest_target_ms: 400,
      output_latency_ms: m(cuts, (c) => c.output_ms),
      interrupt_to_first_cut_frame_shown_ms: cuts.map((c) => Math.round(c.cut_shown)), cut_frames_to_rest: cuts.map((c) => c.frames_to_rest), jitter_buffer_ms: { audio: waited('audio'), video: waited('video') },
      // Post -> its first sample at the viewer (and -> its first frame sent, the server's figure).
      quiet_say_ms: m(quiet, atViewer), quiet_say_sent_ms: m(quiet, (x) => x.frame),
      into_say_ms: m(afterSay, atViewer), into_say_sent_ms: m(afterSay, (x) => x.frame),
      into_recording_ms: m(afterRecording, atViewer), into_recording_sent_ms: m(afterRecording, (x) => x.frame),
      all: { quiet: quiet.map((x) => Math.round(atViewer(x))), into_say: afterSay.map((x) => Math.round(atViewer(x))),
        into_recording: afterRecording.map((x) => Math.round(atViewer(x))) },
      positions_off_ms: misses, positions_worst_ms: Math.max(...misses.map(Math.abs)), positions_target_ms: 50,
      streamed_first_sample_ms: streamed.map((x) => Math.round(atViewer(x))), streamed_median_ms: m(streamed, atViewer),
      streamed_target_ms: 400 + chunk, engine_first_chunk_ms: chunk,
      stalls: s.stalls, load: readFileSync('/proc/loadavg', 'utf8').split(' ').slice(0, 3).join(' '),
    };
  } else if (mode === 'soak') {
    const minutes = Number(countArg || 10);
    const v = await viewer('ava');
    const samples = [];
    const end = Date.now() + minutes * 60000;
    let next = Date.now();
    while (Date.now() < end) {
      await speak(v, wav(4));
      const s = await v.status();
      samples.push({ t: (minutes * 60000 - (end - Date.now())) / 1000, server: rssKiB(server.pid), child: s.child_rss_kib, fds: fds(server.pid), stalls: s.stalls });
      next += 10000;
      await sleep(Math.max(0, next - Date.now()));
    }
    const after = samples.filter((x) => x.t >= 60);
    const growth = (k) => after.length > 1 ? +(100 * (Math.max(...after.map((x) => x[k])) - after[0][k]) / after[0][k]).toFixed(1) : null;
    result.soak = {
      minutes, server_rss_mib: [samples[0].server, samples.at(-1).server].map((x) => Math.round(x / 1024)),
      child_rss_mib: [samples[0].child, samples.at(-1).child].map((x) => Math.round(x / 1024)),
      server_growth_pct_after_1min: growth('server'), child_growth_pct_after_1min: growth('child'),
      fds: [Math.min(...after.map((x) => x.fds)), Math.max(...after.map((x) => x.fds))], stalls: samples.at(-1).stalls,
      // Resident memory once a minute (MiB): server, child.
      by_minute: samples.filter((x, i) => i % 6 === 0).map((x) => [Math.round(x.server / 1024), Math.round(x.child / 1024)]),
    };
  } else if (mode === 'sync') {
    const rounds = Number(countArg || 2);
    const paragraph = 'The weather is mild today. We will walk along the river after lunch. ' +
      'Bring a coat in case it rains. The path is long but flat. We should be back before dark.';
    const figures = (found) => {
      const o = found.filter((w) => w.match > 0.9).map((w) => w.offset);
      const sorted = [...o].sort((a, b) => a - b);
      const mean = o.reduce((a, b) => a + b, 0) / o.length;
      return { median_ms: Math.round(sorted[o.length >> 1]), spread_ms: Math.round(sorted.at(-1) - sorted[0]),
        sd_ms: Math.round(Math.sqrt(o.reduce((a, b) => a + (b - mean) ** 2, 0) / o.length)), offsets_ms: o.map(Math.round) };
    };
    result.sync = [];
    for (const busy of [false, true]) {
      for (let k = 0; k < rounds; ++k) {
        const loop = busy ? spawn('taskset', ['-c', '1', process.execPath, '-e', 'for (;;) {}'], { stdio: 'ignore' }) : null;
        const v = await viewer('ava');
        await v.page.evaluate(installProbes, 'lumora2');
        await sleep(4000);
        await settle(v.page);
        const id = await v.page.evaluate(() => window.lumora2.session.id);
        const sent = () => parseTrace(readFileSync(trace, 'utf8')).filter((f) => f.id === id);
        // Both are said before the page's records are taken (which costs its processor a moment).
        const since = await v.page.evaluate(() => performance.now());
        const marks = [];
        for (const post of [() => speak(v, wav(8)), async () => (await (await fetch(base + v.url + '/say', { method: 'POST',
          headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ text: paragraph }) })).json()).duration]) {
          marks.push({ from: sent().length, at: await v.page.evaluate(() => performance.now()) });
          await sleep((await post()) * 1000 + 2500);
        }
        const all = sent();
        const seen = await collect(v.page, since - 10000);
        const measure = (i, level) => {
          const to = i + 1 < marks.length ? marks[i + 1] : { from: all.length, at: Infinity };
          const stats = seen.stats.filter((x) => x.t >= marks[i].at && x.t < to.at);
          return { ...figures(offsets({ sent: all, ...seen }, onsetWindows(all.slice(marks[i].from, to.from), { level }))),
            reshaped_ms: Math.round((stats.at(-1).reshaped - stats[0].reshaped) / 48) };
        };
        const recording = measure(0, 0.05), said = measure(1, 0.02);
        result.sync.push({ busy, recording, said, stalls: (await v.status()).stalls });
        await fetch(base + v.url, { method: 'DELETE' });
        await v.page.close();
        if (loop) loop.kill('SIGKILL');
      }
    }
  }
} finally {
  await browser.close();
  server.kill('SIGTERM');
  await new Promise((r) => server.on('exit', r));
  rmSync(family, { recursive: true, force: true });
}
console.log(JSON.stringify(result, null, 1));
