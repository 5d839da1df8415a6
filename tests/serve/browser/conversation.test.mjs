// Talking with the avatar where the viewer is: a real lumora2-serve and its render-stream child,
// watched in Debian's chromium (playwright-core) through the page, with the session's events as
// the page's client module receives them. Checked against what the browser itself received:
//   positions  every utterance's start, end and cut point (the events' media_time and samples) lies
//              where its sound is in the received audio, within one frame: tone recordings, whose
//              sound begins at their first sample and lasts to their last
//   long texts a text of about a minute, then the longest one allowed (just under 300 s) said with
//              "interrupt" into it: each starts as quickly as a short text on a quiet session,
//              plays, and is cut a second into its sound: the sound stops at the cut, and after
//              the last cut the mouth returns to rest through steps no larger than the rendered ones
//   say after  a `say` with "interrupt" cuts a recording where the event says, starts as quickly,
//              and plays to its end
//
// node conversation.test.mjs --serve BIN --family BIN --host BIN
// Exit status: 0 passed, 1 failed, 77 skipped (no chromium, no playwright-core, no taskset or a
// single processor).
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { availableParallelism, tmpdir } from 'node:os';
import { join } from 'node:path';
import { collect, installMouthSteps, installProbes, soundSpans } from './av_sync.mjs';
import { CHROMIUM, call, launchBrowser, playwright, sleep, until } from './viewer.mjs';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, word, i, all) => (i % 2 ? pairs : [...pairs, [word.replace(/^--/, ''), all[i + 1]]]), []));
if (!playwright() || !existsSync(CHROMIUM)) {
  console.log('SKIP: needs playwright-core and ' + CHROMIUM + ' (scripts/install-deps.sh installs both)');
  process.exit(77);
}
// The server (and its child) on processor 0, this test and its browser on processor 1.
if (availableParallelism() < 2 || spawnSync('taskset', ['-c', '0', 'true']).status !== 0 ||
    spawnSync('taskset', ['-a', '-p', '-c', '1', String(process.pid)]).status !== 0) {
  console.log('SKIP: needs two processors and taskset to keep the viewer off the server\'s processor');
  process.exit(77);
}

const failures = [];
function check(ok, what, detail = '') {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}${detail ? ': ' + detail : ''}`);
  if (!ok) failures.push(what);
}

const FRAME = 50;
// Received sound above this RMS is sound: a tone's is 0.19, the voice's words 0.05 and more.
const LEVEL = 0.02;
// How much later than a short text's a long text's first frame may leave: 5 frames. A start that
// waited for more than the first sentence (the whole text made, or the render-ahead cap filled)
// costs a long text seconds; 250 ms covers the voice cutting a 5,000-character text into
// sentences and this two-processor machine's scheduling, and nothing more.
const LONG_START_SLACK = 250;
const SENTENCES = ['The weather is mild today.', 'We will walk along the river after lunch.',
  'Bring a coat in case it rains.', 'The path is long but flat, and the view is good.',
  'We should be back before dark.', 'Tomorrow the market opens early, so we will go there first.'];

// 16 kHz mono 16-bit WAV: a 220 Hz tone from its first sample to its last (one utterance).
function toneWav(seconds) {
  const rate = 16000, pcm = new Int16Array(Math.round(seconds * rate));
  for (let i = 0; i < pcm.length; ++i) pcm[i] = Math.round(9000 * Math.sin(2 * Math.PI * 220 * i / rate));
  const h = Buffer.alloc(44);
  h.write('RIFF', 0); h.writeUInt32LE(36 + pcm.byteLength, 4); h.write('WAVEfmt ', 8); h.writeUInt32LE(16, 16);
  h.writeUInt16LE(1, 20); h.writeUInt16LE(1, 22); h.writeUInt32LE(rate, 24); h.writeUInt32LE(rate * 2, 28);
  h.writeUInt16LE(2, 32); h.writeUInt16LE(16, 34); h.write('data', 36); h.writeUInt32LE(pcm.byteLength, 40);
  return Buffer.concat([h, Buffer.from(pcm.buffer)]);
}

// Sentences, in turn, until the text would pass `chars` characters.
function text(chars) {
  let out = SENTENCES[0];
  for (let i = 1; out.length + 1 + SENTENCES[i % SENTENCES.length].length <= chars; ++i) out += ' ' + SENTENCES[i % SENTENCES.length];
  return out;
}

function startServer(family) {
  const server = spawn('taskset', ['-c', '0', args.serve, '--engine', join(family, 'vivra.model'),
    '--avatars', family, '--listen', '127.0.0.1:0', '--host', args.host], { stdio: ['ignore', 'pipe', 'inherit'] });
  const base = new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => reject(new Error('lumora2-serve did not start in 20 s')), 20000);
    server.stdout.on('data', (chunk) => {
      out += chunk;
      const m = out.match(/listening on (http:\/\/127\.0\.0\.1:\d+)\//);
      if (m) { clearTimeout(timer); resolve(m[1]); }
    });
    server.on('exit', (code) => reject(new Error('lumora2-serve exited with ' + code)));
  });
  return { server, base };
}

function stopServer(server) {
  return new Promise((resolve) => {
    if (server.exitCode !== null) return resolve(server.exitCode);
    const timer = setTimeout(() => server.kill('SIGKILL'), 20000);
    server.on('exit', (code) => { clearTimeout(timer); resolve(code); });
    server.kill('SIGTERM');
  });
}

// A call on the session from the page, started now: `send` it, then `answer()` for
// {at (the page's clock when sent), status, body}.
function start(page, name, { json, wav, query = '' } = {}) {
  return page.evaluate(([what, body, b64, q]) => {
    const init = { method: 'POST', headers: { 'Content-Type': 'application/json' } };
    if (body) { init.headers = { 'Content-Type': 'application/json' }; init.body = JSON.stringify(body); }
    if (b64) init.headers = { 'Content-Type': 'audio/wav' };
    if (b64) init.body = Uint8Array.from(atob(b64), (c) => c.charCodeAt(0));
    const at = performance.now();
    window.pending = fetch(window.lumora2.session.urls[what] + q, init).then(async (r) => ({ at, status: r.status, body: await r.json() }));
    return at;
  }, [name, json, wav && wav.toString('base64'), query]);
}
const answer = (page) => page.evaluate(() => window.pending);
const send = async (page, name, options) => { await start(page, name, options); return answer(page); };

// The first event named `name` for `utterance` the page has received, waited for up to `ms`.
async function event(page, name, utterance, ms = 15000) {
  const found = await until(() => page.evaluate(([n, u]) => window.lumora2.events.find((e) => e.event === n && e.utterance === u), [name, utterance]), ms, 50);
  if (!found) throw new Error(`no ${name} event for utterance ${utterance} within ${ms} ms`);
  return found;
}
const now = (page) => page.evaluate(() => performance.now());
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

async function main() {
  const family = mkdtempSync(join(tmpdir(), 'lumora2-browser-'));
  let server = null, browser = null;
  try {
    const made = spawnSync(args.family, ['--out', family, '--host', args.host], { stdio: ['ignore', 'ignore', 'inherit'] });
    if (made.status !== 0) throw new Error('lumora2-family failed');
    const started = startServer(family);
    server = started.server;
    const base = await started.base;
    browser = await launchBrowser();
    const page = await browser.newPage();
    const errors = [];
    page.on('pageerror', (e) => errors.push(e.message));
    await page.goto(base + '/');
    await page.waitForSelector('input[name=avatar][value=ava]', { timeout: 10000 });
    await page.check('input[name=avatar][value=ava]');
    await page.click('#start');
    await page.waitForFunction(() => window.lumora2.pc && window.lumora2.pc.connectionState === 'connected', null, { timeout: 20000 });
    await page.evaluate(installProbes, 'lumora2');
    await page.evaluate(installMouthSteps, 'lumora2');
    const sessionUrl = base + (await page.evaluate(() => window.lumora2.session.urls.session));
    await until(async () => (await call(sessionUrl)).body.child === 'ready', 20000);
    const since = await now(page);
    await sleep(3000);
    const idleUntil = await now(page);

    // 1. Two tone recordings, one after the other: their events' positions, set against where
    // their sound begins and ends in the audio received, below.
    const tones = [];
    for (const seconds of [1.0, 1.6]) {
      const posted = await send(page, 'speech', { wav: toneWav(seconds) });
      if (posted.status !== 202) throw new Error(`a recording was refused: ${JSON.stringify(posted.body)}`);
      const n = posted.body.utterance;
      const begins = await event(page, 'utterance_started', n), ends = await event(page, 'utterance_finished', n);
      tones.push({ at: posted.at, seconds, points: [begins.media_time, ends.media_time] });
      await sleep(800);
    }

    // 2. A short text: the start the others are held to.
    const short = await send(page, 'say', { json: { text: text(60) } });
    if (short.status !== 202) throw new Error(`a short text was refused: ${JSON.stringify(short.body)}`);
    const shortBegins = await event(page, 'utterance_started', short.body.utterance);
    const shortStart = (await call(sessionUrl)).body.say_to_first_frame_ms;
    const shortEnds = await event(page, 'utterance_finished', short.body.utterance, short.body.duration * 1000 + 10000);
    await sleep(1000);
    // Said with "interrupt", a text also waits for the cut utterance's exit dissolve (at most 20
    // frames, a second), and for the render process to drop what it was rendering of it: at most
    // two chunks of sound beyond the frames it delivered and the 32 frames it holds, 96 frames at
    // its measured speed (not the rest of a long text).
    const quickly = (what, t, cut = false) => {
      const bound = shortStart + LONG_START_SLACK + (cut ? 1000 + 96 * 1000 / t.render_fps : 0);
      check(t.say_to_first_frame_ms <= bound, `${what}: its first frame leaves as soon as a short text's on a quiet session ` +
        `(within ${LONG_START_SLACK} ms${cut ? ', an exit dissolve and 96 frames rendered' : ''})`,
        `${Math.round(t.say_to_first_frame_ms)} ms from the post, at most ${Math.round(bound)} (its first sentence made in ` +
        `${Math.round(t.say_first_sentence_ms)} ms, the engine's first chunk ${Math.round(t.say_child_first_frame_ms)} ms, ` +
        `${Math.round(t.render_fps)} frames a second), a short text ${Math.round(shortStart)} ms`);
    };

    // 3. A long recording, and a second into it a text said with "interrupt": the recording is
    // cut where the event says, and the text plays, as quickly as on a quiet session.
    const long = await send(page, 'speech', { wav: toneWav(8) });
    const longBegins = await event(page, 'utterance_started', long.body.utterance);
    await sleep(1000);
    const again = await send(page, 'say', { json: { text: text(60), interrupt: true } });
    const longCut = await event(page, 'utterance_interrupted', long.body.utterance);
    const againBegins = await event(page, 'utterance_started', again.body.utterance);
    quickly('a text said with "interrupt" into a recording', (await call(sessionUrl)).body, true);
    const againEnds = await event(page, 'utterance_finished', again.body.utterance, again.body.duration * 1000 + 10000);
    tones.push({ at: long.at, seconds: longCut.samples_played / 16000,
      points: [longBegins.media_time, longBegins.media_time + longCut.samples_played / 16000] });
    check(again.status === 202 && Math.abs(againEnds.samples_played / 16000 - again.body.duration) <= FRAME / 1000,
      'and plays to its end', `${again.status}, ${againEnds.samples_played} samples played of ${again.body.duration} s`);
    await sleep(1000);

    // 3b. A text streamed word by word over the WebSocket, a word every 50 ms: every sentence made
    // in order is played, whole, to the end of the utterance.
    const known = await page.evaluate(() => window.lumora2.events.length);
    await page.evaluate(async (words) => {
      const live = window.lumora2.client.openAudio();
      for (const word of words) { live.sendText(word + ' '); await new Promise((r) => setTimeout(r, 50)); }
      await live.end();
    }, `${text(60)} ${SENTENCES[2]}`.split(' '));
    const streamedId = await until(() => page.evaluate((k) => {
      const q = window.lumora2.events.slice(k).find((e) => e.event === 'utterance_queued');
      return q && q.utterance;
    }, known), 5000, 20);
    const streamedEnds = await event(page, 'utterance_finished', streamedId);
    const sentences = await page.evaluate((n) => window.lumora2.events.filter((e) => e.utterance === n && e.event === 'sentence_made'), streamedId);
    check(sentences.map((e) => e.text).join(' ') === `${text(60)} ${SENTENCES[2]}` && streamedEnds.samples_played >= sentences.at(-1).end,
      'a text streamed a word every 50 ms is spoken sentence by sentence, to its end',
      `${sentences.length} sentences made, ${streamedEnds.samples_played} samples played of ${sentences.at(-1) && sentences.at(-1).end}`);
    await sleep(1000);

    // 4. A text of about a minute (900 characters), and a second into its sound the longest one
    // allowed (as many characters as the first one's pace puts within 285 s) said with
    // "interrupt"; a second into that one's sound, an interrupt. Each is taken whole, starts as
    // quickly as a short text, and is cut while it plays.
    const cuts = [];
    let charSeconds = 60 / 900;
    for (const [name, seconds] of [['a minute', 60], ['the longest', 285]]) {
      const words = text(Math.min(5000, Math.floor(seconds / charSeconds)));
      const known = await page.evaluate(() => window.lumora2.events.length);
      const at = await start(page, 'say', { json: { text: words, interrupt: cuts.length > 0 } });
      const n = await until(() => page.evaluate((k) => {
        const q = window.lumora2.events.slice(k).find((e) => e.event === 'utterance_queued');
        return q && q.utterance;
      }, known), 10000, 20);
      const begins = await event(page, 'utterance_started', n);
      const playing = await now(page);
      quickly(name, (await call(sessionUrl)).body, cuts.length > 0);
      const taken = await answer(page);
      check(taken.status === 202 && taken.body.duration <= 300 && taken.body.duration >= seconds * 0.75,
        `${name}: the text is taken whole`, `${words.length} characters, ${taken.status} ${JSON.stringify(taken.body)}`);
      if (taken.status === 202) charSeconds = taken.body.duration / words.length;
      await sleep(Math.max(0, 1000 - ((await now(page)) - playing)));
      cuts.push({ name, n, begins, cutAt: await now(page) });
    }
    const last = await send(page, 'interrupt');
    await sleep(2500);
    for (const c of cuts) {
      c.cut = await event(page, 'utterance_interrupted', c.n);
      check(c.cut.samples_played > 16000 * 0.8, `${c.name}: interrupted while it plays`,
        JSON.stringify({ ...c.cut, text_heard: undefined }));
    }
    const s = (await call(sessionUrl)).body;
    check(last.status === 200 && s.state === 'live' && s.respawns === 0 && s.utterances_queued === 0 && !s.speaking && s.stalls === 0,
      'the session goes on, with nothing left queued and no stall',
      `state ${s.state}, queued ${s.utterances_queued}, speaking ${s.speaking}, stalls ${s.stalls}, respawns ${s.respawns}`);

    // 5. Against what the browser received. The events' media_time is the viewer's stream time;
    // one constant takes it to the page's clock: the median over the tones' starts and ends of
    // where their sound is heard less where the events put it.
    const seen = await collect(page, since);
    const spans = soundSpans(seen.blocks, LEVEL);
    // A tone has no pause: the cut one's span ends where its sound does, even with a voice 30 ms
    // after it; the others have the room to ride out a moment the browser's output skipped.
    const heard = tones.map((tone, i) => {
      const span = soundSpans(seen.blocks, 0.05, i === 2 ? 30 : 100)
        .find((s) => s[0] > tone.at && s[1] - s[0] > tone.seconds * 1000 - 4 * FRAME);
      return span ? [span[0], span[1]] : [NaN, NaN];
    });
    // What the browser made up or dropped of the sound while the tones played: it moves the sound
    // against the sender's clock.
    const stats = seen.stats.filter((x) => x.t >= tones[0].at && x.t <= heard[2][1] + 500);
    const reshaped = stats.length ? (stats.at(-1).reshaped - stats[0].reshaped) / 48 : NaN;
    // Heard less what the browser had made up or dropped by then.
    const delayed = (t) => {
      const x = seen.stats.reduce((b, y) => (y.t <= t ? y : b), seen.stats[0]);
      return (x.delayed - seen.stats[0].delayed) / 48;
    };
    const pairs = tones.flatMap((tone, i) => tone.points.map((p, k) => [p * 1000, heard[i][k] - delayed(heard[i][k])]));
    const shift = median(pairs.map(([p, h]) => h - p));
    const misses = pairs.map(([p, h]) => h - p - shift);
    // What the browser made up or dropped between two moments (its figures come every 250 ms):
    // it moves the sound by as much, and a tone's end against its start.
    const reshapedIn = (t0, t1) => {
      const from = seen.stats.reduce((b, y) => (y.t <= t0 - 250 ? y : b), seen.stats[0]);
      const to = seen.stats.find((y) => y.t >= t1 + 250) || seen.stats.at(-1);
      return (to.reshaped - from.reshaped) / 48;
    };
    const slack = (t0, t1) => FRAME + reshapedIn(t0, t1);
    check(misses.every((m, i) => Math.abs(m) <= slack(pairs[i][1], pairs[i][1])),
      'each tone starts, ends and is cut in the audio received where its events say, within one frame and what the browser reshaped there',
      `${misses.map((m) => m.toFixed(0)).join(', ')} ms off (starts and ends of ${tones.map((t) => t.seconds.toFixed(2)).join(', ')} s; ` +
      `taken less what the browser made up or dropped by then, ${reshaped.toFixed(0)} ms while they played)`);
    const page_ = (mediaTime) => mediaTime * 1000 + shift + delayed(mediaTime * 1000 + shift);
    const sounding = (from, to) => spans.filter((s) => s[1] > from && s[0] < to);
    const lengths = tones.map((tone, i) => heard[i][1] - heard[i][0] - (tone.points[1] - tone.points[0]) * 1000);
    check(lengths.every((d, i) => Math.abs(d) <= slack(...heard[i])), 'each tone is heard for as long as its events say, within one frame and what the browser reshaped',
      `${lengths.map((d) => d.toFixed(0)).join(', ')} ms longer (the browser made up or dropped ` +
      `${heard.map((h) => reshapedIn(...h).toFixed(0)).join(', ')} ms meanwhile); heard ${JSON.stringify(heard.map((h) => h.map(Math.round)))}`);
    for (const [i, c] of cuts.entries()) {
      const cutEnd = page_(c.begins.media_time + c.cut.samples_played / 16000);
      const quietUntil = i + 1 < cuts.length ? page_(cuts[i + 1].begins.media_time) - FRAME : Infinity;
      const late = sounding(cutEnd + FRAME, quietUntil);
      const heardLast = Math.max(...sounding(page_(c.begins.media_time), cutEnd + FRAME).map((x) => x[1]));
      check(late.length === 0 && heardLast > cutEnd - 1000,
        `${c.name}: the sound stops where the interrupt's samples_played says, within one frame, and stays silent`,
        `last sound ${(heardLast - cutEnd).toFixed(0)} ms from the cut position, ${(heardLast - c.cutAt).toFixed(0)} ms after the interrupt was sent; ` +
        `${late.length} spans of sound after it`);
    }
    // The texts' sound (a voice's, with pauses) between their started and finished events, and
    // none in the second before them since what played before them ended.
    for (const [name, begins, ends, before] of [['short text', shortBegins, shortEnds, tones[1].points[1]],
      ['text after the cut', againBegins, againEnds, tones[2].points[1]]]) {
      const within = sounding(page_(begins.media_time) - FRAME, page_(ends.media_time) + FRAME);
      const outside = sounding(Math.max(page_(before) + FRAME, page_(begins.media_time) - 1000), page_(ends.media_time) + 1000)
        .filter((s) => !within.includes(s));
      check(within.length > 0 && outside.length === 0, `${name}: its sound lies between its started and finished events`,
        `${within.length} spans inside, ${outside.length} outside`);
    }

    // 6. The mouth after the last cut (the longest text): steps from frame to frame no larger than
    // those between frames the engine rendered (the texts' speech), and back at rest: within the
    // lower face's range on the idle clip.
    const mouth = await page.evaluate(() => window.mouth);
    const during = (from, to) => mouth.filter((f) => f.t >= from && f.t < to);
    const steps = (frames) => frames.map((f) => f.step).filter(Number.isFinite);
    const longest = cuts[1];
    const cutEnd = page_(longest.begins.media_time + longest.cut.samples_played / 16000);
    // Pictures may be shown up to a few frames off their sound: the seam is looked for from 300 ms
    // before the cut, the speech steps up to there.
    const rendered = Math.max(...steps(during(page_(shortBegins.media_time) + 200, page_(shortEnds.media_time) - 200)),
      ...steps(during(page_(againBegins.media_time) + 200, page_(againEnds.media_time) - 200)),
      ...steps(during(page_(longest.begins.media_time) + 200, cutEnd - 300)));
    const seam = Math.max(...steps(during(cutEnd - 300, cutEnd + 1500)));
    const idle = during(since, idleUntil).map((f) => f.luma);
    const rest = during(cutEnd + 1200, cutEnd + 1500).map((f) => f.luma);
    check(seam <= rendered, 'after the cut the mouth moves in steps no larger than the rendered ones',
      `largest step ${seam.toFixed(2)}, rendered ${rendered.toFixed(2)} (mean luma difference per pixel)`);
    check(rest.length > 3 && rest.every((l) => l >= Math.min(...idle) - 1 && l <= Math.max(...idle) + 1),
      'and within 1.2 s it is back at rest',
      `lower face ${rest.map((l) => l.toFixed(1)).join(', ')}; idle ${Math.min(...idle).toFixed(1)} to ${Math.max(...idle).toFixed(1)}`);
    check(errors.length === 0, 'the page ran without errors', errors.join('; '));
  } catch (error) {
    check(false, 'the conversation ran', error.stack || String(error));
  } finally {
    if (browser) await browser.close().catch(() => {});
    if (server) check((await stopServer(server)) === 0, 'SIGTERM ends lumora2-serve with status 0');
    rmSync(family, { recursive: true, force: true });
  }
  console.log(failures.length ? `FAILED: ${failures.join('; ')}` : 'PASSED');
  process.exit(failures.length ? 1 : 0);
}

main();
