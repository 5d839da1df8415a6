// The live page: lists the avatars, starts a session (WHEP: the complete offer in, the complete
// answer out), plays it, sends typed text, an audio file or a microphone recording as speech, and
// shows live figures. Both received tracks play from one MediaStream on one <video>, so the browser keeps
// sound and pictures in sync. window.lumora2 exposes the session for tests and for the curious.
'use strict';

const $ = (id) => document.getElementById(id);
const token = new URLSearchParams(location.hash.slice(1)).get('token');
const state = { session: null, pc: null, stream: null, video: $('video'), poll: null, recorder: null };
window.lumora2 = state;

function say(text) { $('message').textContent = text || ''; }

async function api(path, options = {}) {
  const headers = Object.assign({}, options.headers || {});
  if (token) headers.Authorization = 'Bearer ' + token;
  const response = await fetch(path, Object.assign({}, options, { headers }));
  if (!response.ok) {
    let error = response.status + ' ' + response.statusText;
    try { error = (await response.json()).error || error; } catch (e) { /* not JSON */ }
    throw new Error(error);
  }
  return response;
}

async function listAvatars() {
  const { avatars } = await (await api('/v1/avatars')).json();
  const list = $('avatars');
  list.textContent = '';
  avatars.forEach((a, i) => {
    const item = document.createElement('li');
    const label = document.createElement('label');
    const radio = document.createElement('input');
    radio.type = 'radio';
    radio.name = 'avatar';
    radio.value = a.code;
    radio.checked = i === 0;
    const persona = document.createElement('span');
    persona.className = 'persona';
    persona.textContent = ' — ' + a.persona;
    label.append(radio, ' ' + a.name, persona);
    item.append(label);
    list.append(item);
  });
  $('start').disabled = avatars.length === 0;
}

function gathered(pc) {
  return new Promise((resolve) => {
    if (pc.iceGatheringState === 'complete') return resolve();
    pc.addEventListener('icegatheringstatechange', () => {
      if (pc.iceGatheringState === 'complete') resolve();
    });
  });
}

async function start() {
  const chosen = document.querySelector('input[name=avatar]:checked');
  if (!chosen) return;
  say('');
  $('start').disabled = true;
  try {
    const session = await (await api('/v1/sessions', {
      method: 'POST', headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ avatar: chosen.value }),
    })).json();
    state.session = session;
    const pc = new RTCPeerConnection();
    state.pc = pc;
    state.stream = new MediaStream();
    state.video.srcObject = state.stream;
    pc.addTransceiver('video', { direction: 'recvonly' });
    pc.addTransceiver('audio', { direction: 'recvonly' });
    pc.ontrack = (event) => {
      state.stream.addTrack(event.track);
      state.video.play().catch(() => say('press play to hear the sound'));
    };
    pc.onconnectionstatechange = () => {
      if (pc.connectionState === 'failed' || pc.connectionState === 'closed') ended('the connection ' + pc.connectionState);
    };
    await pc.setLocalDescription(await pc.createOffer());
    await gathered(pc);
    const answer = await (await api(session.urls.whep, {
      method: 'POST', headers: { 'Content-Type': 'application/sdp' }, body: pc.localDescription.sdp,
    })).text();
    await pc.setRemoteDescription({ type: 'answer', sdp: answer });
    $('stop').disabled = false;
    $('text').disabled = false;
    $('send').disabled = false;
    $('file').disabled = false;
    $('record').disabled = !(navigator.mediaDevices && window.MediaRecorder);
    state.poll = setInterval(figures, 500);
  } catch (error) {
    say('could not start: ' + error.message);
    teardown();
  }
}

async function figures() {
  if (!state.session) return;
  let status = null;
  try {
    status = await (await api(state.session.urls.session)).json();
  } catch (error) {
    return ended(error.message);
  }
  let fps = 0, jitter = 0, dropped = 0;
  if (state.pc) {
    (await state.pc.getStats()).forEach((r) => {
      if (r.type === 'inbound-rtp' && r.kind === 'video') {
        fps = r.framesPerSecond || 0;
        dropped = r.framesDropped || 0;
        if (r.jitterBufferEmittedCount) jitter = 1000 * r.jitterBufferDelay / r.jitterBufferEmittedCount;
      }
    });
  }
  $('figures').textContent =
    `${fps.toFixed(0)} fps · jitter buffer ${jitter.toFixed(0)} ms · dropped ${dropped} · ` +
    `stalls ${status.stalls} · render process ${status.child}` + (status.speaking ? ' · speaking' : '');
}

function ended(reason) {
  if (!state.session) return;
  say('session ended: ' + reason);
  teardown();
}

function teardown() {
  clearInterval(state.poll);
  if (state.pc) state.pc.close();
  if (state.recorder && state.recorder.state !== 'inactive') state.recorder.stop();
  state.session = null;
  state.pc = null;
  $('start').disabled = false;
  $('stop').disabled = true;
  $('text').disabled = true;
  $('send').disabled = true;
  $('file').disabled = true;
  $('record').disabled = true;
  $('figures').textContent = 'no session';
}

async function stop() {
  const session = state.session;
  teardown();
  if (session) await api(session.urls.session, { method: 'DELETE' }).catch(() => {});
}

async function speak(blob) {
  if (!state.session) return;
  try {
    const { duration } = await (await api(state.session.urls.speech, { method: 'POST', body: blob })).json();
    say(`speaking ${duration.toFixed(1)} s`);
  } catch (error) {
    say('could not speak: ' + error.message);
  }
}

// The typed text, spoken with the avatar's voice; the box empties once the server took it.
async function sayText(event) {
  event.preventDefault();
  const text = $('text').value;
  if (!state.session || !text.trim()) return;
  try {
    const { duration } = await (await api(state.session.urls.say, {
      method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ text }),
    })).json();
    $('text').value = '';
    say(`saying ${duration.toFixed(1)} s`);
  } catch (error) {
    say('could not say it: ' + error.message);
  }
}

async function record() {
  if (state.recorder && state.recorder.state === 'recording') {
    state.recorder.stop();
    return;
  }
  const microphone = await navigator.mediaDevices.getUserMedia({ audio: true });
  const chunks = [];
  state.recorder = new MediaRecorder(microphone);
  state.recorder.ondataavailable = (event) => chunks.push(event.data);
  state.recorder.onstop = () => {
    microphone.getTracks().forEach((t) => t.stop());
    $('record').textContent = 'Record the microphone';
    speak(new Blob(chunks, { type: state.recorder.mimeType }));
  };
  state.recorder.start();
  $('record').textContent = 'Stop and speak it';
}

$('start').addEventListener('click', start);
$('stop').addEventListener('click', stop);
$('say').addEventListener('submit', sayText);
$('file').addEventListener('change', () => { if ($('file').files[0]) speak($('file').files[0]); });
$('record').addEventListener('click', () => record().catch((e) => say('microphone: ' + e.message)));
listAvatars().catch((error) => say('cannot list the avatars: ' + error.message));
