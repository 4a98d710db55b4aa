// The page of `kovcam serve`. Pictures are asked for one by one: a slow link skips frames and never lags behind.
'use strict';
const $ = id => document.getElementById(id);
const EXPOSURE = 1, TEMPERATURE = 8, FLIP = 9, POWER = 15, TARGET = 16, COOLER = 17;
// What a person reads for a control; its own name and description stand in the tip.
const TITLES = { 1: 'Exposure, ms', 3: 'White: red', 4: 'White: blue', 6: 'Bandwidth, %', 7: 'Overclock, %', 10: 'Auto: most gain', 11: 'Auto: longest, s', 12: 'Auto: brightness', 13: 'Hardware bin', 14: 'High speed', 15: 'Cooler power' };
const FLIPS = ['none', 'left – right', 'up – down', 'both'];
const NAMES = { raw8: 'RAW 8', rgb24: 'colour', raw16: 'RAW 16', y8: 'grey' };

let cameras = [], current = 0, state = null, statistics = null, events = null;
let frame = { number: 0, width: 0, height: 0 }, shown = null;   // shown: what the canvas holds, in frame pixels
const view = { zoom: 0, x: 0, y: 0 };                            // zoom 0: all of it; x, y: the middle, frame pixels
const marks = { cross: false, stars: false, region: false };
let picked = null, drag = null, generation = 0;
const focusHistory = [];
let bestHfr = Infinity, cooling = [];

const api = path => `/api/cameras/${current}/${path}`;

async function put(action, body = {}) {
  const r = await fetch(api(action), { method: 'PUT', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) });
  if (r.ok) return true;
  const text = await r.text();
  let why = text;
  try { why = JSON.parse(text).error; } catch { }
  tell(why);
  return false;
}

let told = 0, troubled = false;  // troubled: what is told is the camera's state
function tell(text) {
  troubled = false;
  $('problem').textContent = text;
  $('problem').hidden = !text;
  told = text ? Date.now() : 0;
}

// ---- which camera

async function loadCameras() {
  try {
    cameras = await (await fetch('/api/cameras')).json();
  } catch { tell('the server does not answer'); return; }
  const nav = $('cameras');
  nav.replaceChildren(...cameras.map(c => {
    const b = document.createElement('button');
    b.textContent = c.name;
    b.className = c.index === current ? 'on' : '';
    b.onclick = () => choose(c.index);
    return b;
  }));
  if (!cameras.length) tell('no camera is connected. Plug one in; it appears by itself');
  else if (!events) choose(Math.min(current, cameras.length - 1));
  fillFormats();
}

function choose(index) {
  current = index;
  location.hash = `camera=${index}`;
  ++generation;
  frame = { number: 0, width: 0, height: 0 };
  shown = state = statistics = picked = null;
  forgetFocus();
  cooling = [];
  view.zoom = 0;
  $('controls').replaceChildren();
  $('empty').hidden = false;
  if (events) events.close();
  events = new EventSource(api('events'));
  events.addEventListener('state', e => onState(JSON.parse(e.data)));
  events.addEventListener('statistics', e => onStatistics(JSON.parse(e.data)));
  events.addEventListener('journal', e => onJournal(JSON.parse(e.data)));
  events.addEventListener('captures', e => onCaptures(JSON.parse(e.data)));
  events.onerror = () => { tell('the connection to the server is lost; it is tried again'); };
  $('journal').replaceChildren();
  fetch(api('state')).then(r => r.json()).then(s => { cooling = s.history || []; plotCooler(); });
  for (const f of ['Fits', 'Tiff', 'Png']) $('save' + f).href = api('frame.' + f.toLowerCase());
  loadCameras();
  pictures(generation);
}

// ---- the picture

function stageSize() {
  const box = $('stage').getBoundingClientRect(), scale = window.devicePixelRatio || 1;
  return { width: Math.round(box.width * scale), height: Math.round(box.height * scale), scale };
}

// The part of the frame that is to be shown, whole pixels.
function wanted() {
  const { width, height } = stageSize();
  if (!view.zoom || !frame.width) return { x: 0, y: 0, w: 0, h: 0, out: Math.max(320, frame.width ? Math.min(width, Math.round(height * frame.width / frame.height)) : width) };
  const w = Math.min(frame.width, Math.ceil(width / view.zoom)), h = Math.min(frame.height, Math.ceil(height / view.zoom));
  // On whole colour cells, so that the picture does not jump in colour.
  const x = Math.max(0, Math.min(frame.width - w, Math.round(view.x - w / 2))) & ~1, y = Math.max(0, Math.min(frame.height - h, Math.round(view.y - h / 2))) & ~1;
  return { x, y, w, h, out: w };
}

function stretchText() {
  return $('auto').checked ? 'auto' : [$('black').value, $('white').value, $('middle').value].join(',');
}

async function pictures(mine) {
  while (mine === generation) {
    const p = wanted();
    const url = `${api('picture.jpg')}?after=${frame.number}&x=${p.x}&y=${p.y}&w=${p.w}&h=${p.h}&out=${p.out}&stretch=${stretchText()}`;
    try {
      const r = await fetch(url, { cache: 'no-store' });
      if (mine !== generation) return;
      if (r.status === 204) continue;
      if (!r.ok) throw new Error(r.status);
      const bitmap = await createImageBitmap(await r.blob());
      const [w, h] = r.headers.get('X-Frame-Size').split('x').map(Number);
      if (w !== frame.width || h !== frame.height) { view.x = w / 2; view.y = h / 2; }
      frame = { number: +r.headers.get('X-Frame'), width: w, height: h, end: +r.headers.get('X-Frame-End') };
      shown = { bitmap, x: p.x, y: p.y, w: p.w || w, h: p.h || h };
      $('empty').hidden = true;
      draw();
      window.lastFrameDelay = Date.now() - frame.end;
    } catch {
      await new Promise(done => setTimeout(done, 1000));
    }
  }
}

// From frame pixels to canvas pixels.
function placement() {
  const { width, height } = stageSize();
  if (!shown) return null;
  const zoom = view.zoom || Math.min(width / shown.w, height / shown.h);
  return { zoom, left: (width - shown.w * zoom) / 2 - shown.x * zoom, top: (height - shown.h * zoom) / 2 - shown.y * zoom, width, height };
}

function draw() {
  const p = placement();
  const c = $('picture');
  const { width, height } = stageSize();
  if (c.width !== width || c.height !== height) { c.width = width; c.height = height; }
  const g = c.getContext('2d');
  stage.style.touchAction = view.zoom || marks.region ? 'none' : 'pan-y';  // a finger scrolls the page where it has nothing else to do
  g.fillStyle = '#000';
  g.fillRect(0, 0, width, height);
  if (p) {
    g.imageSmoothingEnabled = p.zoom < 2;
    g.drawImage(shown.bitmap, p.left + shown.x * p.zoom, p.top + shown.y * p.zoom, shown.w * p.zoom, shown.h * p.zoom);
  }
  drawOverlay();
}

function drawOverlay() {
  const o = $('overlay'), p = placement();
  const { width, height, scale } = stageSize();
  o.width = width;
  o.height = height;
  if (!p) return;
  const g = o.getContext('2d');
  g.lineWidth = 1.5 * scale;
  if (marks.cross) {
    const x = p.left + frame.width / 2 * p.zoom, y = p.top + frame.height / 2 * p.zoom;
    g.strokeStyle = '#ff5a4e';
    g.beginPath();
    for (const r of [30, 90]) { g.moveTo(x + r * scale, y); g.arc(x, y, r * scale, 0, 7); }
    g.moveTo(0, y); g.lineTo(width, y); g.moveTo(x, 0); g.lineTo(x, height);
    g.stroke();
  }
  if (statistics && (marks.stars || picked)) {
    g.strokeStyle = '#7ddc8a';
    for (const s of marks.stars ? statistics.stars : []) {
      g.beginPath();
      g.arc(p.left + (s.x + .5) * p.zoom, p.top + (s.y + .5) * p.zoom, Math.max(7 * scale, s.hfr * 3 * p.zoom), 0, 7);
      g.stroke();
    }
    const s = pickedStar();
    if (s) {
      const x = p.left + (s.x + .5) * p.zoom, y = p.top + (s.y + .5) * p.zoom, r = Math.max(12 * scale, s.hfr * 4 * p.zoom);
      g.strokeStyle = '#ffd15c';
      g.strokeRect(x - r, y - r, 2 * r, 2 * r);
      g.fillStyle = '#ffd15c';
      g.font = `${13 * scale}px system-ui, sans-serif`;
      g.fillText(`HFR ${s.hfr.toFixed(2)}`, x + r + 6 * scale, y + 4 * scale);
    }
  }
  if (drag && drag.rect) {
    const r = drag.rect;
    g.strokeStyle = '#5db1ff';
    g.setLineDash([6 * scale, 4 * scale]);
    g.strokeRect(p.left + r.x * p.zoom, p.top + r.y * p.zoom, r.w * p.zoom, r.h * p.zoom);
  }
}

function pickedStar() {
  if (!picked || !statistics) return null;
  const near = statistics.stars.filter(s => Math.hypot(s.x - picked.x, s.y - picked.y) < 30).sort((a, b) => Math.hypot(a.x - picked.x, a.y - picked.y) - Math.hypot(b.x - picked.x, b.y - picked.y))[0];
  if (near) picked = { x: near.x, y: near.y };
  return near || null;
}

function forgetFocus() {
  focusHistory.length = 0;
  bestHfr = Infinity;
}

// The focus plot follows this star; null: the best of the picture.
function pick(star) {
  if (star || picked) forgetFocus();
  picked = star ? { x: star.x, y: star.y } : null;
}

function toFrame(e) {
  const p = placement(), box = $('stage').getBoundingClientRect(), scale = window.devicePixelRatio || 1;
  return p && { x: ((e.clientX - box.left) * scale - p.left) / p.zoom, y: ((e.clientY - box.top) * scale - p.top) / p.zoom };
}

function setZoom(zoom, at) {
  view.zoom = zoom;
  if (at) { view.x = at.x; view.y = at.y; }
  for (const b of document.querySelectorAll('[data-zoom]')) b.classList.toggle('on', +b.dataset.zoom === zoom);
  if (frame.number) frame.number -= 1;  // the same frame again, in the new view
  draw();
}

function setMark(name, on) {
  marks[name] = on;
  $(name).classList.toggle('on', on);
  draw();
}

const stage = $('stage');
stage.addEventListener('pointerdown', e => {
  const at = toFrame(e);
  if (!at) return;
  stage.setPointerCapture(e.pointerId);
  drag = { from: at, view: { ...view }, x: e.clientX, y: e.clientY, moved: false };
});
stage.addEventListener('pointermove', e => {
  const at = toFrame(e);
  if (at && frame.width) $('where').textContent = at.x >= 0 && at.y >= 0 && at.x < frame.width && at.y < frame.height ? `${Math.floor(at.x)}, ${Math.floor(at.y)}` : '';
  if (!drag || !at) return;
  drag.moved = drag.moved || Math.hypot(e.clientX - drag.x, e.clientY - drag.y) > 6;
  if (marks.region) {
    const clip = (v, most) => Math.max(0, Math.min(most, v));
    const x0 = clip(Math.min(drag.from.x, at.x), frame.width), y0 = clip(Math.min(drag.from.y, at.y), frame.height);
    drag.rect = { x: x0, y: y0, w: clip(Math.max(drag.from.x, at.x), frame.width) - x0, h: clip(Math.max(drag.from.y, at.y), frame.height) - y0 };
    $('where').textContent = `${Math.round(drag.rect.w)} × ${Math.round(drag.rect.h)}`;
    drawOverlay();
  } else if (drag.moved && view.zoom) {
    const scale = (window.devicePixelRatio || 1) / view.zoom;
    view.x = drag.view.x - (e.clientX - drag.x) * scale;
    view.y = drag.view.y - (e.clientY - drag.y) * scale;
  }
});
stage.addEventListener('pointerup', e => {
  const d = drag;
  drag = null;
  if (!d) return;
  if (d.rect) $('where').textContent = '';
  if (marks.region && d.rect && d.rect.w > 16 && d.rect.h > 16) {
    const s = state.region;
    // What is drawn is mirrored where the camera flips.
    const flip = (state.controls.find(c => c.type === 9) || { value: 0 }).value;
    const x = flip & 1 ? frame.width - d.rect.x - d.rect.w : d.rect.x, y = flip & 2 ? frame.height - d.rect.y - d.rect.h : d.rect.y;
    setMark('region', false);
    setZoom(0);
    put('region', { x: Math.round(s.x + x), y: Math.round(s.y + y), width: Math.round(d.rect.w), height: Math.round(d.rect.h), bin: s.bin, format: state.format });
  } else if (!d.moved && statistics) {
    const at = toFrame(e);
    const near = statistics.stars.filter(s => Math.hypot(s.x - at.x, s.y - at.y) < 40).sort((a, b) => b.flux - a.flux)[0];
    pick(near);
    if (near) $('starBox').open = true;
    fillStars();
    drawOverlay();
  }
});
stage.addEventListener('pointercancel', () => { drag = null; });
stage.addEventListener('dblclick', e => { const at = toFrame(e); if (at) setZoom(view.zoom === 0 ? 1 : view.zoom === 1 ? 4 : 0, at); });
stage.addEventListener('wheel', e => {
  e.preventDefault();
  const at = toFrame(e);
  if (at) setZoom(e.deltaY < 0 ? (view.zoom === 0 ? 1 : 4) : (view.zoom === 4 ? 1 : 0), at);
}, { passive: false });

// ---- state

function exposureText(us) {
  return us < 1000 ? `${us} µs` : us < 1e6 ? `${+(us / 1e3).toPrecision(4)} ms` : `${+(us / 1e6).toPrecision(5)} s`;
}

function onState(s) {
  const first = !state;
  if (state && state.region.bin !== s.region.bin) forgetFocus();  // radii are in pixels of the picture
  state = s;
  if (!s.problem && (troubled || told && Date.now() - told > 8000)) tell('');
  if (s.problem) { tell(s.problem); troubled = true; }
  $('phase').textContent = s.phase;
  $('phase').className = 'badge ' + s.phase;
  $('stage').classList.toggle('old', ['absent', 'failed'].includes(s.phase));
  $('rate').textContent = s.phase === 'live' && s.framesPerSecond ? `${s.framesPerSecond.toFixed(1)} frames/s${s.dropped ? `, ${s.dropped} dropped` : ''}` : '';
  $('temperature').textContent = s.temperature === undefined ? '' : `${s.temperature.toFixed(1)} °C`;
  $('pause').textContent = s.phase === 'idle' ? 'Play' : 'Pause';
  $('expose').disabled = !!s.exposure || s.recording;
  $('abort').disabled = !s.exposure;
  $('record').textContent = s.recording ? 'Stop recording' : 'Record SER';
  $('record').classList.toggle('on', s.recording);
  const free = s.freeBytes === undefined ? '' : `${(s.freeBytes / 1e9).toFixed(1)} GB free`;
  $('space').textContent = free + (s.recording ? '; ' : '') + (s.recording ? `${s.recordedFrames} frames, ${(s.recordedBytes / 1e6).toFixed(0)} MB, ${s.dropped} dropped` + (s.recordingLost ? `, ${s.recordingLost} lost: the disk is too slow` : '') : '');
  if (first || $('format').options.length === 0) fillFormats();
  $('format').value = s.format;
  $('bin').value = s.region.bin;
  fillControls();
  const cool = s.controls.find(c => c.type === COOLER);
  $('coolerBox').hidden = !cool;
  if (cool) {
    const target = s.controls.find(c => c.type === TARGET);
    $('coolerOn').checked = !!cool.value;
    if (document.activeElement !== $('target')) $('target').value = target.value;
    $('target').min = target.min;
    $('target').max = target.max;
    if (s.temperature !== undefined) {  // known soon after the camera was opened
      $('coolerText').textContent = `${s.temperature.toFixed(1)} °C at ${s.coolerPower} %`;
      cooling.push([Date.now() / 1000, s.temperature, s.coolerOn ? target.value : null, s.coolerPower]);
      cooling = cooling.filter(p => p[0] > Date.now() / 1000 - 3600);
      plotCooler();
    }
  }
  $('darkText').textContent = s.collecting ? `${s.collecting.done} of ${s.collecting.frames} frames` : '';
  $('takeDark').textContent = s.collecting ? 'Cancel' : 'Take';
  $('darkUse').value = s.darkName;
  $('hotText').textContent = s.hotPixelsOn ? `${s.hotPixels} hot pixels are repaired` : 'no hot pixels are repaired';
  progress();
}

function fillFormats() {
  const c = cameras[current];
  if (!c || !c.sensor) return;
  const options = (select, values, text) => {
    select.replaceChildren(...values.map(v => Object.assign(document.createElement('option'), { value: v, textContent: text(v) })));
  };
  options($('format'), c.sensor.formats, v => NAMES[v]);
  options($('bin'), c.sensor.bins, v => `${v} × ${v}`);
  for (const o of $('depth').options) o.hidden = o.disabled = !c.sensor.formats.includes(o.value);
  if ($('depth').selectedOptions[0].disabled) $('depth').value = 'raw8';
  if (state) { $('format').value = state.format; $('bin').value = state.region.bin; }
}

// A slider a control, but for what has few values; the exposure's is logarithmic.
const isSwitch = c => c.min === 0 && c.max === 1;
const toSlider = (c, v) => c.type === EXPOSURE ? Math.log(Math.max(1, v)) : v;
const fromSlider = (c, v) => c.type === EXPOSURE ? Math.round(Math.exp(v)) : Math.round(v);

function fillControls() {
  const box = $('controls');
  for (const c of state.controls) {
    if ([TARGET, COOLER].includes(c.type)) continue;
    let row = box.querySelector(`[data-type="${c.type}"]`);
    if (!row) {
      row = document.createElement('div');
      row.dataset.type = c.type;
      row.className = 'control' + (c.writable ? '' : ' read');
      row.title = `${c.name}: ${c.description}`;
      const send = v => put('control', { type: c.type, value: Math.round(v), auto: false });
      row.innerHTML = '<span></span>' + (!c.writable ? '<span></span><output></output>' : c.type === FLIP ? '<select></select>' : isSwitch(c) ? '<label class="check"><input type="checkbox">on</label>' :
        '<input type="range"><input type="number"><label class="check"><input type="checkbox">auto</label>');
      row.firstChild.textContent = TITLES[c.type] || c.name;
      if (c.type === FLIP) {
        row.lastChild.append(...FLIPS.map((t, i) => new Option(t, i)));
        row.lastChild.onchange = e => send(+e.target.value);
      } else if (c.writable && isSwitch(c)) {
        row.querySelector('input').onchange = e => send(e.target.checked ? 1 : 0);
      } else if (c.writable) {
        const [range, number, auto] = row.querySelectorAll('input');
        range.setAttribute('aria-label', row.firstChild.textContent);
        number.setAttribute('aria-label', row.firstChild.textContent);
        Object.assign(range, { min: toSlider(c, c.min), max: toSlider(c, c.max), step: c.type === EXPOSURE ? 'any' : 1 });
        Object.assign(number, { min: c.type === EXPOSURE ? c.min / 1000 : c.min, max: c.type === EXPOSURE ? c.max / 1000 : c.max, step: 'any' });
        auto.parentElement.style.visibility = c.canBeAuto ? '' : 'hidden';
        let timer = 0;
        range.oninput = () => {
          const v = fromSlider(c, +range.value);
          number.value = c.type === EXPOSURE ? v / 1000 : v;
          clearTimeout(timer);
          timer = setTimeout(() => send(v), 120);
        };
        number.onchange = () => send(c.type === EXPOSURE ? number.value * 1000 : number.value);
        auto.onchange = () => put('control', { type: c.type, value: state.controls.find(x => x.type === c.type).value, auto: auto.checked });
      }
      box.append(row);
    }
    if (!c.writable) {
      row.querySelector('output').textContent = c.type === TEMPERATURE ? `${(c.value / 10).toFixed(1)} °C` : c.value;
      continue;
    }
    if (c.type === FLIP) { row.lastChild.value = c.value; continue; }
    if (isSwitch(c)) { row.querySelector('input').checked = c.value; continue; }
    const [range, number, auto] = row.querySelectorAll('input');
    if (document.activeElement !== range || c.auto) range.value = toSlider(c, c.value);
    if (document.activeElement !== number && document.activeElement !== range || c.auto) number.value = c.type === EXPOSURE ? c.value / 1000 : c.value;
    auto.checked = c.auto;
    range.disabled = number.disabled = c.auto;
  }
}

let exposureSeen = null;
function progress() {
  const e = state && state.exposure;
  if (e && (!exposureSeen || exposureSeen.key !== `${e.shot} ${e.shots}` || Math.abs(exposureSeen.start - (Date.now() - e.elapsed * 1000)) > 500))
    exposureSeen = { key: `${e.shot} ${e.shots}`, start: Date.now() - e.elapsed * 1000 };
  $('progressBar').hidden = !e;
  if (!e) { exposureSeen = null; return; }
  const done = Math.min(e.seconds, (Date.now() - exposureSeen.start) / 1000);
  $('progressBar').firstElementChild.style.width = `${100 * done / Math.max(e.seconds, 1e-6)}%`;
  $('progressBar').lastElementChild.textContent = (e.shots > 1 ? `${e.shot} of ${e.shots}: ` : '') + `${done.toFixed(1)} of ${e.seconds} s` + (state.phase === 'downloading' ? ', reading out' : '');
}
setInterval(progress, 100);

// ---- plots

function surface(canvas) {
  const scale = window.devicePixelRatio || 1, box = canvas.getBoundingClientRect();
  canvas.width = Math.max(1, box.width * scale);
  canvas.height = Math.max(1, box.height * scale);
  const g = canvas.getContext('2d');
  g.scale(scale, scale);
  g.font = '11px system-ui, sans-serif';
  const css = getComputedStyle(document.body);
  return { g, w: box.width, h: box.height, dim: css.getPropertyValue('--dim'), text: css.getPropertyValue('--text'), accent: css.getPropertyValue('--accent'), line: css.getPropertyValue('--line') };
}

function plotHistogram() {
  const { g, w, h, dim } = surface($('histogram'));
  if (!statistics) return;
  const top = Math.max(...statistics.channels.flatMap(c => c.histogram.slice(1, 255)), 1);
  const colours = statistics.channels.length === 3 ? ['#ff6b5e', '#6fdc84', '#6aa8ff'] : ['#c9d4e0'];
  statistics.channels.forEach((c, i) => {
    g.beginPath();
    g.moveTo(0, h - 14);
    c.histogram.forEach((n, k) => g.lineTo(k / 255 * w, h - 14 - Math.min(1, Math.log1p(n) / Math.log1p(top)) * (h - 18)));
    g.lineTo(w, h - 14);
    g.fillStyle = colours[i] + '55';
    g.strokeStyle = colours[i];
    g.fill();
    g.stroke();
  });
  g.fillStyle = '#ff5a4e';
  const share = i => statistics.channels.reduce((s, c) => s + c.histogram[i], 0) / statistics.channels.reduce((s, c) => s + c.histogram.reduce((a, b) => a + b), 0);
  if (share(0) > 0.001) g.fillRect(0, 0, 3, h - 14);
  if (statistics.saturated > 0.0001) g.fillRect(w - 3, 0, 3, h - 14);
  g.fillStyle = dim;
  for (let i = 0; i <= 4; ++i) {
    g.textAlign = i === 0 ? 'left' : i === 4 ? 'right' : 'center';
    g.fillText(Math.round(statistics.scale * i / 4), w * i / 4, h - 2);
  }
  $('levels').textContent = `median ${statistics.median.toFixed(0)}, max ${statistics.max}` + (statistics.saturated > 0.0001 ? `, ${(100 * statistics.saturated).toFixed(2)} % saturated` : '');
}

// `span`: seconds from left to right. `right`: texts of a second scale.
function plotLines(canvas, lines, low, high, span, text, right) {
  const { g, w, h, dim, line } = surface(canvas);
  const left = 34, end = w - (right ? 40 : 0), y = v => 8 + (h - 30) * (high - v) / Math.max(1e-9, high - low);
  g.strokeStyle = line;
  g.fillStyle = dim;
  g.textAlign = 'right';
  for (const v of [low, (low + high) / 2, high]) {
    g.beginPath();
    g.moveTo(left, y(v));
    g.lineTo(end, y(v));
    g.stroke();
    g.fillText(text(v), left - 5, y(v) + 4);
    if (right) g.fillText(right(v), w, y(v) + 4);
  }
  g.fillText('now', end, h - 2);
  g.textAlign = 'left';
  g.fillText(span < 100 ? `${Math.round(span)} s ago` : `${Math.round(span / 60)} min ago`, left, h - 2);
  for (const l of lines) {
    g.strokeStyle = l.colour;
    g.lineWidth = l.width || 1.6;
    g.setLineDash(l.dash || []);
    g.beginPath();
    let pen = false;
    l.points.forEach(([x, v]) => {
      if (v === null || v === undefined) { pen = false; return; }
      const px = left + x * (end - left), py = y(v);
      pen ? g.lineTo(px, py) : g.moveTo(px, py);
      pen = true;
    });
    g.stroke();
  }
}

function plotFocus() {
  const n = focusHistory.length;
  if (n < 2) { surface($('focus')); $('focusText').textContent = n ? '' : 'no stars yet'; return; }
  const low = Math.max(0, bestHfr * .8), high = Math.max(bestHfr * 1.4, ...focusHistory.slice(-120).map(p => p.hfr));
  const t1 = focusHistory[n - 1].time, span = Math.max(1, t1 - focusHistory[0].time);
  plotLines($('focus'), [
    { colour: '#7ddc8a', dash: [4, 4], width: 1, points: [[0, bestHfr], [1, bestHfr]] },
    { colour: getComputedStyle(document.body).getPropertyValue('--accent'), points: focusHistory.map(p => [1 - (t1 - p.time) / span, Math.min(p.hfr, high)]) },
  ], low, high, span, v => v.toFixed(1));
  $('focusText').textContent = `HFR ${focusHistory[n - 1].hfr.toFixed(2)} px, best ${bestHfr.toFixed(2)}, ${statistics.starCount} stars`;
}

function plotCooler() {
  if (!$('coolerBox').open || cooling.length < 2) return;
  const t1 = cooling[cooling.length - 1][0], t0 = Math.min(cooling[0][0], t1 - 60);
  const values = cooling.flatMap(p => [p[1], p[2]]).filter(v => v !== null);
  const right = v => `${Math.round((v - low) / (high - low) * 100)} %`;
  const low = Math.min(...values) - 1, high = Math.max(...values) + 1, x = t => (t - t0) / (t1 - t0);
  plotLines($('coolerPlot'), [
    { colour: '#c9a25c', points: cooling.map(p => [x(p[0]), low + (high - low) * p[3] / 100]) },
    { colour: '#7ddc8a', dash: [4, 4], width: 1, points: cooling.map(p => [x(p[0]), p[2]]) },
    { colour: getComputedStyle(document.body).getPropertyValue('--accent'), points: cooling.map(p => [x(p[0]), p[1]]) },
  ], low, high, t1 - t0, v => v.toFixed(0) + '°', right);
}

function onStatistics(s) {
  statistics = s;
  const star = pickedStar();
  const hfr = star ? star.hfr : s.hfr;
  if (hfr) {
    focusHistory.push({ hfr, time: Date.now() / 1000 });
    bestHfr = Math.min(bestHfr, hfr);
    if (focusHistory.length > 400) focusHistory.shift();
  }
  plotHistogram();
  plotFocus();
  if ($('starBox').open) fillStars();
  drawOverlay();
}

function fillStars() {
  const star = pickedStar();
  $('starTable').tBodies[0].replaceChildren(...(statistics ? statistics.stars.slice(0, 20) : []).map((s, i) => {
    const tr = document.createElement('tr');
    tr.className = star && s.x === star.x && s.y === star.y ? 'picked' : '';
    for (const v of [i + 1, s.x.toFixed(1), s.y.toFixed(1), s.hfr.toFixed(2), s.flux.toFixed(0), s.peak.toFixed(0)]) tr.insertCell().textContent = v;
    tr.onclick = () => { pick(s); fillStars(); drawOverlay(); };
    return tr;
  }));
}

function onJournal(entries) {
  for (const e of entries) {
    const li = document.createElement('li');
    const small = document.createElement('small');
    small.textContent = `${e.time.slice(11, 19)} ${e.who} `;
    const what = document.createElement('span');
    what.textContent = e.what + (e.result ? ': ' + e.result : '');
    what.className = e.result ? 'bad' : '';
    li.append(small, what);
    $('journal').prepend(li);
  }
  while ($('journal').children.length > 200) $('journal').lastChild.remove();
}

function onCaptures(list) {
  fillDarks(list);
  $('captures').replaceChildren(...list.map(c => {
    const li = document.createElement('li');
    const img = document.createElement(c.thumbnail ? 'img' : 'div');
    if (c.thumbnail) { img.src = `/api/captures/${encodeURIComponent(c.name)}/thumb`; img.alt = ''; } else img.className = 'blank';
    const text = document.createElement('div');
    text.textContent = c.name;
    const rest = document.createElement('div');
    for (const f of c.files) rest.append(Object.assign(document.createElement('a'), { href: `/api/captures/${encodeURIComponent(f)}`, textContent: f.split('.').pop().toUpperCase() }));
    rest.append(Object.assign(document.createElement('small'), { textContent: c.text }));
    li.append(img, text, rest);
    return li;
  }));
}

function fillDarks(list) {
  const names = ['', ...list.flatMap(c => c.files).filter(f => f.endsWith('.bmp'))], use = $('darkUse'), before = use.value;
  use.replaceChildren(...names.map(n => Object.assign(document.createElement('option'), { value: n, textContent: n || 'none' })));
  use.value = state ? state.darkName : before;
}

async function loadDoctor() {
  const list = await (await fetch('/api/doctor')).json();
  $('doctor').replaceChildren(...list.map(f => {
    const li = document.createElement('li');
    li.textContent = f.text;
    li.className = f.state === 'PROBLEM' ? 'bad' : '';
    if (f.command) li.append(Object.assign(document.createElement('code'), { textContent: f.command }));
    return li;
  }));
}

// ---- what the buttons do

for (const b of document.querySelectorAll('[data-zoom]')) b.onclick = () => setZoom(+b.dataset.zoom);
for (const b of document.querySelectorAll('[data-guide]')) b.onclick = () => put('guide', { direction: +b.dataset.guide, milliseconds: +$('pulse').value });
for (const name of ['cross', 'stars', 'region']) $(name).onclick = () => setMark(name, !marks[name]);
$('whole').onclick = () => put('region', { width: 0, height: 0, bin: state.region.bin, format: state.format });
$('format').onchange = $('bin').onchange = () => put('region', { width: 0, height: 0, bin: +$('bin').value, format: $('format').value });
$('pause').onclick = () => put('video', { on: state.phase === 'idle' });
$('night').onclick = () => { document.body.classList.toggle('night'); localStorage.night = document.body.classList.contains('night') ? '1' : ''; plotHistogram(); plotFocus(); };
$('expose').onclick = () => put('exposure', {
  seconds: +$('seconds').value, count: +$('count').value, format: $('depth').value, name: $('name').value, whole: false,
  formats: ['Fits', 'Tiff', 'Png'].filter(f => $('as' + f).checked).map(f => f.toLowerCase()),
});
$('abort').onclick = () => put('abort');
$('record').onclick = () => put('record', { on: !state.recording, name: $('name').value });
$('coolerOn').onchange = () => put('control', { type: COOLER, value: $('coolerOn').checked ? 1 : 0 });
$('target').onchange = () => put('control', { type: TARGET, value: Math.round(+$('target').value) });
$('takeDark').onclick = () => state.collecting ? put('abort') : put('takedark', { name: $('darkName').value });
$('darkUse').onchange = () => put('dark', { name: $('darkUse').value });
for (const b of document.querySelectorAll('[data-hot]')) b.onclick = () => put('hotpixels', { do: b.dataset.hot });
$('focusReset').onclick = () => { forgetFocus(); plotFocus(); };
$('auto').onchange = () => { if (frame.number) frame.number -= 1; };
for (const name of ['black', 'middle', 'white']) $(name).oninput = () => { $('auto').checked = false; if (frame.number) frame.number -= 1; };
$('doctorBox').ontoggle = () => { if ($('doctorBox').open) loadDoctor(); };
$('coolerBox').ontoggle = plotCooler;
$('starBox').ontoggle = fillStars;
document.addEventListener('keydown', e => {
  if (['INPUT', 'SELECT'].includes(e.target.tagName) || e.ctrlKey || e.metaKey || e.altKey) return;
  const step = frame.width / 20;
  const keys = {
    ' ': () => $('pause').click(), c: () => $('cross').click(), r: () => $('region').click(), s: () => $('expose').click(), n: () => $('night').click(),
    Escape: () => $('abort').click(), 0: () => setZoom(0), 1: () => setZoom(1), 4: () => setZoom(4),
    ArrowLeft: () => { view.x -= step; }, ArrowRight: () => { view.x += step; }, ArrowUp: () => { view.y -= step; }, ArrowDown: () => { view.y += step; },
  };
  if (keys[e.key] && !(['BUTTON', 'SUMMARY'].includes(e.target.tagName) && e.key === ' ')) { e.preventDefault(); keys[e.key](); }
});
new ResizeObserver(draw).observe(stage);
addEventListener('resize', () => { plotHistogram(); plotFocus(); plotCooler(); });
if (localStorage.night) document.body.classList.add('night');
const asked = /camera=(\d+)/.exec(location.hash);
if (asked) current = +asked[1];
loadCameras();
setInterval(loadCameras, 5000);
