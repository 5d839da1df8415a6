// Sound against pictures where the viewer is, set beside what the server sent (its frame trace,
// LUMORA2_SERVE_TRACE): how much later than its sound a moment's picture is shown.
//
// Both are latencies on the page's clock, taken for the same moment of what was sent, so that
// neither the model (where the mouth opens) nor the measuring of a mouth enters them:
//   pictures  each presented frame's expected display time, less its time stamp as sent: the
//             frame is known by its RTP time, anchored once where the lower face's luma matches
//             the trace's best
//   sound     where the sound's energy, in 2 ms pieces as the browser hands it to its output
//             (a MediaStreamTrackProcessor on the received track), best matches the energy sent
//             frame by frame; the output's own latency (as the browser reports it, its
//             media-playout statistics) is added, so it is the sound as heard
// An offset above 0 is a picture shown after its sound is heard, below 0 one shown before.
//
// The offset is what the viewer gets; whether the server stamped its sound truly is a separate
// question, which the offset cannot answer (the browser plays the sound where its stamps say,
// and a constant error in them looks like a browser's own delay). The trace's RTP clock answers
// it: the sound's RTP times as the browser delivers them (getSynchronizationSources) name the
// moments the server stamped, and the energy says which moments they hold.

// In the page: records what the offsets need. `where` names the page's {video, stream, pc}.
export function installProbes(where) {
  const { video, stream, pc } = window[where];
  const canvas = document.createElement('canvas');
  canvas.width = 208;
  canvas.height = 90;
  const g = canvas.getContext('2d', { willReadFrequently: true });
  // Sound: one entry per block the output takes, [its time, then the energy of each 2 ms of it].
  const probe = { frames: [], blocks: [], stats: [] };
  window.avProbe = probe;
  // The lower face: the trace's grid cells in row 4, columns 1 and 2 of 416 x 720.
  const onFrame = (now, meta) => {
    g.drawImage(video, 104, 360, 208, 90, 0, 0, 208, 90);
    const px = g.getImageData(0, 0, 208, 90).data;
    let sum = 0;
    for (let i = 0; i < px.length; i += 4) sum += 0.299 * px[i] + 0.587 * px[i + 1] + 0.114 * px[i + 2];
    probe.frames.push({ t: meta.expectedDisplayTime, rtp: meta.rtpTimestamp, luma: sum / (px.length / 4) });
    video.requestVideoFrameCallback(onFrame);
  };
  video.requestVideoFrameCallback(onFrame);
  const reader = new MediaStreamTrackProcessor({ track: stream.getAudioTracks()[0] }).readable.getReader();
  (async () => {
    for (;;) {
      const { value, done } = await reader.read();
      if (done) break;
      const n = value.numberOfFrames, step = Math.round(value.sampleRate / 500);
      const samples = new Float32Array(n);
      value.copyTo(samples, { planeIndex: 0 });
      const block = [value.timestamp / 1000];
      for (let i = 0; i + step <= n; i += step) {
        let sq = 0;
        for (let j = i; j < i + step; ++j) sq += samples[j] * samples[j];
        block.push(sq / step);
      }
      probe.blocks.push(block);
      value.close();
    }
  })();
  // The sound's RTP time as the browser delivers it: each packet's time stamp, first seen, with
  // when the browser says it delivered it (getSynchronizationSources; packets are 40 ms, sampled
  // every 4 ms).
  probe.rtp = [];
  const audioReceiver = pc.getReceivers().find((r) => r.track && r.track.kind === 'audio');
  let lastRtp = null;
  setInterval(() => {
    for (const s of audioReceiver ? audioReceiver.getSynchronizationSources() : []) {
      if (s.rtpTimestamp === lastRtp) continue;
      lastRtp = s.rtpTimestamp;
      probe.rtp.push({ t: performance.now(), at: s.timestamp, rtp: s.rtpTimestamp });
    }
  }, 4);
  probe.inbound = async () => {
    const out = { t: performance.now() };
    (await pc.getStats()).forEach((r) => {
      if (r.type === 'inbound-rtp' || r.type === 'media-playout') out[r.type === 'media-playout' ? 'playout' : r.kind] = JSON.parse(JSON.stringify(r));
    });
    return out;
  };
  // Four times a second: the browser's buffer targets and what it did to the sound, to tell when
  // its synchronisation has settled and what it changed during a measurement.
  setInterval(async () => {
    const s = await probe.inbound();
    if (s.video && s.audio) {
      probe.stats.push({
        t: s.t, videoTarget: s.video.jitterBufferTargetDelay, videoCount: s.video.jitterBufferEmittedCount,
        audioTarget: s.audio.jitterBufferTargetDelay, audioCount: s.audio.jitterBufferEmittedCount,
        // Sound the browser made up (concealing missing packets, or to deepen its buffer) or
        // dropped (to shallow it), in samples at 48 kHz: each moves the sound, not the pictures.
        reshaped: s.audio.concealedSamples + s.audio.insertedSamplesForDeceleration +
          s.audio.removedSamplesForAcceleration,
        // The same, as how much later (in samples) it has made what follows sound.
        delayed: s.audio.concealedSamples + s.audio.insertedSamplesForDeceleration -
          s.audio.removedSamplesForAcceleration,
        playout: s.video.estimatedPlayoutTimestamp - s.audio.estimatedPlayoutTimestamp,
      });
    }
  }, 250);
}

// The page's records from `since` (page clock, ms) on, and the sound output's latency: the mean
// delay the browser reports between handing its sound to the output and playing it. Taking them
// costs the browser's processor a moment: best done when nothing is being measured.
export function collect(page, since) {
  return page.evaluate(async (t) => {
    const { playout } = await window.avProbe.inbound();
    return {
      frames: window.avProbe.frames.filter((f) => f.t >= t),
      blocks: window.avProbe.blocks.filter((b) => b[0] >= t),
      stats: window.avProbe.stats.filter((s) => s.t >= t),
      rtp: window.avProbe.rtp.filter((s) => s.t >= t),
      origin: performance.timeOrigin,
      outputLatency: playout && playout.totalSamplesCount ? playout.totalPlayoutDelay / playout.totalSamplesCount * 1000 : NaN,
    };
  }, since);
}

// Waits (at most `ms`) for sound above `level` (RMS) handed to the output after `since`.
export function soundAfter(page, since, level, ms = 20000) {
  return page.waitForFunction(([t, e]) => window.avProbe.blocks.some((b) => b[0] > t && b.slice(1).some((x) => x > e)),
    [since, level * level], { timeout: ms });
}

// Waits until the browser's jitter-buffer targets (sound and pictures, from sample to sample) have
// held within 10 ms for `calm` ms and it reshaped no sound meanwhile, for at most `most` ms.
// Returns how long it waited.
export async function settle(page, { calm = 6000, most = 20000 } = {}) {
  const start = Date.now();
  for (;;) {
    const quiet = await page.evaluate((span) => {
      const s = window.avProbe.stats;
      const recent = s.filter((x) => x.t >= s.at(-1).t - span);
      if (recent.length < 2 || s.at(-1).t - s[0].t < span) return false;
      const per = (x, y, key, count) => (y[key] - x[key]) / Math.max(1, y[count] - x[count]) * 1000;
      const targets = recent.slice(1).map((y, i) => [per(recent[i], y, 'videoTarget', 'videoCount'), per(recent[i], y, 'audioTarget', 'audioCount')]);
      const range = (k) => Math.max(...targets.map((v) => v[k])) - Math.min(...targets.map((v) => v[k]));
      return range(0) <= 10 && range(1) <= 10 && recent.at(-1).reshaped === recent[0].reshaped;
    }, calm).catch(() => false);
    if (quiet || Date.now() - start > most) return Date.now() - start;
    await new Promise((r) => setTimeout(r, 500));
  }
}

// The server's frame trace: one line per frame sent: session, index, time stamp (ms), sound RMS,
// then the mean luma of a 4 x 8 grid of the picture, row by row. Kept: the session, the time
// stamp, the RMS and the lower face (row 4, columns 1 and 2).
export function parseTrace(text) {
  return text.trim().split('\n').filter((line) => !line.startsWith('#')).map((line) => {
    const f = line.split(' ');
    return { id: f[0], pts: Number(f[2]), rms: Number(f[3]), luma: (Number(f[4 + 4 * 4 + 1]) + Number(f[4 + 4 * 4 + 2])) / 2 };
  });
}

// The trace's "#rtp SESSION BASE VIDEO AUDIO" lines: how each viewer's RTP times follow from the
// frames' time stamps (RTP = offset + (base + pts) * rate, modulo 2^32). The last one of `id`.
export function rtpClock(text, id) {
  const lines = text.split('\n').filter((line) => line.startsWith(`#rtp ${id} `));
  if (!lines.length) return null;
  const f = lines.at(-1).split(' ');
  return { base: Number(f[2]), video: Number(f[3]), audio: Number(f[4]) };
}

// The time stamp (ms) an RTP time names, at `rate` kHz with `offset`.
export const stampOf = (rtp, offset, rate, base) => ((rtp - offset) >>> 0) / rate - base;

// When (page clock) the browser delivered a sampled packet: its own time for it, given since the
// epoch (Chromium) or on the page's clock; when it is neither, when it was sampled.
const delivered = (r, origin) => (Math.abs(r.at - (origin + r.t)) < 1000 ? r.at - origin : Math.abs(r.at - r.t) < 1000 ? r.at : r.t);

// Windows (sent time stamps, ms) to measure in: one per sound that starts after 250 ms below
// `level`, from `before` ms ahead of it for `span` ms.
export function onsetWindows(sent, { level = 0.05, before = 300, span = 900 } = {}) {
  const windows = [];
  let lastLoud = -Infinity;
  for (const f of sent) {
    if (f.rms <= level) continue;
    if (f.pts - lastLoud >= 250) windows.push([f.pts - before, f.pts - before + span]);
    lastLoud = f.pts;
  }
  return windows;
}

const median = (xs) => {
  const s = xs.filter(Number.isFinite).sort((a, b) => a - b);
  return s.length ? s[Math.floor(s.length / 2)] : NaN;
};

// Pearson's correlation of pairs [x, y].
function correlation(pairs) {
  let n = 0, sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
  for (const [x, y] of pairs) {
    n++; sx += x; sy += y; sxx += x * x; syy += y * y; sxy += x * y;
  }
  const d = Math.sqrt((sxx - sx * sx / n) * (syy - sy * sy / n));
  return n > 2 && d > 0 ? (sxy - sx * sy / n) / d : NaN;
}

// The offsets, one per window: {at, picture, sound, offset, match, playout, stamped, stampError}
// where
// picture and sound are the latencies (ms, the page's clock less the sent time stamps), match how
// well the sound's energy matched (correlation, 1 at best), playout the difference the browser
// itself reports between the two tracks' playout (estimatedPlayoutTimestamp, pictures less sound,
// in the sender's time) and stamped the offset with that added: where the browser's
// synchronisation had got to cancels out of it, and what remains is what the time stamps put
// between sound and pictures (less a constant of the browser's own: its pictures' way from
// playout to screen against its sound's from playout to ear). stampError needs `clock` (the
// trace's rtpClock) and the page's sampled RTP times: how much later than the moment of the stream
// it holds the sound was stamped, as the browser received it (0 for true stamps, less the
// encoder's few ms). Throws when the frames cannot be matched to the trace.
export function offsets({ sent, frames, blocks, outputLatency, stats, rtp = [], origin = 0, clock = null }, windows) {
  // Frames by RTP time (90 kHz) relative to the middle one; the sent time stamp of that one is
  // the shift that makes the lower face's luma match the trace's best.
  const middle = frames[frames.length >> 1].rtp;
  const shown = frames.map((f) => ({ t: f.t, luma: f.luma, at: ((f.rtp - middle) | 0) / 90 }));
  const slot = (pts) => Math.round(pts / 25);  // frames are 50 ms apart
  const sentLuma = new Map(sent.map((f) => [slot(f.pts), f.luma]));
  let anchor = null;
  for (const { pts: shift } of sent) {
    const pairs = [];
    for (const f of shown) {
      const y = sentLuma.get(slot(f.at + shift));
      if (y !== undefined) pairs.push([f.luma, y]);
    }
    const r = pairs.length >= 100 ? correlation(pairs) : NaN;
    if (Number.isFinite(r) && (!anchor || r > anchor.r)) anchor = { r, shift };
  }
  if (!anchor || anchor.r < 0.9) throw new Error(`the frames shown do not match the frames sent (best correlation ${anchor ? anchor.r.toFixed(2) : 'none'})`);
  const pictures = shown.map((f) => ({ pts: f.at + anchor.shift, t: f.t }));

  const pieces = [];
  for (const [t, ...energies] of blocks) energies.forEach((e, i) => pieces.push({ t: t + 2 * i, e }));
  const first = (t) => {
    let lo = 0, hi = pieces.length;
    while (lo < hi) { const m = (lo + hi) >> 1; if (pieces[m].t < t) lo = m + 1; else hi = m; }
    return lo;
  };
  const energy = (t0, t1) => {
    let sum = 0, n = 0;
    for (let i = first(t0); i < pieces.length && pieces[i].t < t1; ++i) { sum += pieces[i].e; n++; }
    return n ? sum / n : NaN;
  };
  return windows.map(([from, to]) => {
    const picture = median(pictures.filter((f) => f.pts >= from && f.pts < to).map((f) => f.t - f.pts));
    const inside = sent.filter((f) => f.pts >= from && f.pts < to);
    let best = { match: NaN, sound: NaN };
    for (let lag = picture - 400; Number.isFinite(picture) && lag <= picture + 400; lag += 2) {
      const pairs = [];
      for (const f of inside) {
        const e = energy(f.pts + lag, f.pts + lag + 50);
        if (Number.isFinite(e)) pairs.push([f.rms * f.rms, e]);
      }
      const r = pairs.length >= inside.length - 1 ? correlation(pairs) : NaN;
      if (Number.isFinite(r) && !(r <= best.match)) best = { match: r, sound: lag };
    }
    const sound = best.sound + outputLatency;
    // The browser's playout difference over the window: the pictures' estimate steps a frame at a
    // time, so one sample is off by up to 50 ms; the mean of those taken while the window played
    // is not (the nearest sample where none was).
    const when = from + picture, until = to + picture;
    const during = stats.filter((x) => x.t >= when && x.t < until && Number.isFinite(x.playout));
    const near = stats.reduce((b, x) => (!b || Math.abs(x.t - when) < Math.abs(b.t - when) ? x : b), null);
    const playout = during.length ? during.reduce((a, x) => a + x.playout, 0) / during.length : near ? near.playout : NaN;
    // The sound's stamps against what it holds: for each packet the browser delivered in the
    // window, the time stamp its RTP time names less the moment of the stream it holds (its
    // delivery less the sound's latency, where the energy matched).
    let stampError = NaN;
    if (clock && Number.isFinite(best.sound)) {
      const inside = rtp.map((r) => ({ rtp: r.rtp, t: delivered(r, origin) })).filter((r) => r.t >= from + best.sound && r.t < to + best.sound);
      stampError = median(inside.map((r) => stampOf(r.rtp, clock.audio, 48, clock.base) - (r.t - best.sound)));
    }
    return { at: from, picture, sound, offset: picture - sound, match: best.match, playout, stamped: picture - sound + playout, stampError };
  });
}

// In the page: each shown frame's lower face (the region installProbes averages) against the
// frame before it, as the seam tests measure a step: the mean absolute luma difference per pixel.
// window.mouth gets {t (expected display time), rtp, step, luma}; a step is NaN where the frame
// before it was not shown.
export function installMouthSteps(where) {
  const { video } = window[where];
  const canvas = document.createElement('canvas');
  canvas.width = 208;
  canvas.height = 90;
  const g = canvas.getContext('2d', { willReadFrequently: true });
  let last = null, lastRtp = null;
  window.mouth = [];
  const onFrame = (now, meta) => {
    g.drawImage(video, 104, 360, 208, 90, 0, 0, 208, 90);
    const px = g.getImageData(0, 0, 208, 90).data;
    const luma = new Float32Array(px.length / 4);
    let sum = 0, step = 0;
    for (let i = 0; i < luma.length; ++i) {
      luma[i] = 0.299 * px[4 * i] + 0.587 * px[4 * i + 1] + 0.114 * px[4 * i + 2];
      sum += luma[i];
      if (last) step += Math.abs(luma[i] - last[i]);
    }
    // Frames are 4500 RTP ticks (50 ms at 90 kHz) apart: a larger gap is a frame not shown.
    const next = last && ((meta.rtpTimestamp - lastRtp) >>> 0) === 4500;
    window.mouth.push({ t: meta.expectedDisplayTime, rtp: meta.rtpTimestamp, step: next ? step / luma.length : NaN, luma: sum / luma.length });
    last = luma;
    lastRtp = meta.rtpTimestamp;
    video.requestVideoFrameCallback(onFrame);
  };
  video.requestVideoFrameCallback(onFrame);
}

// The spans of the received sound (collect()'s blocks) above `level` (RMS), as [from, to] on
// the page's clock, pieces less than `gap` ms apart joined.
export function soundSpans(blocks, level, gap = 100) {
  const spans = [];
  for (const [t, ...energies] of blocks) {
    energies.forEach((e, i) => {
      if (!(e > level * level)) return;
      const at = t + 2 * i, last = spans.at(-1);
      if (last && at - last[1] <= gap) last[1] = at + 2;
      else spans.push([at, at + 2]);
    });
  }
  return spans;
}
