// The live page: lists the avatars, starts a session and plays it (client.js: WHEP, both tracks
// on one <video>), says typed text, speaks an audio file or a microphone recording, stops the
// avatar mid-sentence, and shows live figures and the session's events. window.lumora2 exposes
// the session for tests and for the curious.
import { Session } from '/client.js';

const $ = (id) => document.getElementById(id);
const token = new URLSearchParams(location.hash.slice(1)).get('token');
const state = { client: null, session: null, pc: null, stream: null, video: $('video'), poll: null,
  recorder: null, events: [] };
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

// One line of the event log, newest first, at most 50.
function logEvent(event) {
  state.events.push(event);
  const { event: name, id, ...fields } = event;
  const line = document.createElement('li');
  line.textContent = `${id} ${name} ${JSON.stringify(fields)}`;
  $('events').prepend(line);
  while ($('events').children.length > 50) $('events').lastChild.remove();
}

async function start() {
  const chosen = document.querySelector('input[name=avatar]:checked');
  if (!chosen) return;
  say('');
  $('start').disabled = true;
  try {
    const client = await Session.create({ avatar: chosen.value, token });
    state.client = client;
    state.session = client.info;
    client.on('*', logEvent);
    client.on('session_ended', (e) => ended(e.reason));
    const pc = client.play(state.video);
    state.pc = client.pc;
    state.stream = client.stream;
    await pc;
    client.pc.addEventListener('connectionstatechange', () => {
      if (client.pc.connectionState === 'failed') say('the connection failed');
    });
    for (const id of ['stop', 'interrupt', 'text', 'send', 'file']) $(id).disabled = false;
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
  if (state.client && state.client.events) state.client.events.close();
  if (state.pc) state.pc.close();
  if (state.recorder && state.recorder.state !== 'inactive') state.recorder.stop();
  state.client = null;
  state.session = null;
  state.pc = null;
  $('start').disabled = false;
  for (const id of ['stop', 'interrupt', 'text', 'send', 'file', 'record']) $(id).disabled = true;
  $('figures').textContent = 'no session';
}

async function stop() {
  const client = state.client;
  teardown();
  if (client) await client.close();
}

// Cuts the avatar off mid-sentence: what it was saying stops at the next frame.
async function interrupt() {
  if (!state.client) return;
  try {
    const cut = await state.client.interrupt();
    say(cut.interrupted ? `stopped after ${(cut.samples_played / 16000).toFixed(1)} s` : 'nothing to stop');
  } catch (error) {
    say('could not stop: ' + error.message);
  }
}

async function speak(blob) {
  if (!state.client) return;
  try {
    const { duration } = await state.client.speak(blob);
    say(`speaking ${duration.toFixed(1)} s`);
  } catch (error) {
    say('could not speak: ' + error.message);
  }
}

// The typed text, spoken with the avatar's voice; the box empties once the server took it.
async function sayText(event) {
  event.preventDefault();
  const text = $('text').value;
  if (!state.client || !text.trim()) return;
  try {
    const { duration } = await state.client.say(text);
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
$('interrupt').addEventListener('click', interrupt);
$('say').addEventListener('submit', sayText);
$('file').addEventListener('change', () => { if ($('file').files[0]) speak($('file').files[0]); });
$('record').addEventListener('click', () => record().catch((e) => say('microphone: ' + e.message)));
listAvatars().catch((error) => say('cannot list the avatars: ' + error.message));
