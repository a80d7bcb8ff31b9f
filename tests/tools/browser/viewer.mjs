// The viewer in headless Chromium: the timeline renders, a click on a
// recorded span plays from that second (the video's clock advances), a click
// on an event plays from a few seconds before it; a screenshot is kept.
//   node viewer.mjs URL CHROMIUM SCREENSHOT.png
import puppeteer from 'puppeteer-core';

const [url, chromium, shot] = process.argv.slice(2);
const fail = (why) => { console.error('FAIL: ' + why); process.exitCode = 1; };

const browser = await puppeteer.launch({
  executablePath: chromium,
  headless: true,
  args: [...(process.getuid() === 0 ? ['--no-sandbox'] : []),
    '--autoplay-policy=no-user-gesture-required', '--mute-audio', '--window-size=1280,900'],
  defaultViewport: { width: 1280, height: 900 },
});
try {
  const page = await browser.newPage();
  const errors = [];
  page.on('pageerror', (e) => errors.push(e.message));
  page.on('console', (m) => { if (m.type() === 'error') errors.push(m.text()); });
  await page.goto(url, { waitUntil: 'load' });
  await page.waitForSelector('#timeline rect.span[data-ch="1"]', { timeout: 10000 });
  const spans = await page.$$eval('#timeline rect.span', (r) => r.length);
  const marks = await page.$$eval('#timeline [data-event]', (r) => r.length);
  if (marks === 0) fail('no event marks on the timeline');

  // A click a quarter into ch 1's first span.
  const box = await (await page.$('#timeline rect.span[data-ch="1"]')).boundingBox();
  const clicked = Date.now();
  await page.mouse.click(box.x + box.width / 4, box.y + box.height / 2);
  await page.waitForFunction(() => document.getElementById('video').currentTime > 0, { timeout: 10000 });
  const firstFrameMs = Date.now() - clicked;
  await page.waitForFunction(() => document.getElementById('video').currentTime > 1.5, { timeout: 10000 });
  const clock = await page.$eval('#clock', (e) => e.textContent);
  if (!/^ch 1 {2}\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$/.test(clock)) fail('the clock reads ' + clock);
  const cursor = await page.$('#cursor');
  if (!cursor) fail('no cursor on the timeline while playing');
  await page.screenshot({ path: shot });

  // An event of an H.264 channel (1-4) in the list: playback from 5 s before it.
  const picked = await page.$$eval('#events tbody tr', (rows) => {
    const i = rows.findIndex((r) => Number(r.cells[1].textContent) >= 1 && Number(r.cells[1].textContent) <= 4);
    return i < 0 ? null : { i, ch: Number(rows[i].cells[1].textContent) };
  });
  if (!picked) fail('no event of ch 1-4 listed');
  else {
    const ev = await page.evaluate((i) => state.events[i], picked.i);
    await page.click(`#events tbody tr:nth-child(${picked.i + 1})`);
    await page.waitForFunction((sec) => state.play && Math.abs(state.play.start - (sec - 5)) <= 1 &&
      document.getElementById('video').currentTime > 0.5, { timeout: 10000 }, ev.sec);
    const p = await page.evaluate(() => state.play);
    if (p.ch !== picked.ch) fail(`the event of ch ${picked.ch} played ch ${p.ch}`);
  }
  if (errors.length) fail('page errors: ' + errors.join('; '));
  console.log(`viewer: ${spans} spans, ${marks} event marks; click to first frame ${firstFrameMs} ms`);
} catch (e) {
  fail(e.message);
} finally {
  await browser.close();
}
