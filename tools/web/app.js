// The dm-monitor page: listens to /events (server-sent events, one JSON object each; see
// docs/monitor-web.md) and draws the game's output, in-place values and profile snapshots.
// Everything it keeps is bounded, like the tool itself.
'use strict';

const MAX_LINES = 5000;      // lines kept for filtering
const MAX_SHOWN = 2000;      // lines in the page at once
const MAX_NAMES = 1024;      // in-place values kept
const HISTORY = 120;         // samples per plotted value
const MAX_SNAPSHOTS = 16;    // profile snapshots kept for the scope table

const $ = (id) => document.getElementById(id);
const state = {
  lines: [], pendingLines: [], hiddenChannels: new Set(), channels: new Set(), search: '',
  linesRebuild: true, inPlace: new Map(), groups: new Map(), dirtyValues: new Set(),
  snapshots: [], profileDirty: false, linesSeen: 0, link: null,
};

function channelColour(channel) {
  const hue = (channel * 67 + 200) % 360;
  return `hsl(${hue}, 70%, 65%)`;
}

// --- text output -----------------------------------------------------------------------------

function addLine(channel, text, kind) {
  const line = { channel, text, kind };
  state.lines.push(line);
  if (state.lines.length > MAX_LINES) state.lines.splice(0, state.lines.length - MAX_LINES);
  state.pendingLines.push(line);
  if (state.pendingLines.length > MAX_SHOWN) state.pendingLines.splice(0, state.pendingLines.length - MAX_SHOWN);
  if (kind === 'text') {
    state.linesSeen++;
    if (!state.channels.has(channel)) { state.channels.add(channel); drawChannelToggles(); }
  }
}

function note(text) { addLine(null, text, 'note'); }

function lineVisible(line) {
  if (line.kind === 'text' && state.hiddenChannels.has(line.channel)) return false;
  return !state.search || line.text.toLowerCase().includes(state.search);
}

function lineElement(line) {
  const row = document.createElement('div');
  row.className = 'line ' + line.kind;
  if (line.kind === 'text') {
    row.dataset.channel = line.channel;
    const channel = document.createElement('span');
    channel.className = 'channel';
    channel.style.color = channelColour(line.channel);
    channel.textContent = `[${line.channel}]`;
    row.append(channel, ' ');
  }
  const text = document.createElement('span');
  text.className = 'text';
  text.textContent = line.text;
  row.append(text);
  return row;
}

function drawLines() {
  const box = $('lines');
  const follow = $('follow').checked;
  let source = state.pendingLines;
  if (state.linesRebuild) {
    box.replaceChildren();
    source = state.lines;
    state.linesRebuild = false;
  }
  const shown = source.filter(lineVisible).slice(-MAX_SHOWN);
  state.pendingLines = [];
  if (shown.length) {
    const fragment = document.createDocumentFragment();
    for (const line of shown) fragment.append(lineElement(line));
    box.append(fragment);
    let extra = box.childElementCount - MAX_SHOWN;
    while (extra-- > 0) box.firstElementChild.remove();
    if (follow) box.scrollTop = box.scrollHeight;
  }
  $('line-count').textContent = `${box.childElementCount} lines shown, ${state.linesSeen} received`;
}

function drawChannelToggles() {
  const box = $('channels');
  box.replaceChildren();
  for (const channel of [...state.channels].sort((a, b) => a - b)) {
    const toggle = document.createElement('button');
    toggle.type = 'button';
    toggle.className = 'channel-toggle' + (state.hiddenChannels.has(channel) ? '' : ' on');
    toggle.dataset.channel = channel;
    toggle.style.color = channelColour(channel);
    toggle.textContent = `channel ${channel}`;
    toggle.title = 'show or hide this channel';
    toggle.onclick = () => {
      if (state.hiddenChannels.has(channel)) state.hiddenChannels.delete(channel);
      else state.hiddenChannels.add(channel);
      state.linesRebuild = true;
      drawChannelToggles();
    };
    box.append(toggle);
  }
}

// --- in-place statistics ---------------------------------------------------------------------

function inPlaceKey(event) { return `${event.group}\u0000${event.name}`; }

function setInPlace(event) {
  const key = inPlaceKey(event);
  let entry = state.inPlace.get(key);
  if (!entry) {
    if (state.inPlace.size >= MAX_NAMES) dropOldestValue();
    entry = { group: event.group, groupName: event.groupName, name: event.name, history: [] };
    createValueRow(entry);
  } else {
    state.inPlace.delete(key);  // re-inserted below: the map's order is oldest update first
  }
  state.inPlace.set(key, entry);
  entry.text = event.text;
  if (event.history) entry.history = event.history.slice(-HISTORY);
  else if (typeof event.value === 'number') {
    entry.history.push(event.value);
    if (entry.history.length > HISTORY) entry.history.shift();
  }
  state.dirtyValues.add(entry);
}

function dropOldestValue() {
  const [key, entry] = state.inPlace.entries().next().value;
  state.inPlace.delete(key);
  state.dirtyValues.delete(entry);
  entry.row.remove();
}

function groupTable(group, groupName) {
  let table = state.groups.get(group);
  if (table) return table;
  const empty = $('inplace').querySelector('.empty');
  if (empty) empty.remove();
  const section = document.createElement('div');
  section.className = 'group';
  section.dataset.group = group;
  const heading = document.createElement('h3');
  heading.textContent = groupName;
  table = document.createElement('table');
  table.append(document.createElement('tbody'));
  section.append(heading, table);
  const after = [...$('inplace').children].find((other) => Number(other.dataset.group) > group);
  $('inplace').insertBefore(section, after || null);
  state.groups.set(group, table);
  return table;
}

function createValueRow(entry) {
  const tbody = groupTable(entry.group, entry.groupName).tBodies[0];
  const row = document.createElement('tr');
  row.dataset.name = entry.name;
  const name = document.createElement('td');
  name.className = 'name';
  name.textContent = entry.name;
  entry.valueCell = document.createElement('td');
  entry.valueCell.className = 'value';
  const plot = document.createElement('td');
  plot.className = 'plot';
  entry.canvas = document.createElement('canvas');
  entry.canvas.className = 'spark';
  entry.canvas.width = 120;
  entry.canvas.height = 22;
  plot.append(entry.canvas);
  row.append(name, entry.valueCell, plot);
  const after = [...tbody.rows].find((other) => other.dataset.name > entry.name);
  tbody.insertBefore(row, after || null);
  entry.row = row;
}

function drawSpark(entry) {
  const canvas = entry.canvas;
  const context = canvas.getContext('2d');
  context.clearRect(0, 0, canvas.width, canvas.height);
  const values = entry.history;
  if (values.length < 2) return;
  let low = Math.min(...values), high = Math.max(...values);
  if (high === low) { high += 1; low -= 1; }
  const x = (i) => (i / (HISTORY - 1)) * (canvas.width - 2) + 1 + (HISTORY - values.length) * (canvas.width - 2) / (HISTORY - 1);
  const y = (v) => canvas.height - 2 - ((v - low) / (high - low)) * (canvas.height - 4);
  context.beginPath();
  values.forEach((v, i) => (i ? context.lineTo(x(i), y(v)) : context.moveTo(x(i), y(v))));
  context.strokeStyle = '#4fa3ff';
  context.lineWidth = 1.4;
  context.stroke();
}

function drawValues() {
  for (const entry of state.dirtyValues) {
    entry.valueCell.textContent = entry.text;
    drawSpark(entry);
  }
  state.dirtyValues.clear();
}

// --- profile ---------------------------------------------------------------------------------

function addSnapshot(event) {
  state.snapshots.push(event);
  if (state.snapshots.length > MAX_SNAPSHOTS) state.snapshots.shift();
  state.profileDirty = true;
}

function scopeColour(name) {
  let hash = 0;
  for (const c of name) hash = (hash * 31 + c.codePointAt(0)) >>> 0;
  return `hsl(${20 + hash % 40}, ${70 + hash % 20}%, ${58 + hash % 14}%)`;
}

// The thread whose outermost scopes are frames: one named "main", else the most deeply nested.
function frameThread(snapshot) {
  if (!snapshot.threads.length) return null;
  const named = snapshot.threads.find((thread) => /main/i.test(thread.name));
  if (named) return named;
  const depthOf = (thread) => Math.max(0, ...thread.scopes.map((scope) => scope[1]));
  return snapshot.threads.reduce((best, thread) => (depthOf(thread) > depthOf(best) ? thread : best));
}

// The time the flame chart shows: the newest outermost scope of the frame thread, a fixed
// span before the newest scope, or the whole snapshot.
function flameWindow(snapshot) {
  let start = Infinity, end = -Infinity;
  for (const thread of snapshot.threads) {
    for (const [, , begin, finish] of thread.scopes) {
      start = Math.min(start, begin);
      end = Math.max(end, finish);
    }
  }
  const choice = $('flame-window').value;
  if (choice === 'frame' && snapshot.threads.length) {
    const outer = frameThread(snapshot).scopes.filter((scope) => scope[1] === 0);
    if (outer.length) {
      const [, , begin, finish] = outer[outer.length - 1];
      const margin = (finish - begin) * 0.02;
      return [begin - margin, finish + margin];
    }
  } else if (choice !== 'all') {
    return [end - Number(choice) * 1000, end];
  }
  return [start, end];
}

function drawFlame(snapshot) {
  const box = $('flame');
  box.replaceChildren();
  const [start, end] = flameWindow(snapshot);
  const span = Math.max(1, end - start);
  const main = frameThread(snapshot);
  const threads = main ? [main, ...snapshot.threads.filter((thread) => thread !== main)] : [];
  for (const thread of threads) {
    const title = document.createElement('div');
    title.className = 'thread-name';
    const dropped = thread.dropped ? `, ${thread.dropped} older not sent` : '';
    title.textContent = `${thread.name || 'thread'} (${thread.id}): ${thread.scopes.length} scopes${dropped}`;
    const flame = document.createElement('div');
    flame.className = 'flame';
    flame.dataset.thread = thread.name;
    let depths = 1;
    for (const [name, depth, begin, finish] of thread.scopes) {
      depths = Math.max(depths, depth + 1);
      if (finish < start || begin > end) continue;
      const left = Math.max(begin, start), right = Math.min(finish, end);
      const block = document.createElement('div');
      block.className = 'scope';
      block.textContent = name;
      block.title = `${name}: ${((finish - begin) / 1000).toFixed(3)} ms`;
      block.style.left = `${((left - start) / span) * 100}%`;
      block.style.width = `max(1px, ${((right - left) / span) * 100}%)`;
      block.style.top = `${depth * 20}px`;
      block.style.background = scopeColour(name);
      flame.append(block);
    }
    flame.style.height = `${depths * 20}px`;
    box.append(title, flame);
  }
  $('profile-info').textContent = `newest snapshot: ${snapshot.threads.length} threads; ${(span / 1000).toFixed(2)} ms shown`;
}

// Calls, total and self time per scope name over the chosen snapshots. Snapshots overlap
// (each holds a thread's newest scopes), so a scope is counted once.
function scopeTotals(snapshots) {
  const seen = new Set();
  const totals = new Map();
  for (const snapshot of snapshots) {
    for (const thread of snapshot.threads) {
      const scopes = thread.scopes
        .filter(([name, depth, begin]) => {
          const key = `${thread.id}/${name}/${depth}/${begin}`;
          if (seen.has(key)) return false;
          seen.add(key);
          return true;
        })
        .sort((a, b) => a[2] - b[2] || a[1] - b[1]);
      const open = [];
      const records = scopes.map(([name, depth, begin, end]) => ({ name, depth, begin, end, children: 0 }));
      for (const scope of records) {
        while (open.length && (open[open.length - 1].end <= scope.begin || open[open.length - 1].depth >= scope.depth)) open.pop();
        const parent = open[open.length - 1];
        if (parent && parent.depth === scope.depth - 1) parent.children += scope.end - scope.begin;
        open.push(scope);
      }
      for (const scope of records) {
        const total = totals.get(scope.name) || { calls: 0, total: 0, self: 0 };
        const duration = scope.end - scope.begin;
        total.calls++;
        total.total += duration;
        total.self += Math.max(0, duration - scope.children);
        totals.set(scope.name, total);
      }
    }
  }
  return totals;
}

function drawScopeTable() {
  const count = Number($('snapshot-count').value);
  const totals = scopeTotals(state.snapshots.slice(-count));
  const rows = [...totals.entries()].sort((a, b) => b[1].total - a[1].total);
  const body = $('scope-table').tBodies[0];
  body.replaceChildren();
  for (const [name, total] of rows) {
    const row = document.createElement('tr');
    const cells = [name, total.calls, (total.total / 1000).toFixed(2), (total.self / 1000).toFixed(2),
      (total.total / total.calls).toFixed(0)];
    for (const value of cells) {
      const cell = document.createElement('td');
      cell.textContent = value;
      row.append(cell);
    }
    body.append(row);
  }
}

function drawProfile() {
  if (!state.profileDirty || !state.snapshots.length) return;
  state.profileDirty = false;
  drawFlame(state.snapshots[state.snapshots.length - 1]);
  drawScopeTable();
}

// --- connection ------------------------------------------------------------------------------

function showLink(event) {
  const previous = state.link;
  state.link = event;
  const where = `${event.host}:${event.port}`;
  const texts = {
    connecting: `waiting for the game at ${where}`,
    connected: event.connects > 1 ? `connected to ${where} (reconnected ${event.connects - 1}×)` : `connected to ${where}`,
    lost: `the game at ${where} went away; waiting for it to come back`,
    offline: 'dm-monitor is not reachable; retrying',
  };
  $('link').dataset.state = event.state;
  $('link-text').textContent = texts[event.state] || event.state;
  if (previous && previous.state !== event.state) {
    if (event.state === 'connected') note(event.connects > 1 ? 'the game is back (restarted)' : 'the game connected');
    if (event.state === 'lost') note('the game went away');
  }
}

function reset() {
  state.lines = [];
  state.pendingLines = [];
  state.linesRebuild = true;
  state.inPlace.clear();
  state.groups.clear();
  state.dirtyValues.clear();
  state.snapshots = [];
  state.link = null;
  $('inplace').innerHTML = '<p class="empty">No values yet.</p>';
  $('flame').innerHTML = '<p class="empty">No profile snapshot yet.</p>';
  $('scope-table').tBodies[0].replaceChildren();
}

function handle(event) {
  switch (event.type) {
    case 'reset': reset(); break;
    case 'link': showLink(event); break;
    case 'text': addLine(event.channel, event.text, 'text'); break;
    case 'note': note(event.text); break;
    case 'inplace': setInPlace(event); break;
    case 'profile': addSnapshot(event); break;
  }
}

function connect() {
  const source = new EventSource('/events');
  source.onmessage = (message) => handle(JSON.parse(message.data));
  source.onerror = () => {
    if (source.readyState !== EventSource.OPEN) {
      showLink({ state: 'offline', host: state.link ? state.link.host : '?', port: state.link ? state.link.port : '?', connects: 0 });
    }
  };
}

// --- commands --------------------------------------------------------------------------------

async function post(path, body, what) {
  const status = $('command-status');
  try {
    const response = await fetch(path, { method: 'POST', body, headers: { 'Content-Type': 'text/plain', 'X-DM-Monitor': '1' } });
    status.className = response.ok ? '' : 'error';
    status.textContent = response.ok ? `${what} sent` : `${what}: ${(await response.text()).trim()}`;
  } catch (error) {
    status.className = 'error';
    status.textContent = `${what}: dm-monitor is not reachable`;
  }
}

$('commands').addEventListener('submit', (event) => {
  event.preventDefault();
  const text = $('data-text').value;
  if (!text) return;
  post('/api/data', text, 'data');
  $('data-text').value = '';
});
for (const button of document.querySelectorAll('[data-request]')) {
  button.onclick = () => post(`/api/request/${button.dataset.request}`, '', `request ${button.dataset.request}`);
}
$('search').oninput = () => { state.search = $('search').value.toLowerCase(); state.linesRebuild = true; };
$('snapshot-count').onchange = () => { state.profileDirty = true; };
$('flame-window').onchange = () => { state.profileDirty = true; };

// --- drawing ---------------------------------------------------------------------------------

let lastRateTime = performance.now(), lastRateLines = 0;
function frame() {
  drawLines();
  drawValues();
  drawProfile();
  const now = performance.now();
  if (now - lastRateTime > 1000) {
    const rate = ((state.linesSeen - lastRateLines) * 1000) / (now - lastRateTime);
    $('rates').textContent = `${rate.toFixed(0)} lines/s`;
    lastRateTime = now;
    lastRateLines = state.linesSeen;
  }
  requestAnimationFrame(frame);
}

connect();
requestAnimationFrame(frame);
