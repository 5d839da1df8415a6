// A WHEP player this project did not write (@eyevinn/webrtc-player from npm, pinned in
// package-lock.json) against a real lumora2-serve, in Debian's chromium. The player's page comes
// from another origin (a static server in this test, which lumora2-serve lets call it with
// --allow-origin): CORS preflights included, as a page on a customer's site would meet them.
// Checked: the player plays a session (frames decoded at about 20 a second); its unload()
// DELETEs the WHEP resource the answer named (200), the session lives on with its viewer place
// free; a second player then takes the same session and plays it too.
//
// node whep_player.test.mjs --serve BIN --family BIN --host BIN
// Exit status: 0 passed, 1 failed, 77 skipped (no chromium, playwright-core or the player).
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { createServer } from 'node:http';
import { createRequire, isBuiltin } from 'node:module';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { CHROMIUM, call, fps, launchBrowser, playwright, sleep, until } from './viewer.mjs';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, word, i, all) => (i % 2 ? pairs : [...pairs, [word.replace(/^--/, ''), all[i + 1]]]), []));
let player = null;
try {
  player = createRequire(import.meta.url).resolve('@eyevinn/webrtc-player');
} catch { /* not installed */ }
if (!playwright() || !existsSync(CHROMIUM) || !player) {
  console.log('SKIP: needs playwright-core, @eyevinn/webrtc-player and ' + CHROMIUM + ' (scripts/install-deps.sh installs them)');
  process.exit(77);
}
// Bounded whatever happens: a hung browser or server fails the test, never stalls it.
setTimeout(() => { console.log('FAIL: the test did not finish in 150 s'); process.exit(1); }, 150000).unref();

const failures = [];
function check(ok, what, detail = '') {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}${detail ? ': ' + detail : ''}`);
  if (!ok) failures.push(what);
  return ok;
}

// The player's package is CommonJS (its dist/main.js and its dependencies' main files): bundled
// for the page with a tiny module loader. Node's `events` is the npm package of that name; other
// Node built-ins are needed only by code the WHEP path does not run, and load as empty modules.
function bundle(entry) {
  const modules = new Map();
  const add = (file) => {
    if (modules.has(file)) return modules.get(file).id;
    const mod = { id: modules.size, source: file ? readFileSync(file, 'utf8') : '', deps: {} };
    modules.set(file, mod);
    const resolve = file && createRequire(file).resolve;
    for (const [, name] of mod.source.matchAll(/\brequire\(\s*["']([^"']+)["']\s*\)/g)) {
      mod.deps[name] = add(name === 'events' ? resolve('events/') : isBuiltin(name) ? '' : resolve(name));
    }
    return mod.id;
  };
  const root = add(entry);
  const defs = [...modules.values()].map((m) => `[function (module, exports, require) {\n${m.source}\n}, ${JSON.stringify(m.deps)}]`);
  return `(() => {
  const defs = [${defs.join(',\n')}], loaded = [];
  const load = (id) => {
    if (!loaded[id]) {
      loaded[id] = { exports: {} };
      defs[id][0](loaded[id], loaded[id].exports, (name) => load(defs[id][1][name]));
    }
    return loaded[id].exports;
  };
  window.WebRTCPlayer = load(${root}).WebRTCPlayer;
})();`;
}

// The page's own origin: a page and the player, nothing else.
function servePage() {
  const script = bundle(player);
  const page = '<!doctype html><meta charset="utf-8"><title>player</title><script src="/player.js"></script><body></body>';
  const site = createServer((req, res) => {
    const [type, body] = req.url === '/player.js' ? ['text/javascript', script] : req.url === '/' ? ['text/html', page] : [];
    res.writeHead(body ? 200 : 404, { 'Content-Type': type || 'text/plain' }).end(body || 'not here');
  });
  return new Promise((resolve) => site.listen(0, '127.0.0.1', () => resolve(site)));
}

function startServer(family, origin) {
  const server = spawn(args.serve, ['--engine', join(family, 'vivra.model'), '--avatars', family,
    '--listen', '127.0.0.1:0', '--host', args.host, '--allow-origin', origin], { stdio: ['ignore', 'pipe', 'inherit'] });
  const base = new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => reject(new Error('lumora2-serve did not start in 20 s')), 20000);
    server.stdout.on('data', (chunk) => {
      out += chunk;
      const m = out.match(/listening on (http:\/\/127\.0\.0\.1:\d+)\//);
      if (m) { clearTimeout(timer); resolve(m[1]); }
    });
    server.on('exit', (code) => reject(new Error('lumora2-serve exited with ' + code)));
    server.on('error', reject);
  });
  return { server, base };
}

// In the page: player `n` on a <video> of its own, loading the WHEP URL. The page's fetch is
// watched, so that what the player asked and was answered can be checked.
function load(page, n, whep) {
  return page.evaluate(({ n, whep }) => {
    if (!window.calls) {
      window.calls = [];
      const fetch = window.fetch;
      window.fetch = async (url, init = {}) => {
        const r = await fetch(url, init);
        window.calls.push({ method: init.method || 'GET', url: String(url), status: r.status });
        return r;
      };
    }
    const video = document.createElement('video');
    video.muted = true;
    video.autoplay = true;
    document.body.append(video);
    // No ICE servers: the player's default is a public STUN server, unreachable from a test.
    const player = new window.WebRTCPlayer({ video, type: 'whep', iceServers: [] });
    (window.players = window.players || [])[n] = player;
    player.load(new URL(whep));
  }, { n, whep });
}

// Frames a second decoded by player `n` over two seconds, once it decodes any; null if none came.
async function playing(page, n) {
  const stats = () => page.evaluate(async (n) => {
    const peer = window.players[n].peer;
    let video = null;
    if (peer.connectionState === 'connected') {
      (await peer.getStats()).forEach((r) => { if (r.type === 'inbound-rtp' && r.kind === 'video') video = r; });
    }
    return video && video.framesDecoded > 0 ? JSON.parse(JSON.stringify({ video })) : null;
  }, n);
  const first = await until(stats, 20000, 200);
  if (!first) return null;
  await sleep(2000);
  return fps(first, await stats());
}

async function main() {
  const family = mkdtempSync(join(tmpdir(), 'lumora2-whep-'));
  let server = null, site = null, browser = null;
  try {
    const made = spawnSync(args.family, ['--out', family, '--host', args.host], { stdio: ['ignore', 'ignore', 'inherit'] });
    if (made.status !== 0) throw new Error('lumora2-family failed');
    site = await servePage();
    const origin = `http://127.0.0.1:${site.address().port}`;
    const started = startServer(family, origin);
    server = started.server;
    const base = await started.base;
    const created = await call(base + '/v1/sessions', { method: 'POST', json: { avatar: 'ava' } });
    if (created.status !== 201) throw new Error(`the session was not made: ${created.status}`);
    const id = created.body.id, whep = base + created.body.urls.whep;
    const status = async () => (await call(`${base}/v1/sessions/${id}`)).body;

    browser = await launchBrowser();
    const page = await browser.newPage();
    page.on('pageerror', (e) => check(false, 'no error in the page', e.message));
    await page.goto(origin + '/');
    await load(page, 0, whep);
    const first = await playing(page, 0);
    check(first > 17 && first < 23, 'the player plays the session', first === null ? 'no frame decoded' : `${first.toFixed(1)} frames a second`);

    await page.evaluate(() => window.players[0].unload());
    const calls = await page.evaluate(() => window.calls);
    const posted = calls.find((c) => c.method === 'POST');
    const deleted = calls.find((c) => c.method === 'DELETE');
    check(posted && posted.status === 201 && deleted && deleted.status === 200 &&
          new RegExp(`/v1/sessions/${id}/whep/\\d+$`).test(deleted.url),
    'its unload() DELETEs the WHEP resource the answer named', JSON.stringify(calls));
    const after = await until(async () => { const s = await status(); return s.viewer === 'none' ? s : null; }, 5000);
    check(after && after.state === 'live', 'the session lives on, its viewer place free', JSON.stringify(after && { state: after.state, viewer: after.viewer }));

    await load(page, 1, whep);
    const second = await playing(page, 1);
    check(second > 17 && second < 23, 'a second player takes the same session and plays it', second === null ? 'no frame decoded' : `${second.toFixed(1)} frames a second`);
    const last = await status();
    check(last.viewers === 2 && last.viewer === 'connected', 'the session counts both viewers', `${last.viewers} viewers, ${last.viewer}`);
  } catch (error) {
    check(false, 'the test ran', error.stack || String(error));
  } finally {
    if (browser) await browser.close().catch(() => {});
    const exited = () => server.exitCode !== null || server.signalCode !== null;
    if (server && !exited()) {
      server.kill('SIGTERM');
      if (!(await until(async () => exited(), 20000, 100))) server.kill('SIGKILL');
    }
    if (site) site.close();
    rmSync(family, { recursive: true, force: true });
  }
  console.log(failures.length ? `FAILED: ${failures.join('; ')}` : 'PASSED');
  process.exit(failures.length ? 1 : 0);
}

main();
