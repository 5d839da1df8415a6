// lumora2-serve's operations with real viewers (Debian's chromium through playwright-core):
//   admission  the server pinned to one core measures what a session costs while sessions speak,
//              admits as many as that core holds and refuses the next with 503, Retry-After and
//              the reason; the sessions already there keep zero stalls while each newcomer joins,
//              and all of them, speaking, once the next is refused
//   metrics    /metrics parses as Prometheus exposition and its counters match what the sessions
//              did (admitted, refused, frames, stalls)
//   drain      SIGTERM while a session speaks: /readyz and new sessions say "draining", the
//              utterance plays to its end in the page, the server exits 0 and leaves no child and
//              nothing in its TMPDIR; a second SIGTERM ends a drain at once
//
// node operations.test.mjs --serve BIN --family BIN --host BIN
// Exit status: 0 passed, 1 failed, 77 skipped (no chromium, playwright-core or taskset, or a
// single processor).
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, readdirSync, rmSync } from 'node:fs';
import { availableParallelism, tmpdir } from 'node:os';
import { join } from 'node:path';
import { CHROMIUM, launchBrowser, playwright, sleep, wav as speech } from './viewer.mjs';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, word, i, all) => (i % 2 ? pairs : [...pairs, [word.replace(/^--/, ''), all[i + 1]]]), []));
if (!playwright() || !existsSync(CHROMIUM)) {
  console.log('SKIP: needs playwright-core and ' + CHROMIUM + ' (scripts/install-deps.sh installs both)');
  process.exit(77);
}
// The server gets processor 0 to itself: this test and its browser move to the others, since
// admission counts the server's processors as its own.
const processors = availableParallelism();
if (processors < 2 || spawnSync('taskset', ['-c', '0', 'true']).status !== 0 ||
    spawnSync('taskset', ['-a', '-p', '-c', `1-${processors - 1}`, String(process.pid)]).status !== 0) {
  console.log('SKIP: needs two processors and taskset to give processor 0 to the server alone');
  process.exit(77);
}

const failures = [];
function check(ok, what, detail = '') {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}${detail ? ': ' + detail : ''}`);
  if (!ok) failures.push(what);
}
const alive = (pid) => { try { process.kill(pid, 0); return true; } catch { return false; } };

// The Prometheus text exposition, strictly: every family announced by # HELP and # TYPE before
// its samples, every sample `name{label="value",...} number`, no name twice with the same labels.
// Returns { 'name{labels}': value } or throws naming the bad line.
function parseExposition(text) {
  const types = new Map(), samples = {};
  const sample = /^([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(?:[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\.)*",?)*\})? (-?(?:[0-9.]+(?:e[+-]?[0-9]+)?|NaN|\+Inf|-Inf))$/;
  for (const line of text.split('\n')) {
    if (line === '') continue;
    const meta = line.match(/^# (HELP|TYPE) ([a-zA-Z_:][a-zA-Z0-9_:]*) (.*)$/);
    if (meta) {
      if (meta[1] === 'TYPE') {
        if (!['counter', 'gauge', 'histogram', 'summary', 'untyped'].includes(meta[3])) throw new Error('bad type: ' + line);
        types.set(meta[2], meta[3]);
      }
      continue;
    }
    const m = line.match(sample);
    if (!m) throw new Error('not a sample: ' + line);
    if (!types.has(m[1])) throw new Error('no # TYPE before: ' + line);
    if (types.get(m[1]) === 'counter' && !m[1].endsWith('_total')) throw new Error('counter without _total: ' + line);
    const key = m[1] + (m[2] || '');
    if (key in samples) throw new Error('twice: ' + key);
    samples[key] = Number(m[3]);
  }
  return samples;
}

function startServer(family, tmp, { pin = false, extra = [] } = {}) {
  const command = [args.serve, '--engine', join(family, 'vivra.model'), '--avatars', family,
    '--listen', '127.0.0.1:0', '--host', args.host, ...extra];
  const options = { stdio: ['ignore', 'pipe', 'pipe'], env: { ...process.env, TMPDIR: tmp } };
  const server = pin ? spawn('taskset', ['-c', '0', ...command], options) : spawn(command[0], command.slice(1), options);
  let log = '';
  server.stderr.on('data', (chunk) => { log += chunk; process.stderr.write(chunk); });
  const exited = new Promise((resolve) => server.on('exit', (code, signal) => resolve(code ?? 128 + signal)));
  const base = new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => reject(new Error('lumora2-serve did not start in 20 s')), 20000);
    server.stdout.on('data', (chunk) => {
      out += chunk;
      const m = out.match(/listening on (http:\/\/127\.0\.0\.1:\d+)\//);
      if (m) { clearTimeout(timer); resolve(m[1]); }
    });
  });
  return { server, exited, base, log: () => log };
}

// Waits (up to `ms`) for the server to exit: its exit status, or null.
async function exitWithin(exited, ms) {
  return Promise.race([exited, sleep(ms).then(() => null)]);
}

async function main() {
  const root = mkdtempSync(join(tmpdir(), 'lumora2-operations-'));
  const family = join(root, 'family');
  const generated = spawnSync(args.family, ['--out', family, '--host', args.host], { encoding: 'utf8' });
  if (generated.status !== 0) throw new Error('lumora2-family failed: ' + generated.stderr);
  const browser = await launchBrowser();
  const servers = [];
  try {
    // ---- Admission and metrics, then a drain, on one core ----
    const tmp = join(root, 'tmp');
    mkdirSync(tmp);
    const one = startServer(family, tmp, { pin: true });
    servers.push(one.server);
    const base = await one.base;
    const get = async (path) => { const r = await fetch(base + path); return { status: r.status, headers: r.headers, body: await r.text() }; };
    const json = async (path) => JSON.parse((await get(path)).body);
    const create = (avatar) => fetch(base + '/v1/sessions', { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ avatar }) });

    // A viewer: the page starts a session on `avatar` and plays it. Null when the server refused
    // the page's session for capacity (its measurement may have moved since the caller asked).
    async function viewer(avatar) {
      const page = await browser.newPage();
      await page.goto(base + '/');
      await page.check(`input[name=avatar][value=${avatar}]`);
      await page.click('#start');
      try {
        await page.waitForFunction(() => (window.lumora2.pc && window.lumora2.pc.connectionState === 'connected') ||
          /^could not start/.test(document.getElementById('message').textContent), null, { timeout: 60000 });
        if (/^could not start: the server is at its capacity/.test(await page.textContent('#message'))) {
          await page.close();
          return null;
        }
        if (!(await page.evaluate(() => window.lumora2.pc && window.lumora2.pc.connectionState === 'connected'))) {
          throw new Error('the page did not start its session');
        }
      } catch (error) {
        // What the page and the server knew when the viewer did not connect.
        const seen = await page.evaluate(() => {
          const pc = window.lumora2.pc, sdp = (d) => (d ? d.sdp.split('\r\n').filter((l) => /^a=(candidate|setup|ice-)|^m=/.test(l)) : null);
          return { message: document.getElementById('message').textContent, pc: pc && {
            connection: pc.connectionState, ice: pc.iceConnectionState, gathering: pc.iceGatheringState,
            local: sdp(pc.localDescription), remote: sdp(pc.remoteDescription) } };
        }).catch((e) => ({ page: e.message }));
        const url = await page.evaluate(() => window.lumora2.session && window.lumora2.session.urls.session).catch(() => null);
        const session = url ? (await get(url).catch((e) => ({ body: e.message }))).body : 'none';
        throw new Error(`${error.message}\npage: ${JSON.stringify(seen)}\nsession: ${session}\nserver log:\n${one.log()}`);
      }
      const url = await page.evaluate(() => window.lumora2.session.urls.session);
      for (let i = 0; i < 600 && (await json(url)).child !== 'ready'; ++i) await sleep(100);
      const frames = () => page.evaluate(async () => {
        let decoded = 0;
        (await window.lumora2.pc.getStats()).forEach((r) => { if (r.type === 'inbound-rtp' && r.kind === 'video') decoded = r.framesDecoded; });
        return decoded;
      });
      return { page, url, frames, status: () => json(url) };
    }
    const say = (v, seconds) => fetch(base + v.url + '/speech', { method: 'POST', body: speech(seconds) });

    const ready0 = await get('/readyz');
    check(ready0.status === 200 && JSON.parse(ready0.body).ready === true, 'an empty server is ready', ready0.body);

    // Sessions join one by one, each speaking all the time, until the server refuses one. The
    // first measurement of its cost is in before the second joins.
    const viewers = [];
    let refused = null, pageRefusals = 0, endedUnwatched = 0;
    const stallsOf = async () => Promise.all(viewers.map(async (w) => (await w.status()).stalls));
    const joinStalls = [];  // stalls of the sessions already there while each newcomer joined
    for (let n = 0; n < 16 && !refused; ++n) {
      const probe = await get('/readyz');
      if (probe.status !== 200) {
        const r = await create('ava');
        refused = { status: r.status, retryAfter: r.headers.get('retry-after'), body: await r.json(), readyz: probe };
        break;
      }
      const earlier = await stallsOf();
      const v = await viewer(n % 2 ? 'bram' : 'ava');
      if (!v) {
        // Refused between /readyz and the page's own request: the refusal is asked for again
        // here, with its headers; a session made meanwhile (the capacity rose again) is ended.
        ++pageRefusals;
        const r = await create('ava');
        if (r.status === 503) {
          refused = { status: r.status, retryAfter: r.headers.get('retry-after'), body: await r.json(), readyz: await get('/readyz') };
          break;
        }
        const made = await r.json();
        if (made.urls) {
          ++endedUnwatched;
          await fetch(base + made.urls.session, { method: 'DELETE' });
        }
        continue;
      }
      viewers.push(v);
      await say(v, 3);  // a short one first: its speed is measured when it is rendered
      await say(v, 60);
      for (let i = 0; i < 100; ++i) {
        const m = parseExposition((await get('/metrics')).body);
        // Measured once both costs have left the server's priors (15 and 10 ms a frame).
        if (m.lumora2_frames_rendered_total > 0 && m.lumora2_child_cpu_ms_per_frame !== 15 && m.lumora2_server_cpu_ms_per_frame !== 10) break;
        await sleep(200);
      }
      const now = await stallsOf();
      joinStalls.push(...earlier.map((was, i) => now[i] - was));
    }
    const capacity = (await json('/readyz')).capacity;
    check(refused !== null && refused.status === 503 && refused.body.reason === 'capacity' && Number(refused.retryAfter) > 0,
      'past its measured capacity the server refuses with 503, Retry-After and the reason', JSON.stringify(refused?.body));
    check(refused?.readyz.status === 503 && JSON.parse(refused.readyz.body).reason === 'full', '/readyz says full first', refused?.readyz.body);
    // The capacity is re-measured every second, so one reported after the last admission may
    // have moved by one session either way.
    check(viewers.length >= 1 && Math.abs(viewers.length - capacity) <= 1, 'as many sessions admitted as the capacity it reports, within one',
      `${viewers.length} admitted, capacity ${capacity}`);

    check(joinStalls.every((d) => d === 0), 'no session stalls while a newcomer joins', joinStalls.join(' '));

    // Everybody speaking for 15 s once the next was refused: no stall anywhere, no dropped
    // picture, and each page receives about 20 frames a second. (A newcomer's own start is
    // reported, not judged: on a full core its first utterance may wait on a stall.)
    const before = await Promise.all(viewers.map((v) => v.frames()));
    const sentBefore = await Promise.all(viewers.map((v) => v.status()));
    await sleep(15000);
    const after = await Promise.all(viewers.map((v) => v.frames()));
    const statuses = await Promise.all(viewers.map((v) => v.status()));
    const sentFps = statuses.map((s, i) => ((s.frames_sent - sentBefore[i].frames_sent) / 15).toFixed(1));
    check(statuses.every((s, i) => s.stalls === sentBefore[i].stalls && s.frames_behind === sentBefore[i].frames_behind && s.speaking),
      'every admitted session speaks without a stall or a dropped picture',
      statuses.map((s, i) => `stalls ${sentBefore[i].stalls}->${s.stalls} behind ${sentBefore[i].frames_behind}->${s.frames_behind} ` +
        `speaking ${s.speaking}${s.last_stall ? ' last stall ' + JSON.stringify(s.last_stall) : ''}`).join(', '));
    const fps = after.map((a, i) => (a - before[i]) / 15);
    check(fps.every((f) => f > 17), 'every page receives about 20 frames a second',
      `received ${fps.map((f) => f.toFixed(1)).join(', ')}; sent ${sentFps.join(', ')}`);

    // The metrics match what the sessions did.
    let m = {};
    try {
      m = parseExposition((await get('/metrics')).body);
      check(true, '/metrics parses as Prometheus text exposition');
    } catch (e) {
      check(false, '/metrics parses as Prometheus text exposition', e.message);
    }
    const sent = (await Promise.all(viewers.map((v) => v.status()))).reduce((a, s) => a + s.frames_sent, 0);
    const counted = m['lumora2_frames_sent_total{source="idle"}'] + m['lumora2_frames_sent_total{source="rendered"}'];
    check(m.lumora2_sessions_admitted_total === viewers.length + endedUnwatched && m.lumora2_sessions_active === viewers.length,
      'admitted and active sessions counted', `${m.lumora2_sessions_admitted_total} / ${m.lumora2_sessions_active}` +
      (endedUnwatched ? ` (${endedUnwatched} made and ended unwatched)` : ''));
    check(m['lumora2_sessions_refused_total{reason="capacity"}'] === 1 + pageRefusals, 'the refusal counted by its reason',
      pageRefusals ? `${pageRefusals} more refused to the page between /readyz and its request` : '');
    check(Math.abs(sent - counted) <= 30 * viewers.length && m['lumora2_frames_sent_total{source="rendered"}'] > 200,
      'frames sent counted, idle and rendered', `${counted} counted, ${sent} in the statuses`);
    const stalled = statuses.reduce((a, st) => a + st.stalls, 0), behind = statuses.reduce((a, st) => a + st.frames_behind, 0);
    check(m.lumora2_stalls_total === stalled && m.lumora2_frames_behind_total === behind && m.lumora2_child_deaths_total === 0,
      'stalls and dropped pictures counted as the sessions count them, no child death', `${m.lumora2_stalls_total} stalls, ${m.lumora2_frames_behind_total} behind`);
    check(m.lumora2_frames_rendered_total >= m['lumora2_frames_sent_total{source="rendered"}'], 'frames rendered counted');
    check(m.lumora2_render_fps > 20 && m.lumora2_child_cpu_ms_per_frame > 0 && m.lumora2_server_cpu_ms_per_frame > 0,
      'rendering speed and costs per frame measured',
      `${m.lumora2_render_fps} fps, child ${m.lumora2_child_cpu_ms_per_frame} ms, server ${m.lumora2_server_cpu_ms_per_frame} ms`);
    // The render processes' memory, each counted once however many sessions it renders.
    check(m['lumora2_resident_bytes{process="server"}'] > 0 && m['lumora2_resident_bytes{process="children"}'] > 100e6,
      'resident memory of the server and the render processes');

    // ---- Drain: SIGTERM while the first session speaks a short utterance ----
    for (const w of viewers) {
      await fetch(base + w.url, { method: 'DELETE' });
      await w.page.close();
    }
    for (let i = 0; i < 100 && (await get('/readyz')).status !== 200; ++i) await sleep(100);
    const v = await viewer('ava');
    const said = await say(v, 3);
    check(said.status === 202, 'a 3 s utterance taken', String(said.status));
    for (let i = 0; i < 200 && !(await v.status()).speaking; ++i) await sleep(50);
    const children = (await Promise.all([v.status()])).map((s) => s.child_pid);
    const framesAtTerm = await v.frames();
    one.server.kill('SIGTERM');
    await sleep(300);
    const readyz = await get('/readyz');
    const newcomer = await create('bram');
    const newSpeech = await say(v, 1);
    check(readyz.status === 503 && JSON.parse(readyz.body).reason === 'draining', 'draining: /readyz 503', readyz.body);
    check(newcomer.status === 503 && (await newcomer.json()).reason === 'draining', 'draining: no new session');
    check(newSpeech.status === 503, 'draining: no new speech', String(newSpeech.status));
    let framesAtEnd = framesAtTerm;
    for (let i = 0; i < 400 && one.server.exitCode === null; ++i) {
      try {
        framesAtEnd = await v.frames();
      } catch { break; }
      await sleep(100);
    }
    const code = await exitWithin(one.exited, 40000);
    check(code === 0, 'the drained server exits 0', String(code));
    check(/drained in [0-9.]+ s \(utterances spoken to their end: 1\)/.test(one.log()), 'the utterance under way was spoken to its end',
      one.log().split('\n').filter((l) => l.includes('drain')).join(' | '));
    check(framesAtEnd - framesAtTerm >= 40, 'the page kept receiving frames while the server drained', `${framesAtEnd - framesAtTerm} frames`);
    check(children.every((pid) => !alive(pid)), 'no render child left');
    check(readdirSync(tmp).length === 0, 'nothing left in TMPDIR', readdirSync(tmp).join(' '));
    await v.page.close();

    // ---- A second SIGTERM ends a drain at once ----
    const tmp2 = join(root, 'tmp2');
    mkdirSync(tmp2);
    const two = startServer(family, tmp2);
    servers.push(two.server);
    const base2 = await two.base;
    const page = await browser.newPage();
    await page.goto(base2 + '/');
    await page.check('input[name=avatar][value=ava]');
    await page.click('#start');
    await page.waitForFunction(() => window.lumora2.pc && window.lumora2.pc.connectionState === 'connected', null, { timeout: 60000 });
    const url = await page.evaluate(() => window.lumora2.session.urls.session);
    await fetch(base2 + url + '/speech', { method: 'POST', body: speech(30) });
    for (let i = 0; i < 200 && !(await (await fetch(base2 + url)).json()).speaking; ++i) await sleep(50);
    two.server.kill('SIGTERM');
    await sleep(1000);
    const stillDraining = two.server.exitCode === null;
    two.server.kill('SIGTERM');
    const code2 = await exitWithin(two.exited, 8000);
    check(stillDraining && code2 === 0 && /drain cut short/.test(two.log()), 'a second SIGTERM ends the drain at once, exit 0',
      `${stillDraining} ${code2}`);
    check(readdirSync(tmp2).length === 0, 'nothing left in TMPDIR after the cut-short drain');
  } finally {
    await browser.close();
    for (const s of servers) if (s.exitCode === null) s.kill('SIGKILL');
    rmSync(root, { recursive: true, force: true });
  }
}

try {
  await main();
} catch (e) {
  check(false, 'ran to the end', e.stack || String(e));
}
console.log(failures.length ? `${failures.length} failed` : 'all passed');
process.exit(failures.length ? 1 : 0);
