// The viewer: a day's timeline per channel from /api/spans, events from
// /api/events, playback from /api/play (fragmented MP4) in a <video>.
'use strict';
const $ = (id) => document.getElementById(id);
const NS = 'http://www.w3.org/2000/svg';
const CHANNELS = 16, LEFT = 44, TOP = 22, ROW = 22;
const KEY_FRAME_SECONDS = 0.2; // how long the server shows a key frame in key-frame play
const state = { offset: 0, day: null, spans: [], events: [], view: [0, 86400], play: null };

function setStatus(text) { $('status').textContent = text; }

async function api(path) {
  const res = await fetch(path);
  const body = await res.json();
  if (!res.ok) throw new Error(body.error || res.statusText);
  return body;
}

// Local wall-clock time of the store's zone.
function clock(sec, withDate) {
  const iso = new Date((sec + state.offset) * 1000).toISOString();
  return withDate ? iso.slice(0, 10) + ' ' + iso.slice(11, 19) : iso.slice(11, 19);
}

async function loadDays() {
  const data = await api('/api/days');
  state.offset = data.offset;
  const sel = $('day');
  sel.innerHTML = '';
  for (const d of data.days) sel.add(new Option(d.day, d.day));
  if (!data.days.length) { setStatus('nothing recorded yet'); return; }
  sel.value = data.days[data.days.length - 1].day;
  await loadDay();
}

async function loadDay() {
  const data = await api('/api/spans?day=' + $('day').value);
  state.day = data;
  state.spans = data.channels;
  let lo = Infinity, hi = -Infinity;
  for (const c of data.channels) for (const s of c.spans) { lo = Math.min(lo, s[0]); hi = Math.max(hi, s[1]); }
  state.view = lo < hi ? [lo - 30, hi + 30] : [data.start, data.end];
  await loadEvents();
}

async function loadEvents() {
  const d = state.day;
  const data = await api(`/api/events?from=${d.start}&to=${d.end - 1}&limit=5000&type=${$('type').value}`);
  state.events = data.events;
  const body = $('events').tBodies[0];
  body.innerHTML = '';
  for (const e of data.events) {
    const tr = body.insertRow();
    tr.insertCell().textContent = clock(e.sec);
    tr.insertCell().textContent = e.ch;
    tr.insertCell().textContent = e.type;
    tr.onclick = () => playEvent(e);
  }
  draw();
}

function el(name, attrs, parent) {
  const n = document.createElementNS(NS, name);
  for (const k in attrs) n.setAttribute(k, attrs[k]);
  parent.appendChild(n);
  return n;
}

function xOf(sec, width) { return LEFT + (sec - state.view[0]) / (state.view[1] - state.view[0]) * (width - LEFT - 4); }
function secOf(x, width) { return state.view[0] + (x - LEFT) / (width - LEFT - 4) * (state.view[1] - state.view[0]); }

function draw() {
  const svg = $('timeline');
  const width = svg.clientWidth || 800;
  svg.innerHTML = '';
  const [v0, v1] = state.view;
  const steps = [10, 30, 60, 300, 600, 1800, 3600, 7200, 10800];
  const step = steps.find((s) => (v1 - v0) / s <= 12) || 21600;
  for (let t = Math.ceil((v0 + state.offset) / step) * step - state.offset; t <= v1; t += step) {
    const x = xOf(t, width);
    el('line', { class: 'tick', x1: x, x2: x, y1: TOP - 4, y2: TOP + CHANNELS * ROW }, svg);
    el('text', { class: 'ticklabel', x: x + 2, y: TOP - 8 }, svg).textContent = clock(t).slice(0, step < 60 ? 8 : 5);
  }
  for (const c of state.spans) {
    const g = el('g', { class: 'row' }, svg);
    const y = TOP + (c.ch - 1) * ROW;
    el('rect', { class: 'lane', x: LEFT, y, width: width - LEFT - 4, height: ROW - 4, 'data-ch': c.ch }, g);
    el('text', { class: 'label', x: 4, y: y + 13 }, g).textContent = 'ch ' + c.ch;
    for (const [a, b] of c.spans) {
      if (b < v0 || a > v1) continue;
      const x0 = Math.max(LEFT, xOf(a, width)), x1 = Math.min(width - 4, xOf(b, width));
      el('rect', { class: 'span', x: x0, y: y + 2, width: Math.max(1, x1 - x0), height: ROW - 8, 'data-ch': c.ch }, g);
    }
  }
  for (const e of state.events) {
    if (e.sec < v0 || e.sec > v1) continue;
    const row = e.ch >= 1 && e.ch <= CHANNELS ? e.ch : 1;
    const kind = ['motion', 'alarm', 'manual'].includes(e.type) ? e.type : 'other';
    const m = el('rect', { class: 'ev-' + kind, x: xOf(e.sec, width) - 1.5, y: TOP + (row - 1) * ROW + ROW - 7, width: 3, height: 6 }, svg);
    m.dataset.event = state.events.indexOf(e);
    el('title', {}, m).textContent = `${clock(e.sec)} ch ${e.ch} ${e.type}`;
  }
  const now = currentTime();
  if (now !== null && now >= v0 && now <= v1) {
    const x = xOf(now, width);
    el('line', { class: 'cursor', id: 'cursor', x1: x, x2: x, y1: TOP - 4, y2: TOP + CHANNELS * ROW }, svg);
  }
}

// The recorded second on screen: exact in forward play, estimated from the
// key-frame rate in key-frame play.
function currentTime() {
  const p = state.play;
  if (!p) return null;
  const t = $('video').currentTime;
  if (p.mode === 'normal' || p.mode === 'live') return p.start + t;
  const secs = t / KEY_FRAME_SECONDS;
  return p.mode === 'back' ? p.start - secs : p.start + secs;
}

async function play(ch, from, mode) {
  mode = mode || 'normal';
  from = Math.floor(from);
  $('channel').value = ch;
  const q = `ch=${ch}&from=${from}` + (mode === 'back' ? '&dir=back' : '') + (mode === 'keys' ? '&keys=1' : '');
  try {
    const at = await api('/api/locate?' + q);
    state.play = { ch, mode, start: at.sec + at.ms / 1000 };
    const video = $('video');
    video.src = '/api/play?' + q;
    await video.play().catch(() => {});
    const how = { normal: '', live: ' (live)', keys: ' (key frames)', back: ' (key frames backward)' }[mode];
    setStatus(`ch ${ch} from ${clock(at.sec, true)}${how}`);
  } catch (err) {
    setStatus(err.message);
  }
}

function playEvent(e) {
  const ch = e.ch >= 1 && e.ch <= CHANNELS ? e.ch : Number($('channel').value);
  play(ch, e.sec - 5, 'normal');
}

function zoom(factor, around) {
  const [v0, v1] = state.view;
  const c = around !== undefined ? around : (currentTime() ?? (v0 + v1) / 2);
  const half = Math.max(30, (v1 - v0) * factor / 2);
  state.view = [c - half, c + half];
  draw();
}

function init() {
  for (let ch = 1; ch <= CHANNELS; ++ch) $('channel').add(new Option(ch, ch));
  $('day').onchange = () => loadDay().catch((e) => setStatus(e.message));
  $('type').onchange = () => loadEvents().catch((e) => setStatus(e.message));
  $('zoom-in').onclick = () => zoom(0.25);
  $('zoom-out').onclick = () => zoom(4);
  $('zoom-all').onclick = () => { state.view = [state.day.start, state.day.end]; draw(); };
  const svg = $('timeline');
  svg.addEventListener('click', (ev) => {
    const r = svg.getBoundingClientRect();
    const x = ev.clientX - r.left, y = ev.clientY - r.top;
    if (ev.target.dataset.event !== undefined) return playEvent(state.events[ev.target.dataset.event]);
    const ch = Math.floor((y - TOP) / ROW) + 1;
    if (x < LEFT || ch < 1 || ch > CHANNELS) return;
    play(ch, secOf(x, r.width), 'normal');
  });
  svg.addEventListener('wheel', (ev) => {
    ev.preventDefault();
    const r = svg.getBoundingClientRect();
    zoom(ev.deltaY < 0 ? 0.5 : 2, secOf(ev.clientX - r.left, r.width));
  }, { passive: false });
  const here = () => currentTime() ?? state.view[0];
  $('back').onclick = () => play(Number($('channel').value), here(), 'back');
  $('keys').onclick = () => play(Number($('channel').value), here(), 'keys');
  $('normal').onclick = () => play(Number($('channel').value), here(), 'normal');
  $('live').onclick = () => play(Number($('channel').value), Date.now() / 1000 - 5, 'live');
  $('video').addEventListener('timeupdate', () => {
    const t = currentTime();
    if (t === null) return;
    $('clock').textContent = 'ch ' + state.play.ch + '  ' + clock(Math.floor(t), true);
    draw();
  });
  window.addEventListener('resize', draw);
  loadDays().catch((e) => setStatus(e.message));
}

init();
