// The page of `nuvek view`: a deep-zoom viewer over the server's layers. Each layer is a tiled
// image whose levels are the image's own levels: the viewer's finest level is level 0, and it never
// goes coarser than the layer's coarsest level.
'use strict';

const state = { info: null, layers: [], viewer: null, cursorBusy: false, cursorNext: null };

function el(tag, attributes, ...children) {
  const node = document.createElement(tag);
  Object.assign(node, attributes || {});
  for (const child of children) node.append(child);
  return node;
}

function showMessage(text) {
  document.getElementById('message').textContent = text || '';
}

// The query that selects a layer's display mapping on the server.
function mappingQuery(layer) {
  const parameters = new URLSearchParams({ min: layer.min, max: layer.max, map: layer.map, channel: layer.channel });
  return parameters.toString();
}

function tileSource(layer) {
  const tile = state.info.tileSize;
  const [width, height] = layer.levels[0];
  const maxLevel = Math.ceil(Math.log2(Math.max(width, height, 1)));
  const count = Math.min(layer.levels.length, maxLevel + 1);
  const format = layer.id === 0 ? 'jpg' : 'png';
  const query = mappingQuery(layer);
  return {
    width, height, tileSize: tile, tileOverlap: 0, minLevel: maxLevel - (count - 1), maxLevel,
    getTileUrl(level, x, y) {
      return `/api/layers/${layer.id}/tiles/${maxLevel - level}/${x}_${y}.${format}?${query}`;
    },
    getNumTiles(level) {
      const own = layer.levels[maxLevel - level];
      if (!own) return new OpenSeadragon.Point(0, 0);
      return new OpenSeadragon.Point(Math.ceil(own[0] / tile), Math.ceil(own[1] / tile));
    },
  };
}

function effectiveOpacity(layer) {
  return layer.visible ? layer.opacity : 0;
}

// Adds (or replaces) a layer's tiled image at its place in the stack.
function showLayer(layer) {
  const old = layer.item;
  layer.failures = 0;
  layer.failureNote.textContent = '';
  for (const mark of layer.marks) state.viewer.removeOverlay(mark);
  layer.marks = [];
  // A new layer goes on top (the viewer keeps the order of the calls); a replaced one takes its place.
  state.viewer.addTiledImage({
    tileSource: tileSource(layer),
    ...(old ? { index: state.viewer.world.getIndexOfItem(old) } : {}),
    opacity: effectiveOpacity(layer),
    success(event) {
      if (old) state.viewer.world.removeItem(old);
      layer.item = event.item;
      layer.item.nuvekLayer = layer;
    },
    error(event) { showMessage(event.message); },
  });
}

function layerPanel(layer) {
  const title = layer.id === 0 ? `image: ${state.info.title}` : layer.expression;
  const visible = el('input', { type: 'checkbox', checked: true });
  visible.addEventListener('change', () => { layer.visible = visible.checked; layer.item && layer.item.setOpacity(effectiveOpacity(layer)); });
  const opacity = el('input', { type: 'range', min: 0, max: 1, step: 0.05, value: layer.opacity });
  opacity.addEventListener('input', () => { layer.opacity = Number(opacity.value); layer.item && layer.item.setOpacity(effectiveOpacity(layer)); });
  const min = el('input', { type: 'number', step: 'any', value: layer.min, className: 'range-min' });
  const max = el('input', { type: 'number', step: 'any', value: layer.max, className: 'range-max' });
  const map = el('select', { className: 'colour-map' });
  for (const name of ['grey', 'heat', 'viridis']) map.append(el('option', { value: name, textContent: name }));
  const channel = el('select', { className: 'channel' });
  channel.append(el('option', { value: -1, textContent: layer.channels >= 2 ? 'all (RGB)' : 'all' }));
  layer.channelNames.forEach((name, c) => channel.append(el('option', { value: c, textContent: `${c}: ${name}` })));
  const apply = () => {
    const low = Number(min.value), high = Number(max.value);
    if (!Number.isFinite(low) || !Number.isFinite(high)) { showMessage('The range needs two numbers.'); return; }
    layer.min = low; layer.max = high; layer.map = map.value; layer.channel = Number(channel.value);
    map.disabled = layer.channels >= 2 && layer.channel < 0;
    showLayer(layer);
  };
  for (const control of [min, max, map, channel]) control.addEventListener('change', apply);
  map.disabled = layer.channels >= 2;
  layer.failureNote = el('div', { className: 'failed' });
  return el('div', { className: 'layer' },
    el('div', { className: 'expression', textContent: `${layer.id}  ${title}` }),
    el('label', {}, visible, ' shown'), el('label', {}, 'opacity ', opacity), el('br'),
    el('label', {}, 'range ', min, ' to ', max), el('br'),
    el('label', {}, 'channel ', channel), el('label', {}, 'map ', map),
    layer.failureNote);
}

function addLayer(description) {
  const layer = Object.assign({}, description, {
    visible: true, opacity: description.id === 0 ? 1 : 0.8, min: description.range[0] ?? 0, max: description.range[1] ?? 1,
    map: 'grey', channel: -1, item: null, marks: [], failures: 0,
  });
  state.layers.push(layer);
  document.getElementById('layers').append(layerPanel(layer));
  showLayer(layer);
  return layer;
}

// A tile the chain failed on gets a red frame, and its layer shows the server's message. The
// server's answer is asked again to tell a failure (500) from a request it dropped (503), which
// is no fault of the chain and gets no frame.
function markFailedTile(event) {
  const layer = event.tiledImage && event.tiledImage.nuvekLayer;
  if (!layer) return;
  const bounds = event.tile.bounds;
  const url = event.tile.getUrl ? event.tile.getUrl() : event.tile.url;
  fetch(url).then(async (response) => {
    if (response.status !== 500) return;
    const text = await response.text();
    const mark = el('div', { className: 'tile-error', title: text.trim() });
    state.viewer.addOverlay({ element: mark, location: new OpenSeadragon.Rect(bounds.x, bounds.y, bounds.width, bounds.height) });
    layer.marks.push(mark);
    layer.failures += 1;
    layer.failureNote.textContent = `${layer.failures} tile(s) failed: ${text.trim()}`;
  }).catch(() => {});
}

async function submitChain(event) {
  event.preventDefault();
  const input = document.getElementById('chain-input');
  const response = await fetch('/api/layers', { method: 'POST', body: input.value, headers: { 'Content-Type': 'text/plain' } });
  const text = await response.text();
  if (!response.ok) { showMessage(text.trim()); return; }
  showMessage('');
  addLayer(JSON.parse(text));
}

// The viewer's level for the current zoom: the finest image level no finer than the screen.
function currentLevel(layer) {
  const item = layer.item || state.layers[0].item;
  const screenPerVoxel = item.viewportToImageZoom(state.viewer.viewport.getZoom(true));
  const level = Math.floor(Math.log2(1 / Math.max(screenPerVoxel, 1e-9)));
  return Math.max(0, Math.min(layer.levels.length - 1, level));
}

function formatValue(value) {
  if (value === null) return 'NaN';
  return Math.abs(value) >= 1e5 || (value !== 0 && Math.abs(value) < 1e-3) ? value.toExponential(4) : String(+value.toFixed(4));
}

async function showCursor(point) {
  if (state.cursorBusy) { state.cursorNext = point; return; }
  state.cursorBusy = true;
  try {
    const base = state.layers[0].item.viewerElementToImageCoordinates(point);
    const x0 = Math.floor(base.x), y0 = Math.floor(base.y);
    const lines = [`x ${x0}, y ${y0} (level 0)`];
    for (const layer of state.layers) {
      if (!layer.visible || x0 < 0 || y0 < 0 || x0 >= layer.levels[0][0] || y0 >= layer.levels[0][1]) continue;
      const level = currentLevel(layer);
      const x = Math.floor(x0 / 2 ** level), y = Math.floor(y0 / 2 ** level);
      const response = await fetch(`/api/layers/${layer.id}/values?x=${x}&y=${y}&level=${level}`);
      const text = await response.text();
      lines.push(response.ok ? `${layer.id}: ${JSON.parse(text).values.map(formatValue).join(', ')}  (level ${level})`
        : `${layer.id}: ${text.trim()}`);
    }
    document.getElementById('cursor').textContent = lines.join('\n');
  } finally {
    state.cursorBusy = false;
    if (state.cursorNext) { const next = state.cursorNext; state.cursorNext = null; showCursor(next); }
  }
}

// A bar of a round length (1, 2 or 5 times a power of ten) about 120 screen pixels long.
function updateScaleBar() {
  const voxel = state.info.voxelSize[0];
  const bar = document.getElementById('scale-bar');
  const item = state.layers[0] && state.layers[0].item;
  if (!item || !(voxel > 0)) { bar.style.display = 'none'; return; }
  bar.style.display = '';
  const screenPerVoxel = item.viewportToImageZoom(state.viewer.viewport.getZoom(true));
  const wanted = 120 / screenPerVoxel * voxel;
  const power = 10 ** Math.floor(Math.log10(wanted));
  const length = [5, 2, 1].map((f) => f * power).find((l) => l <= wanted) || power;
  document.getElementById('scale-line').style.width = `${length / voxel * screenPerVoxel}px`;
  const label = length >= 1e6 ? `${length / 1e6} mm` : length >= 1e3 ? `${length / 1e3} µm` : `${length} nm`;
  document.getElementById('scale-label').textContent = label;
}

async function start() {
  state.info = await (await fetch('/api/info')).json();
  document.title = `nuvek view: ${state.info.title}`;
  document.getElementById('title').textContent = state.info.title;
  // minPixelRatio 1: a level is loaded only once its voxels cover a screen pixel, so a view asks for
  // the finest level no finer than the screen and no more tiles are computed than it shows.
  state.viewer = OpenSeadragon({
    minPixelRatio: 1,
    element: document.getElementById('viewer'), drawer: 'canvas', showNavigationControl: false,
    imageSmoothingEnabled: false, immediateRender: false, timeout: 120000, maxZoomPixelRatio: 8,
  });
  state.viewer.addHandler('tile-load-failed', markFailedTile);
  state.viewer.addHandler('animation', updateScaleBar);
  state.viewer.addHandler('open', updateScaleBar);
  state.viewer.world.addHandler('add-item', updateScaleBar);
  for (const layer of state.info.layers) addLayer(layer);
  document.getElementById('chain-form').addEventListener('submit', submitChain);
  document.getElementById('filter-help').addEventListener('toggle', async () => {
    const list = document.getElementById('filters');
    if (!list.textContent) list.textContent = await (await fetch('/api/filters')).text();
  });
  new OpenSeadragon.MouseTracker({
    element: state.viewer.element,
    moveHandler(event) { if (state.layers[0].item) showCursor(event.position); },
  });
}

// For tests and scripts: the state, and whether every shown layer has all its tiles for the view.
window.nuvekView = {
  state,
  ready: start(),
  allLoaded() {
    const count = state.viewer ? state.viewer.world.getItemCount() : 0;
    if (count !== state.layers.length) return false;
    for (let i = 0; i < count; ++i) if (!state.viewer.world.getItemAt(i).getFullyLoaded()) return false;
    return true;
  },
};
