// The viewer in headless Chromium, on the demo's store served in a zone with
// summer time (the test runs in November; the store's day is in June):
//   - times on the page are those of their own day's offset;
//   - a click on a span plays from that second, an event from 5 s before;
//   - failures show: a play refused for want of streams leaves a notice and
//     no stream; channels the browser cannot play are marked;
//   - speed 4x advances four seconds a second; key-frame play shows its first
//     frame about as fast as normal play; a 2x2 grid plays in step;
//   - a range dragged on the timeline downloads as an MP4 named after it;
//   - the page refreshes while recording and Live starts at the newest frame;
//   - shortcuts; a screenshot of the grid is kept.
//   node viewer.mjs URL CHROMIUM SCREENSHOT.png [RECORD-COMMAND...]
import puppeteer from 'puppeteer-core';
import { execFileSync } from 'node:child_process';
import http from 'node:http';

const [url, chromium, shot, ...record] = process.argv.slice(2);
const fail = (why) => { console.error('FAIL: ' + why); process.exitCode = 1; };
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

const browser = await puppeteer.launch({
  executablePath: chromium,
  headless: true,
  args: [...(process.getuid() === 0 ? ['--no-sandbox'] : []),
    '--autoplay-policy=no-user-gesture-required', '--mute-audio', '--window-size=1280,1040'],
  defaultViewport: { width: 1280, height: 1040 },
});
const figures = [];
try {
  const page = await browser.newPage();
  const errors = [];
  page.on('pageerror', (e) => errors.push(e.message));
  page.on('console', (m) => { if (m.type() === 'error' && !/503|Service Unavailable/.test(m.text())) errors.push(m.text()); });
  await page.goto(url, { waitUntil: 'load' });
  await page.waitForSelector('#timeline rect.span[data-ch="1"]', { timeout: 10000 });
  await page.waitForSelector('#events tbody tr', { timeout: 10000 });
  const marks = await page.$$eval('#timeline [data-event]', (r) => r.length);
  if (marks === 0) fail('no event marks on the timeline');

  // The events list shows the server's local times of the June day.
  const listed = await page.$eval('#events tbody tr td', (td) => td.textContent);
  const served = await page.evaluate(async () => {
    const d = state.day;
    return (await (await fetch(`/api/events?from=${d.start}&limit=1`)).json()).events[0].time;
  });
  if (listed !== served.slice(11, 19)) fail(`the first event is listed at ${listed}, the server says ${served}`);
  // Synthetic channels are marked as not playable.
  if (!(await page.$('#timeline g.row.unplayable'))) fail('no channel marked as not playable');

  const playing = (min) => page.waitForFunction((m) => document.getElementById('video').currentTime > m,
    { timeout: 10000 }, min);
  // (the widest span of the channel; the timeline is drawn anew four times a
  // second: its box, not its node, taken once it has stayed where it is for a
  // tenth of a second)
  const spanBox = async (ch) => {
    let last = null;
    for (let i = 0; i < 30; ++i) {
      const b = await page.$$eval(`#timeline rect.span[data-ch="${ch}"]`, (rects) => {
        const boxes = rects.map((r) => r.getBoundingClientRect());
        const b = boxes.reduce((w, x) => (x.width > w.width ? x : w)); // the widest span
        return { x: b.x, y: b.y, width: b.width, height: b.height };
      });
      if (last && JSON.stringify(b) === JSON.stringify(last)) return b;
      last = b;
      await sleep(100);
    }
    return last;
  };
  // Nothing plays, and a play still on its way (a grid change starts one)
  // does not start after all.
  const stopped = () => page.evaluate(() => { state.playing = null; stopAll(); state.play = null; });
  const clickSpan = async (ch, at) => {
    const box = await spanBox(ch);
    await page.mouse.click(box.x + box.width * at, box.y + box.height / 2);
  };
  // Click to the first frame on screen (the element has a picture).
  const firstFrame = async (how) => {
    await stopped();
    const t0 = Date.now();
    await how();
    await page.waitForFunction(() => state.play && document.getElementById('video').readyState >= 2,
      { timeout: 10000 });
    return Date.now() - t0;
  };
  const released = () => page.waitForFunction(async () => (await (await fetch('/api/streams')).json()).used === 0,
    { timeout: 10000, polling: 200 }).catch(() => fail('the streams the page stopped were not given back'));

  // Normal play from a click, then key-frame play.
  const normalMs = await firstFrame(() => clickSpan(1, 0.25));
  figures.push(`first frame ${normalMs} ms`);
  await playing(1.5);
  const clock = await page.$eval('#clock', (e) => e.textContent);
  if (!/^ch 1 {2}\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$/.test(clock)) fail('the clock reads ' + clock);
  if (!(await page.$('#cursor'))) fail('no cursor on the timeline while playing');
  const keysMs = await firstFrame(() => page.click('#keys'));
  figures.push(`key frames ${keysMs} ms`);
  if (keysMs > 2 * normalMs + 300) fail(`key-frame play showed its first frame after ${keysMs} ms, normal play after ${normalMs} ms`);

  // 4x: four recorded seconds a second (measured over two).
  await page.select('#speed', '4');
  await clickSpan(2, 0.1);
  await playing(0.2);
  const r0 = await page.evaluate(() => [currentTime(), performance.now()]);
  await sleep(2000);
  const r1 = await page.evaluate(() => [currentTime(), performance.now()]);
  const rate = (r1[0] - r0[0]) / ((r1[1] - r0[1]) / 1000);
  figures.push(`4x plays at ${rate.toFixed(2)}x`);
  if (rate < 3.4) fail(`4x advanced at ${rate.toFixed(2)}x`);
  await page.select('#speed', '1');

  // An event in the list plays from 5 s before it.
  const picked = await page.$$eval('#events tbody tr', (rows) =>
    rows.findIndex((r) => Number(r.cells[1].textContent) >= 1 && Number(r.cells[1].textContent) <= 4));
  if (picked < 0) fail('no event of ch 1-4 listed');
  else {
    const ev = await page.evaluate((i) => state.events[i], picked);
    await page.click(`#events tbody tr:nth-child(${picked + 1})`);
    await page.waitForFunction((sec) => state.play && Math.abs(state.cells[0].start - (sec - 5)) <= 1 &&
      document.getElementById('video').currentTime > 0.5, { timeout: 10000 }, ev.sec);
    if ((await page.evaluate(() => state.play.ch)) !== ev.ch) fail(`the event of ch ${ev.ch} played another channel`);
  }

  // All the server's places taken by another client: the play is refused,
  // said so, and nothing plays under the new status.
  await stopped();
  await released();
  const held = [];
  const { max } = await page.evaluate(async () => (await fetch('/api/streams')).json());
  for (let i = 0; i < max; ++i) {
    held.push(await new Promise((resolve) => {
      const req = http.get(`${url}api/play?ch=${1 + (i % 4)}&from=2024-06-14T11:00:00`, resolve);
      req.on('error', () => resolve(null));
    }));
  }
  // (started as the buttons start it: the clicks are the steps above; the page
  // asks four times more over five seconds before it gives up)
  await page.evaluate(() => play(3, state.day.start + 11 * 3600, 'normal'));
  const refused = await page.waitForFunction(
    () => /streams of the server are in use/.test(document.getElementById('notices').textContent),
    { timeout: 20000 }).then(() => true, () => false);
  const after = await page.evaluate(async () => [document.getElementById('status').textContent,
    document.getElementById('video').getAttribute('src'), document.getElementById('notices').textContent,
    JSON.stringify(await (await fetch('/api/streams')).json())]);
  if (!refused) fail(`no notice of a refused play: status "${after[0]}", notices "${after[2]}", streams ${after[3]}`);
  if (after[0] !== 'stopped' || after[1]) fail(`a refused play left status "${after[0]}" and src ${after[1]}`);
  for (const res of held) if (res) res.destroy();
  await released();
  await page.evaluate(() => { document.getElementById('notices').innerHTML = ''; });

  // A 2x2 grid from ch 1, in step.
  await page.select('#grid', '2');
  await clickSpan(1, 0.3);
  await page.waitForFunction(() => state.cells.length === 4 && state.cells.every((c) => c.video.currentTime > 2),
    { timeout: 15000 }).catch(() => fail('the 2x2 grid did not play'));
  const spread = await page.evaluate(() => {
    const t = state.cells.map(cellTime);
    return Math.max(...t) - Math.min(...t);
  });
  if (spread > 1) fail(`the grid's cells ${spread.toFixed(2)} s apart`);
  await page.mouse.move(700, 120);
  await page.screenshot({ path: shot });

  // Shortcuts: space pauses, + doubles the speed.
  await page.keyboard.press('Space');
  if (!(await page.evaluate(() => state.cells.every((c) => c.video.paused)))) fail('space did not pause');
  await page.keyboard.press('+');
  if ((await page.evaluate(() => state.speed)) !== 2) fail('+ did not raise the speed');
  await page.select('#grid', '1');
  await stopped();
  await released();

  // A range dragged on ch 1's span: a clip of it.
  const box = await spanBox(1);
  await page.mouse.move(box.x + box.width * 0.2, box.y + 5);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width * 0.2 + Math.max(40, box.width * 0.2), box.y + 5, { steps: 5 });
  await page.mouse.up();
  const clip = await page.$eval('#clip', (a) => (a.hidden ? null : a.href));
  if (!clip) {
    fail('no clip offered for a dragged range: ' + await page.evaluate((x, y) => {
      const at = document.elementFromPoint(x, y);
      return `drag ${JSON.stringify(state.drag)}, selection ${JSON.stringify(state.selection)}, ` +
        `under the pointer ${at ? at.tagName + '.' + at.getAttribute('class') : 'nothing'}`;
    }, box.x + box.width * 0.2, box.y + 5));
  } else {
    const got = await page.evaluate(async (u) => {
      const r = await fetch(u);
      return { status: r.status, type: r.headers.get('content-type'), name: r.headers.get('content-disposition'), size: (await r.arrayBuffer()).byteLength };
    }, clip);
    if (got.status !== 200 || got.type !== 'video/mp4' || got.size < 1000 ||
        !/filename="vrixdb-ch1-20240614T\d{6}-20240614T\d{6}\.mp4"/.test(got.name)) fail('the clip: ' + JSON.stringify(got));
  }

  // A recording now: the page's refresh shows the new day, Live starts at
  // its newest frame.
  if (record.length) {
    execFileSync(record[0], record.slice(1), { stdio: 'ignore' });
    await page.evaluate(() => refresh());
    const newest = await page.evaluate(() => state.days[state.days.length - 1].day);
    if (await page.$eval('#day', (s) => s.value) !== newest || newest === '2024-06-14') fail('the refresh did not show the new day ' + newest);
    if (!(await page.$('#timeline rect.span[data-ch="5"]'))) fail('the new recording of ch 5 is not on the timeline');
    // (the recording's last second lies a little ahead of the clock)
    const newestFrame = () => page.evaluate(async () => (await (await fetch('/api/locate?ch=5&from=now&dir=back')).json()).sec);
    const before = await newestFrame();
    await page.select('#channel', '5');
    await page.click('#live');
    await page.waitForFunction(() => state.play && state.play.mode === 'live', { timeout: 10000 });
    const from = await page.evaluate(() => state.play.from);
    const after = await newestFrame();
    if (from < before || from > after) fail(`live started at ${from}, the newest key frame was at ${before}..${after}`);
  }
  if (errors.length) fail('page errors: ' + errors.join('; '));
  console.log(`viewer: ${marks} event marks; ${figures.join(', ')}`);
} catch (e) {
  fail(e.message);
} finally {
  await browser.close();
}
