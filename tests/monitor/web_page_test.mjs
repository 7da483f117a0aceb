// The web monitor in a real browser: starts dm-fake-game, `dm-monitor --web` and headless
// Chromium (driven over the DevTools protocol on a pipe), then checks what the page shows and
// that its buttons reach the game, and follows the game across a restart.
//
//   node web_page_test.mjs --monitor PATH --game PATH [--screenshot FILE.png]
//
// Exit 0 when every check passed, 1 when one failed, 77 (skipped) when Chromium is missing
// and CI is not set.
import { spawn } from 'node:child_process';
import { request as httpRequest } from 'node:http';
import { existsSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const kTestTimeoutMs = 90000;
const kWaitMs = 20000;

const args = Object.fromEntries(process.argv.slice(2).reduce((pairs, arg, i, all) =>
  (arg.startsWith('--') ? [...pairs, [arg.slice(2), all[i + 1]]] : pairs), []));
const chromiumPath = process.env.DM_CHROMIUM || '/usr/bin/chromium';
const children = [];
const failures = [];
let userDataDir = null;
let browserGroup = null;  // Chromium's helper processes share its process group

async function finish(code) {
  const exits = children.filter((child) => child.exitCode === null && child.signalCode === null)
    .map((child) => new Promise((resolve) => { child.once('exit', resolve); child.kill('SIGKILL'); }));
  if (browserGroup) {
    try { process.kill(-browserGroup, 'SIGKILL'); } catch { /* already gone */ }
  }
  await Promise.race([Promise.all(exits), new Promise((resolve) => setTimeout(resolve, 5000))]);
  try {
    if (userDataDir) rmSync(userDataDir, { recursive: true, force: true, maxRetries: 10 });
  } catch (error) {
    console.log(`note: ${userDataDir} not removed: ${error.message}`);
  }
  process.exit(code);
}

setTimeout(() => { console.error(`FAIL: the test took longer than ${kTestTimeoutMs} ms`); finish(1); },
  kTestTimeoutMs).unref();

function check(condition, what) {
  console.log(`${condition ? 'ok  ' : 'FAIL'} ${what}`);
  if (!condition) failures.push(what);
}

// A child process whose standard output is collected; waitFor resolves on a matching line.
function start(path, argv) {
  const child = spawn(path, argv, { stdio: ['ignore', 'pipe', 'inherit'] });
  children.push(child);
  child.output = '';
  child.waiters = [];
  child.stdout.setEncoding('utf8');
  child.stdout.on('data', (text) => {
    child.output += text;
    child.waiters = child.waiters.filter((waiter) => !waiter());
  });
  child.waitFor = (pattern, timeoutMs = kWaitMs) => new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`${path} never printed ${pattern}`)), timeoutMs);
    const test = () => {
      const match = child.output.match(pattern);
      if (match) { clearTimeout(timer); resolve(match); }
      return !!match;
    };
    if (!test()) child.waiters.push(test);
  });
  return child;
}

async function stop(child) {
  if (child.exitCode !== null) return child.exitCode;
  const exited = new Promise((resolve) => child.once('exit', (code) => resolve(code)));
  child.kill('SIGTERM');
  return exited;
}

// The DevTools protocol over --remote-debugging-pipe: JSON messages ended by a 0 byte, written
// to the browser's fd 3 and read from its fd 4.
class DevTools {
  constructor(browser) {
    this.nextId = 1;
    this.pending = new Map();
    this.input = browser.stdio[3];
    let buffer = '';
    browser.stdio[4].setEncoding('utf8');
    browser.stdio[4].on('data', (text) => {
      buffer += text;
      let end;
      while ((end = buffer.indexOf('\0')) >= 0) {
        const message = JSON.parse(buffer.slice(0, end));
        buffer = buffer.slice(end + 1);
        const waiter = this.pending.get(message.id);
        if (waiter) {
          this.pending.delete(message.id);
          if (message.error) waiter.reject(new Error(`${waiter.method}: ${message.error.message}`));
          else waiter.resolve(message.result);
        }
      }
    });
  }

  send(method, params = {}, sessionId = this.sessionId) {
    const id = this.nextId++;
    const message = { id, method, params };
    if (sessionId) message.sessionId = sessionId;
    this.input.write(JSON.stringify(message) + '\0');
    return new Promise((resolve, reject) => this.pending.set(id, { resolve, reject, method }));
  }

  async evaluate(expression) {
    const result = await this.send('Runtime.evaluate', { expression, returnByValue: true });
    if (result.exceptionDetails) throw new Error(`${expression}: ${result.exceptionDetails.text}`);
    return result.result.value;
  }

  // Evaluates `expression` until it gives something truthy; returns that value.
  async waitFor(expression, what, timeoutMs = kWaitMs) {
    const deadline = Date.now() + timeoutMs;
    for (let round = 0; round < timeoutMs / 50; round++) {
      const value = await this.evaluate(expression).catch(() => null);  // the page may still load
      if (value) return value;
      if (Date.now() > deadline) break;
      await new Promise((resolve) => setTimeout(resolve, 50));
    }
    throw new Error(`the page never showed ${what}`);
  }

  // A real mouse click in the middle of the element.
  async click(selector) {
    const box = await this.evaluate(`(() => { const r = document.querySelector(${JSON.stringify(selector)}).getBoundingClientRect();
      return { x: r.x + r.width / 2, y: r.y + r.height / 2 }; })()`);
    for (const type of ['mousePressed', 'mouseReleased']) {
      await this.send('Input.dispatchMouseEvent', { type, x: box.x, y: box.y, button: 'left', clickCount: 1 });
    }
  }
}

const shownTexts = (selector) => `[...document.querySelectorAll(${JSON.stringify(selector)})].map((e) => e.textContent)`;

async function checkPage(tools, game) {
  await tools.waitFor(`document.querySelector('#link').dataset.state === 'connected'`, 'the connected state');
  check(true, 'the page shows the game connected');

  const channels = await tools.waitFor(`(() => { const c = new Set([...document.querySelectorAll('#lines .line.text')].map((l) => l.dataset.channel));
    return c.size >= 4 ? [...c].sort() : null; })()`, 'text on four channels');
  check(channels.join() === '0,1,2,3', `text lines on channels ${channels}`);
  const lines = await tools.evaluate(shownTexts('#lines .line.text'));
  check(lines.some((l) => /^\[0\] frame \d+ done$/.test(l)), 'a channel 0 line reads "[0] frame N done"');
  check(lines.some((l) => /^\[3\] warning: frame \d+ took long$/.test(l)), 'a channel 3 line reads "[3] warning: ..."');

  const groups = await tools.waitFor(`(() => { const g = ${shownTexts('#inplace .group h3')}; return g.length === 4 ? g : null; })()`,
    'four in-place groups');
  check(groups.join('|') === 'Default In Place Data|Engine Statistics|Streaming Statistics|Resource Statistics',
    `in-place groups in order: ${groups.join(', ')}`);
  const values = await tools.evaluate(`Object.fromEntries([...document.querySelectorAll('#inplace .group')].flatMap((g) =>
    [...g.querySelectorAll('tr')].map((r) => [g.querySelector('h3').textContent + '/' + r.dataset.name, r.querySelector('.value').textContent])))`);
  check(values['Default In Place Data/level'] === 'harbour', `level = ${values['Default In Place Data/level']}`);
  check(/^\d+$/.test(values['Resource Statistics/textures'] || ''), `textures = ${values['Resource Statistics/textures']}`);
  check(/^\d+(\.\d+)? ms$/.test(values['Engine Statistics/frame time'] || ''), `frame time = ${values['Engine Statistics/frame time']}`);
  check(/^\d+(\.\d+)? MiB$/.test(values['Resource Statistics/memory'] || ''), `memory = ${values['Resource Statistics/memory']}`);
  check(await tools.evaluate(`document.querySelectorAll('#inplace canvas.spark').length`) === 8, 'a plot per value');

  await tools.evaluate(`(() => { const w = document.querySelector('#flame-window'); w.value = 'all'; w.dispatchEvent(new Event('change')); })()`);
  // A snapshot may end inside the worker's batch, before "decompress" closed: wait for one
  // that holds every scope, then report each.
  const expectedScopes = ['frame', 'update', 'physics', 'ai', 'render', 'culling', 'draw', 'stream batch', 'read file', 'decompress'];
  let scopes = [];
  try {
    scopes = await tools.waitFor(`(() => { const s = new Set(${shownTexts('#flame .scope')});
      return ${JSON.stringify(expectedScopes)}.every((name) => s.has(name)) ? [...s].sort() : null; })()`, 'a flame chart');
  } catch (error) {
    scopes = await tools.evaluate(`[...new Set(${shownTexts('#flame .scope')})]`);
  }
  for (const name of expectedScopes) {
    check(scopes.includes(name), `flame chart shows scope "${name}"`);
  }
  const threads = await tools.evaluate(`[...document.querySelectorAll('#flame .flame')].map((f) => f.dataset.thread).sort()`);
  check(threads.join() === 'Game Main,Streaming Worker', `flame chart threads: ${threads}`);
  const table = await tools.evaluate(`Object.fromEntries([...document.querySelectorAll('#scope-table tbody tr')].map((r) =>
    [r.cells[0].textContent, [...r.cells].slice(1).map((c) => Number(c.textContent))]))`);
  check(table.frame && table.frame[0] > 0 && table.frame[1] >= table.frame[2], `scope table: frame calls ${table.frame}`);
  check(table.draw && Math.abs(table.draw[1] - table.draw[2]) < 0.01, 'scope table: a leaf scope\'s self time is its total');

  await tools.evaluate(`(() => { const w = document.querySelector('#flame-window'); w.value = 'frame'; w.dispatchEvent(new Event('change')); })()`);
  const frameScopes = await tools.waitFor(`(() => { const s = ${shownTexts('#flame .flame[data-thread="Game Main"] .scope')};
    return s.filter((name) => name === 'frame').length === 1 ? s : null; })()`, 'the newest frame alone');
  check(['update', 'physics', 'render', 'draw'].every((name) => frameScopes.includes(name)),
    `the newest frame fills the flame chart: ${frameScopes}`);

  await tools.click('#request-1');
  await game.waitFor(/game: request 1 \(reload\)/);
  check(true, 'the request 1 button raised the game\'s request flag 1');
  await tools.waitFor(`${shownTexts('#lines .line.text')}.some((l) => l === '[0] request 1 handled (reload)')`, 'the game\'s answer to the request');
  check(true, 'the page shows the game\'s answer to the request');

  await tools.click('#data-text');
  await tools.send('Input.insertText', { text: 'hello from the page' });
  await tools.click('#send-data');
  await game.waitFor(/game: data "hello from the page"/);
  check(true, 'the data text reached the game\'s callback');
  await tools.waitFor(`${shownTexts('#lines .line.text')}.includes('[0] data received: hello from the page')`, 'the game\'s answer to the data');

  await tools.click('#channels [data-channel="3"]');
  await tools.waitFor(`document.querySelectorAll('#lines .line[data-channel="3"]').length === 0`, 'channel 3 hidden');
  check(true, 'hiding channel 3 hides its lines');
  await tools.click('#channels [data-channel="3"]');
  await tools.click('#search');
  await tools.send('Input.insertText', { text: 'handled' });
  const found = await tools.waitFor(`(() => { const l = ${shownTexts('#lines .line')}; return l.length && l.every((t) => t.includes('handled')) ? l : null; })()`,
    'only lines with the search text');
  check(found.length >= 1, `searching "handled" leaves ${found.length} line(s)`);
  await tools.evaluate(`(() => { const s = document.querySelector('#search'); s.value = ''; s.dispatchEvent(new Event('input')); })()`);
}

// One HTTP request to dm-monitor; resolves with the status code.
function statusOf(url, method, headers = {}) {
  return new Promise((resolve, reject) => {
    const call = httpRequest(url, { method, headers: { 'Content-Length': '0', ...headers } }, (response) => {
      response.resume();
      resolve(response.statusCode);
    });
    call.on('error', reject);
    call.end();
  });
}

// Commands need the page's header, other Host names are refused, requests outside 0..2 too.
async function checkGuards(url) {
  const command = { 'X-DM-Monitor': '1' };
  check(await statusOf(`${url}api/request/1`, 'POST') === 403, 'a command without the page\'s header is refused');
  check(await statusOf(`${url}api/request/3`, 'POST', command) === 400, 'request 3 is refused');
  check(await statusOf(`${url}api/request/2`, 'POST', command) === 204, 'request 2 with the header is taken');
  const port = new URL(url).port;
  check(await statusOf(url, 'GET', { Host: `attacker.example:${port}` }) === 403, 'a foreign Host name is refused');
  check(await statusOf(url, 'GET', { Host: `localhost:${port}` }) === 200, 'localhost is served');
}

async function takeScreenshot(tools, file) {
  await tools.waitFor(`document.querySelectorAll('#lines .line').length > 20`, 'enough lines for a picture');
  const shot = await tools.send('Page.captureScreenshot', { format: 'png' });
  writeFileSync(file, Buffer.from(shot.data, 'base64'));
  console.log(`screenshot written to ${file}`);
}

async function checkRestart(tools, game) {
  const port = game.output.match(/^port (\d+)$/m)[1];
  check(await stop(game) === 0, 'the stand-in game stops cleanly on SIGTERM');
  await tools.waitFor(`document.querySelector('#link').dataset.state === 'lost'`, 'the game as gone');
  check(true, 'the page shows the game gone');
  const again = start(args.game, ['--port', port]);
  await again.waitFor(/^port \d+$/m);
  await tools.waitFor(`document.querySelector('#link').dataset.state === 'connected' &&
    document.querySelector('#link-text').textContent.includes('reconnected 1')`, 'the game reconnected');
  check(true, 'the page follows the restarted game');
  await tools.waitFor(`${shownTexts('#lines .line.note')}.includes('the game is back (restarted)')`, 'the restart note');
  return again;
}

async function main() {
  if (!existsSync(chromiumPath)) {
    if (process.env.CI) { console.error(`FAIL: ${chromiumPath} is missing under CI`); finish(1); }
    console.log(`skipped: ${chromiumPath} is missing (apt-get install chromium)`);
    finish(77);
  }
  let game = start(args.game, ['--port', '0']);
  const gamePort = (await game.waitFor(/^port (\d+)$/m))[1];
  const monitor = start(args.monitor, ['--web', '0', '127.0.0.1', gamePort]);
  const url = (await monitor.waitFor(/open (http:\S+) /))[1];

  userDataDir = mkdtempSync(join(tmpdir(), 'dm-web-test-'));
  const browser = spawn(chromiumPath, ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic',
    '--no-first-run', '--disable-background-networking', '--disable-component-update', '--disable-sync',
    '--disable-dev-shm-usage', '--remote-debugging-pipe', `--user-data-dir=${userDataDir}`, 'about:blank'],
  { stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'], detached: true });
  children.push(browser);
  browserGroup = browser.pid;
  const tools = new DevTools(browser);
  const { targetId } = await tools.send('Target.createTarget', { url: 'about:blank' });
  tools.sessionId = (await tools.send('Target.attachToTarget', { targetId, flatten: true })).sessionId;
  await tools.send('Emulation.setDeviceMetricsOverride', { width: 1440, height: 900, deviceScaleFactor: 1, mobile: false });
  await tools.send('Page.enable');
  await tools.send('Page.navigate', { url });

  await checkPage(tools, game);
  await checkGuards(url);
  if (args.screenshot) await takeScreenshot(tools, args.screenshot);
  game = await checkRestart(tools, game);
  check(await stop(monitor) === 0, 'dm-monitor stops cleanly on SIGTERM');
  check(await stop(game) === 0, 'the restarted game stops cleanly');
  await tools.send('Browser.close', {}, null).catch(() => {});
  console.log(failures.length ? `${failures.length} check(s) failed` : 'all checks passed');
  finish(failures.length ? 1 : 0);
}

main().catch((error) => { console.error(`FAIL: ${error.message}`); finish(1); });
