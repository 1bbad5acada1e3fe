// Made-up reports for what recorded runs do not have: one packet, no video, 50 users, very long names, bins without
// anything, as many bins and streams as a report may hold. Repeatable: the same call makes the same report.

function random(seed) {
  let state = seed >>> 0;
  return () => { // mulberry32
    state = (state + 0x6d2b79f5) >>> 0;
    let t = Math.imul(state ^ (state >>> 15), state | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

function walk(count, make, silent = () => false) {
  return Array.from({length: count}, (_, i) => silent(i) ? null : make(i));
}

export function makeReport({users = 1, kinds = ['audio', 'video'], count = 600, ms = 100, seed = 1, worse = 1, title = 'made-up call', name, silent, options = [], events = true} = {}) {
  const dice = random(seed);
  const report = {
    format: 'udtlab-report', version: 1,
    run: {kind: 'simulate', title, program: 'udtlab 1.0', startUnixMs: 1763700000000, durationMs: count * ms,
      options: [['mode', 'default'], ['seed', String(seed)], ['loss', `${5 * worse} %`], ...options]},
    verdict: [
      {level: 'bad', text: '4.1 % lost, 97 % of it repaired in time', t: null, user: null},
      {level: 'note', text: '3 stalls over 200 ms, the longest 1.2 s at 0:41', t: Math.round(count * ms * 0.68), user: 'u0'},
      {level: 'good', text: 'sound and picture within 40 ms of each other', t: null, user: 'u0'}],
    tables: [{title: 'Streams', columns: [{name: '#', right: true}, {name: 'user'}, {name: 'kind'}, {name: 'packets', right: true}, {name: 'lost %', right: true}], rows: []}],
    users: [], streams: [], totals: [], bins: {ms, count}, series: [], events: [],
  };
  const add = (of, series, v, lo, hi) => report.series.push({of, name: series, v, ...(lo ? {lo, hi} : {})});
  const round = value => value === null ? null : Math.round(value * 10) / 10;
  for (let u = 0; u < users; u++) {
    const id = `u${u}`;
    const user = {id, account: String(1001 + u), name: name ? name(u) : `user${u}@example`, streams: []};
    report.users.push(user);
    let base = 60;
    const target = walk(count, i => {
      base += (dice() - 0.5) * 4 + (i === Math.floor(count * 0.4) ? 180 * worse : 0);
      base = Math.max(40, base - (base > 90 ? 1.2 : 0));
      return Math.round(base);
    });
    add(id, 'target', target);
    add(id, 'latency', target.map(t => Math.round(t * 1.1)));
    add(id, 'bandMin', target.map(t => Math.round(t * 0.1)));
    add(id, 'bandMax', target.map(t => Math.round(t * 0.8)));
    add(id, 'clockSpeed', walk(count, i => i > count * 0.4 && i < count * 0.5 ? 1 : i > count * 0.7 && i < count * 0.72 ? -0.6 : 0));
    if (kinds.length > 1) add(id, 'avOffset', walk(count, i => Math.round(Math.sin(i / 25) * 20 + (dice() - 0.5) * 8)));
    kinds.forEach((kind, k) => {
      const of = `s${report.streams.length}`;
      user.streams.push(of);
      report.streams.push({id: of, user: id, kind, subType: 3 + k, name: kind});
      report.tables[0].rows.push([String(report.streams.length - 1), user.name, kind, String(count * 5), (4.1 * worse).toFixed(2)]);
      const quiet = i => (silent && silent(i)) || (i > count * 0.80 && i < count * 0.84);
      const arrival = walk(count, i => target[i] * (0.2 + 0.5 * dice()), quiet);
      add(of, 'arrivalDelay', arrival.map(round), arrival.map(v => round(v === null ? null : v * 0.5)), arrival.map(v => round(v === null ? null : v * (1.3 + dice()))));
      const played = walk(count, i => target[i] + 10 * dice(), quiet);
      add(of, 'playoutDelay', played.map(round), played.map(v => round(v === null ? null : v - 8)), played.map(v => round(v === null ? null : v + 12)));
      add(of, 'bufferMs', walk(count, i => Math.round(target[i] * 0.8 + 10 * dice()), quiet));
      add(of, 'bufferPackets', walk(count, i => Math.round(target[i] / (kind === 'audio' ? 20 : 8)), quiet));
      const size = kind === 'audio' ? 160 : 1100, rate = kind === 'audio' ? ms / 20 : ms / 5;
      const packetsIn = walk(count, () => Math.round(rate * (0.9 + 0.2 * dice())), quiet);
      add(of, 'packetsIn', packetsIn);
      add(of, 'packetsOut', packetsIn);
      add(of, 'bytesIn', packetsIn.map((n, i) => n === null ? null : n * size * (kind === 'video' && i % 20 === 0 ? 4 : 1)));
      add(of, 'bytesOut', packetsIn.map((n, i) => n === null ? null : Math.round(n * size * 0.98)));
      const burst = i => dice() < 0.04 * worse || (i > count * 0.4 && i < count * 0.42);
      const lost = walk(count, i => burst(i) ? 1 + Math.floor(dice() * 4 * worse) : 0, quiet);
      add(of, 'lost', lost);
      const missed = lost.map(n => n === null ? null : n > 3 ? 1 : 0);
      add(of, 'unrepaired', missed);
      add(of, 'requested', lost);
      add(of, 'answered', lost.map((n, i) => n === null ? null : n - missed[i]));
      add(of, 'requestsFailed', missed);
      add(of, 'requestsWasted', lost.map(n => n === null ? null : n > 2 && dice() < 0.3 ? 1 : 0));
      add(of, 'gaps', missed);
      const stalled = i => i >= Math.floor(count * 0.68) && (i - Math.floor(count * 0.68)) * ms < 1200;
      add(of, 'stallMs', walk(count, i => stalled(i) ? Math.min(ms, 1200) : dice() < 0.004 * worse ? Math.round(ms * dice()) : 0, quiet));
      const sum = series => report.series.find(entry => entry.of === of && entry.name === series).v.reduce((a, b) => a + (b || 0), 0);
      report.totals.push({of, packetsIn: sum('packetsIn'), packetsOut: sum('packetsOut'), bytesIn: sum('bytesIn'), bytesOut: sum('bytesOut'), lost: sum('lost'),
        unrepaired: sum('unrepaired'), requested: sum('requested'), answered: sum('answered'), requestsFailed: sum('requestsFailed'), requestsWasted: null,
        gaps: sum('gaps'), stalls: 1, longestStallMs: 1200, stalledMs: sum('stallMs'), playoutDelayMean: 100 * worse + k});
      if (events) {
        report.events.push({t: 120 + 30 * k, of, kind: 'firstKeyFrame', ms: null, text: 'held back until the first I frame'});
        report.events.push({t: Math.round(count * ms * 0.68), of, kind: 'stall', ms: 1200, text: 'nothing released'});
      }
    });
    if (events) {
      report.events.push({t: Math.round(count * ms * 0.4), of: id, kind: 'jump', ms: 180, text: 'clock set forward'});
      report.events.push({t: Math.round(count * ms * 0.5), of: id, kind: 'pullBack', ms: 90, text: ''});
    }
  }
  if (events) {
    report.events.push({t: 0, of: 'run', kind: 'roomState', ms: null, text: 'room state 3'});
    report.events.push({t: Math.round(count * ms * 0.3), of: 'run', kind: 'modeChange', ms: null, text: 'mode 0 to 1'});
  }
  add('run', 'downlinkLoss', walk(count, i => Math.round(300 * worse + 200 * Math.sin(i / 40))));
  add('run', 'liveStreams', walk(count, () => users * kinds.length));
  return report;
}

export function onePacket() {
  return {
    format: 'udtlab-report', version: 1,
    run: {kind: 'replay', title: 'one.pcap', program: 'udtlab 1.0', startUnixMs: null, durationMs: 0, options: []},
    verdict: [{level: 'note', text: 'one packet: too little to tell', t: 0, user: 'u0'}],
    tables: [], users: [{id: 'u0', account: '1001', name: '1001', streams: ['s0']}],
    streams: [{id: 's0', user: 'u0', kind: 'audio', subType: 3, name: 'audio'}], bins: {ms: 100, count: 1},
    series: [{of: 's0', name: 'packetsIn', v: [1]}, {of: 's0', name: 'bytesIn', v: [160]}, {of: 's0', name: 'arrivalDelay', v: [0], lo: [0], hi: [0]},
      {of: 's0', name: 'playoutDelay', v: [31], lo: [31], hi: [31]}, {of: 's0', name: 'lost', v: [0]}, {of: 'u0', name: 'target', v: [40]}],
    events: [{t: 0, of: 's0', kind: 'firstKeyFrame', ms: null, text: ''}],
  };
}

export const noVideo = () => makeReport({kinds: ['audio'], count: 300, seed: 3, title: 'sound only'});

export const manyUsers = () => makeReport({users: 50, count: 200, ms: 500, seed: 4, title: 'a room of fifty', name: u => `participant ${u}`});

export function longNames() {
  const long = 'a-name-without-any-blank-that-somebody-typed-in-for-a-joke-'.repeat(3);
  const report = makeReport({users: 3, count: 200, seed: 5, title: '/srv/recordings/2026/11/' + 'a-very-long-folder-name/'.repeat(8) + 'call.pcapng',
    name: u => u === 1 ? 'Übergrößenträger 株式会社 ' + long : long + u,
    options: [['capture', '/srv/recordings/' + 'x'.repeat(180)], ['rate', '1'], ...Array.from({length: 12}, (_, i) => [`parameter-${i}`, String(i * 100)])]});
  report.verdict.push({level: 'bad', text: 'w'.repeat(300), t: 5000, user: 'u1'});
  report.events.push({t: 6000, of: 'u1', kind: 'somethingThatNobodyHasSeenBefore', ms: 12345678, text: 'y'.repeat(240) + ' <b>not bold</b>'});
  report.streams[1].name = 'screen share of the second monitor in the large meeting room';
  return report;
}

// Streams that fall silent, whole series of nulls, series and tables that are missing.
export function holes() {
  const report = makeReport({count: 400, seed: 6, title: 'holes', silent: i => i % 40 > 25 || i === 5});
  for (const series of report.series) if (series.of === 's1' && series.name !== 'packetsIn' && series.name !== 'arrivalDelay') series.v = series.v.map(() => null);
  report.series = report.series.filter(series => series.name !== 'bandMin' && series.name !== 'avOffset');
  delete report.tables;
  delete report.verdict;
  delete report.totals;
  return report;
}

export const fullSize = () => makeReport({users: 4, count: 2000, ms: 1800, seed: 7, title: 'an hour', worse: 0.5});

export function nothing() {
  return {format: 'udtlab-report', version: 1, run: {kind: 'listen', title: 'udp ports 5004, 5006'}};
}

export function comparison() {
  const a = makeReport({count: 600, seed: 8, title: 'mode default', worse: 2}), b = makeReport({count: 320, ms: 200, seed: 8, title: 'mode live', worse: 1, options: [['rate', '2']]});
  b.run.options[0][1] = 'live';
  return {format: 'udtlab-comparison', version: 1, runs: [a, b]};
}
