// Opens reports in a headless Chromium: what the JSON has is drawn, zoom and choices work, nothing is loaded from
// anywhere, every layout fits its screen. Screenshots go to UDT_PAGE_OUT (out/page). With UDT_LAB naming the udtlab
// program the pages are those of real runs too; the demo's is the README's picture, which UDT_PAGE_RENEW=1 writes.
import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {createServer} from 'node:http';
import {copyFileSync, mkdirSync, readFileSync, statSync, writeFileSync} from 'node:fs';
import path from 'node:path';
import {after, before, test} from 'node:test';
import {fileURLToPath, pathToFileURL} from 'node:url';
import {chromium} from 'playwright-core';
import {fillPage, read} from './page.js';
import * as made from './reports.js';

const ROOT = fileURLToPath(new URL('../../', import.meta.url));
const OUT = path.resolve(process.env.UDT_PAGE_OUT || path.join(ROOT, 'out/page'));
const LAB = process.env.UDT_LAB || '';
const CHROMIUM = process.env.UDT_CHROMIUM || '/usr/bin/chromium';
const DESK = {width: 1280, height: 900}, PHONE = {width: 360, height: 740}, PAPER = {width: 703, height: 1000};

mkdirSync(OUT, {recursive: true});

let browser;
before(async () => {
  browser = await chromium.launch({executablePath: CHROMIUM, args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking']});
});
after(() => browser && browser.close());

function write(name, html) {
  const file = path.join(OUT, name + '.html');
  writeFileSync(file, html);
  return pathToFileURL(file).href;
}

// A page of its own that remembers every request, console line and error; `finish` holds them to nothing.
async function open(url, {viewport = DESK, theme = 'light', touch = false, allowed = () => false} = {}) {
  const page = await browser.newPage({viewport, colorScheme: theme, isMobile: touch, hasTouch: touch});
  const wrong = [];
  page.on('console', line => { if (line.type() === 'error' || line.type() === 'warning') wrong.push(`${line.type()}: ${line.text()}`); });
  page.on('pageerror', error => wrong.push('error: ' + error.stack));
  page.on('request', request => { if (request.url() !== url && !request.url().startsWith('data:') && !allowed(request.url())) wrong.push('request: ' + request.url()); });
  await page.goto(url);
  await page.waitForFunction(() => window.udtReport && window.udtReport.ready);
  await settled(page);
  page.finish = async () => {
    assert.deepEqual(wrong, []);
    await page.close();
  };
  return page;
}

const settled = page => page.evaluate(() => new Promise(done => requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(done, 30)))));

// Brings every plot near once, as a reader who scrolls through.
async function scrollThrough(page) {
  await page.evaluate(async () => {
    for (let y = 0; y < document.documentElement.scrollHeight; y += innerHeight) {
      scrollTo(0, y);
      await new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)));
    }
    scrollTo(0, 0);
    await new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)));
  });
}

const fits = async page => {
  const [needed, width] = await page.evaluate(() => [document.documentElement.scrollWidth, document.documentElement.clientWidth]);
  assert.ok(needed <= width, `${needed} px of page on ${width} px of screen`);
};

// Every line that is drawn, with its values as they came and where they lie: seen from outside, through uPlot.
const drawn = page => page.evaluate(() => window.udtReport.plots.filter(card => card.u).map(card => ({
  key: card.key, plot: card.spec.plot.id, title: card.title, x: [...card.u.data[0]], scale: [card.u.scales.x.min, card.u.scales.x.max],
  lines: card.points.map(([index, line]) => ({
    label: line.label, name: line.name, r: line.r, down: line.down,
    of: line.name && card.spec.lines.includes(line) ? card.spec.streams.map(stream => stream.ids[line.r]).concat(card.spec.user ? [card.spec.user.ids[line.r]] : [], 'run') : [],
    values: [...card.u.data[index]],
  })),
})));

// What the report says must be drawn: for every series of a shown user's plots, points in exactly the bins that have values.
async function holdToReport(page, report) {
  const plots = await drawn(page);
  const shown = new Set(await page.evaluate(() => window.udtReport.model.users.filter(user => window.udtReport.state.shown.has(user.key)).map(user => user.ids[0])));
  const kinds = new Map([['arrivalDelay', 'delay'], ['playoutDelay', 'delay'], ['target', 'delay'], ['latency', 'delay'], ['bufferMs', 'bufferMs'], ['bufferPackets', 'bufferPackets'],
    ['clockSpeed', 'clock'], ['avOffset', 'avOffset'], ['lost', 'loss'], ['unrepaired', 'loss'], ['requested', 'requests'], ['answered', 'requests'],
    ['requestsFailed', 'requests'], ['requestsWasted', 'requests'], ['gaps', 'gaps'], ['stallMs', 'stalls'], ['bytesIn', 'rate'], ['bytesOut', 'rate'],
    ['downlinkLoss', 'downlink'], ['liveStreams', 'live']]);
  const zeroIsNothing = new Set(['lost', 'unrepaired', 'requested', 'answered', 'requestsFailed', 'requestsWasted', 'gaps', 'stallMs']);
  const ids = new Set(['run', ...report.users.filter(user => shown.has(user.id)).flatMap(user => [user.id, ...report.streams.filter(stream => stream.user === user.id).map(stream => stream.id)])]);
  let held = 0;
  for (const series of report.series) {
    const plot = kinds.get(series.name);
    if (!plot || !ids.has(series.of) || !series.v.some(value => value !== null) || (zeroIsNothing.has(series.name) && !series.v.some(value => value))) continue;
    if ((series.name === 'target' || series.name === 'latency') && !plots.some(card => card.plot === 'delay' && card.lines.some(line => line.of.includes(series.of)))) continue;
    const lines = plots.filter(card => card.plot === plot).flatMap(card => card.lines).filter(line => line.name === series.name && line.of.includes(series.of));
    assert.ok(lines.length > 0, `${series.name} of ${series.of} is drawn`);
    const same = lines.some(line => line.values.length >= series.v.length &&
      line.values.every((value, i) => (value === null || value === undefined) === (series.v[i] === null || series.v[i] === undefined)));
    assert.ok(same, `${series.name} of ${series.of} has its points where the report has values, and gaps where it has null`);
    held++;
  }
  return held;
}

async function dragAcross(page, from, to) {
  const box = await page.locator('.card .u-over').first().boundingBox();
  await page.mouse.move(box.x + box.width * from, box.y + box.height / 2);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width * (from + to) / 2, box.y + box.height / 2, {steps: 4});
  await page.mouse.move(box.x + box.width * to, box.y + box.height / 2, {steps: 4});
  await page.mouse.up();
  await settled(page);
}

const report = made.makeReport();
const url = write('call', fillPage(report));

test('the template has each placeholder once, and nothing that is put in ends its element', () => {
  const template = read('report.html');
  for (const name of ['CSS', 'JS', 'DATA']) assert.equal(template.split(`<!--UDT:${name}-->`).length, 2, name);
  for (const name of ['report.js', 'vendor/uPlot.iife.min.js', 'report.css', 'vendor/uPlot.min.css']) {
    assert.ok(!/<\/(script|style)|<!--/i.test(read(name)), name);
    assert.ok(!/url\(|@import|\bimport\s*\(/.test(read(name)), `${name} loads nothing`);
  }
});

test('the chart library is the one its package holds', () => {
  const from = name => readFileSync(new URL('node_modules/uplot/' + name, import.meta.url), 'utf8');
  for (const [mine, theirs] of [['uPlot.iife.min.js', 'dist/uPlot.iife.min.js'], ['uPlot.min.css', 'dist/uPlot.min.css'], ['LICENSE', 'LICENSE']])
    assert.equal(read('vendor/' + mine), from(theirs), mine);
  assert.match(read('vendor/README.md'), new RegExp('uPlot ' + JSON.parse(from('package.json')).version.replaceAll('.', '\\.') + ' '));
});

test('every series of the report is drawn, with points where it has values', async () => {
  const page = await open(url);
  await scrollThrough(page);
  const plots = await drawn(page);
  assert.ok(await holdToReport(page, report) >= 31);
  for (const card of plots) assert.equal(card.x.length, report.bins.count, card.title);
  const [lost] = plots.find(card => card.key.includes('|loss|')).lines.filter(line => line.name === 'lost');
  assert.deepEqual(lost.values, report.series.find(series => series.name === 'lost').v);
  const rate = plots.find(card => card.plot === 'rate').lines.find(line => line.name === 'bytesIn');
  assert.equal(rate.values[3], report.series.find(series => series.name === 'bytesIn').v[3] * 8 / 100); // kbit/s
  await page.screenshot({path: path.join(OUT, 'call-light.png'), fullPage: true});
  await fits(page);
  await page.finish();
});

test('a drag zooms all plots, a double click shows everything again', async () => {
  const page = await open(url);
  await dragAcross(page, 0.25, 0.5);
  await scrollThrough(page);
  const zoomed = await drawn(page);
  assert.ok(zoomed.length > 10);
  const [from, to] = zoomed[0].scale;
  assert.ok(Math.abs(from - 15) < 1 && Math.abs(to - 30) < 1, `${from} to ${to}`);
  for (const card of zoomed) assert.deepEqual(card.scale, [from, to], card.title);
  assert.match(await page.locator('[data-role=range]').textContent(), /^0:1[45]\.\d+ – 0:(29|30)\.\d+$/);
  await page.screenshot({path: path.join(OUT, 'call-zoomed.png')});

  await page.keyboard.press('ArrowRight');
  await settled(page);
  const moved = (await drawn(page))[0].scale;
  assert.ok(moved[0] > from + 1 && Math.abs(moved[1] - moved[0] - (to - from)) < 1e-6, 'the arrow moves and keeps the width');

  const box = await page.locator('.card .u-over').first().boundingBox();
  await page.mouse.dblclick(box.x + box.width / 2, box.y + box.height / 2);
  await settled(page);
  await scrollThrough(page);
  for (const card of await drawn(page)) assert.deepEqual(card.scale, [0, 60], card.title);
  await page.finish();
});

test('the crosshair stands at one time in all plots, and legends tell the values there', async () => {
  const page = await open(url);
  const box = await page.locator('.card .u-over').first().boundingBox();
  await page.mouse.move(box.x + box.width * 0.2, box.y + 40);
  await page.mouse.move(box.x + box.width * 0.25, box.y + 40);
  await settled(page);
  const seen = await page.evaluate(() => window.udtReport.plots.filter(card => card.u && card.near).map(card => [card.u.cursor.idx, card.legend.textContent]));
  assert.ok(seen.length >= 4);
  for (const [idx] of seen) assert.ok(Math.abs(idx - 150) <= 1, `${idx}`);
  const of = name => report.series.find(series => series.name === name && series.of === 's0').v[seen[0][0]];
  assert.ok(seen[0][1].includes(`arrival${Math.round(of('arrivalDelay')).toLocaleString('en-US')} ms`), seen[0][1]);
  await page.finish();
});

test('a mark tells its event, and a click in the list or the verdict goes there', async () => {
  const page = await open(url);
  const at = report.events.find(event => event.kind === 'jump').t / 1000;
  const [x, y] = await page.evaluate(t => {
    const {u} = window.udtReport.plots[0];
    const rect = u.over.getBoundingClientRect();
    return [rect.left + u.valToPos(t, 'x'), rect.top + 20];
  }, at);
  await page.mouse.move(x - 5, y);
  await page.mouse.move(x, y);
  await settled(page);
  assert.match(await page.locator('.tip').textContent(), /0:24\.000.*jump.*180 ms: clock set forward/);
  await page.screenshot({path: path.join(OUT, 'call-tip.png')});

  const listed = page.locator('[data-table=events] tbody tr');
  assert.equal(await listed.count(), report.events.length);
  await page.locator('[data-kind=stall]').click();
  assert.equal(await listed.count(), report.events.filter(event => event.kind !== 'stall').length);
  await page.locator('[data-kind=stall]').click();

  await listed.filter({hasText: 'pull back'}).getByRole('button').click();
  await settled(page);
  let [from, to] = await page.evaluate(() => window.udtReport.view);
  assert.ok(from < 30 && to > 30 && to - from < 10, `${from} to ${to}`);
  await page.locator('.verdict .link').first().click();
  await settled(page);
  [from, to] = await page.evaluate(() => window.udtReport.view);
  assert.ok(from < 40.8 && to > 40.8 && to - from < 10, `${from} to ${to}`);
  await page.finish();
});

test('a stream and a legend entry can be switched off and on', async () => {
  const page = await open(url);
  const titles = () => page.evaluate(() => window.udtReport.plots.map(card => card.title));
  const all = await titles();
  assert.ok(all.includes('Delay · video'));
  await page.locator('[data-stream$="video:4"]').click();
  await settled(page);
  const left = await titles();
  assert.ok(!left.some(title => title.includes('video')), left.join());
  assert.equal(await page.evaluate(() => window.udtReport.plots.find(card => card.spec.plot.id === 'bufferMs').spec.lines.length), 1);
  await page.locator('[data-stream$="video:4"]').click();
  await settled(page);
  assert.deepEqual((await titles()).sort(), [...all].sort());

  const lines = () => page.evaluate(() => window.udtReport.plots[0].points.map(([, line]) => line.label));
  assert.ok((await lines()).includes('arrival'));
  await page.locator('.legend button').first().click();
  assert.ok(!(await lines()).includes('arrival'));
  assert.equal(await page.locator('.legend button').first().getAttribute('aria-pressed'), 'false');
  await page.finish();
});

test('the theme follows the system, and the button', async () => {
  const dark = await open(url, {theme: 'dark'});
  const ground = () => dark.evaluate(() => getComputedStyle(document.documentElement).backgroundColor);
  const stroke = () => dark.evaluate(() => window.udtReport.plots[0].points[0][0] && window.udtReport.plots[0].u.series.at(-1).stroke());
  const before = [await ground(), await stroke()];
  await scrollThrough(dark);
  await dark.screenshot({path: path.join(OUT, 'call-dark.png'), fullPage: true});
  await dark.locator('[data-role=theme]').click();
  await settled(dark);
  const now = [await ground(), await stroke()];
  assert.equal(now[0], 'rgb(255, 255, 255)');
  assert.notEqual(now[0], before[0]);
  assert.notEqual(now[1], before[1], 'the plots are drawn in the new colours');
  await dark.finish();
});

const CASES = {
  'one-packet': made.onePacket(), 'no-video': made.noVideo(), 'fifty-users': made.manyUsers(), 'long-names': made.longNames(), holes: made.holes(), 'an-hour': made.fullSize(), nothing: made.nothing(),
};
for (const [name, data] of Object.entries(CASES)) {
  test(`${name}: drawn as the report says, on a desk, a phone and paper`, async () => {
    const where = write(name, fillPage(data));
    const page = await open(where);
    await scrollThrough(page);
    const held = await holdToReport(page, {users: [], streams: [], series: [], ...data});
    assert.ok(held > 0 || name === 'nothing');
    await fits(page);
    await page.screenshot({path: path.join(OUT, name + '.png')});

    if (name !== 'an-hour') { // nothing there that others do not have, and slow
      await page.setViewportSize(PAPER);
      await page.emulateMedia({media: 'print'});
      await settled(page);
      await fits(page);
      assert.ok(await page.evaluate(() => window.udtReport.plots.every(card => card.u)), 'every plot is on paper, also those nobody scrolled to');
      assert.ok(await page.evaluate(() => window.udtReport.plots.every(card => card.u.width <= card.root.clientWidth)), 'none is cut off');
      assert.equal(await page.evaluate(() => getComputedStyle(document.documentElement).backgroundColor), 'rgb(255, 255, 255)');
      await page.screenshot({path: path.join(OUT, name + '-print.png')});
    }
    await page.finish();

    const phone = await open(where, {viewport: PHONE, touch: true, theme: 'dark'});
    await scrollThrough(phone);
    await fits(phone);
    await phone.screenshot({path: path.join(OUT, name + '-phone.png')});
    await phone.finish();
  });
}

test('fifty users: a few are shown, the filter finds one, a box shows it, and plots far away hold no canvas', async () => {
  const page = await open(write('fifty-users', fillPage(CASES['fifty-users'])));
  assert.equal(await page.locator('main > section.user').count(), 5); // four and the whole run
  await page.getByLabel('filter users').fill('participant 37');
  assert.equal(await page.locator('[data-user]').count(), 1);
  await page.locator('[data-user]').click();
  assert.equal(await page.locator('main > section.user').count(), 6);
  assert.equal(await page.locator('main > section.user h2').nth(4).textContent(), 'participant 37');

  await page.getByLabel('filter users').fill('');
  await page.getByRole('button', {name: 'show all listed'}).click();
  assert.equal(await page.locator('main > section.user').count(), 51);
  const most = await page.evaluate(async () => {
    const kept = [];
    for (let i = 0; i < 10; i++) {
      scrollTo(0, document.documentElement.scrollHeight * i / 10);
      await new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)));
      kept.push(window.udtReport.plots.filter(card => card.u).length);
    }
    return Math.max(...kept);
  });
  assert.ok(most > 60 && most < 170, `${most} of 600 plots hold a canvas: those far away give theirs back`);
  await page.finish();
});

// What the program itself writes.
const lab = (...command) => execFileSync(LAB, command, {cwd: ROOT, encoding: 'utf8', stdio: ['ignore', 'pipe', 'pipe']});
const has = command => { try { return lab(command, '--help').includes('--html'); } catch (error) { return false; } };
const without = LAB ? !has('replay') && 'this udtlab writes no pages' : 'UDT_LAB names no udtlab';
const dataOf = file => JSON.parse(/<script type="application\/json" id="report-data">([^]*?)<\/script>/.exec(readFileSync(file, 'utf8'))[1]);

const RUNS = {
  demo: ['replay', 'data/rtp/h264-opus-rtx-lab-31s.pcapng'],
  'train-outages': ['simulate', '--scenario', 'lab/scenarios/train-outages.json'],
  'large-room': ['simulate', '--scenario', 'lab/scenarios/large-room-50.json'],
};
for (const [name, command] of Object.entries(RUNS)) {
  test(`udtlab ${command.join(' ')}: its page shows what it found`, {skip: without}, async () => {
    const file = path.join(OUT, `run-${name}.html`);
    lab(...command, '--html', file);
    assert.ok(statSync(file).size < 5e6, `${statSync(file).size} bytes`);
    const data = dataOf(file);
    const page = await open(pathToFileURL(file).href);
    await scrollThrough(page);
    assert.ok(await holdToReport(page, data) > 10);
    assert.equal(await page.locator('.verdict li').count(), data.verdict.length);
    assert.ok(data.verdict.length > 0 && data.tables.length > 0);
    await fits(page);
    await page.screenshot({path: path.join(OUT, `run-${name}.png`), fullPage: name === 'demo'});
    if (name === 'demo') { // the README's picture
      const picture = path.join(OUT, 'report.png');
      await page.evaluate(() => scrollTo(0, 0));
      await settled(page);
      await page.screenshot({path: picture, clip: {x: 0, y: 0, width: 1280, height: 1180}, fullPage: true});
      assert.ok(statSync(picture).size < 300e3, `${statSync(picture).size} bytes`);
      if (process.env.UDT_PAGE_RENEW) copyFileSync(picture, path.join(ROOT, 'docs/images/report.png'));
    }
    await page.finish();
    const phone = await open(pathToFileURL(file).href, {viewport: PHONE, touch: true, theme: 'dark'});
    await scrollThrough(phone);
    await fits(phone);
    await phone.screenshot({path: path.join(OUT, `run-${name}-phone.png`)});
    await phone.finish();
  });
}

test('udtlab report A B: two runs of the program lie over each other', {skip: without}, async () => {
  const files = ['default', 'low-latency'].map(mode => {
    const file = path.join(OUT, `run-${mode}.json`);
    lab('simulate', '--loss', '5%', '--rtt', '100', '--jitter', '20', '--seconds', '30', '--mode', mode, '--report', file);
    return file;
  });
  const file = path.join(OUT, 'run-compare.html');
  lab('report', ...files, '--html', file);
  const page = await open(pathToFileURL(file).href);
  await scrollThrough(page);
  const plots = await drawn(page);
  for (const id of ['delay', 'bufferMs', 'loss', 'requests', 'rate'])
    for (const r of [0, 1]) assert.ok(plots.some(card => card.plot === id && card.lines.some(line => line.r === r && line.values.some(value => value))), `${id} of run ${'AB'[r]}`);
  assert.match(await page.locator('[data-table=options]').textContent(), /modedefaultlow-latency/);
  assert.ok(await page.locator('[data-table=changes] tbody tr').count() > 3);
  await fits(page);
  await page.screenshot({path: path.join(OUT, 'run-compare.png')});
  await page.finish();
});

// What a move costs is printed, not judged: the machine may be busy.
test('moving through the largest report draws only the plots that are near, each once per frame', async () => {
  const page = await open(write('an-hour', fillPage(CASES['an-hour'])));
  await scrollThrough(page); // so that there are others
  await settled(page);
  const [near, made, draws, script] = await page.evaluate(async () => {
    const frame = () => new Promise(done => requestAnimationFrame(done));
    window.udtReport.setView([600, 1800]);
    await frame();
    await frame();
    const cards = window.udtReport.plots.filter(card => card.u);
    let draws = 0;
    for (const card of cards) card.u.hooks.draw.push(() => draws++);
    let spent = 0;
    for (let i = 1; i <= 20; i++) {
      window.udtReport.setView([590 + i * 10, 1790 + i * 10]); // an event more often than a frame
      window.udtReport.setView([600 + i * 10, 1800 + i * 10]);
      const start = performance.now();
      await frame();
      spent += performance.now() - start;
    }
    await frame();
    return [cards.filter(card => card.near).length, cards.length, draws, spent / 20];
  });
  console.log(`a move of ${near} plots of 2000 bins: ${script.toFixed(1)} ms, waiting for the frame included`);
  assert.ok(made > near + 10, `${made} charts, ${near} near`);
  assert.equal(draws, near * 20);
  await page.finish();
});

test('two runs lie over each other, and what changed is listed, the largest first', async () => {
  const data = made.comparison();
  const where = write('compare', fillPage(data));
  const page = await open(where);
  await scrollThrough(page);
  const plots = await drawn(page);
  for (const card of plots) assert.equal(card.x.length, 320, card.title); // bins of 200 ms, as the coarser run has
  const delay = plots.find(card => card.plot === 'delay');
  assert.deepEqual(delay.lines.map(line => line.label).sort(), ['arrival A', 'arrival B', 'latency A', 'latency B', 'playout A', 'playout B', 'target A', 'target B']);
  const sum = values => values.reduce((a, b) => a + (b || 0), 0);
  const lost = plots.find(card => card.plot === 'loss').lines.filter(line => line.name === 'lost');
  for (const line of lost) assert.equal(sum(line.values), sum(data.runs[line.r].series.find(series => series.name === 'lost').v), line.label);
  assert.ok(await page.evaluate(() => window.udtReport.plots.every(card => card.spec.lines.every(line => !!line.dash === (line.r === 1)))));

  assert.deepEqual(await page.locator('[data-table=options] tbody tr').allTextContents(), ['modedefaultlive', 'loss10 %5 %', 'rate–2']);
  const first = await page.locator('[data-table=changes] tbody tr').first().textContent();
  assert.match(first, /never played.*better/);
  const weights = await page.evaluate(() => window.udtReport.changesOf(window.udtReport.model).map(row => row.weight));
  assert.deepEqual(weights, [...weights].sort((a, b) => b - a));
  await fits(page);
  await page.screenshot({path: path.join(OUT, 'compare.png'), fullPage: true});
  await page.finish();

  const phone = await open(where, {viewport: PHONE, touch: true});
  await scrollThrough(phone);
  await fits(phone);
  await phone.screenshot({path: path.join(OUT, 'compare-phone.png')});
  await phone.finish();
});

test('a live call is redrawn without losing zoom and choices, says when it ends, and asks for the flight record', async () => {
  let stream = null, flights = 0;
  const html = fillPage({format: 'udtlab-live', version: 1});
  const server = createServer((request, response) => {
    if (request.url === '/events') {
      response.writeHead(200, {'content-type': 'text/event-stream'});
      stream = response;
      response.write(': hello\n\n');
    } else if (request.url === '/flight' && request.method === 'POST') {
      flights++;
      response.end('flight-1.bin, 30 s\n');
    } else if (request.url === '/') {
      response.writeHead(200, {'content-type': 'text/html'});
      response.end(html);
    } else {
      response.writeHead(404);
      response.end();
    }
  });
  await new Promise(done => server.listen(0, '127.0.0.1', done));
  try {
    const base = `http://127.0.0.1:${server.address().port}/`;
    const send = data => stream.write(`data: ${JSON.stringify(data)}\n\n`);
    const page = await open(base, {allowed: at => at === base + 'events' || at === base + 'flight'});
    await page.waitForFunction(() => document.querySelector('[data-role=state]').textContent === 'live');
    await page.screenshot({path: path.join(OUT, 'live-waiting.png')});

    const whole = made.makeReport({count: 300, seed: 11, title: 'udp 5004, 5006'});
    const until = n => ({...whole, bins: {ms: 100, count: n}, series: whole.series.map(series => ({...series, v: series.v.slice(0, n), ...(series.lo ? {lo: series.lo.slice(0, n), hi: series.hi.slice(0, n)} : {})}))});
    send(until(100));
    await page.waitForFunction(() => window.udtReport.plots.some(card => card.u));
    await settled(page);
    assert.deepEqual(await page.evaluate(() => window.udtReport.view), [0, 10]);

    await page.locator('[data-stream$="video:4"]').click();
    await dragAcross(page, 0.2, 0.6);
    const view = await page.evaluate(() => { window.firstPlot = window.udtReport.plots[0].u; return window.udtReport.view; });
    send(until(200));
    await page.waitForFunction(() => window.udtReport.model.count === 200);
    await settled(page);
    assert.deepEqual(await page.evaluate(() => window.udtReport.view), view);
    assert.ok(await page.evaluate(() => window.firstPlot === window.udtReport.plots[0].u), 'the plot is the same, with new bins');
    assert.equal(await page.evaluate(() => window.firstPlot.data[0].length), 200);
    assert.ok(!(await page.evaluate(() => window.udtReport.plots.map(card => card.title))).some(title => title.includes('video')));

    await page.locator('[data-role=reset]').click();
    send(until(300));
    await page.waitForFunction(() => window.udtReport.model.count === 300);
    await settled(page);
    assert.deepEqual(await page.evaluate(() => [window.firstPlot.scales.x.min, window.firstPlot.scales.x.max]), [0, 30], 'unzoomed, the plot follows the call');

    // The last two minutes of a longer call do not begin at 0.
    send({...until(300), bins: {ms: 100, count: 300, start: 90000}});
    await page.waitForFunction(() => window.udtReport.model.startMs === 90000);
    await settled(page);
    assert.deepEqual(await page.evaluate(() => window.udtReport.view), [90, 120]);

    await page.locator('[data-role=flight]').click();
    await page.waitForFunction(() => document.querySelector('.banner').textContent.includes('flight-1.bin, 30 s'));
    assert.equal(flights, 1);
    await page.screenshot({path: path.join(OUT, 'live.png')});

    stream.write('event: end\ndata: {}\n\n');
    await page.waitForFunction(() => document.querySelector('[data-role=state]').textContent === 'ended');
    assert.match(await page.locator('.banner').textContent(), /ended/);
    await page.screenshot({path: path.join(OUT, 'live-ended.png')});
    await page.finish();
  } finally {
    server.closeAllConnections();
    server.close();
  }
});

test('a page whose data is broken says so', async () => {
  const page = await open(write('broken', read('report.html').replace('<!--UDT:CSS-->', '').replace('<!--UDT:DATA-->', '{"format": "else').replace('<!--UDT:JS-->', () => read('vendor/uPlot.iife.min.js') + read('report.js'))));
  assert.match(await page.locator('.banner').textContent(), /cannot be read/);
  await page.finish();
});
