// The browser's and the client's side of router_test.sh, run in its front namespace: the router
// (HAProxy) before two lumora2-serve replicas of --max-sessions 1, each in a namespace of its own.
//   a. chromium opens the page at the router's URL and starts a session; it gets 416 x 720 video
//      at about 20 fps and sound straight from the replica (ICE across the veth), and speech
//      posted through the router is spoken without a stall;
//   b. a second session lands on the other replica, and every call on either session reaches the
//      replica that holds it; with both full, a replica's refusal is retried on the other, and
//      the router answers 503 itself once neither is ready;
//   c. SIGKILL to the replica of the second session: the first session goes on (frames sent,
//      speech spoken, no stall), the second is gone, and a new session goes to the survivor.
// node router_session.mjs --router URL --replicas URL,URL --pids PID,PID --admin SOCKET
import { readFileSync, readdirSync, readlinkSync } from 'node:fs';
import { connect } from 'node:net';
import { call, fps, inbound, launchBrowser, sleep, until, wav } from '../browser/viewer.mjs';

const opt = {};
for (let i = 2; i < process.argv.length; i += 2) opt[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const router = opt.router, replicas = opt.replicas.split(','), pids = opt.pids.split(',').map(Number);

const failures = [];
function check(ok, what, detail = '') {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}${detail ? ': ' + detail : ''}`);
  if (!ok) failures.push(what);
  return ok;
}

// Sessions on each replica, asked of it directly (null: it does not answer).
const held = () => Promise.all(replicas.map((r) => call(r + '/healthz', { ms: 2000 }).then((x) => x.body.sessions, () => null)));
const open = () => call(router + '/v1/sessions', { method: 'POST', json: { avatar: 'ava' } });
const status = (id) => call(`${router}/v1/sessions/${id}`);
// The router's runtime API (its stats socket): one command, its answer.
const admin = (command) => new Promise((resolve, reject) => {
  let out = '';
  const s = connect(opt.admin, () => s.end(command + '\n'));
  s.on('data', (d) => { out += d; }).on('end', () => resolve(out)).on('error', reject);
});
// Sessions a replica has refused so far, by its /metrics.
const refusals = async (r) => [...(await call(r + '/metrics', { ms: 2000 })).body.matchAll(
  /^lumora2_sessions_refused_total(?:\{[^}]*\})? (\S+)$/gm)].reduce((n, m) => n + Number(m[1]), 0);

let browser = null;
try {
  check(await until(async () => (await call(router + '/v1/avatars', { ms: 2000 })).status === 200, 20000),
    'the router answers');

  // a. A real browser through the router.
  browser = await launchBrowser();
  const page = await browser.newPage();
  const pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(e.message));
  await page.goto(router + '/');
  await page.waitForSelector('input[name=avatar][value=ava]', { timeout: 10000 });
  await page.check('input[name=avatar][value=ava]');
  await page.click('#start');
  await page.waitForFunction(() => window.lumora2.pc && window.lumora2.pc.connectionState === 'connected', null, { timeout: 30000 });
  const first = await page.evaluate(() => window.lumora2.session.id);
  const [a1, b1] = await held();
  const x = a1 === 1 ? 0 : 1, y = 1 - x;
  check(a1 + b1 === 1, 'the first session is on one replica', `sessions ${a1}, ${b1}`);
  check(await until(async () => (await status(first)).body.child === 'ready', 60000), 'its render child is ready');
  // A warm render process is ready at once: the first frames may not have arrived yet.
  await until(async () => ((await inbound(page, 'lumora2')).video || {}).framesDecoded > 0, 10000);
  const s0 = await inbound(page, 'lumora2');
  await sleep(3000);
  const s1 = await inbound(page, 'lumora2');
  check(s1.video.frameWidth === 416 && s1.video.frameHeight === 720, 'frames are 416 x 720', `${s1.video.frameWidth} x ${s1.video.frameHeight}`);
  check(fps(s0, s1) > 18 && fps(s0, s1) < 22, 'about 20 frames a second', fps(s0, s1).toFixed(1));
  check(s1.audio && s1.audio.totalSamplesReceived > s0.audio.totalSamplesReceived, 'sound arrives');
  // Speech posted by the page (through the router), then the status once it has been spoken.
  const speak = async (before) => {
    const posted = await page.evaluate(async (b64) => {
      const bytes = Uint8Array.from(atob(b64), (c) => c.charCodeAt(0));
      return (await fetch(window.lumora2.session.urls.speech, { method: 'POST', body: bytes })).status;
    }, wav(2).toString('base64'));
    return posted === 202 && until(async () => { const st = (await status(first)).body; return st.utterances_spoken > before ? st : null; }, 15000);
  };
  const said = await speak(0);
  check(said && said.stalls === 0, 'speech posted through the router is spoken, without a stall',
    said ? `utterances ${said.utterances_spoken}, stalls ${said.stalls}` : 'not spoken');

  // b. The replicas fill in turn.
  const second = await open();
  const id = (second.headers.get('location') || '').match(/^\/v1\/sessions\/([0-9a-f]{32})$/);
  check(second.status === 201 && id, 'a second session is made', `${second.status} ${second.headers.get('location')}`);
  const [a2, b2] = await held();
  check(a2 === 1 && b2 === 1, 'it is on the other replica', `sessions ${a2}, ${b2}`);
  const calls = await Promise.all([first, id[1]].flatMap((s) => Array.from({ length: 6 }, () => status(s))));
  check(calls.every((c) => c.status === 200), 'every call on either session reaches its replica',
    calls.map((c) => c.status).join(' '));
  // Both replicas taken for ready by the router (checks suspended): the refusal is retried on
  // the other, each of them refusing it once (their lumora2_sessions_refused_total).
  const servers = ['r1', 'r2'];
  for (const s of servers) await admin(`disable health new_session/${s}; set server new_session/${s} health up`);
  const refusedBefore = await Promise.all(replicas.map(refusals));
  const retried = await open();
  const refusedAfter = await Promise.all(replicas.map(refusals));
  for (const s of servers) await admin(`enable health new_session/${s}`);
  check(retried.status === 503 && refusedAfter.every((n, i) => n > refusedBefore[i]),
    'a full replica\'s refusal is retried on the other', `${retried.status} ${JSON.stringify(retried.body)}, ` +
    `refusals ${refusedBefore.join(', ')} -> ${refusedAfter.join(', ')}`);
  const refused = await until(async () => { const r = await open(); return r.body.reason === 'capacity' ? r : null; }, 5000, 500);
  check(refused && refused.headers.get('retry-after'), 'with neither ready, the router answers 503 with Retry-After',
    refused ? JSON.stringify(refused.body) : 'no such answer');

  // c. One replica killed mid-session.
  const before = (await status(first)).body;
  const victim = pids[y], net = readlinkSync(`/proc/${victim}/ns/net`);
  process.kill(victim, 'SIGKILL');
  // Its render child (the session's) ends with it.
  const inNet = (p) => { try { return readlinkSync(`/proc/${p}/ns/net`) === net; } catch { return false; } };
  const orphans = () => readdirSync('/proc').filter((p) => /^\d+$/.test(p) && inNet(p));
  check(await until(async () => orphans().length === 0, 5000), 'nothing of the killed replica runs on', orphans().join(' '));
  const gone = await until(async () => { const r = await status(id[1]); return r.status === 404 ? r : null; }, 5000);
  check(gone, 'the killed replica\'s session is gone', gone && JSON.stringify(gone.body));
  const on = await speak(before.utterances_spoken);
  check(on && on.state === 'live' && on.frames_sent > before.frames_sent && on.stalls === 0,
    'the survivor\'s session goes on: frames sent, speech spoken, no stall',
    on ? `frames ${before.frames_sent} -> ${on.frames_sent}, utterances ${on.utterances_spoken}, stalls ${on.stalls}` : 'no speech spoken');
  check(await page.evaluate(() => window.lumora2.pc && window.lumora2.pc.connectionState === 'connected'), 'its page is still connected');
  check((await call(`${router}/v1/sessions/${first}`, { method: 'DELETE' })).status === 204, 'it ends through the router');
  const next = await until(async () => { const r = await open(); return r.status === 201 ? r : null; }, 10000, 500);
  const [a3, b3] = await held();
  check(next && (x === 0 ? a3 === 1 && b3 === null : b3 === 1 && a3 === null), 'a new session goes to the survivor',
    `${next ? next.status : 'none made'}; sessions ${a3}, ${b3}`);
  check(pageErrors.length === 0, 'the page ran without errors', pageErrors.join('; '));
} catch (error) {
  check(false, 'the routed sessions ran', (error.stack || String(error)) + (error.cause ? `\n  (${error.cause})` : ''));
} finally {
  if (browser) await browser.close().catch(() => {});
}
console.log(failures.length ? `FAILED: ${failures.join('; ')}` : 'PASSED');
process.exit(failures.length ? 1 : 0);
