// The viewer's side of reach_test.sh, run in the viewer's namespace behind its NAT: for each case
// the router's firewall is set (what the viewer may send),
// then chromium plays a session with the page's own client module (/client.js), which takes the
// session's ICE servers (and their credentials) from the server.
//   direct     nothing blocked: a pair without relay, to the server's public address
//   relay-udp  only the HTTP port and the TURN server's UDP: iceTransportPolicy "relay", a relay
//              pair over UDP
//   relay-tcp  no UDP at all, TCP to the HTTP port and the TURN server: a relay pair over TCP
//   ice-tcp    no UDP, any TCP, no ICE server in the browser: a pair over TCP (ICE-TCP)
//   no-path    nothing but the HTTP port, no ICE server: the session says its viewer left, with
//              the reason, in the bound on connecting
//   ports      every media socket of the server in --udp-ports; with the range used up a viewer is
//              refused (503 "ports"); WHEP resources: DELETE frees the place and the port, PATCH
//              takes candidates, an ICE restart is refused with its reason
//   stun       (a server without --public-address) a server-reflexive pair through a STUN server
// Each playing case reports offer → first decoded frame (the median of --repeat runs), and the
// relayed ones the TURN server's and the server's processor time over 10 s.
// node reach_session.mjs --server URL --router NS --server-ns NS --server-pid PID --turn-pid PID
//                        --ports MIN-MAX --repeat N --cases "CASE ..."
import { execFileSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { call, launchBrowser, sleep, until } from '../browser/viewer.mjs';

const opt = {};
for (let i = 2; i < process.argv.length; i += 2) opt[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const server = opt.server;
const [minPort, maxPort] = opt.ports.split('-').map(Number);
const repeat = Number(opt.repeat || 1);

const failures = [];
function check(ok, what, detail = '') {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}${detail ? ': ' + detail : ''}`);
  if (!ok) failures.push(what);
  return ok;
}

const HTTP = ['-p', 'tcp', '--dport', '8080', '-j', 'RETURN'];
const TURN = (proto) => ['-p', proto, '-d', '10.204.4.2', '--dport', '3478', '-j', 'RETURN'];
const DROP = ['-j', 'DROP'];
// What the viewer may send in each case, after the server's private address (never reached from
// outside, whatever the case).
const FIREWALL = {
  direct: [],
  stun: [],
  'relay-udp': [HTTP, TURN('udp'), DROP],
  'relay-tcp': [HTTP, TURN('tcp'), DROP],
  'ice-tcp': [['-p', 'udp', '-j', 'DROP'], ['-d', '10.204.4.2', '-j', 'DROP']],
  'no-path': [HTTP, DROP],
  ports: [],
};
function firewall(name) {
  const ipt = (...args) => execFileSync('ip', ['netns', 'exec', opt.router, 'iptables', ...args]);
  ipt('-F', 'viewer_out');
  ipt('-A', 'viewer_out', '-m', 'conntrack', '--ctorigdst', '10.204.1.2', '-j', 'DROP');
  for (const rule of FIREWALL[name]) ipt('-A', 'viewer_out', ...rule);
}

// Processor time (s) of a process so far.
const cpu = (pid) => {
  const f = readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  return (Number(f[11]) + Number(f[12])) / 100;
};
// The server's sockets (ss in its namespace), its HTTP port left out: [{proto, port}].
function serverSockets() {
  const out = execFileSync('ip', ['netns', 'exec', opt['server-ns'], 'ss', '-Hanup', '-t', '-u']).toString();
  return out.split('\n').filter((l) => l.includes(`pid=${opt['server-pid']},`)).map((l) => {
    const f = l.trim().split(/\s+/);
    return { proto: f[0], state: f[1], port: Number(f[4].split(':').pop()) };
  }).filter((s) => s.port !== 8080 && (s.proto === 'udp' || s.state === 'LISTEN'));
}

const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];

// One session played in a fresh page: {id, page, firstFrame ms, pair} or {id, page, error}.
async function playOnce(browser, { servers = true, policy = 'all', wait = 20000 } = {}) {
  // An ended session's sockets close when the registry destroys it, a moment later: with a range
  // of two ports the next viewer waits for them.
  await until(async () => serverSockets().length === 0, 10000);
  const page = await browser.newPage();
  await page.goto(server + '/');
  const id = await page.evaluate(async ({ servers, policy }) => {
    const { Session } = await import('/client.js');
    const session = await Session.create({ avatar: 'ava' });
    if (!servers) session.info.ice_servers = [];
    const video = document.createElement('video');
    video.muted = true;
    document.body.append(video);
    window.reach = { session, start: performance.now(), left: null };
    session.on('viewer_left', (e) => { window.reach.left = e.reason; });
    session.play(video, { iceTransportPolicy: policy }).catch((e) => { window.reach.error = e.message; });
    const frame = () => video.requestVideoFrameCallback(() => { window.reach.firstFrame = performance.now() - window.reach.start; });
    video.addEventListener('loadeddata', frame, { once: true });
    return session.id;
  }, { servers, policy });
  const firstFrame = await until(() => page.evaluate(() => window.reach.firstFrame), wait, 50);
  const pair = firstFrame ? await page.evaluate(async () => {
    const stats = await window.reach.session.pc.getStats();
    let pair = null;
    stats.forEach((r) => { if (r.type === 'transport') pair = stats.get(r.selectedCandidatePairId); });
    const local = stats.get(pair.localCandidateId), remote = stats.get(pair.remoteCandidateId);
    return { local: local.candidateType, relay: local.relayProtocol || '', protocol: local.protocol,
      remote: remote.candidateType, address: remote.address };
  }) : null;
  return { id, page, firstFrame, pair };
}

// The viewer leaves first, as one closing its page does. Ended by the server first instead, an
// ICE-TCP connection leaves the server's side in TIME_WAIT for a minute, its TCP port with it:
// in a range of two ports the next viewer would have no ICE-TCP (docs/SERVE.md).
async function end(run) {
  await run.page.close().catch(() => {});
  await call(`${server}/v1/sessions/${run.id}`, { method: 'DELETE' }).catch(() => {});
}

// A case that plays: the pair it must use, checked on every run.
const PLAYS = {
  direct: { want: (p) => p.local !== 'relay' && p.address === '10.204.3.7' },
  stun: { want: (p) => p.local !== 'relay' && p.remote === 'srflx' && p.address === '10.204.3.7' },
  'relay-udp': { policy: 'relay', want: (p) => p.local === 'relay' && p.relay === 'udp', cost: true },
  'relay-tcp': { want: (p) => p.local === 'relay' && p.relay === 'tcp' },
  'ice-tcp': { servers: false, want: (p) => p.local !== 'relay' && p.protocol === 'tcp' },
};

async function playCase(browser, name) {
  const c = PLAYS[name];
  const times = [];
  for (let i = 0; i < repeat; ++i) {
    const run = await playOnce(browser, c);
    const ok = check(run.firstFrame && c.want(run.pair), `${name}: plays over the expected pair`,
      run.firstFrame ? `${JSON.stringify(run.pair)}, first frame after ${run.firstFrame.toFixed(0)} ms` : 'no frame');
    if (ok) times.push(run.firstFrame);
    if (ok && c.cost && i === 0) {
      const before = [cpu(opt['turn-pid']), cpu(opt['server-pid'])];
      const sent = (await call(`${server}/v1/sessions/${run.id}`)).body.frames_sent;
      await sleep(10000);
      const after = [cpu(opt['turn-pid']), cpu(opt['server-pid'])];
      const frames = (await call(`${server}/v1/sessions/${run.id}`)).body.frames_sent - sent;
      console.log(`figure: ${name} relayed: TURN server ${((after[0] - before[0]) * 10).toFixed(2)} % of a core, ` +
        `server ${((after[1] - before[1]) * 1000 / frames).toFixed(2)} ms of processor per frame (${frames} frames in 10 s)`);
    }
    await end(run);
  }
  if (times.length) console.log(`figure: ${name}: offer → first frame, median of ${times.length}: ${median(times).toFixed(0)} ms`);
}

async function noPath(browser) {
  const run = await playOnce(browser, { servers: false, wait: 3000 });
  check(!run.firstFrame, 'no-path: nothing plays');
  const left = await until(async () => {
    const s = (await call(`${server}/v1/sessions/${run.id}`)).body;
    return s.viewer === 'left' ? s : null;
  }, 25000, 250);
  const reason = await until(() => run.page.evaluate(() => window.reach.left), 3000);
  // A viewer refused its answer (the WHEP call failed) never leaves: say why.
  const refused = await run.page.evaluate(() => window.reach.error);
  check(left && reason, 'no-path: the session says its viewer left, with the reason',
    `${left && left.viewer}: ${reason}${refused ? `; the page: ${refused}` : ''}`);
  await end(run);
}

// Offers made in pages, posted by hand (WHEP as any player does it).
async function ports(browser) {
  await until(async () => serverSockets().length === 0, 10000);
  const page = await browser.newPage();
  await page.goto(server + '/');
  const offer = () => page.evaluate(async () => {
    const pc = new RTCPeerConnection();
    pc.addTransceiver('video', { direction: 'recvonly' });
    pc.addTransceiver('audio', { direction: 'recvonly' });
    await pc.setLocalDescription(await pc.createOffer());
    (window.pcs = window.pcs || []).push(pc);
    return pc.localDescription.sdp;
  });
  const whep = async (id) => {
    const r = await fetch(`${server}/v1/sessions/${id}/whep`, { method: 'POST', headers: { 'Content-Type': 'application/sdp' }, body: await offer() });
    return { status: r.status, location: r.headers.get('location'), links: r.headers.get('link'), body: await r.text() };
  };
  const ids = [];
  for (let i = 0; i < 3; ++i) ids.push((await call(`${server}/v1/sessions`, { method: 'POST', json: { avatar: 'ava' } })).body.id);
  // A viewer takes one UDP port, and for ICE-TCP one TCP port per address family, which need
  // not be the same: two ports hold one or two viewers, never three.
  const answered = [];
  let refused = null;
  for (const id of ids) {
    const r = await whep(id);
    if (r.status !== 201) { refused = { id, ...r }; break; }
    answered.push(r);
  }
  const first = answered[0] || {};
  check(answered.length >= 1 && /^\/v1\/sessions\/[0-9a-f]{32}\/whep\/\d+$/.test(first.location),
    'ports: viewers answered, each with its WHEP resource', `${answered.length} answered, ${first.location}` +
    (answered.length ? '' : `; refused: ${refused.status} ${refused.body}`));
  check(/rel="ice-server"; username="\d+:[0-9a-f]{32}"; credential="[^"]+"/.test(first.links || ''),
    'ports: the answer names the TURN servers with credentials', first.links);
  const sockets = serverSockets();
  check(sockets.length >= 2 && sockets.every((s) => s.port >= minPort && s.port <= maxPort),
    'ports: every media socket of the server is in the range', JSON.stringify(sockets));
  check(refused && refused.status === 503 && JSON.parse(refused.body).reason === 'ports',
    'ports: with the range used up the next viewer is refused (503 "ports")', refused ? `${refused.status} ${refused.body}` : 'none refused');
  const patch = (headers, body) => fetch(server + first.location, { method: 'PATCH', headers: { 'Content-Type': 'application/trickle-ice-sdpfrag', ...headers }, body }).then((r) => r.status);
  const frag = 'a=mid:0\r\na=candidate:1 1 udp 2122260223 10.204.2.2 50000 typ host\r\n';
  const patched = [await patch({}, frag), await patch({ 'If-Match': '*' }, frag), await patch({ 'If-Match': '"v99"' }, frag)];
  check(patched.join() === '204,405,412', 'ports: PATCH takes candidates, refuses an ICE restart (405) and another viewer\'s tag (412)', patched.join());
  const deleted = await fetch(server + first.location, { method: 'DELETE' });
  const again = await fetch(server + first.location, { method: 'DELETE' });
  const status = (await call(`${server}/v1/sessions/${ids[0]}`)).body;
  check(deleted.status === 200 && again.status === 404 && status.state !== 'ended' && status.viewer === 'none',
    'ports: DELETE ends the viewer (200, then 404); the session lives on without one', `${deleted.status} ${again.status} ${status.state} ${status.viewer}`);
  const freed = refused ? await whep(refused.id) : { status: 0 };
  check(freed.status === 201, 'ports: its ports go to the viewer refused before', String(freed.status));
  for (const id of ids) await call(`${server}/v1/sessions/${id}`, { method: 'DELETE' });
  await page.close();
  check(await until(async () => serverSockets().length === 0, 15000), 'ports: the sessions ended, no media socket is left', JSON.stringify(serverSockets()));
}

let browser = null;
try {
  check(await until(async () => (await call(server + '/v1/avatars', { ms: 2000 })).status === 200, 20000), 'the server answers at its public address');
  browser = await launchBrowser();
  for (const name of opt.cases.split(' ')) {
    firewall(name);
    if (PLAYS[name]) await playCase(browser, name);
    else if (name === 'no-path') await noPath(browser);
    else if (name === 'ports') await ports(browser);
    else check(false, `a known case: ${name}`);
  }
} catch (error) {
  check(false, 'the cases ran', (error.stack || String(error)) + (error.cause ? `\n  (${error.cause})` : ''));
} finally {
  if (browser) await browser.close().catch(() => {});
}
console.log(failures.length ? `FAILED: ${failures.join('; ')}` : 'PASSED');
process.exit(failures.length ? 1 : 0);
