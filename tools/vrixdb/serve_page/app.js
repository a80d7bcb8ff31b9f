// The viewer: a day's timeline per channel from /api/spans, events from
// /api/events, playback from /api/play (fragmented MP4) in one <video> per
// cell of the grid, all started from one recorded second.
'use strict';
const $ = (id) => document.getElementById(id);
const NS = 'http://www.w3.org/2000/svg';
const CHANNELS = 16, LEFT = 44, TOP = 22, ROW = 22;
const KEY_FRAME_SECONDS = 0.2; // how long the server shows a key frame in key-frame play
const EVENT_PAGE = 500;
const REFRESH_MS = 10000; // the day list and the newest day's spans while recording
const state = {
  days: [], day: null, offsets: [[0, 0]], spans: [], events: [], more: false,
  view: [0, 86400], play: null, speed: 1, cells: [], drag: null, playable: {},
};

function setStatus(text) { $('status').textContent = text; }

// A notice stays on the page until closed; the same text is shown once.
function notice(text) {
  for (const n of $('notices').children) if (n.dataset.text === text) return;
  const n = document.createElement('div');
  n.className = 'notice';
  n.dataset.text = text;
  n.textContent = text;
  const x = document.createElement('button');
  x.textContent = '×';
  x.title = 'Dismiss';
  x.onclick = () => n.remove();
  n.appendChild(x);
  $('notices').appendChild(n);
}

async function api(path) {
  const res = await fetch(path);
  const body = await res.json();
  if (!res.ok) {
    const e = new Error(body.error || res.statusText);
    e.status = res.status;
    throw e;
  }
  return body;
}

// The offset from UTC in force at `sec` on the day shown (the server lists
// each change of the day); an instant of another day brings its own.
function offsetAt(sec) {
  let off = state.offsets[0][1];
  for (const [since, o] of state.offsets) if (sec >= since) off = o;
  return off;
}

// Local wall-clock time of the store's zone.
function clock(sec, withDate, offset) {
  const off = offset ?? offsetAt(sec);
  const iso = new Date((sec + off) * 1000).toISOString();
  return withDate ? iso.slice(0, 10) + ' ' + iso.slice(11, 19) : iso.slice(11, 19);
}

function reportUnreadable(list) {
  for (const path of list || []) notice(`unreadable index: ${path} (vrixdb repair may set it right)`);
}

async function loadDays(keepDay) {
  const data = await api('/api/days');
  reportUnreadable(data.unreadable);
  const sel = $('day');
  const was = sel.value;
  const names = data.days.map((d) => d.day).join();
  if (names !== state.days.map((d) => d.day).join()) {
    state.days = data.days;
    sel.innerHTML = '';
    for (const d of data.days) sel.add(new Option(d.day, d.day));
  }
  if (!data.days.length) { setStatus('nothing recorded yet'); return; }
  sel.value = keepDay && was ? was : data.days[data.days.length - 1].day;
  if (!keepDay) await loadDay();
}

async function loadDay(keepView) {
  const data = await api('/api/spans?day=' + $('day').value);
  reportUnreadable(data.unreadable);
  state.day = data;
  state.offsets = data.offsets;
  state.spans = data.channels;
  for (const c of data.channels) {
    if (c.playable === false) state.playable[c.ch] = false;
    else if (c.playable) state.playable[c.ch] = true;
  }
  if (!keepView) {
    let lo = Infinity, hi = -Infinity;
    for (const c of data.channels) for (const s of c.spans) { lo = Math.min(lo, s[0]); hi = Math.max(hi, s[1]); }
    state.view = lo < hi ? [lo - 30, hi + 30] : [data.start, data.end];
  }
  await loadEvents();
}

// The events of the day shown, a page at a time ("more" asks for the next).
async function loadEvents(append) {
  const d = state.day;
  const from = append && state.events.length ? state.events[state.events.length - 1].sec + 1 : d.start;
  const data = await api(`/api/events?from=${from}&to=${d.end - 1}&limit=${EVENT_PAGE}&type=${$('type').value}`);
  state.events = append ? state.events.concat(data.events) : data.events;
  state.more = data.more;
  const body = $('events').tBodies[0];
  if (!append) body.innerHTML = '';
  for (const e of data.events) {
    const tr = body.insertRow();
    tr.insertCell().textContent = clock(e.sec, false, e.offset);
    tr.insertCell().textContent = e.ch;
    tr.insertCell().textContent = e.type;
    tr.onclick = () => playEvent(e);
  }
  $('more').hidden = !data.more;
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
  // Ticks on the local clock's round times (each at the offset in force there).
  for (let t = Math.ceil((v0 + offsetAt(v0)) / step) * step - offsetAt(v0); t <= v1; t += step) {
    const x = xOf(t, width);
    el('line', { class: 'tick', x1: x, x2: x, y1: TOP - 4, y2: TOP + CHANNELS * ROW }, svg);
    el('text', { class: 'ticklabel', x: x + 2, y: TOP - 8 }, svg).textContent = clock(t).slice(0, step < 60 ? 8 : 5);
  }
  for (const c of state.spans) {
    const g = el('g', { class: 'row' + (state.playable[c.ch] === false ? ' unplayable' : '') }, svg);
    const y = TOP + (c.ch - 1) * ROW;
    el('rect', { class: 'lane', x: LEFT, y, width: width - LEFT - 4, height: ROW - 4, 'data-ch': c.ch }, g);
    const label = el('text', { class: 'label', x: 4, y: y + 13 }, g);
    label.textContent = 'ch ' + c.ch;
    if (state.playable[c.ch] === false) el('title', {}, label).textContent = 'not H.264: the browser cannot play it';
    for (const [a, b] of c.spans) {
      if (b < v0 || a > v1) continue;
      const x0 = Math.max(LEFT, xOf(a, width)), x1 = Math.min(width - 4, xOf(b, width));
      el('rect', { class: 'span', x: x0, y: y + 2, width: Math.max(1, x1 - x0), height: ROW - 8, 'data-ch': c.ch }, g);
    }
  }
  state.events.forEach((e, i) => {
    if (e.sec < v0 || e.sec > v1) return;
    const row = e.ch >= 1 && e.ch <= CHANNELS ? e.ch : 1;
    const kind = ['motion', 'alarm', 'manual'].includes(e.type) ? e.type : 'other';
    const m = el('rect', { class: 'ev-' + kind, x: xOf(e.sec, width) - 1.5, y: TOP + (row - 1) * ROW + ROW - 7, width: 3, height: 6 }, svg);
    m.dataset.event = i;
    el('title', {}, m).textContent = `${clock(e.sec, false, e.offset)} ch ${e.ch} ${e.type}`;
  });
  if (state.drag && state.drag.moved) {
    const [a, b] = [state.drag.from, state.drag.to].sort((p, q) => p - q);
    el('rect', { class: 'selection', id: 'selection', x: xOf(a, width), y: TOP - 4, width: Math.max(1, xOf(b, width) - xOf(a, width)), height: CHANNELS * ROW + 4 }, svg);
  }
  const now = currentTime();
  if (now !== null && now >= v0 && now <= v1) {
    const x = xOf(now, width);
    el('line', { class: 'cursor', id: 'cursor', x1: x, x2: x, y1: TOP - 4, y2: TOP + CHANNELS * ROW }, svg);
  }
}

// The recorded second on screen (of the grid's first cell): exact in forward
// play, from the key frames' spacing in key-frame play.
function currentTime() {
  const p = state.play;
  if (!p || !state.cells.length) return null;
  return cellTime(state.cells[0]);
}
function cellTime(cell) {
  const p = state.play;
  if (!p || cell.start === undefined) return null;
  const t = cell.video.currentTime;
  if (p.mode === 'normal' || p.mode === 'live') return cell.start + t;
  if (p.mode === 'fast') return cell.start + t * p.speed;
  const secs = t / KEY_FRAME_SECONDS;
  return p.mode === 'back' ? cell.start - secs : cell.start + secs;
}

// The channels the grid shows: the chosen one first, then the next ones.
function gridChannels(ch) {
  const n = Number($('grid').value) ** 2;
  const list = [];
  for (let i = 0; i < n; ++i) list.push(((ch - 1 + i) % CHANNELS) + 1);
  return list;
}

function stopAll() {
  for (const c of state.cells) {
    c.video.pause();
    c.video.removeAttribute('src');
    c.video.load(); // the old stream's connection closes, its place on the server is free
  }
}

function buildGrid(channels) {
  const box = $('videos');
  box.innerHTML = '';
  box.style.gridTemplateColumns = `repeat(${Math.sqrt(channels.length)}, 1fr)`;
  state.cells = channels.map((ch) => {
    const v = document.createElement('video');
    v.muted = true;
    v.playsInline = true;
    v.dataset.ch = ch;
    v.style.maxHeight = `${Math.floor(440 / Math.sqrt(channels.length))}px`;
    const wrap = document.createElement('div');
    wrap.className = 'cell';
    const cap = document.createElement('span');
    cap.className = 'caption';
    cap.textContent = 'ch ' + ch;
    wrap.append(v, cap);
    box.appendChild(wrap);
    return { ch, video: v, caption: cap };
  });
  if (state.cells.length) state.cells[0].video.id = 'video';
}

// Plays from `from` (seconds, or 'now': the newest recorded frame) in the
// mode given, on the grid of channels that starts with `ch`.
async function play(ch, from, mode) {
  mode = mode || 'normal';
  const speed = state.speed;
  if (mode === 'normal' && speed > 4) mode = 'fast';
  $('channel').value = ch;
  stopAll();
  state.play = null;
  buildGrid(gridChannels(ch));
  const token = {};
  state.playing = token;
  setStatus('starting…');
  const dir = mode === 'back' || mode === 'live' ? '&dir=back' : '';
  let start = from === 'now' ? 'now' : Math.floor(from);
  // Live: the newest key frame the server has, then forward from there.
  if (mode === 'live') {
    try {
      const at = await api(`/api/locate?ch=${ch}&from=now${dir}`);
      start = at.sec;
    } catch (err) {
      notice(`ch ${ch}: ${err.message}`);
      setStatus('stopped');
      return;
    }
  }
  const query = (c) => `ch=${c}&from=${start}` + (mode === 'back' ? '&dir=back' : '') +
    (mode === 'keys' ? '&keys=1' : '') + (mode === 'fast' ? `&keys=1&speed=${speed}` : '') +
    (mode === 'normal' || mode === 'live' ? `&speed=${speed}` : '');
  state.play = { ch, mode, speed, from: start };
  let shown = 0;
  await Promise.all(state.cells.map(async (cell) => {
    if (state.playable[cell.ch] === false) { cell.caption.textContent += ' (not playable)'; return; }
    try {
      const at = await api('/api/locate?' + query(cell.ch));
      if (state.playing !== token) return;
      cell.start = at.sec + at.ms / 1000;
      cell.offset = at.offset;
      const v = cell.video;
      v.playbackRate = mode === 'normal' || mode === 'live' ? speed : 1;
      v.onerror = () => streamFailed(cell, token);
      v.src = '/api/play?' + query(cell.ch);
      v.playbackRate = mode === 'normal' || mode === 'live' ? speed : 1;
      await v.play().catch(() => {});
      ++shown;
    } catch (err) {
      if (/no H\.264/.test(err.message)) { state.playable[cell.ch] = false; draw(); }
      cell.caption.textContent += ' (nothing to play)';
      if (state.cells.length === 1 || cell === state.cells[0]) notice(`ch ${cell.ch}: ${err.message}`);
    }
  }));
  if (state.playing !== token) return;
  if (!shown) { state.play = null; setStatus('stopped'); return; }
  const how = { normal: '', live: ' (live)', keys: ' (key frames)', back: ' (key frames backward)', fast: '' }[mode];
  const first = state.cells.find((c) => c.start !== undefined);
  if (!first) return; // every stream failed meanwhile: its notice says so
  setStatus(`ch ${ch} from ${clock(Math.floor(first.start), true, first.offset)}${how}` + (speed !== 1 ? ` at ${speed}×` : ''));
}

// A stream that failed: the reason from the server where it has one (all
// its places taken: asked again a few times, as streams just stopped take a
// moment to be given back), the cell stopped, never left showing an old
// picture.
async function streamFailed(cell, token) {
  if (state.playing !== token) return;
  let why = cell.video.error && cell.video.error.message ? cell.video.error.message : 'the stream failed';
  try {
    const s = await api('/api/streams');
    if (s.used >= s.max) {
      why = `all ${s.max} streams of the server are in use`;
      cell.retries = (cell.retries || 0) + 1;
      if (cell.retries <= 4) {
        const src = cell.video.getAttribute('src');
        setTimeout(() => {
          if (state.playing !== token) return;
          cell.video.src = src;
          cell.video.play().catch(() => {});
        }, 500 * cell.retries);
        return;
      }
    }
  } catch (err) { /* the server is gone: the player's own reason stands */ }
  cell.video.removeAttribute('src');
  cell.video.load();
  cell.start = undefined;
  cell.caption.textContent = `ch ${cell.ch} (failed)`;
  notice(`ch ${cell.ch}: ${why}`);
  if (!state.cells.some((c) => c.start !== undefined)) { state.play = null; setStatus('stopped'); }
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

// Keeps the grid's cells on the first one's recorded second.
function keepInStep() {
  const p = state.play;
  if (!p || (p.mode !== 'normal' && p.mode !== 'live')) return;
  const lead = currentTime();
  for (const c of state.cells.slice(1)) {
    const t = cellTime(c);
    if (t === null || lead === null) continue;
    const off = t - lead;
    c.video.playbackRate = p.speed * (Math.abs(off) < 0.1 ? 1 : off > 0 ? 0.9 : 1.1);
  }
}

function jumpTo(text) {
  // YYYY-MM-DD HH:MM[:SS] in the store's zone.
  const m = /^(\d{4})-(\d\d)-(\d\d)[ T](\d\d):(\d\d)(?::(\d\d))?$/.exec(text.trim());
  if (!m) { notice(`not a time: ${text} (YYYY-MM-DD HH:MM:SS)`); return; }
  const local = Date.UTC(m[1], m[2] - 1, m[3], m[4], m[5], m[6] || 0) / 1000;
  // The offset of the moment named; near a change, the one before it.
  let sec = local - offsetAt(local - offsetAt(local));
  const day = `${m[1]}-${m[2]}-${m[3]}`;
  const go = () => play(Number($('channel').value), sec, 'normal');
  if ($('day').value !== day && state.days.some((d) => d.day === day)) {
    $('day').value = day;
    loadDay().then(() => { sec = local - offsetAt(local - offsetAt(local)); go(); })
      .catch((e) => notice(e.message));
  } else {
    go();
  }
}

function shortcut(ev) {
  if (ev.target.tagName === 'INPUT' || ev.target.tagName === 'SELECT') return;
  const ch = Number($('channel').value);
  const here = currentTime();
  const speeds = [0.25, 0.5, 1, 2, 4, 8, 16];
  const setSpeed = (s) => {
    state.speed = s;
    $('speed').value = String(s);
    if (here !== null) play(ch, here, 'normal');
  };
  const i = speeds.indexOf(state.speed);
  switch (ev.key) {
    case ' ': {
      const v = state.cells[0] && state.cells[0].video;
      if (!v) return;
      if (v.paused) state.cells.forEach((c) => c.video.play().catch(() => {}));
      else state.cells.forEach((c) => c.video.pause());
      break;
    }
    case 'ArrowLeft': if (here !== null) play(ch, here - (ev.shiftKey ? 60 : 10), state.play.mode === 'live' ? 'normal' : state.play.mode); break;
    case 'ArrowRight': if (here !== null) play(ch, here + (ev.shiftKey ? 60 : 10), state.play.mode === 'live' ? 'normal' : state.play.mode); break;
    case 'ArrowUp': if (ch > 1) play(ch - 1, here ?? state.view[0], 'normal'); break;
    case 'ArrowDown': if (ch < CHANNELS) play(ch + 1, here ?? state.view[0], 'normal'); break;
    case '+': case '=': setSpeed(speeds[Math.min(speeds.length - 1, i + 1)]); break;
    case '-': setSpeed(speeds[Math.max(0, i - 1)]); break;
    case 'j': case 'J': play(ch, here ?? state.view[0], 'back'); break;
    case 'k': case 'K': state.cells.forEach((c) => c.video.pause()); break;
    case 'l': case 'L':
      // Forward; pressed again while playing forward, the next speed up.
      if (state.play && state.play.mode === 'normal' && !state.cells[0].video.paused && i < speeds.length - 1) setSpeed(speeds[i + 1]);
      else play(ch, here ?? state.view[0], 'normal');
      break;
    default: return;
  }
  ev.preventDefault();
}

// While the newest day is shown, the days and its spans are asked for again
// now and then: a recording in progress grows on the timeline.
async function refresh() {
  if (document.hidden || !state.days.length) return;
  const newest = state.days[state.days.length - 1].day;
  const showingNewest = $('day').value === newest;
  await loadDays(true);
  if (showingNewest && state.days[state.days.length - 1].day !== newest) {
    $('day').value = state.days[state.days.length - 1].day;
    await loadDay();
  } else if (showingNewest) {
    await loadDay(true);
  }
}

function init() {
  for (let ch = 1; ch <= CHANNELS; ++ch) $('channel').add(new Option(ch, ch));
  $('day').onchange = () => loadDay().catch((e) => notice(e.message));
  $('type').onchange = () => loadEvents().catch((e) => notice(e.message));
  $('more').onclick = () => loadEvents(true).catch((e) => notice(e.message));
  $('zoom-in').onclick = () => zoom(0.25);
  $('zoom-out').onclick = () => zoom(4);
  $('zoom-all').onclick = () => { state.view = [state.day.start, state.day.end]; draw(); };
  $('speed').onchange = () => {
    state.speed = Number($('speed').value);
    const here = currentTime();
    if (here !== null && state.play.mode !== 'back' && state.play.mode !== 'keys') play(state.play.ch, here, 'normal');
  };
  $('grid').onchange = () => {
    const here = currentTime();
    buildGrid(gridChannels(Number($('channel').value)));
    if (here !== null) play(state.play.ch, here, state.play.mode);
  };
  $('jump').onchange = () => jumpTo($('jump').value);
  const svg = $('timeline');
  const at = (ev) => {
    const r = svg.getBoundingClientRect();
    return { x: ev.clientX - r.left, y: ev.clientY - r.top, width: r.width };
  };
  // A press and release in place plays from there; a drag selects a range
  // (for a clip) and plays from where it ends.
  svg.addEventListener('mousedown', (ev) => {
    const p = at(ev);
    if (p.x < LEFT) return;
    state.drag = { from: secOf(p.x, p.width), to: secOf(p.x, p.width), ch: Math.floor((p.y - TOP) / ROW) + 1, moved: false };
  });
  svg.addEventListener('mousemove', (ev) => {
    const p = at(ev);
    const sec = secOf(p.x, p.width);
    const ch = Math.floor((p.y - TOP) / ROW) + 1;
    $('hover').textContent = p.x >= LEFT && ch >= 1 && ch <= CHANNELS ? `ch ${ch}  ${clock(Math.floor(sec), true)}` : '';
    if (state.drag && !state.drag.done && Math.abs(xOf(sec, p.width) - xOf(state.drag.from, p.width)) > 3) {
      state.drag.to = sec;
      state.drag.moved = true;
      draw();
    }
  });
  svg.addEventListener('mouseup', (ev) => {
    const d = state.drag;
    if (!d || d.done) return;
    const p = at(ev);
    if (ev.target.dataset.event !== undefined && !d.moved) {
      state.drag = null;
      return playEvent(state.events[ev.target.dataset.event]);
    }
    if (d.moved) {
      state.selection = { ch: d.ch, from: Math.floor(Math.min(d.from, d.to)), to: Math.ceil(Math.max(d.from, d.to)) };
      showClip();
      state.drag.done = true;
      draw();
      return;
    }
    state.drag = null;
    const ch = Math.floor((p.y - TOP) / ROW) + 1;
    if (ch < 1 || ch > CHANNELS) return;
    play(ch, secOf(p.x, p.width), 'normal');
  });
  svg.addEventListener('wheel', (ev) => {
    ev.preventDefault();
    const p = at(ev);
    zoom(ev.deltaY < 0 ? 0.5 : 2, secOf(p.x, p.width));
  }, { passive: false });
  const here = () => currentTime() ?? state.view[0];
  $('back').onclick = () => play(Number($('channel').value), here(), 'back');
  $('keys').onclick = () => play(Number($('channel').value), here(), 'keys');
  $('normal').onclick = () => play(Number($('channel').value), here(), 'normal');
  $('live').onclick = () => play(Number($('channel').value), 'now', 'live');
  $('pause').onclick = () => state.cells.forEach((c) => (c.video.paused ? c.video.play().catch(() => {}) : c.video.pause()));
  document.addEventListener('keydown', shortcut);
  setInterval(() => {
    const t = currentTime();
    if (t === null) return;
    $('clock').textContent = 'ch ' + state.play.ch + '  ' + clock(Math.floor(t), true);
    keepInStep();
    draw();
  }, 250);
  setInterval(() => refresh().catch((e) => notice(e.message)), REFRESH_MS);
  window.addEventListener('resize', draw);
  buildGrid([1]);
  loadDays().catch((e) => notice(e.message));
}

// The range selected on the timeline, offered as an MP4 of its channel.
function showClip() {
  const s = state.selection;
  const a = $('clip');
  if (!s) { a.hidden = true; return; }
  a.href = `/api/clip?ch=${s.ch}&from=${s.from}&to=${s.to}`;
  a.textContent = `download ch ${s.ch} ${clock(s.from)}–${clock(s.to)} (MP4)`;
  a.hidden = false;
}

init();
