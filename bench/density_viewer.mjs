// One Chromium viewer among bench/serve_density.sh's light receivers: it watches a session as the
// live page does (both tracks on one <video>, decoded and shown) and reports what the browser
// saw. Each line read on stdin asks for a sample; each answer is one JSON line on stdout:
// {t (ms), decoded (frames), freezes, freeze_ms, dropped, lost}. Ends when stdin closes, or after
// 15 minutes.
//   node bench/density_viewer.mjs <server base URL> <the session's WHEP URL>
import { createInterface } from 'node:readline';
import { CHROMIUM, launchBrowser, playwright, receive } from '../tests/serve/browser/viewer.mjs';
import { existsSync } from 'node:fs';

const [base, whep] = process.argv.slice(2);
if (!base || !whep) {
  console.error('usage: node bench/density_viewer.mjs <base URL> <WHEP URL>');
  process.exit(2);
}
if (!playwright() || !existsSync(CHROMIUM)) {
  console.error('needs playwright-core and ' + CHROMIUM);
  process.exit(77);
}
const browser = await launchBrowser();
const deadline = setTimeout(() => browser.close().finally(() => process.exit(0)), 15 * 60 * 1000);
try {
  const page = await browser.newPage();
  await page.goto(base + '/');
  await receive(page, whep);
  console.log(JSON.stringify({ connected: true }));
  const lines = createInterface({ input: process.stdin });
  for await (const _ of lines) {
    const sample = await page.evaluate(async () => {
      let v = {};
      (await window.viewer.pc.getStats()).forEach((r) => { if (r.type === 'inbound-rtp' && r.kind === 'video') v = r; });
      return { t: performance.now(), decoded: v.framesDecoded || 0, freezes: v.freezeCount || 0,
        freeze_ms: 1000 * (v.totalFreezesDuration || 0), dropped: v.framesDropped || 0, lost: v.packetsLost || 0 };
    });
    console.log(JSON.stringify(sample));
  }
} catch (error) {
  console.log(JSON.stringify({ error: error.message }));
} finally {
  clearTimeout(deadline);
  await browser.close();
}
