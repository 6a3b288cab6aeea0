// The page of `nuvek view` in a real browser (Debian's chromium, driven by playwright-core): it
// shows the slide's colours where they are, loads coarse levels for a zoomed-out view and level 0
// once zoomed in, shows the values under the cursor, a typed chain as a new layer, and a bad
// chain's message.   node ViewPage.e2e.mjs NUVEK MAKE_VIEW_SLIDE NODE_MODULES WORK_DIR
import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { pathToFileURL } from 'node:url';

const [nuvek, makeSlide, nodeModules, work] = process.argv.slice(2);

function fail(message) {
  throw new Error(message);
}

// Starts `nuvek view` on a free port; resolves with the process and the page's address.
function startViewer(slide) {
  const server = spawn(nuvek, ['view', slide, '--port', '0', '--threads', '2'], { stdio: ['ignore', 'pipe', 'pipe'] });
  server.output = '';
  server.exited = new Promise((resolve) => server.on('exit', resolve));
  return new Promise((resolve, reject) => {
    const read = (chunk) => {
      server.output += chunk;
      const found = server.output.match(/http:\/\/127\.0\.0\.1:\d+\//);
      if (found) resolve({ server, url: found[0] });
    };
    server.stdout.on('data', read);
    server.stderr.on('data', read);
    server.exited.then((code) => reject(new Error(`nuvek view exited with ${code}: ${server.output}`)));
    setTimeout(() => reject(new Error(`nuvek view did not start: ${server.output}`)), 60000).unref();
  });
}

// Stops the server with Ctrl-C and expects a clean exit (and none before).
async function stopViewer(server) {
  if (server.exitCode !== null) fail(`nuvek view ended early (${server.exitCode}): ${server.output}`);
  const timer = setTimeout(() => server.kill('SIGKILL'), 30000);
  server.kill('SIGINT');
  const code = await server.exited;
  clearTimeout(timer);
  if (code !== 0) fail(`nuvek view did not stop cleanly on SIGINT (${code}): ${server.output}`);
}

async function waitForTiles(page) {
  await page.evaluate(() => window.nuvekView.ready);
  await page.waitForFunction(() => window.nuvekView.allLoaded(), null, { timeout: 120000, polling: 100 });
  // One more frame, so that what was loaded is drawn.
  await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve))));
}

// Where level-0 image positions are on the page, and whether each is in view (not under the scale
// bar in the bottom left corner).
function pagePoints(page, positions) {
  return page.evaluate((positions) => {
    const item = window.nuvekView.state.layers[0].item;
    const frame = window.nuvekView.state.viewer.element.getBoundingClientRect();
    return positions.map(([x, y]) => {
      const point = item.imageToViewerElementCoordinates(new OpenSeadragon.Point(x, y));
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

// Compares the screenshot, decoded by the browser itself, with the expected colour at the centre of
// every block in view.
async function checkColours(page, expected, tolerance, what) {
  const positions = [];
  for (let by = 0; by < 8; ++by) for (let bx = 0; bx < 12; ++bx) positions.push([bx * 128 + 64, by * 128 + 64]);
  const points = await pagePoints(page, positions);
  const shown = positions.filter((_, i) => points[i].inside);
  const where = points.filter((p) => p.inside);
  if (shown.length < 4) fail(`${what}: only ${shown.length} blocks in view`);
  const png = (await page.screenshot()).toString('base64');
  const colours = await page.evaluate(async ([png, where]) => {
    const image = new Image();
    image.src = `data:image/png;base64,${png}`;
    await image.decode();
    const context = Object.assign(document.createElement('canvas'), { width: image.width, height: image.height }).getContext('2d');
    context.drawImage(image, 0, 0);
    return where.map((p) => Array.from(context.getImageData(Math.round(p.x), Math.round(p.y), 1, 1).data.slice(0, 3)));
  }, [png, where]);
  shown.forEach(([x, y], i) => {
    const want = expected(x, y);
    if (colours[i].some((value, c) => Math.abs(value - want[c]) > tolerance)) {
      fail(`${what}: at image (${x}, ${y}), page (${where[i].x.toFixed(1)}, ${where[i].y.toFixed(1)}) the screenshot shows ${colours[i]}, expected ${want}`);
    }
  });
  console.log(`${what}: ${shown.length} block colours match`);
}

async function check(page, url) {
  const errors = [];
  page.on('pageerror', (error) => errors.push(error.message));
  const tiles = [];
  page.on('request', (request) => { if (request.url().includes('/tiles/')) tiles.push(new URL(request.url()).pathname); });
  await page.goto(url);
  await waitForTiles(page);

  // Zoomed out, the whole 1536 x 1024 slide fits in about 860 x 800 pixels: no level-0 tile.
  if (tiles.length === 0) fail('no tile was requested');
  if (tiles.some((p) => p.includes('/tiles/0/'))) fail('the zoomed-out view asked for level-0 tiles');
  await checkColours(page, blockColour, 14, 'zoomed out');

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
  await checkColours(page, blockColour, 14, 'zoomed in');

  // The values under the cursor.
  const [centre] = await pagePoints(page, [[5 * 128 + 64, 3 * 128 + 64]]);
  await page.mouse.move(centre.x, centre.y);
  const wanted = `0: ${blockColour(5 * 128 + 64, 3 * 128 + 64).join(', ')}`;
  await page.waitForFunction((text) => document.getElementById('cursor').textContent.includes(text), wanted, { timeout: 30000 });

  // A typed chain appears as a layer on top; shown opaque, it is the red channel in grey over the
  // layer's automatic range: round(255 (v - min) / (max - min)), clamped.
  await page.fill('#chain-input', 'channel 0');
  await page.press('#chain-input', 'Enter');
  await page.waitForFunction(() => window.nuvekView.state.layers.length === 2 && window.nuvekView.state.layers[1].item);
  await page.locator('.layer').nth(1).locator('input[type=range]').fill('1');
  await waitForTiles(page);
  const [min, max] = await page.evaluate(() => window.nuvekView.state.layers[1].range);
  const grey = (x, y) => Array(3).fill(Math.min(255, Math.max(0, Math.floor(255 * (blockColour(x, y)[0] - min) / (max - min) + 0.5))));
  await checkColours(page, grey, 2, `chain layer over ${min}..${max}`);
  if ((await page.textContent('#message')).trim() !== '') fail('a good chain left a message');

  // A bad chain shows the library's message and adds no layer.
  await page.fill('#chain-input', 'gaussian x');
  await page.press('#chain-input', 'Enter');
  const message = "gaussian: parameter 'k' must be a whole number, got 'x'.";
  await page.waitForFunction((text) => document.getElementById('message').textContent === text, message, { timeout: 30000 });
  if (await page.evaluate(() => window.nuvekView.state.layers.length) !== 2) fail('a bad chain added a layer');
  if (errors.length) fail(`errors in the page: ${errors.join('; ')}`);
}

try {
  fs.rmSync(work, { recursive: true, force: true });
  fs.mkdirSync(path.join(work, 'profile'), { recursive: true });
  const slide = path.join(work, 'blocks.tif');
  execFileSync(makeSlide, [slide]);
  const { server, url } = await startViewer(slide);
  const { chromium } = await import(pathToFileURL(path.join(nodeModules, 'playwright-core', 'index.mjs')).href);
  const context = await chromium.launchPersistentContext(path.join(work, 'profile'), {
    executablePath: '/usr/bin/chromium', headless: true, viewport: { width: 1200, height: 800 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  const failure = await check(await context.newPage(), url).then(() => null, (error) => error);
  await context.close();
  const stopped = stopViewer(server);
  if (failure) {
    await stopped.catch((error) => console.error(error.message));
    throw failure;
  }
  await stopped;
  fs.rmSync(work, { recursive: true, force: true });
  console.log('1 passed, 0 failed');
} catch (error) {
  console.error(`FAILED: ${error.message}`);
  process.exit(1);
}
