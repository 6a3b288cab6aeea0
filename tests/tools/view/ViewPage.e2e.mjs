// The page of `nuvek view` in a real browser (Debian's chromium, driven by playwright-core): it
// shows the slide's colours where they are, loads coarse levels for a zoomed-out view and level 0
// once zoomed in, shows a typed chain as a new layer, and a bad chain's message.
//
//   node ViewPage.e2e.mjs NUVEK MAKE_VIEW_SLIDE NODE_MODULES WORK_DIR
//   node ViewPage.e2e.mjs --screenshot NUVEK NODE_MODULES SLIDE OUTPUT.png [CHAIN]...
// The second form takes the README's picture: zoomed in four times, the last chain in the heat map.
import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { pathToFileURL } from 'node:url';

const chromiumArgs = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];

function fail(message) {
  throw new Error(message);
}

// Starts `nuvek view` on a free port; resolves with the process and the page's address.
function startViewer(nuvek, slide, chains) {
  const args = ['view', slide, '--port', '0', '--threads', '2', ...chains.flatMap((c) => ['--chain', c])];
  const server = spawn(nuvek, args, { stdio: ['ignore', 'pipe', 'pipe'] });
  let output = '';
  server.output = () => output;
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`nuvek view did not start: ${output}`)), 60000);
    let started = false;
    const read = (chunk) => {
      output += chunk;
      const found = output.match(/http:\/\/127\.0\.0\.1:\d+\//);
      if (found && !started) { started = true; clearTimeout(timer); resolve({ server, url: found[0] }); }
    };
    server.stdout.on('data', read);
    server.stderr.on('data', read);
    server.on('exit', (code) => { clearTimeout(timer); reject(new Error(`nuvek view exited with ${code}: ${output}`)); });
  });
}

// Stops the server with Ctrl-C and expects a clean exit.
function stopViewer(server) {
  if (server.exitCode !== null || server.signalCode !== null) {
    return Promise.reject(new Error(`nuvek view ended early (${server.exitCode ?? server.signalCode}): ${server.output()}`));
  }
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => { server.kill('SIGKILL'); reject(new Error('nuvek view did not stop on SIGINT')); }, 30000);
    server.removeAllListeners('exit');
    server.on('exit', (code) => {
      clearTimeout(timer);
      code === 0 ? resolve() : reject(new Error(`nuvek view exited with ${code}: ${server.output()}`));
    });
    server.kill('SIGINT');
  });
}

async function openBrowser(nodeModules) {
  const { chromium } = await import(pathToFileURL(path.join(nodeModules, 'playwright-core', 'index.mjs')).href);
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'nuvek-view-chromium-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: '/usr/bin/chromium', headless: true, args: chromiumArgs, viewport: { width: 1200, height: 800 },
  });
  return { context, profile };
}

const started = Date.now();
function log(text) {
  console.log(`${((Date.now() - started) / 1000).toFixed(1)} s  ${text}`);
}

async function waitForTiles(page) {
  await page.evaluate(() => window.nuvekView.ready);
  await page.waitForFunction(() => window.nuvekView.allLoaded(), null, { timeout: 120000, polling: 100 });
  // One more frame, so that what was loaded is drawn.
  await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve))));
}

// The screenshot's colours at page points, decoded by the browser itself.
async function screenshotColours(page, points) {
  const png = await page.screenshot();
  return page.evaluate(async ([base64, points]) => {
    const image = new Image();
    image.src = `data:image/png;base64,${base64}`;
    await image.decode();
    const canvas = document.createElement('canvas');
    canvas.width = image.width;
    canvas.height = image.height;
    const context = canvas.getContext('2d');
    context.drawImage(image, 0, 0);
    return points.map((p) => Array.from(context.getImageData(Math.round(p.x), Math.round(p.y), 1, 1).data.slice(0, 3)));
  }, [png.toString('base64'), points]);
}

// Where level-0 image positions are on the page, and whether each is in view.
function pagePoints(page, positions) {
  return page.evaluate((positions) => {
    const item = window.nuvekView.state.layers[0].item;
    const frame = window.nuvekView.state.viewer.element.getBoundingClientRect();
    return positions.map(([x, y]) => {
      const point = item.imageToViewerElementCoordinates(new OpenSeadragon.Point(x, y));
      // Not under the scale bar in the bottom left corner.
      const underScaleBar = point.x < 220 && point.y > frame.height - 48;
      return { x: point.x + frame.left, y: point.y + frame.top,
        inside: point.x > 4 && point.y > 4 && point.x < frame.width - 4 && point.y < frame.height - 4 && !underScaleBar };
    });
  }, positions);
}

// The slide's colour of the block holding (x, y): the formula of make_view_slide.
function blockColour(x, y) {
  const bx = Math.floor(x / 128), by = Math.floor(y / 128);
  return [(40 + 20 * bx) % 256, (30 + 28 * by) % 256, (220 + 37 * (bx + by)) % 256];
}

function displayByte(value, min, max) {
  const scaled = 255 * (value - min) / (max - min);
  return scaled <= 0 ? 0 : scaled >= 255 ? 255 : Math.floor(scaled + 0.5);
}

// Compares the screenshot with the expected colour at the centre of every block in view.
async function checkColours(page, expected, tolerance, what) {
  const positions = [];
  for (let by = 0; by < 8; ++by) for (let bx = 0; bx < 12; ++bx) positions.push([bx * 128 + 64, by * 128 + 64]);
  const points = await pagePoints(page, positions);
  const shown = positions.filter((_, i) => points[i].inside);
  const where = points.filter((p) => p.inside);
  if (shown.length < 4) fail(`${what}: only ${shown.length} blocks in view`);
  const colours = await screenshotColours(page, where);
  shown.forEach(([x, y], i) => {
    const want = expected(x, y);
    if (colours[i].some((value, c) => Math.abs(value - want[c]) > tolerance)) {
      fail(`${what}: at image (${x}, ${y}), page (${where[i].x.toFixed(1)}, ${where[i].y.toFixed(1)}) the screenshot shows ${colours[i]}, expected ${want}`);
    }
  });
  return shown.length;
}

async function endToEnd(nuvek, makeSlide, nodeModules, work) {
  fs.rmSync(work, { recursive: true, force: true });
  fs.mkdirSync(work, { recursive: true });
  const slide = path.join(work, 'blocks.tif');
  execFileSync(makeSlide, [slide]);
  const { server, url } = await startViewer(nuvek, slide, []);
  const { context, profile } = await openBrowser(nodeModules);
  try {
    const page = await context.newPage();
    const errors = [];
    page.on('pageerror', (error) => errors.push(error.message));
    const tiles = [];
    page.on('request', (request) => { if (request.url().includes('/tiles/')) tiles.push(new URL(request.url()).pathname); });
    await page.goto(url);
    await waitForTiles(page);

    // Zoomed out, the whole 1536 x 1024 slide fits in about 860 x 800 pixels: no level-0 tile.
    if (tiles.length === 0) fail('no tile was requested');
    const fine = tiles.filter((p) => p.includes('/tiles/0/'));
    if (fine.length !== 0) fail(`the zoomed-out view asked for level-0 tiles: ${fine.slice(0, 3)}`);
    const blocks = await checkColours(page, blockColour, 14, 'zoomed out');
    log(`zoomed out: ${tiles.length} tiles, none of level 0; ${blocks} block colours match`);

    // Zoom in four times over the middle: the view needs level 0.
    const box = await page.locator('#viewer').boundingBox();
    await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
    for (let i = 0; i < 4; ++i) {
      await page.mouse.wheel(0, -300);
      await page.waitForTimeout(150);
    }
    await page.evaluate(() => window.nuvekView.state.viewer.viewport.applyConstraints(true));
    await waitForTiles(page);
    if (!tiles.some((p) => p.includes('/layers/0/tiles/0/'))) fail('zoomed in, no level-0 tile was requested');
    const zoomedBlocks = await checkColours(page, blockColour, 14, 'zoomed in');
    log(`zoomed in: ${zoomedBlocks} block colours match at level 0`);

    // The values under the cursor.
    const [centre] = await pagePoints(page, [[5 * 128 + 64, 3 * 128 + 64]]);
    await page.mouse.move(centre.x, centre.y);
    const wanted = blockColour(5 * 128 + 64, 3 * 128 + 64).join(', ');
    await page.waitForFunction((text) => document.getElementById('cursor').textContent.includes(`0: ${text}`), wanted, { timeout: 30000 });

    // A typed chain appears as a layer on top; shown opaque, it is the red channel in grey over
    // the layer's automatic range.
    await page.fill('#chain-input', 'channel 0');
    await page.press('#chain-input', 'Enter');
    await page.waitForFunction(() => window.nuvekView.state.layers.length === 2 && window.nuvekView.state.layers[1].item);
    await page.locator('.layer').nth(1).locator('input[type=range]').fill('1');
    await waitForTiles(page);
    const range = await page.evaluate(() => window.nuvekView.state.layers[1].range);
    const grey = (x, y) => { const v = displayByte(blockColour(x, y)[0], range[0], range[1]); return [v, v, v]; };
    const greyBlocks = await checkColours(page, grey, 2, 'chain layer');
    if ((await page.textContent('#message')).trim() !== '') fail('a good chain left a message');
    log(`chain 'channel 0' over range ${range}: ${greyBlocks} grey blocks match`);

    // A bad chain shows the library's message and adds no layer.
    await page.fill('#chain-input', 'gaussian x');
    await page.press('#chain-input', 'Enter');
    const message = "gaussian: parameter 'k' must be a whole number, got 'x'.";
    await page.waitForFunction((text) => document.getElementById('message').textContent === text, message, { timeout: 30000 });
    if (await page.evaluate(() => window.nuvekView.state.layers.length) !== 2) fail('a bad chain added a layer');
    log(`bad chain: "${message}" shown`);
    if (errors.length) fail(`errors in the page: ${errors.join('; ')}`);
  } catch (error) {
    await context.close();
    fs.rmSync(profile, { recursive: true, force: true });
    await stopViewer(server).catch((stopError) => console.error(stopError.message));
    throw error;
  }
  await context.close();
  fs.rmSync(profile, { recursive: true, force: true });
  await stopViewer(server);
  fs.rmSync(work, { recursive: true, force: true });
  console.log('1 passed, 0 failed');
}

async function screenshot(nuvek, nodeModules, slide, output, chains) {
  const { server, url } = await startViewer(nuvek, slide, chains);
  const { context, profile } = await openBrowser(nodeModules);
  try {
    const page = await context.newPage();
    await page.goto(url);
    await waitForTiles(page);
    await page.evaluate(() => window.nuvekView.state.viewer.viewport.zoomBy(4).applyConstraints(true));
    if (chains.length) await page.locator('.layer').last().locator('select.colour-map').selectOption('heat');
    await page.waitForTimeout(500);
    await waitForTiles(page);
    const box = await page.locator('#viewer').boundingBox();
    await page.mouse.move(box.x + box.width * 0.45, box.y + box.height * 0.45);
    await page.waitForTimeout(1500);
    await page.screenshot({ path: output });
  } finally {
    await context.close();
    fs.rmSync(profile, { recursive: true, force: true });
    await stopViewer(server);
  }
}

const args = process.argv.slice(2);
try {
  if (args[0] === '--screenshot') await screenshot(args[1], args[2], args[3], args[4], args.slice(5));
  else await endToEnd(args[0], args[1], args[2], args[3]);
} catch (error) {
  console.error(`FAILED: ${error.message}`);
  process.exit(1);
}
