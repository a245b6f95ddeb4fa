// Loads each timeline into speedscope in headless Chromium over the DevTools
// protocol, everything served from 127.0.0.1, and checks that it imports
// without an error, that speedscope offers one profile per thread holding
// slices, and that each of them draws something. Writes a screenshot per
// timeline. Usage: node check-speedscope.mjs SPEEDSCOPE_DIR SHOT_DIR FILE...
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import WebSocket from 'ws';

const [speedscopeDir, shotDir, ...files] = process.argv.slice(2);
const STEP_MS = 20000;  // the longest any one step may take

function fail(message) {
  console.error(`viewer-check: ${message}`);
  process.exit(1);
}

function withTimeout(promise, what) {
  let timer;
  const limit = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`${what}: no answer in ${STEP_MS} ms`)), STEP_MS);
  });
  return Promise.race([promise, limit]).finally(() => clearTimeout(timer));
}

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// The threads speedscope should offer: every pid/tid with a slice, by its names.
function expectedProfiles(doc) {
  const processes = new Map();
  const threads = new Map();
  const withSlices = new Set();
  for (const e of doc.traceEvents) {
    if (e.ph === 'M' && e.name === 'process_name') processes.set(e.pid, e.args.name);
    if (e.ph === 'M' && e.name === 'thread_name') threads.set(`${e.pid}/${e.tid}`, e.args.name);
    if (e.ph === 'X' || e.ph === 'B') withSlices.add(`${e.pid}/${e.tid}`);
  }
  return [...withSlices].map((key) => {
    const [pid, tid] = key.split('/');
    return `${processes.get(Number(pid))} (pid ${pid}), ${threads.get(key)} (tid ${tid})`;
  }).sort();
}

const server = http.createServer((req, res) => {
  const url = new URL(req.url, 'http://127.0.0.1');
  let file;
  if (url.pathname.startsWith('/timeline/')) {
    file = files[Number(url.pathname.slice('/timeline/'.length))];
  } else {
    file = path.join(speedscopeDir, path.normalize(url.pathname === '/' ? '/index.html' : url.pathname));
  }
  if (!file || !fs.existsSync(file) || !fs.statSync(file).isFile()) {
    res.writeHead(404).end();
    return;
  }
  const types = { '.html': 'text/html', '.js': 'text/javascript', '.css': 'text/css',
                  '.json': 'application/json', '.wasm': 'application/wasm' };
  res.writeHead(200, { 'Content-Type': types[path.extname(file)] || 'application/octet-stream' });
  fs.createReadStream(file).pipe(res);
});
await new Promise((r) => server.listen(0, '127.0.0.1', r));
const origin = `http://127.0.0.1:${server.address().port}`;

const profileDir = fs.mkdtempSync(path.join(os.tmpdir(), 'viewer-check-'));
const chromium = spawn(process.env.CHROMIUM || 'chromium', [
  '--headless=new', '--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader',
  '--remote-debugging-address=127.0.0.1', '--remote-debugging-port=0',
  `--user-data-dir=${profileDir}`, '--window-size=1400,900', 'about:blank',
], { stdio: ['ignore', 'ignore', 'pipe'] });
const cleanUp = () => {
  chromium.kill('SIGKILL');
  server.close();
  try {
    fs.rmSync(profileDir, { recursive: true, force: true, maxRetries: 5 });
  } catch {
    // Chromium may still be writing its cache as it dies: a temporary folder left.
  }
};
process.on('exit', cleanUp);

const wsUrl = await withTimeout(new Promise((resolve, reject) => {
  let text = '';
  chromium.stderr.on('data', (chunk) => {
    text += chunk;
    const found = /DevTools listening on (ws:\/\/\S+)/.exec(text);
    if (found) resolve(found[1]);
  });
  chromium.on('exit', (code) => reject(new Error(`chromium exited (${code}): ${text.slice(-300)}`)));
}), 'chromium start').catch((e) => fail(e.message));

const ws = new WebSocket(wsUrl);
await withTimeout(new Promise((r, j) => { ws.on('open', r); ws.on('error', j); }), 'devtools').catch((e) => fail(e.message));
let nextId = 0;
const pending = new Map();
const problems = [];
const consoleLines = [];
ws.on('message', (data) => {
  const msg = JSON.parse(data);
  if (msg.id && pending.has(msg.id)) {
    const { resolve, reject } = pending.get(msg.id);
    pending.delete(msg.id);
    msg.error ? reject(new Error(msg.error.message)) : resolve(msg.result);
  } else if (msg.method === 'Page.javascriptDialogOpening') {
    problems.push(`dialog: ${msg.params.message}`);
    send('Page.handleJavaScriptDialog', { accept: true }, msg.sessionId);
  } else if (msg.method === 'Runtime.exceptionThrown') {
    problems.push(`exception: ${msg.params.exceptionDetails.text}`);
  } else if (msg.method === 'Runtime.consoleAPICalled' &&
             consoleLines.push(msg.params.args.map((a) => a.value ?? a.description).join(' ')) &&
             msg.params.args.some((a) => /Failed to load/.test(String(a.value)))) {
    problems.push('console: speedscope failed to load the file');
  }
});
function send(method, params = {}, sessionId) {
  const id = ++nextId;
  ws.send(JSON.stringify({ id, method, params, sessionId }));
  return withTimeout(new Promise((resolve, reject) => pending.set(id, { resolve, reject })), method);
}

const { targetId } = await send('Target.createTarget', { url: 'about:blank' });
const { sessionId } = await send('Target.attachToTarget', { targetId, flatten: true });
const page = (method, params) => send(method, params, sessionId);
await page('Page.enable');
await page('Runtime.enable');
const evaluate = async (expression) =>
  (await page('Runtime.evaluate', { expression, returnByValue: true })).result.value;

// Waits until `test` of the page's state holds, or fails naming `what`.
async function until(what, expression, test) {
  const end = Date.now() + STEP_MS;
  for (;;) {
    const value = await evaluate(expression);
    if (test(value)) return value;
    if (problems.length) throw new Error(problems.join('; '));
    if (Date.now() > end) throw new Error(`${what} (last seen: ${JSON.stringify(value)})`);
    await sleep(100);
  }
}

const TOOLBAR = `(() => { const t = document.body.innerText; const m = /([^\\n]*?) \\((\\d+)\\/(\\d+)\\)/.exec(t);
  return { title: document.title, error: t.includes('Something went wrong'),
           name: m && m[1], index: m && Number(m[2]), count: m && Number(m[3]) }; })()`;
// Pixels drawn on the page's canvases: the flame chart's text and outlines.
const INKED = `(() => { let inked = 0; for (const c of document.querySelectorAll('canvas')) {
  const g = c.getContext('2d'); if (!g || !c.width || !c.height) continue;
  const d = g.getImageData(0, 0, c.width, c.height).data;
  for (let i = 3; i < d.length; i += 4 * 7) if (d[i] > 0) ++inked; } return inked; })()`;

let failures = 0;
for (const [n, file] of files.entries()) {
  const started = Date.now();
  const name = path.basename(file);
  try {
    const expected = expectedProfiles(JSON.parse(fs.readFileSync(file, 'utf8')));
    problems.length = 0;
    const url = `${origin}/index.html#profileURL=${encodeURIComponent(`${origin}/timeline/${n}`)}`;
    await page('Page.navigate', { url: 'about:blank' });
    await page('Page.navigate', { url });
    let state = await until('speedscope did not show the imported profiles', TOOLBAR,
                            (s) => s && (s.error || (s.count != null && s.title.endsWith(' - speedscope'))));
    if (state.error) throw new Error(`speedscope says something went wrong ${consoleLines.join(' | ').slice(0, 600)}`);
    if (state.count !== expected.length) {
      throw new Error(`speedscope offers ${state.count} threads, the file has ${expected.length}`);
    }
    const seen = [];
    for (let i = 1; i <= expected.length; ++i) {
      state = await until(`thread ${i} was not shown`, TOOLBAR, (s) => s && s.index === i);
      await until(`thread ${state.name} draws nothing`, INKED, (v) => v > 0);
      seen.push(state.name);
      if (i === 1) {
        const shot = await page('Page.captureScreenshot', { format: 'png' });
        fs.writeFileSync(path.join(shotDir, `${name}.png`), Buffer.from(shot.data, 'base64'));
      }
      if (i < expected.length) {
        for (const type of ['keyDown', 'keyUp']) {
          await page('Input.dispatchKeyEvent', { type, key: 'n', code: 'KeyN', text: 'n' });
        }
      }
    }
    const missing = expected.filter((e) => !seen.includes(e));
    if (missing.length) throw new Error(`not drawn: ${missing.join(', ')}`);
    if (problems.length) throw new Error(problems.join('; '));
    console.log(`viewer-check: ${name}: speedscope drew all ${expected.length} threads in ${Date.now() - started} ms`);
  } catch (error) {
    console.log(`viewer-check: ${name}: FAILED: ${error.message}`);
    ++failures;
  }
}
ws.close();
process.exit(failures ? 1 : 0);
