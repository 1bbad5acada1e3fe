// Draws a run report: one run, two runs over each other, or a live call. In: the JSON in #report-data. Out: the
// page, and window.udtReport for tests and the curious. Needs uPlot before it; loads nothing else.
(() => {
'use strict';

// --- small things -----------------------------------------------------------------------------------------------

// An element with attributes (on... are listeners, null and false are left out) and children (strings are text).
function el(tag, attributes, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) {
    if (value === null || value === undefined || value === false) continue;
    if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
    else if (name === 'style') node.style.cssText = value;
    else node.setAttribute(name, value === true ? '' : value);
  }
  node.append(...children.flat().filter(child => child !== null && child !== undefined && child !== false));
  return node;
}

const clamp = (value, low, high) => Math.min(Math.max(value, low), high);
const array = value => Array.isArray(value) ? value : [];
const text = value => value === null || value === undefined ? '' : String(value);
const isNumber = value => typeof value === 'number' && Number.isFinite(value);

// Seconds as m:ss or h:mm:ss, with as many decimals as asked for.
function clock(seconds, decimals = 0) {
  const scale = 10 ** decimals;
  const total = Math.round(Math.abs(seconds) * scale);
  const whole = Math.floor(total / scale);
  const h = Math.floor(whole / 3600), m = Math.floor(whole / 60) % 60, s = whole % 60;
  const two = number => String(number).padStart(2, '0');
  return (seconds < 0 && total > 0 ? '−' : '') + (h ? h + ':' + two(m) : m) + ':' + two(s) +
    (decimals ? '.' + String(total % scale).padStart(decimals, '0') : '');
}

const formats = [0, 1, 2, 3, 4].map(digits => new Intl.NumberFormat('en-US', {minimumFractionDigits: digits, maximumFractionDigits: digits}));
function number(value, decimals) {
  if (!isNumber(value)) return '–';
  if (decimals === undefined) decimals = Number.isInteger(value) || Math.abs(value) >= 100 ? 0 : Math.abs(value) >= 10 ? 1 : 2;
  const out = formats[decimals].format(value);
  return out[0] !== '-' ? out : /[1-9]/.test(out) ? '−' + out.slice(1) : out.slice(1);
}

const span = ms => ms >= 10000 ? number(ms / 1000, 1) + ' s' : number(Math.round(ms)) + ' ms';
const short = (name, most = 48) => name.length > most ? name.slice(0, most - 1) + '…' : name;
const words = name => text(name).replace(/([a-z0-9])([A-Z])/g, '$1 $2').replace(/[_-]+/g, ' ').toLowerCase();
const colour = name => getComputedStyle(document.documentElement).getPropertyValue('--' + name).trim();

// --- what is drawn ----------------------------------------------------------------------------------------------

// How values of several bins become one: counts and stalled time are added, the rest is a mean.
const SUMMED = new Set(['packetsIn', 'packetsOut', 'bytesIn', 'bytesOut', 'lost', 'unrepaired', 'requested', 'answered',
  'requestsFailed', 'requestsWasted', 'gaps', 'stallMs']);
const together = name => SUMMED.has(name) ? 'sum' : 'mean';

const STREAM_COLOURS = {audio: ['blue', 'green', 'sky'], video: ['verm', 'amber', 'purple', 'grey']};

// The plots of a user, in this order. A line's colour tells what it is; with two runs the second is dashed.
// per 'stream': one plot per stream; per 'user': one plot, and a line without `of` is drawn for every stream.
const PLOTS = [
  {id: 'delay', per: 'stream', title: 'Delay', unit: 'ms', height: 190, band: true, decimals: 0, lines: [
    {name: 'arrivalDelay', label: 'arrival', colour: 'blue', spread: true},
    {name: 'playoutDelay', label: 'playout', colour: 'verm', spread: true},
    {name: 'target', of: 'user', label: 'target', colour: 'purple', shape: 'step', width: 1.75},
    {name: 'latency', of: 'user', label: 'latency', colour: 'green', width: 1}]},
  {id: 'bufferMs', per: 'user', title: 'Buffer depth', unit: 'ms', decimals: 0, lines: [{name: 'bufferMs'}]},
  {id: 'bufferPackets', per: 'user', title: 'Buffer depth', unit: 'packets', decimals: 0, lines: [{name: 'bufferPackets'}]},
  {id: 'clock', per: 'user', title: 'Playout clock', unit: 'speed', height: 120, clock: true, lines: [
    {name: 'clockSpeed', of: 'user', label: 'speed', colour: 'purple', shape: 'step', fill: true}]},
  {id: 'avOffset', per: 'user', title: 'Picture against sound', note: 'above 0: picture later', unit: 'ms', height: 120, least: 20,
    decimals: 0, lines: [{name: 'avOffset', of: 'user', label: 'A/V offset', colour: 'green'}]},
  {id: 'loss', per: 'stream', title: 'Loss', unit: 'packets', count: true, height: 130, note: 'above 0: before repair, below: never played', lines: [
    {name: 'lost', label: 'lost', colour: 'amber', shape: 'bars'},
    {name: 'unrepaired', label: 'never played', colour: 'verm', shape: 'bars', down: true}]},
  {id: 'requests', per: 'stream', title: 'Loss requests', unit: 'packets', count: true, height: 130, note: 'above 0: asked, below: outcome', lines: [
    {name: 'requested', label: 'asked', colour: 'blue', shape: 'bars'},
    {name: 'answered', label: 'answered', colour: 'green', shape: 'bars', down: true},
    {name: 'requestsFailed', label: 'failed', colour: 'verm', shape: 'bars', down: true},
    {name: 'requestsWasted', label: 'wasted', colour: 'amber', shape: 'bars', down: true}]},
  {id: 'gaps', per: 'user', title: 'Gaps at release', unit: 'packets', count: true, height: 120, lines: [{name: 'gaps', shape: 'bars'}]},
  {id: 'stalls', per: 'user', title: 'Stalls', note: 'time without a release', unit: 'ms', binned: true, height: 120, decimals: 0, lines: [{name: 'stallMs', shape: 'bars'}]},
  {id: 'rate', per: 'stream', title: 'Bit rate', unit: 'kbit/s', rate: true, lines: [
    {name: 'bytesIn', label: 'in', colour: 'sky', shape: 'step', fill: true},
    {name: 'bytesOut', label: 'out', colour: 'verm', shape: 'step'}]},
];
const RUN_PLOTS = [
  {id: 'downlink', per: 'run', title: 'Downlink loss', unit: '%', height: 120, scale: 0.01, decimals: 2, lines: [
    {name: 'downlinkLoss', of: 'run', label: 'loss rate', colour: 'amber', shape: 'step', fill: true}]},
  {id: 'live', per: 'run', title: 'Streams alive', unit: 'streams', height: 120, decimals: 0, lines: [
    {name: 'liveStreams', of: 'run', label: 'alive', colour: 'blue', shape: 'step', fill: true}]},
];

// Events in three classes; the sign at the top of a mark tells them apart without colour.
const TROUBLE = new Set(['clear', 'pullBack', 'jump', 'stall', 'restart', 'expired', 'hole']);
const eventClass = kind => TROUBLE.has(kind) ? 'trouble' : /key|first/i.test(kind) ? 'start' : 'state';
const EVENT_COLOURS = {trouble: 'verm', start: 'green', state: 'purple'};
const EVENT_SIGNS = {trouble: '▼', start: '●', state: '◆'};

// What is compared in numbers. worse: the direction that is worse; scale: a change of this size is worth a look.
const FIGURES = [
  {name: 'lost', label: 'lost before repair', unit: 'packets', how: 'sum', worse: 1, scale: 10},
  {name: 'unrepaired', label: 'never played', unit: 'packets', how: 'sum', worse: 1, scale: 5},
  {name: 'requested', label: 'asked for', unit: 'packets', how: 'sum', worse: 0, scale: 20},
  {name: 'answered', label: 'answered', unit: 'packets', how: 'sum', worse: 0, scale: 20},
  {name: 'requestsFailed', label: 'requests failed', unit: 'packets', how: 'sum', worse: 1, scale: 5},
  {name: 'requestsWasted', label: 'requests wasted', unit: 'packets', how: 'sum', worse: 1, scale: 5},
  {name: 'gaps', label: 'gaps at release', unit: 'packets', how: 'sum', worse: 1, scale: 5},
  {name: 'longestStallMs', label: 'longest stall', unit: 'ms', how: 'max', worse: 1, scale: 50},
  {name: 'stallMs', label: 'time stalled', unit: 'ms', how: 'sum', worse: 1, scale: 200},
  {name: 'arrivalDelay', label: 'arrival delay, mean', unit: 'ms', how: 'mean', worse: 1, scale: 10},
  {name: 'playoutDelay', label: 'playout delay, mean', unit: 'ms', how: 'mean', worse: 1, scale: 10},
  {name: 'bufferMs', label: 'buffer depth, mean', unit: 'ms', how: 'mean', worse: 0, scale: 10},
  {name: 'packetsIn', label: 'packets in', unit: 'packets', how: 'sum', worse: 0, scale: 50},
  {name: 'packetsOut', label: 'packets out', unit: 'packets', how: 'sum', worse: -1, scale: 50},
  {name: 'bytesIn', label: 'bytes in', unit: 'kB', how: 'sum', divide: 1000, worse: 0, scale: 50},
  {name: 'bytesOut', label: 'bytes out', unit: 'kB', how: 'sum', divide: 1000, worse: -1, scale: 50},
  {name: 'target', of: 'user', label: 'playout delay target, mean', unit: 'ms', how: 'mean', worse: 1, scale: 10},
  {name: 'avOffset', of: 'user', label: 'picture against sound, mean of the amount', unit: 'ms', how: 'meanAbs', worse: 1, scale: 10},
  {name: 'downlinkLoss', of: 'run', label: 'downlink loss, mean', unit: '%', how: 'mean', divide: 100, worse: 1, scale: 0.5},
];

// --- the data ---------------------------------------------------------------------------------------------------

// Names of a report's totals where they differ from those of the series.
const TOTALS = {stallMs: 'stalledMs', playoutDelay: 'playoutDelayMean'};

// One run as the rest wants it, whatever is missing in the file.
function readRun(report) {
  const bins = report.bins || {};
  const run = report.run || {};
  const series = new Map();
  let longest = 0;
  for (const entry of array(report.series)) {
    const v = array(entry.v);
    if (!v.some(isNumber)) continue;
    if (!series.has(entry.of)) series.set(entry.of, new Map());
    series.get(entry.of).set(entry.name, {v, lo: array(entry.lo), hi: array(entry.hi)});
    longest = Math.max(longest, v.length);
  }
  const ms = bins.ms > 0 ? bins.ms : 100;
  const users = array(report.users).map(user => ({...user}));
  const streams = array(report.streams).map(stream => ({...stream}));
  for (const stream of streams)
    if (!users.some(user => user.id === stream.user)) users.push({id: stream.user, account: text(stream.user), name: ''});
  return {
    ms, startMs: bins.start > 0 ? bins.start : 0, count: Math.max(isNumber(bins.count) ? bins.count : 0, longest, 1), series, users, streams, report,
    title: text(run.title) || 'run', kind: text(run.kind), program: text(run.program), durationMs: isNumber(run.durationMs) ? run.durationMs : null,
    startUnixMs: isNumber(run.startUnixMs) ? run.startUnixMs : null,
    options: array(run.options).map(pair => [text(array(pair)[0]), text(array(pair)[1])]),
    verdict: array(report.verdict), tables: array(report.tables), totals: new Map(array(report.totals).map(total => [total.of, total])),
    events: array(report.events).filter(event => isNumber(event.t)).sort((a, b) => a.t - b.t),
  };
}

// Keys of a user's streams: kind and sub-type, and a number where these are the same.
function keyed(run, user) {
  const seen = new Map();
  return run.streams.filter(stream => stream.user === user.id).map(stream => {
    const base = text(stream.kind) + ':' + text(stream.subType);
    const nth = seen.get(base) || 0;
    seen.set(base, nth + 1);
    return {key: base + (nth ? '#' + nth : ''), stream};
  });
}

// One or two runs laid on one grid of bins; users are matched by account, streams by kind and sub-type.
class Model {
  constructor(reports) {
    this.runs = reports.map(readRun);
    this.two = this.runs.length > 1;
    this.ms = Math.max(...this.runs.map(run => run.ms));
    this.startMs = Math.min(...this.runs.map(run => run.startMs));
    const end = Math.max(...this.runs.map(run => run.startMs + run.ms * run.count));
    this.count = Math.max(1, Math.ceil((end - this.startMs) / this.ms));
    this.x = Array.from({length: this.count}, (_, i) => (this.startMs + (i + 0.5) * this.ms) / 1000);
    this.full = [this.startMs / 1000, (this.startMs + this.count * this.ms) / 1000];
    this.cache = new Map();
    this.users = [];
    this.runs.forEach((run, r) => this.addUsers(run, r));
    const order = new Intl.Collator('en', {numeric: true});
    this.users.sort((a, b) => order.compare(a.label, b.label) || order.compare(a.key, b.key));
    for (const user of this.users) user.streams.sort((a, b) => (b.kind === 'audio') - (a.kind === 'audio'));
    this.events = this.runs.flatMap((run, r) => run.events.map(event => this.readEvent(event, r))).sort((a, b) => a.t - b.t);
  }

  addUsers(run, r) {
    const taken = new Set();
    const match = new Map();
    for (const user of run.users) {
      const known = r && this.users.find(other => !other.ids[r] && !taken.has(other) && other.account === text(user.account));
      if (known) { match.set(user, known); taken.add(known); }
    }
    // One user left on either side is the same person under another account.
    const left = run.users.filter(user => !match.has(user));
    const lone = this.users.filter(user => !taken.has(user));
    if (r && left.length === 1 && lone.length === 1) match.set(left[0], lone[0]);

    for (const user of run.users) {
      let into = match.get(user);
      if (!into) {
        const account = text(user.account);
        let key = account || text(user.id);
        while (this.users.some(other => other.key === key)) key += '+';
        into = {key, account, label: text(user.name) || account || text(user.id), ids: [], streams: []};
        this.users.push(into);
      }
      into.ids[r] = user.id;
      for (const {key, stream} of keyed(run, user)) {
        let to = into.streams.find(other => other.key === key && !other.ids[r]) ||
          (r && into.streams.find(other => other.kind === stream.kind && !other.ids[r]));
        if (!to) {
          to = {key, kind: text(stream.kind), label: text(stream.name) || text(stream.kind) || 'stream', ids: [], user: into};
          const palette = STREAM_COLOURS[to.kind] || STREAM_COLOURS.video;
          to.colour = palette[into.streams.filter(other => other.kind === to.kind).length % palette.length];
          into.streams.push(to);
        }
        to.ids[r] = stream.id;
      }
    }
  }

  readEvent(event, r) {
    const user = this.users.find(other => other.ids[r] === event.of || other.streams.some(stream => stream.ids[r] === event.of)) || null;
    const stream = user && user.streams.find(other => other.ids[r] === event.of) || null;
    return {t: event.t / 1000, kind: text(event.kind) || 'event', ms: isNumber(event.ms) ? event.ms : null, text: text(event.text), user, stream, r,
      cls: eventClass(text(event.kind))};
  }

  // A series on the common grid, or null.
  get(r, of, name) {
    const key = r + '/' + of + '/' + name;
    if (!this.cache.has(key)) {
      const run = this.runs[r];
      const raw = of !== undefined && run.series.has(of) ? run.series.get(of).get(name) : undefined;
      this.cache.set(key, raw ? this.onGrid(run, raw, together(name)) : null);
    }
    return this.cache.get(key);
  }

  onGrid(run, raw, how) {
    const lo = raw.lo.length ? raw.lo : null, hi = raw.hi.length ? raw.hi : null;
    const shift = run.startMs - this.startMs;
    const out = {v: new Array(this.count).fill(null), lo: lo && new Array(this.count).fill(null), hi: hi && new Array(this.count).fill(null)};
    const many = how === 'mean' ? new Array(this.count).fill(0) : null;
    raw.v.forEach((value, i) => {
      if (!isNumber(value)) return;
      const at = Math.floor((shift + i * run.ms) / this.ms);
      if (at < 0 || at >= this.count) return;
      const before = out.v[at];
      out.v[at] = before === null ? value : how === 'max' ? Math.max(before, value) : before + value;
      if (many) many[at]++;
      if (lo && isNumber(lo[i])) out.lo[at] = out.lo[at] === null ? lo[i] : Math.min(out.lo[at], lo[i]);
      if (hi && isNumber(hi[i])) out.hi[at] = out.hi[at] === null ? hi[i] : Math.max(out.hi[at], hi[i]);
    });
    if (many) many.forEach((n, i) => { if (n > 1) out.v[i] /= n; });
    return out;
  }

  // A figure of a whole run, as the report has it or else from the bins; null when nothing is known.
  total(r, of, name, how) {
    const run = this.runs[r];
    const known = (run.totals.get(of) || {})[TOTALS[name] || name];
    if (isNumber(known)) return known;
    if (name === 'longestStallMs') {
      const stalls = run.events.filter(event => event.of === of && event.kind === 'stall' && isNumber(event.ms)).map(event => event.ms);
      return stalls.length ? Math.max(...stalls) : run.series.has(of) && run.series.get(of).has('stallMs') ? 0 : null;
    }
    const raw = of !== undefined && run.series.has(of) ? run.series.get(of).get(name) : undefined;
    return raw ? summary(how === 'meanAbs' ? raw.v.map(value => isNumber(value) ? Math.abs(value) : null) : raw.v, how === 'meanAbs' ? 'mean' : how) : null;
  }
}

function summary(values, how, from = 0, to = values.length) {
  let n = 0, sum = 0, max = -Infinity;
  for (let i = from; i < to; i++) {
    if (!isNumber(values[i])) continue;
    n++;
    sum += values[i];
    if (values[i] > max) max = values[i];
  }
  return n === 0 ? null : how === 'sum' ? sum : how === 'max' ? max : sum / n;
}

// --- state ------------------------------------------------------------------------------------------------------

const FIRST_SHOWN = 4;      // users whose plots are shown at first
const MOST_CHARTS = 120;    // canvases kept; those out of sight go first
const ROWS_AT_FIRST = 100;  // of the list of events

const state = {
  model: null,
  view: null,               // [from, to] in seconds, null is everything
  shown: new Set(),         // keys of users
  hidden: new Set(),        // user key / stream key
  hiddenKinds: new Set(),   // kinds of events
  offLines: new Set(),      // plot id / line label, switched off in a legend
  filter: '', sort: null, allEvents: false,
  live: false, printing: false,
  cards: new Map(),         // key -> Card, of everything shown
};
const parts = {};           // the page's lasting elements
const streamKey = stream => stream.user.key + '/' + stream.key;
const isStreamShown = stream => !state.hidden.has(streamKey(stream));
const view = () => state.view || state.model.full;

// --- plots ------------------------------------------------------------------------------------------------------

// Everything a plot of these streams of this user shows, or null when it has no data.
function makeSpec(plot, user, streams) {
  const model = state.model;
  const runs = model.runs.map((_, r) => r);
  const lines = [];
  const bands = [];
  let something = false;
  let nothing = false;

  for (const line of plot.lines) {
    const sources = line.of ? [null] : streams;
    for (const stream of sources) {
      for (const r of runs) {
        const of = line.of === 'run' ? 'run' : line.of === 'user' ? user.ids[r] : stream.ids[r];
        const data = model.get(r, of, line.name);
        if (!data) continue;
        const bars = line.shape === 'bars';
        // A count that is zero throughout is told in words, not drawn.
        if ((plot.count || bars) && !data.v.some(value => value)) { nothing = true; continue; }
        const own = plot.per !== 'stream' || !line.of;
        if (own) something = true;
        const label = (line.label || stream.label) + (model.two ? ' ' + 'AB'[r] : '');
        const factor = plot.rate ? 8 / model.ms : plot.scale || 1;
        const scaled = values => values && (factor === 1 ? values : values.map(value => value === null ? null : value * factor));
        lines.push({
          label, id: plot.id + '/' + label, r, name: line.name, colour: line.colour || stream.colour, dash: r === 1 ? [6, 4] : null,
          v: scaled(data.v), lo: line.spread && !model.two ? scaled(data.lo) : null, hi: line.spread && !model.two ? scaled(data.hi) : null,
          shape: bars && model.two ? 'step' : line.shape || 'line', fill: line.fill && r === 0, down: !!line.down, width: line.width || 1.5,
          how: plot.rate ? 'mean' : together(line.name),
        });
      }
    }
  }
  if (plot.band && user) {
    for (const r of runs) {
      const lo = model.get(r, user.ids[r], 'bandMin'), hi = model.get(r, user.ids[r], 'bandMax');
      if (lo && hi) bands.push({label: 'transit band' + (model.two ? ' ' + 'AB'[r] : ''), id: plot.id + '/band' + r, lo: lo.v, hi: hi.v, r});
    }
  }
  const stream = plot.per === 'stream' ? streams[0] : null;
  const title = plot.title + (stream ? ' · ' + stream.label : '');
  if (!something) return {empty: nothing, title: title.toLowerCase()};
  const per = plot.count || plot.binned ? ' per ' + (model.ms >= 1000 ? number(model.ms / 1000) + ' s' : model.ms + ' ms') : '';
  return {
    key: (user ? user.key : '') + '|' + plot.id + (stream ? '|' + stream.key : ''), plot, title, per, height: plot.height || 150,
    lines, bands, user, streams: streams || [],
    events: model.events.filter(event => !event.user || event.user === user && (!event.stream || streams.includes(event.stream))),
    shape: lines.map(line => line.id + line.shape).concat(bands.map(band => band.id)).join(';'),
  };
}

function specsOf(user) {
  const streams = user.streams.filter(isStreamShown);
  const all = PLOTS.flatMap(plot => plot.per === 'stream' ? streams.map((stream, i) => ({...makeSpec(plot, user, [stream]), second: i > 0})) : [makeSpec(plot, user, streams)]);
  return {specs: all.filter(spec => spec.key), quiet: all.filter(spec => spec.empty).map(spec => spec.title)};
}

const unitWords = spec => spec.plot.unit + spec.per + (spec.plot.note ? ' · ' + spec.plot.note : '');
const LANE = 16;            // room for the y axis' label
const TIME_STEPS = [0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400, 43200, 86400];
const VALUE_STEPS = [1, 2, 5, 10, 20, 50, 100, 200, 500].flatMap((step, i, all) => [step]).concat(
  [1e3, 1e4, 1e5, 1e6, 1e7, 1e8].flatMap(step => [step, 2 * step, 5 * step]));
const FINE_STEPS = [0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5].concat(VALUE_STEPS);

class Card {
  constructor(spec) {
    this.spec = spec;
    this.key = spec.key;
    this.u = null;
    this.near = false;
    this.stale = false;
    this.seen = 0;
    this.legend = el('div', {class: 'legend'});
    this.unit = el('span', {class: 'soft'}, unitWords(spec));
    this.host = el('div', {class: 'chart', style: `min-height:${spec.height}px`});
    this.root = el('section', {class: 'card', 'data-plot': spec.key, 'data-first': spec.plot.per === 'stream' && !spec.second, 'aria-label': spec.title + (spec.user ? ', ' + spec.user.label : '')},
      el('h3', {}, el('span', {}, spec.title), this.unit), this.legend, this.host);
    this.root.card = this;
    this.makeLegend();
    bindTouch(this);
    watcher.observe(this.root);
  }

  get title() { return this.spec.title; }
  isOn(line) { return !state.offLines.has(line.id); }

  // The lines from the lowest to the topmost, as uPlot's series and data. Outcomes below the line are stacked, the
  // highest stack is drawn first.
  build() {
    const {spec} = this;
    const data = [state.model.x];
    const series = [{}];
    const bands = [];
    this.points = [];     // [series index, line]
    const add = (values, options) => { data.push(values); series.push(options); return series.length - 1; };
    const helper = {width: 0, points: {show: false}};
    for (const band of spec.bands) {
      if (!this.isOn(band)) continue;
      const edge = {stroke: colour('grey'), width: band.r ? 1 : 0.5, dash: band.r ? [6, 4] : undefined, points: {show: false}};
      const hi = add(band.hi, edge), lo = add(band.lo, edge);
      bands.push({series: [hi, lo], fill: colour('band')});
    }
    const up = spec.lines.filter(line => !line.down), down = spec.lines.filter(line => line.down && this.isOn(line));
    for (const line of up) {
      if (!this.isOn(line) || !line.lo || !line.hi) continue;
      const hi = add(line.hi, helper), lo = add(line.lo, helper);
      bands.push({series: [hi, lo], fill: faded(colour(line.colour), 0.22)});
    }
    const barSides = !spec.lines.some(line => line.down) && up.filter(line => line.shape === 'bars').length === 2;
    up.forEach((line, i) => {
      if (this.isOn(line)) this.points.push([add(line.v, this.options(line, barSides ? (i ? 1 : -1) : 0)), line]);
    });
    const stacked = down.some(line => line.shape === 'bars');
    const sums = new Array(state.model.count).fill(0);
    const layers = down.map(line => [line, line.v.map((value, i) => {
      if (value === null) return null;
      if (!stacked) return value && -value;
      sums[i] += value;
      return value && -sums[i];
    })]);
    for (const [line, values] of layers.reverse()) this.points.push([add(values, this.options(line, 0)), line]);
    return {data, series, bands};
  }

  options(line, side) {
    const stroke = colour(line.colour);
    const options = {label: line.label, stroke, width: line.width, dash: line.dash || undefined, points: {size: 4, fill: stroke}};
    if (line.shape === 'bars') {
      options.paths = uPlot.paths.bars({size: side ? [0.5, 40, 1] : [1, 40, 1], align: side, gap: 0});
      options.fill = stroke;
      options.width = 0;
      options.points = {show: false};
    } else if (line.shape === 'step') {
      options.paths = stepPaths;
      options.points = {show: false};
    }
    if (line.fill && line.shape !== 'bars') { options.fill = faded(stroke, 0.18); options.fillTo = 0; }
    return options;
  }

  create() {
    const {spec} = this;
    const {data, series, bands} = this.build();
    const ink = colour('soft'), grid = {stroke: colour('grid'), width: 1};
    const font = (state.printing ? '10px ' : '12px ') + getComputedStyle(document.body).fontFamily;
    const whole = spec.plot.count || spec.plot.decimals === 0;
    this.u = new uPlot({
      width: Math.max(this.host.clientWidth, 120), height: spec.height, series, bands, legend: {show: false}, padding: [10, 24, 0, 0],
      scales: {
        x: {time: false, range: () => view()},
        y: {range: (u, low, high) => this.valueRange(low, high)},
      },
      axes: [
        {stroke: ink, grid, ticks: grid, font, size: 28, gap: 3, space: 62, incrs: TIME_STEPS,
          values: (u, splits, axis, space, step) => splits.map(t => clock(t, step >= 1 ? 0 : step >= 0.1 ? 1 : step >= 0.01 ? 2 : 3))},
        {stroke: ink, grid, ticks: {show: false}, font, labelFont: font, size: 50, gap: 4, space: spec.height < 150 ? 18 : 26, label: spec.plot.unit, labelSize: LANE, labelGap: 0,
          incrs: spec.plot.clock ? [1] : whole ? VALUE_STEPS : FINE_STEPS,
          values: (u, splits) => spec.plot.clock ? splits.map(v => v === 1 ? 'fast' : v === 0 ? 'real' : v === -1 ? 'slow' : '')
            : this.axisText(splits)},
      ],
      cursor: {
        y: false, points: {size: (u, index) => this.points.some(([own]) => own === index) ? 6 : 0, width: 1},
        drag: {x: true, y: false, setScale: false, dist: 4},
        sync: {key: 'time', scales: ['x', null], filters: {pub: type => type === 'mousemove' || type === 'mouseleave', sub: () => this.near}},
        bind: {
          dblclick: () => () => { setView(null); return null; },
          mousedown: (u, target, handler) => event => event.shiftKey || event.button === 1 ? startPan(this, event) : handler(event),
        },
      },
      hooks: {
        setSelect: [u => {
          const {left, width} = u.select;
          u.setSelect({left: 0, top: 0, width: 0, height: 0}, false);
          if (width > 3) setView([u.posToVal(left, 'x'), u.posToVal(left + width, 'x')]);
        }],
        setCursor: [u => this.cursorMoved(u)],
        draw: [u => drawZero(u), u => this.drawEvents(u)],
      },
    }, data, this.host);
    this.u.over.addEventListener('mouseenter', () => { state.over = this; });
    this.u.over.addEventListener('mouseleave', () => { if (state.over === this) state.over = null; showTip(null); });
    this.stale = false;
    this.values(null);
    this.at = undefined;
  }

  axisText(splits) {
    const step = splits.length > 1 ? Math.abs(splits[1] - splits[0]) : 1;
    const decimals = step >= 1 ? 0 : Math.min(4, Math.ceil(-Math.log10(step) - 1e-9));
    return splits.map(v => number(this.spec.plot.note && this.spec.lines.some(line => line.down) ? Math.abs(v) : v, decimals));
  }

  valueRange(low, high) {
    const {plot} = this.spec;
    if (plot.clock) return [-1.15, 1.15];
    if (low === null || high === null || !isNumber(low) || !isNumber(high)) return [0, 1];
    low = Math.min(0, low);
    high = Math.max(0, high);
    if (plot.least) { low = Math.min(low, -plot.least); high = Math.max(high, plot.least); }
    if (high - low < 1e-9) high = low + 1;
    const room = (high - low) * 0.07;
    return [low < 0 ? low - room : 0, high > 0 ? high + room : 0];
  }

  destroy() {
    if (this.u) this.u.destroy();
    this.u = null;
    if (state.over === this) state.over = null;
  }
  remove() {
    watcher.unobserve(this.root);
    this.destroy();
    this.root.remove();
    if (state.cards.get(this.key) === this) state.cards.delete(this.key);
  }

  // New bins; other lines only when a stream or a measure came or went.
  update(spec) {
    const same = spec.shape === this.spec.shape;
    this.spec = spec;
    this.unit.textContent = unitWords(spec);
    if (!same) return this.refresh();
    const lines = [...spec.lines, ...spec.bands];
    this.entries.forEach((entry, i) => { entry.line = lines[i]; });
    if (!this.u || !this.near) {
      this.stale = !!this.u;
      return this.values(null);
    }
    this.u.setData(this.build().data, false);
    this.apply();
  }

  // What changed while out of sight, or the whole page's time range.
  apply() {
    if (!this.u) { if (this.near || state.printing) this.create(); return; }
    if (this.stale) { this.destroy(); return this.create(); }
    const width = this.host.clientWidth;
    if (width > 0 && Math.abs(width - this.u.width) > 0.5) this.u.setSize({width, height: this.spec.height});
    const [min, max] = view();
    this.u.setScale('x', {min, max});
    this.values(this.u.cursor.idx);
  }

  makeLegend() {
    const entry = (line, sample) => {
      const button = el('button', {type: 'button', 'aria-pressed': String(this.isOn(line)), title: 'show or hide', onclick: () => {
        if (!state.offLines.delete(line.id)) state.offLines.add(line.id);
        button.setAttribute('aria-pressed', String(this.isOn(line)));
        for (const card of state.cards.values()) if (card.spec.plot === this.spec.plot) card.refresh();
      }});
      button.append(sample, el('span', {class: 'label', title: line.label}, line.label), el('span', {class: 'value'}));
      return {button, value: button.lastChild, line};
    };
    this.entries = [...this.spec.lines, ...this.spec.bands].map(line => entry(line, sampleOf(line)));
    this.legend.replaceChildren(...this.entries.map(item => item.button));
  }
  refresh() {
    this.makeLegend();
    this.stale = true;
    if (this.near) this.apply();
    else this.values(null);
  }

  // The legend's values: those of a bin, or of everything in view when the pointer is elsewhere.
  values(idx) {
    const {plot, lines, bands} = this.spec;
    const model = state.model;
    const decimals = plot.count ? 0 : plot.decimals;
    const unit = plot.clock || plot.count ? '' : ' ' + plot.unit;
    const speed = v => v === null ? '–' : v > 0.05 ? 'fast' + (v < 0.95 ? ' ' + number(100 * v, 0) + ' %' : '') : v < -0.05 ? 'slow' + (v > -0.95 ? ' ' + number(-100 * v, 0) + ' %' : '') : 'real';
    const [from, to] = view();
    const i0 = clamp(Math.floor((from * 1000 - model.startMs) / model.ms), 0, model.count), i1 = clamp(Math.ceil((to * 1000 - model.startMs) / model.ms), 0, model.count);
    for (const {value, line} of this.entries) {
      let out;
      if (line.lo && !line.v) { // a band
        const pick = (values, how) => isNumber(idx) ? values[idx] : summary(values, how, i0, i1);
        const lo = pick(line.lo, 'mean'), hi = pick(line.hi, 'mean');
        out = lo === null || hi === null || lo === undefined ? '–' : (isNumber(idx) ? '' : 'mean ') + number(lo, 0) + '–' + number(hi, 0) + ' ms';
      } else if (isNumber(idx)) {
        const v = line.v[idx] === undefined ? null : line.v[idx];
        out = plot.clock ? speed(v) : number(v, v !== null && decimals === 0 && plot.per !== 'run' ? 0 : decimals) + (v === null ? '' : unit);
        if (line.lo && isNumber(line.lo[idx]) && isNumber(line.hi[idx]) && line.hi[idx] - line.lo[idx] >= 1)
          out += ' (' + number(line.lo[idx], 0) + '–' + number(line.hi[idx], 0) + ')';
      } else {
        const v = summary(line.v, line.how, i0, i1);
        out = v === null ? '–' : plot.clock ? clockShare(line.v, i0, i1)
          : (line.how === 'sum' ? 'total ' : 'mean ') + number(v, decimals) + unit;
      }
      if (value.textContent !== out) value.textContent = out;
    }
  }

  cursorMoved(u) {
    const idx = u.cursor.left >= 0 ? u.cursor.idx : null;
    if (idx !== this.at) {
      this.at = idx;
      this.values(idx);
    }
    if (state.over !== this) return;
    parts.at.textContent = u.cursor.left >= 0 ? clock(u.posToVal(u.cursor.left, 'x'), decimalsOfView()) : '';
    const near = u.cursor.left < 0 ? [] : this.marks().filter(event => Math.abs(u.valToPos(event.t, 'x') - u.cursor.left) <= 5);
    showTip(near.length ? near : null, u);
  }

  marks() { return this.spec.events.filter(event => !state.hiddenKinds.has(event.kind)); }

  drawEvents(u) {
    const [from, to] = view();
    const visible = this.marks().filter(event => event.t >= from && event.t <= to);
    if (!visible.length) return;
    const {ctx, bbox} = u;
    const ratio = devicePixelRatio || 1;
    const crowded = visible.length > bbox.width / ratio / 14;
    ctx.save();
    ctx.beginPath();
    ctx.rect(bbox.left - 6 * ratio, 0, bbox.width + 12 * ratio, bbox.top + bbox.height);
    ctx.clip();
    ctx.lineWidth = ratio;
    ctx.font = `${9 * ratio}px sans-serif`;
    ctx.textAlign = 'center';
    ctx.textBaseline = 'bottom';
    const grey = colour('grey');
    const last = {};
    for (const event of visible) {
      const x = Math.round(u.valToPos(event.t, 'x', true)) + 0.5;
      const kind = event.cls + event.r;
      if (last[kind] !== undefined && x - last[kind] < 2 * ratio) continue;
      const sign = last[kind] === undefined || x - last[kind] >= 7 * ratio;
      last[kind] = x;
      ctx.globalAlpha = crowded ? 0.45 : 1;
      ctx.strokeStyle = grey;
      ctx.fillStyle = colour(EVENT_COLOURS[event.cls]);
      ctx.setLineDash(event.r ? [5 * ratio, 4 * ratio] : [ratio, 2 * ratio]);
      ctx.beginPath();
      ctx.moveTo(x, bbox.top);
      ctx.lineTo(x, bbox.top + bbox.height);
      ctx.stroke();
      if (sign) {
        ctx.globalAlpha = 1;
        ctx.fillText(EVENT_SIGNS[event.cls], x, bbox.top + ratio);
      }
    }
    ctx.restore();
  }
}

// The line between above and below.
function drawZero(u) {
  if (!(u.scales.y.min < 0)) return;
  const {ctx, bbox} = u;
  const y = Math.round(u.valToPos(0, 'y', true)) + 0.5;
  ctx.save();
  ctx.strokeStyle = colour('grey');
  ctx.lineWidth = 1;
  ctx.beginPath();
  ctx.moveTo(bbox.left, y);
  ctx.lineTo(bbox.left + bbox.width, y);
  ctx.stroke();
  ctx.restore();
}

// A step from each bin's beginning to its end; uPlot's own steps begin at the points, which are the bins' middles.
function stepPaths(u, seriesIdx, idx0, idx1) {
  const half = state.model.ms / 2000;
  return uPlot.orient(u, seriesIdx, (series, xs, ys, scaleX, scaleY, toX, toY, left, top, width, height) => {
    const stroke = new Path2D(), fill = series.fill ? new Path2D() : null;
    const px = t => Math.round(toX(t, scaleX, width, left)), py = v => Math.round(toY(v, scaleY, height, top));
    const base = py(0);
    let open = false, start = 0, end = 0;
    const close = () => { if (open && fill) { fill.lineTo(end, base); fill.lineTo(start, base); fill.closePath(); } open = false; };
    // Several bins on a pixel: the pixel gets their first, extremes and last.
    const crowded = (idx1 - idx0) > width;
    let column = null;
    const flush = () => {
      if (!column) return;
      for (const y of [column.first, column.low, column.high, column.last]) {
        stroke.lineTo(column.x, y);
        if (fill) fill.lineTo(column.x, y);
      }
      end = column.x;
      column = null;
    };
    for (let i = Math.max(0, idx0 - 1); i <= Math.min(xs.length - 1, idx1 + 1); i++) {
      const v = ys[i];
      if (v === null || v === undefined) { flush(); close(); continue; }
      const x0 = px(xs[i] - half), x1 = Math.max(px(xs[i] + half), x0 + 1), y = py(v);
      if (!open) {
        stroke.moveTo(x0, y);
        if (fill) { fill.moveTo(x0, base); fill.lineTo(x0, y); }
        open = true;
        start = x0;
      }
      if (crowded) {
        if (column && column.x !== x0) flush();
        if (!column) column = {x: x0, first: y, low: y, high: y, last: y};
        column.low = Math.min(column.low, y);
        column.high = Math.max(column.high, y);
        column.last = y;
        continue;
      }
      if (x0 !== start) {
        stroke.lineTo(x0, y);
        if (fill) fill.lineTo(x0, y);
      }
      stroke.lineTo(x1, y);
      if (fill) fill.lineTo(x1, y);
      end = x1;
    }
    flush();
    close();
    return {stroke, fill, clip: null, band: null, gaps: null, flags: 1 | 2};
  });
}

function faded(hex, alpha) {
  const n = parseInt(hex.slice(1), 16);
  return `rgba(${n >> 16 & 255}, ${n >> 8 & 255}, ${n & 255}, ${alpha})`;
}

function clockShare(values, from, to) {
  let n = 0, fast = 0, slow = 0;
  for (let i = from; i < to; i++) {
    if (!isNumber(values[i])) continue;
    n++;
    if (values[i] > 0) fast += values[i]; else slow -= values[i];
  }
  const share = part => number(100 * part / n, part / n < 0.1 && part > 0 ? 1 : 0) + ' %';
  return n ? `fast ${share(fast)}, slow ${share(slow)} of the time` : '–';
}

// A short piece of the line for a legend.
function sampleOf(line) {
  const svg = document.createElementNS('http://www.w3.org/2000/svg', 'svg');
  svg.setAttribute('viewBox', '0 0 24 12');
  svg.setAttribute('aria-hidden', 'true');
  svg.setAttribute('class', 'sample');
  const isBand = !line.v;
  const draw = (tag, attributes) => {
    const node = document.createElementNS('http://www.w3.org/2000/svg', tag);
    for (const [name, value] of Object.entries(attributes)) node.setAttribute(name, value);
    svg.append(node);
  };
  const ink = `var(--${line.colour})`;
  if (isBand) draw('rect', {x: 0, y: 1, width: 24, height: 10, style: 'fill:var(--band);stroke:var(--grey)', 'stroke-dasharray': line.r ? '4 3' : 'none'});
  else if (line.shape === 'bars') draw('rect', {x: 6, y: 0, width: 12, height: 12, style: 'fill:' + ink});
  else draw('line', {x1: 0, y1: 6, x2: 24, y2: 6, style: 'stroke:' + ink, 'stroke-width': 3, 'stroke-dasharray': line.dash ? '7 4' : 'none'});
  return svg;
}

// Charts are made when they come near and follow only while they are; those far off give their canvas back.
const watcher = new IntersectionObserver(entries => {
  for (const entry of entries) {
    const card = entry.target.card;
    card.near = entry.isIntersecting;
    if (card.near) { card.seen = performance.now(); card.apply(); }
  }
  const far = [...state.cards.values()].filter(card => card.u && !card.near);
  if (far.length > MOST_CHARTS) far.sort((a, b) => a.seen - b.seen).slice(0, far.length - MOST_CHARTS).forEach(card => card.destroy());
}, {rootMargin: '300px 0px'});

function showTip(events, u) {
  const tip = parts.tip;
  tip.hidden = !events;
  if (!events) return;
  const rows = events.slice(0, 6).map(event => el('div', {}, el('b', {}, clock(event.t, 3)), ' ' + EVENT_SIGNS[event.cls] + ' ' + eventWords(event)));
  if (events.length > 6) rows.push(el('div', {}, `and ${events.length - 6} more`));
  tip.replaceChildren(...rows);
  const rect = u.over.getBoundingClientRect();
  const x = rect.left + u.cursor.left, y = rect.top + u.cursor.top;
  const {width, height} = tip.getBoundingClientRect();
  tip.style.left = clamp(x + 12 + width > innerWidth - 8 ? x - 12 - width : x + 12, 8, Math.max(8, innerWidth - width - 8)) + 'px';
  tip.style.top = clamp(y + 14 + height > innerHeight - 8 ? y - 14 - height : y + 14, 8, Math.max(8, innerHeight - height - 8)) + 'px';
}

function eventWords(event) {
  const who = event.stream ? event.stream.label : '';
  return (state.model.two ? 'AB'[event.r] + ' ' : '') + words(event.kind) + (who ? ', ' + who : '') + (event.ms !== null ? ', ' + span(event.ms) : '') +
    (event.text ? ': ' + event.text : '');
}

// --- the time range ---------------------------------------------------------------------------------------------

const decimalsOfView = () => { const [from, to] = view(); return to - from > 120 ? 1 : to - from > 5 ? 2 : 3; };
let frame = 0;

function setView(range) {
  const [low, high] = state.model.full;
  const least = Math.min(high - low, Math.max(2 * state.model.ms / 1000, 0.01));
  if (range) {
    let [from, to] = range[0] <= range[1] ? range : [range[1], range[0]];
    const width = clamp(to - from, least, high - low);
    if (width !== to - from || from < low || to > high) { // as near as the run and the bins allow
      from = clamp((from + to - width) / 2, low, high - width);
      to = from + width;
    }
    range = width > (high - low) * 0.999 ? null : [from, to];
  }
  state.view = range;
  if (!frame) frame = requestAnimationFrame(() => { frame = 0; applyView(); });
}
function applyView() {
  for (const card of state.cards.values()) if (card.near || state.printing) card.apply();
  renderRange();
  clearTimeout(applyView.timer);
  applyView.timer = setTimeout(() => {
    const hash = state.view ? '#t=' + state.view.map(t => t.toFixed(3)).join('-') : ' ';
    try { history.replaceState(null, '', hash === ' ' ? location.pathname + location.search : hash); } catch (error) { /* a page in a frame */ }
  }, 300);
}
function renderRange() {
  const [from, to] = view();
  const digits = Math.max(0, decimalsOfView() - 1);
  parts.range.textContent = clock(from, digits) + ' – ' + clock(to, digits);
  for (const button of parts.zoomed) button.disabled = !state.view;
}
function scaleView(factor, at = 0.5) {
  const [from, to] = view();
  const fix = from + (to - from) * at;
  setView([fix - (fix - from) * factor, fix + (to - fix) * factor]);
}
function moveView(share) {
  if (!state.view) return;
  const [from, to] = view();
  moveTo(from + (to - from) * share, to - from);
}
function moveTo(from, width) {
  const [low, high] = state.model.full;
  from = clamp(from, low, high - width);
  setView([from, from + width]);
}

function startPan(card, event) {
  event.preventDefault();
  const [from, to] = view();
  const x = event.clientX, perPixel = (to - from) / card.u.over.clientWidth;
  const move = next => { if (state.view) moveTo(from - (next.clientX - x) * perPixel, to - from); };
  const up = () => { removeEventListener('mousemove', move); removeEventListener('mouseup', up); };
  addEventListener('mousemove', move);
  addEventListener('mouseup', up);
  return null;
}

// One finger moves a zoomed plot, two zoom; up and down scrolls the page. A wheel zooms with Ctrl and moves sideways.
function bindTouch(card) {
  const {host} = card;
  const fingers = new Map();
  let begin = null;
  const share = x => { const rect = card.u.over.getBoundingClientRect(); return clamp((x - rect.left) / rect.width, 0, 1); };
  const restart = () => { begin = card.u && fingers.size ? {view: view(), xs: [...fingers.values()]} : null; };
  host.addEventListener('pointerdown', event => { if (event.pointerType === 'touch') { fingers.set(event.pointerId, event.clientX); restart(); } });
  host.addEventListener('pointermove', event => {
    if (!fingers.has(event.pointerId) || !begin) return;
    fingers.set(event.pointerId, event.clientX);
    const [from, to] = begin.view;
    const now = [...fingers.values()];
    const width = card.u.over.clientWidth;
    if (now.length === 1 && state.view) moveTo(from - (now[0] - begin.xs[0]) * (to - from) / width, to - from);
    if (now.length === 2) {
      const apart = Math.max(20, Math.abs(now[1] - now[0])), before = Math.max(20, Math.abs(begin.xs[1] - begin.xs[0]));
      const next = clamp((to - from) * before / apart, 0, state.model.full[1] - state.model.full[0]);
      const held = from + (to - from) * share((begin.xs[0] + begin.xs[1]) / 2);
      const at = held - next * share((now[0] + now[1]) / 2);
      setView([at, at + next]);
    }
  });
  for (const type of ['pointerup', 'pointercancel']) host.addEventListener(type, event => { fingers.delete(event.pointerId); restart(); });
  host.addEventListener('wheel', event => {
    if (!card.u) return;
    if (event.ctrlKey) { event.preventDefault(); scaleView(Math.exp(event.deltaY * 0.004), share(event.clientX)); }
    else if (Math.abs(event.deltaX) > Math.abs(event.deltaY) && state.view) { event.preventDefault(); moveView(event.deltaX / card.u.over.clientWidth); }
  }, {passive: false});
}

// Shows a moment: zooms around it, opens its user, and scrolls there.
function goTo(seconds, ms, user) {
  const half = Math.max(3, (ms || 0) / 1000 * 1.5, 20 * state.model.ms / 1000);
  setView([seconds - half, seconds + half + (ms || 0) / 1000]);
  if (user && !state.shown.has(user.key)) { state.shown.add(user.key); renderChooser(); renderUsers(); }
  const section = user ? [...parts.users.children].find(node => node.key === user.key) : parts.users.firstElementChild;
  if (section) section.scrollIntoView({behavior: matchMedia('(prefers-reduced-motion: reduce)').matches ? 'auto' : 'smooth', block: 'start'});
}

// --- the page ---------------------------------------------------------------------------------------------------

function table(columns, rows, attributes) {
  return el('div', {class: 'scroll' + (rows.length > 14 ? ' tall' : ''), tabindex: rows.length > 14 ? 0 : null, ...attributes}, el('table', {},
    el('thead', {}, el('tr', {}, columns.map(column => el('th', {class: column.right ? 'num' : null, scope: 'col'}, column.name)))),
    el('tbody', {}, rows)));
}

const optionList = options => el('ul', {class: 'options'}, options.map(([name, value]) => el('li', {}, el('b', {}, name), value === '' ? '' : ' ' + value)));

function describe(run) {
  const facts = [run.kind, run.program, run.startUnixMs !== null ? new Date(run.startUnixMs).toISOString().replace('T', ' ').replace(/\.\d+Z$/, ' UTC') : '',
    run.durationMs === null ? '' : run.durationMs < 120000 ? number(run.durationMs / 1000, 1) + ' s' : clock(run.durationMs / 1000) + (run.durationMs < 3600000 ? ' min' : ' h'),
    'bins of ' + (run.ms >= 1000 ? number(run.ms / 1000) + ' s' : run.ms + ' ms')];
  return facts.filter(Boolean).join(' · ');
}

const LEVELS = {good: ['✔', 'good'], note: ['▲', 'note'], bad: ['✖', 'bad']};
function verdictList(run, r) {
  if (!run.verdict.length) return null;
  return el('ul', {class: 'verdict'}, run.verdict.map(entry => {
    const level = LEVELS[entry.level] ? entry.level : 'note';
    const user = state.model.users.find(other => other.ids[r] === entry.user) || null;
    const who = user && state.model.users.length > 1 && !text(entry.text).includes(user.label) ? short(user.label) + ': ' : '';
    const say = who + text(entry.text);
    return el('li', {class: level}, el('span', {class: 'level'}, LEVELS[level][0] + ' ' + LEVELS[level][1]),
      el('span', {class: 'text'}, isNumber(entry.t)
        ? el('button', {type: 'button', class: 'link', title: 'show ' + clock(entry.t / 1000), onclick: () => goTo(entry.t / 1000, 0, user)}, say) : say));
  }));
}

// Written again only when it says something else, so that a live page does not pull text from under a pointer.
function fill(part, what, ...children) {
  const print = JSON.stringify(what);
  if (part.print === print) return;
  part.print = print;
  part.replaceChildren(...children.flatMap(child => typeof child === 'function' ? child() : child).filter(Boolean));
}

function renderHead() {
  const {model} = state;
  document.title = (model.two ? model.runs.map(run => run.title).join(' against ') : model.runs[0].title) + ' – udtlab';
  fill(parts.head, model.runs.map(run => [run.title, run.options, state.live ? 0 : describe(run), run.verdict]), () => {
    if (!model.two) {
      const run = model.runs[0];
      return [el('h1', {}, run.title), el('p', {class: 'sub'}, describe(run)), run.options.length ? optionList(run.options) : null, verdictList(run, 0)];
    }
    const box = (run, r) => el('div', {}, el('h2', {}, sampleOf({v: [], colour: 'ink', dash: r ? [6, 4] : null, r}), ' ' + 'AB'[r] + ': ' + run.title),
      el('p', {class: 'sub'}, describe(run)), verdictList(run, r));
    return [el('h1', {}, 'Two runs compared'), el('p', {class: 'sub'}, 'A is drawn solid, B dashed.'), el('div', {class: 'runs'}, model.runs.map(box)), optionDiff(), changes()];
  });
}

function optionDiff() {
  const [a, b] = state.model.runs.map(run => new Map(run.options));
  const names = [...new Set([...a.keys(), ...b.keys()])];
  const differ = names.filter(name => a.get(name) !== b.get(name));
  const say = value => value === undefined ? '–' : value;
  return el('div', {}, el('h2', {}, 'Options'), differ.length
    ? table([{name: 'option'}, {name: 'A'}, {name: 'B'}], differ.map(name => el('tr', {}, el('td', {}, name), el('td', {class: 'wide'}, say(a.get(name))), el('td', {class: 'wide'}, say(b.get(name))))), {'data-table': 'options'})
    : el('p', {}, names.length ? 'Both runs had the same options.' : 'Neither run names its options.'),
  differ.length && names.length > differ.length ? el('p', {class: 'soft'}, 'The same in both: ' + names.filter(name => !differ.includes(name)).map(name => name + ' ' + a.get(name)).join(', ')) : null);
}

// Changes of totals and means, the largest first: how large against the figures themselves, and little weight for a
// change that is small by itself (one lost packet more is no news, though it doubles one).
function changesOf(model) {
  const rows = [];
  const look = (figure, ids, user, stream) => {
    const divide = figure.divide || 1;
    const [a, b] = [0, 1].map(r => { const value = model.total(r, ids[r], figure.name, figure.how); return value === null ? null : value / divide; });
    if (a === null && b === null) return;
    const left = a || 0, right = b || 0, by = right - left;
    const size = Math.abs(left) + Math.abs(right);
    rows.push({figure, user, stream, a, b, by, weight: size ? Math.abs(by) / size * (1 - Math.exp(-Math.abs(by) / figure.scale)) : 0});
  };
  for (const figure of FIGURES) {
    if (figure.of === 'run') look(figure, ['run', 'run'], null, null);
    else for (const user of model.users) {
      if (figure.of === 'user') look(figure, user.ids, user, null);
      else for (const stream of user.streams) look(figure, stream.ids, user, stream);
    }
  }
  return rows.sort((x, y) => y.weight - x.weight);
}

function changes() {
  const rows = changesOf(state.model);
  const changed = rows.filter(row => row.weight > 0.0005), first = changed.slice(0, 15), rest = changed.slice(15);
  const line = ({figure, user, stream, a, b, by}) => {
    const better = figure.worse * by < 0, judged = figure.worse && Math.abs(by) > 1e-9;
    const digits = Number.isInteger(a || 0) && Number.isInteger(b || 0) ? 0 : undefined;
    return el('tr', {}, el('td', {class: 'name', title: user ? user.label : 'run'}, user ? user.label : 'whole run'), el('td', {class: 'name', title: stream ? stream.label : null}, stream ? stream.label : ''), el('td', {class: 'line'}, figure.label),
      el('td', {class: 'num'}, number(a, digits)), el('td', {class: 'num'}, number(b, digits)), el('td', {}, figure.unit),
      el('td', {class: 'num'}, (by > 0 ? '+' : '') + number(by, digits)), el('td', {class: 'num'}, a ? (by > 0 ? '+' : '') + number(100 * by / Math.abs(a), 0) + ' %' : '–'),
      el('td', {class: judged ? better ? 'better' : 'worse' : null}, judged ? better ? '✔ better' : '✖ worse' : ''));
  };
  const columns = [{name: 'user'}, {name: 'stream'}, {name: 'what'}, {name: 'A', right: true}, {name: 'B', right: true}, {name: 'unit'}, {name: 'change', right: true}, {name: 'of A', right: true}, {name: ''}];
  return el('div', {}, el('h2', {}, 'What changed'), first.length ? table(columns, first.map(line), {'data-table': 'changes'}) : el('p', {}, 'Nothing: every total is the same.'),
    rest.length ? el('details', {}, el('summary', {}, `${rest.length} smaller changes`), table(columns, rest.map(line))) : null,
    first.length && rows.length > changed.length ? el('p', {class: 'soft'}, `${rows.length - changed.length} of ${rows.length} figures are the same.`) : null);
}

// Users with what went wrong for them; the boxes choose what is drawn.
const COLUMNS = [['lost', 'sum', 'lost'], ['unrepaired', 'sum', 'never played'], ['longestStallMs', 'max', 'longest stall, ms'], ['playoutDelay', 'mean', 'playout delay, ms']];
function renderChooser() {
  const {model} = state;
  if (!model.users.length) return parts.chooser.replaceChildren();
  const figures = user => COLUMNS.map(([name, how]) => model.runs.map((_, r) => {
    const all = user.streams.map(stream => model.total(r, stream.ids[r], name, how)).filter(value => value !== null);
    return all.length ? how === 'sum' ? all.reduce((a, b) => a + b) : how === 'max' ? Math.max(...all) : all.reduce((a, b) => a + b) / all.length : null;
  }));
  let rows = model.users.map(user => ({user, figures: figures(user)}));
  if (state.sort !== null) rows.sort((a, b) => Math.max(...b.figures[state.sort].map(v => v ?? -1)) - Math.max(...a.figures[state.sort].map(v => v ?? -1)));
  const many = model.users.length > FIRST_SHOWN;
  const wanted = state.filter.toLowerCase();
  rows = rows.filter(({user}) => !wanted || (user.label + ' ' + user.account + ' ' + user.streams.map(stream => stream.label).join(' ')).toLowerCase().includes(wanted));
  const show = list => { state.shown = new Set(list); renderChooser(); renderUsers(); };

  if (!parts.chooser.firstChild) {
    parts.filter = el('input', {type: 'search', placeholder: 'filter users', 'aria-label': 'filter users', oninput: event => { state.filter = event.target.value; renderChooser(); }});
    parts.count = el('span', {class: 'soft'});
    parts.kinds = el('span', {class: 'buttons'});
    parts.rows = el('div', {});
    parts.chooser.append(el('h2', {}, 'Users and streams'), el('div', {class: 'buttons'}, parts.filter,
      el('button', {type: 'button', onclick: () => show(visibleUsers().map(user => user.key))}, 'show all listed'),
      el('button', {type: 'button', onclick: () => show([])}, 'none'),
      el('button', {type: 'button', onclick: () => show(worst().slice(0, FIRST_SHOWN).map(user => user.key))}, `worst ${FIRST_SHOWN}`),
      parts.count), parts.kinds, parts.rows);
  }
  parts.chooser.children[1].hidden = !many;
  parts.chooser.children[1].style.display = many ? '' : 'none';
  parts.count.textContent = `${state.shown.size} of ${model.users.length} shown` + (wanted ? `, ${rows.length} listed` : '');

  const kinds = [...new Set(model.users.flatMap(user => user.streams.map(stream => stream.kind)))];
  parts.kinds.style.display = many && kinds.length > 1 ? '' : 'none';
  parts.kinds.replaceChildren(...kinds.map(kind => {
    const of = model.users.flatMap(user => user.streams).filter(stream => stream.kind === kind);
    const on = of.some(isStreamShown);
    return el('button', {type: 'button', class: 'chip', 'aria-pressed': String(on), onclick: () => {
      for (const stream of of) on ? state.hidden.add(streamKey(stream)) : state.hidden.delete(streamKey(stream));
      renderChooser();
      renderUsers();
    }}, 'all ' + kind);
  }));

  const row = ({user, figures}) => el('tr', {}, el('td', {class: 'who'}, el('label', {title: user.label + (user.account && user.account !== user.label ? ' (' + user.account + ')' : '')},
    el('input', {type: 'checkbox', checked: state.shown.has(user.key), 'data-user': user.key, onchange: event => {
      event.target.checked ? state.shown.add(user.key) : state.shown.delete(user.key);
      renderChooser();
      renderUsers();
    }}), el('span', {}, user.label))),
  el('td', {class: 'streams'}, user.streams.map(stream => el('label', {}, el('input', {type: 'checkbox', checked: isStreamShown(stream), 'data-stream': streamKey(stream), onchange: event => {
    event.target.checked ? state.hidden.delete(streamKey(stream)) : state.hidden.add(streamKey(stream));
    renderChooser();
    renderUsers();
  }}), el('span', {class: 'swatch', style: `background:var(--${stream.colour})`}), stream.label))),
  figures.map(values => el('td', {class: 'num more'}, values.map(value => number(value, 0)).join(' / '))));
  const heads = ['user', 'streams', ...COLUMNS.map(([, , label]) => label + (model.two ? ', A / B' : ''))];
  parts.rows.replaceChildren(el('div', {class: 'scroll' + (rows.length > 8 ? ' tall' : ''), style: rows.length > 8 ? 'max-height:17rem' : null}, el('table', {},
    el('thead', {}, el('tr', {}, heads.map((name, i) => el('th', {class: i > 1 ? 'num more' : null, scope: 'col', 'aria-sort': state.sort === i - 2 ? 'descending' : null},
      i > 1 && many ? el('button', {type: 'button', title: 'largest first', onclick: () => { state.sort = state.sort === i - 2 ? null : i - 2; renderChooser(); }}, name + (state.sort === i - 2 ? ' ▾' : '')) : name)))),
    el('tbody', {}, rows.map(row)))));
  if (!rows.length) parts.rows.append(el('p', {class: 'soft'}, 'No user matches.'));

  function visibleUsers() { return model.users.filter(user => !state.filter || (user.label + ' ' + user.account).toLowerCase().includes(state.filter.toLowerCase())); }
  // Those who missed most: packets never played, and as much for every 100 ms of the longest stall.
  function worst() {
    const score = new Map(model.users.map(user => { const f = figures(user); return [user, Math.max(...f[1].map(v => v || 0)) + Math.max(...f[2].map(v => v || 0)) / 100]; }));
    return [...model.users].sort((a, b) => score.get(b) - score.get(a));
  }
}

// Sections of the users that are shown. Plots that are there stay and get new bins.
function renderUsers() {
  const {model} = state;
  const old = new Map([...parts.users.children].map(node => [node.key, node]));
  const wanted = model.users.filter(user => state.shown.has(user.key)).map(user => ({user, key: user.key, ...specsOf(user)}));
  const run = RUN_PLOTS.map(plot => makeSpec(plot, null, null)).filter(spec => spec.key);
  if (run.length) wanted.push({user: null, key: '', specs: run, quiet: []});
  const sections = wanted.map(({user, key, specs, quiet}) => {
    let node = old.get(key);
    old.delete(key);
    if (!node) {
      node = el('section', {class: 'user'}, el('header', {}, el('h2', {title: user ? user.label : null}, user ? short(user.label, 80) : 'Whole run'),
        user && user.account && user.account !== user.label ? el('span', {class: 'soft'}, 'account ' + user.account) : null), el('div', {class: 'grid'}), el('p', {class: 'soft'}));
      node.key = key;
    }
    const grid = node.children[1];
    grid.classList.toggle('alone', !!user && user.streams.filter(isStreamShown).length === 1);
    grid.classList.toggle('several', !!user && user.streams.filter(isStreamShown).length > 1);
    const keys = new Set(specs.map(spec => spec.key));
    for (const root of [...grid.children]) if (!keys.has(root.card.key)) root.card.remove();
    inOrder(grid, specs.map(spec => {
      let card = state.cards.get(spec.key);
      if (card) card.update(spec);
      else state.cards.set(spec.key, card = new Card(spec));
      return card.root;
    }));
    node.lastChild.textContent = quiet.length ? 'Zero throughout: ' + quiet.join(', ') + '.' : specs.length ? '' : 'Nothing was recorded.';
    return node;
  });
  for (const node of old.values()) dropSection(node);
  inOrder(parts.users, sections);
  renderRange();
  renderEvents();
}
function inOrder(parent, children) {
  children.forEach((node, i) => { if (parent.children[i] !== node) parent.insertBefore(node, parent.children[i] || null); });
}
function dropSection(node) {
  for (const root of node.querySelectorAll('.card')) root.card.remove();
  node.remove();
}

function renderEvents() {
  const {model} = state;
  const relevant = model.events.filter(event => !event.user || state.shown.has(event.user.key) && (!event.stream || isStreamShown(event.stream)));
  const kinds = new Map();
  for (const event of relevant) kinds.set(event.kind, (kinds.get(event.kind) || 0) + 1);
  const listed = relevant.filter(event => !state.hiddenKinds.has(event.kind));
  const rows = state.allEvents ? listed : listed.slice(0, ROWS_AT_FIRST);
  const manyUsers = model.users.length > 1;
  fill(parts.events, [rows.map(event => [event.t, event.kind, event.text, event.ms, event.user && event.user.key, event.r]), [...kinds], [...state.hiddenKinds], listed.length], () => !relevant.length ? [] : [
    el('h2', {}, 'Events'),
    el('div', {class: 'buttons'}, [...kinds].map(([kind, n]) => el('button', {type: 'button', class: 'chip', 'aria-pressed': String(!state.hiddenKinds.has(kind)), 'data-kind': kind, onclick: () => {
      if (!state.hiddenKinds.delete(kind)) state.hiddenKinds.add(kind);
      renderEvents();
      for (const card of state.cards.values()) if (card.u && card.near) card.u.redraw(false); else card.stale = true;
    }}, el('span', {style: `color:var(--${EVENT_COLOURS[eventClass(kind)]})`}, EVENT_SIGNS[eventClass(kind)]), `${words(kind)} (${n})`))),
    table([{name: 'time', right: true}, ...(model.two ? [{name: 'run'}] : []), {name: 'event'}, ...(manyUsers ? [{name: 'user'}] : []), {name: 'stream'}, {name: 'length', right: true}, {name: ''}],
      rows.map(event => el('tr', {class: 'go', onclick: () => goTo(event.t, event.ms, event.user)},
        el('td', {class: 'num'}, el('button', {type: 'button', class: 'link', 'aria-label': 'show ' + clock(event.t, 3)}, clock(event.t, 3))), model.two ? el('td', {}, 'AB'[event.r]) : null,
        el('td', {class: 'line'}, el('span', {style: `color:var(--${EVENT_COLOURS[event.cls]})`}, EVENT_SIGNS[event.cls] + ' '), words(event.kind)),
        manyUsers ? el('td', {class: 'name', title: event.user ? event.user.label : null}, event.user ? event.user.label : '') : null, el('td', {class: 'name', title: event.stream ? event.stream.label : null}, event.stream ? event.stream.label : ''),
        el('td', {class: 'num'}, event.ms !== null ? span(event.ms) : ''), el('td', {class: 'wide'}, event.text))), {'data-table': 'events'}),
    listed.length > rows.length ? el('div', {class: 'buttons'}, el('button', {type: 'button', onclick: () => { state.allEvents = true; renderEvents(); }}, `show all ${number(listed.length)}`)) : null]);
}

function renderTables() {
  const {model} = state;
  fill(parts.tables, model.runs.map(run => run.tables), () => model.runs.flatMap((run, r) => run.tables.map(source => {
    const columns = array(source.columns).map(column => ({name: text(column && column.name), right: !!(column && column.right)}));
    const rows = array(source.rows).map(cells => el('tr', {}, columns.map((column, i) => {
      const cell = text(array(cells)[i]);
      return el('td', {class: column.right ? 'num' : cell.length > 40 ? 'name' : null, title: cell.length > 40 ? cell : null}, cell);
    })));
    return el('div', {}, el('h2', {}, (model.two ? 'AB'[r] + ': ' : '') + text(source.title)), rows.length ? table(columns, rows, {'data-table': text(source.title)}) : el('p', {class: 'soft'}, 'empty'));
  })));
}

function setTheme(theme, remember) {
  document.documentElement.dataset.theme = theme;
  parts.theme.replaceChildren(theme === 'dark' ? '☀' : '☾', el('span', {class: 'words'}, theme === 'dark' ? ' light' : ' dark'));
  if (remember) try { localStorage.setItem('udtlab-theme', theme); } catch (error) { /* pages from files may have no storage */ }
  for (const card of state.cards.values()) {
    card.stale = !!card.u;
    if (card.near || state.printing && card.u) card.apply();
  }
}
function storedTheme() {
  try { return localStorage.getItem('udtlab-theme'); } catch (error) { return null; }
}

// On paper: light, everything shown, no matter what was scrolled to.
function setPrinting(on) {
  if (state.printing === on) return;
  state.printing = on;
  if (on) state.themeBefore = document.documentElement.dataset.theme;
  setTheme(on ? 'light' : state.themeBefore, false);
  for (const card of state.cards.values()) if (on || card.near) card.apply();
}

function buildPage() {
  const app = document.getElementById('app');
  const button = (label, title, onclick, attributes) => el('button', {type: 'button', title, 'aria-label': title, onclick, ...attributes}, label);
  parts.head = el('div', {});
  parts.banner = el('div', {class: 'banner', role: 'status'});
  parts.chooser = el('div', {class: 'chooser'});
  parts.users = el('main', {});
  parts.events = el('div', {});
  parts.tables = el('div', {});
  parts.tip = el('div', {class: 'tip', hidden: true, role: 'tooltip'});
  parts.range = el('span', {class: 'range', 'data-role': 'range'});
  parts.at = el('span', {class: 'at', 'data-role': 'at'});
  parts.theme = button('', 'light or dark', () => setTheme(document.documentElement.dataset.theme === 'dark' ? 'light' : 'dark', true), {'data-role': 'theme'});
  const reset = button(el('span', {}, '⟷', el('span', {class: 'words'}, ' whole run')), 'show everything (double-click a plot, or 0)', () => setView(null), {'data-role': 'reset'});
  const left = button('◀', 'earlier (←)', () => moveView(-0.5)), right = button('▶', 'later (→)', () => moveView(0.5)), less = button('−', 'zoom out (−)', () => scaleView(2));
  parts.zoomed = [reset, left, right, less];
  parts.live = el('span', {'data-role': 'live'});
  const bar = el('div', {class: 'bar', role: 'toolbar', 'aria-label': 'time range'}, parts.range, less, button('+', 'zoom in (+)', () => scaleView(0.5)), left, right, reset, parts.at,
    el('span', {class: 'room'}), parts.live, parts.theme);
  app.append(parts.head, parts.banner, parts.chooser, bar, parts.users, parts.events, parts.tables, parts.tip,
    el('p', {class: 'soft help'}, 'Drag in a plot to zoom, shift-drag to move, double-click to see everything again; Ctrl and wheel zoom, keys + − ← → 0 do too. On a touch screen two fingers zoom and one moves.'));

  const dark = matchMedia('(prefers-color-scheme: dark)');
  setTheme(storedTheme() || (dark.matches ? 'dark' : 'light'), false);
  dark.addEventListener('change', () => { if (!storedTheme() && !state.printing) setTheme(dark.matches ? 'dark' : 'light', false); });
  matchMedia('print').addEventListener('change', event => setPrinting(event.matches));
  addEventListener('beforeprint', () => setPrinting(true));
  addEventListener('afterprint', () => setPrinting(false));
  addEventListener('keydown', event => {
    if (event.ctrlKey || event.metaKey || event.altKey || event.target.closest('input, textarea, .scroll')) return;
    const act = {ArrowLeft: () => moveView(-0.2), ArrowRight: () => moveView(0.2), '+': () => scaleView(0.5), '=': () => scaleView(0.5), '-': () => scaleView(2), 0: () => setView(null), Escape: () => setView(null)}[event.key];
    if (act) { act(); event.preventDefault(); }
  });
  // The width of the plots, whatever moved it.
  new ResizeObserver(() => { for (const card of state.cards.values()) if (card.near || state.printing) card.apply(); }).observe(parts.users);
}

function show(reports) {
  const first = !state.model;
  const old = state.model;
  state.model = new Model(reports);
  const {users} = state.model;
  if (first) {
    const named = state.model.runs.flatMap((run, r) => run.verdict.map(entry => users.find(user => user.ids[r] === entry.user))).filter(Boolean);
    const start = users.length <= FIRST_SHOWN ? users : [...new Set([...named, ...users])].slice(0, FIRST_SHOWN);
    state.shown = new Set(start.map(user => user.key));
    const hash = /^#t=([\d.]+)-([\d.]+)$/.exec(location.hash);
    if (hash) setView([+hash[1], +hash[2]]);
  } else if (old) {
    // A live call: who joins is shown while there are few.
    for (const user of users) if (!old.users.some(other => other.key === user.key) && state.shown.size < FIRST_SHOWN) state.shown.add(user.key);
    if (state.view) setView(state.view);
  }
  renderHead();
  renderChooser();
  renderUsers();
  renderTables();
}

// --- live -------------------------------------------------------------------------------------------------------

function goLive() {
  state.live = true;
  const status = el('span', {class: 'state lost', 'data-role': 'state'}, 'connecting');
  const flight = el('button', {type: 'button', title: 'write the last seconds of packet headers and decisions to a file', 'data-role': 'flight', onclick: async () => {
    flight.disabled = true;
    try {
      const answer = await fetch('/flight', {method: 'POST'});
      banner(answer.ok ? 'good' : 'bad', 'Flight recorder: ' + ((await answer.text()).trim() || answer.status + ' ' + answer.statusText));
    } catch (error) {
      banner('bad', 'Flight recorder: no answer from udtlab.');
    }
    flight.disabled = false;
  }}, 'save flight record');
  parts.live.append(status, ' ', flight);
  document.title = 'live – udtlab';
  parts.head.append(el('h1', {}, 'Waiting for the first packets'));

  const source = new EventSource('/events');
  const say = (good, what) => { status.className = good ? 'state' : 'state lost'; status.textContent = what; };
  let ended = false;
  source.onopen = () => { say(true, 'live'); if (parts.banner.dataset.why === 'connection') banner('', ''); };
  source.onmessage = message => {
    let report;
    try { report = JSON.parse(message.data); } catch (error) { return; }
    if (report.format === 'udtlab-report') show([report]);
  };
  source.addEventListener('end', () => { ended = true; source.close(); say(false, 'ended'); banner('note', 'The call has ended; this is what was last seen.', 'connection'); });
  source.onerror = () => {
    if (ended) return;
    const closed = source.readyState === EventSource.CLOSED;
    say(false, closed ? 'ended' : 'connection lost');
    banner('note', 'The connection to udtlab ended at ' + new Date().toLocaleTimeString() + (closed ? '; this is what was last seen.' : '; trying again. This is what was last seen.'), 'connection');
  };
}
function banner(level, what, why) {
  parts.banner.className = 'banner ' + level;
  parts.banner.textContent = what;
  parts.banner.dataset.why = why || '';
}

// --- begin ------------------------------------------------------------------------------------------------------

window.udtReport = {
  state, setView, changesOf, show, ready: false,
  get plots() { return [...document.querySelectorAll('.card')].map(root => root.card); },
  get model() { return state.model; },
  get view() { return view(); },
};
buildPage();
try {
  const data = JSON.parse(document.getElementById('report-data').textContent);
  if (data.format === 'udtlab-live') goLive();
  else if (data.format === 'udtlab-comparison' && array(data.runs).length === 2) show(data.runs);
  else if (data.format === 'udtlab-report') show([data]);
  else throw new Error(`expected a udtlab-report, found ${text(data.format) || 'nothing of the kind'}`);
  if (data.version > 1) banner('note', `The report is of format ${data.version}; this page knows format 1 and may leave things out.`);
} catch (error) {
  banner('bad', 'The data of this page cannot be read: ' + error.message);
  if (!(error instanceof SyntaxError) && !/^expected/.test(error.message)) throw error;
}
window.udtReport.ready = true;
})();
