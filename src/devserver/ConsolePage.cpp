#include "devserver/ConsolePage.h"

namespace pavix::devserver::ConsolePage {

namespace {

// Plain HTML, CSS and JS; it only calls the agent API ("/agent/...") of the same origin.
const char* kPage = R"PAVIX(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Pavix dev server</title>
<style>
:root {
  --bg: #f4f5f8; --card: #fff; --ink: #1d2130; --muted: #687083; --line: #e2e5ec;
  --brand: #4b55e6; --brand-ink: #fff; --ok: #1f9d55; --warn: #c77c02; --bad: #d64545;
  --mono: ui-monospace, SFMono-Regular, Menlo, Consolas, "DejaVu Sans Mono", monospace;
}
* { box-sizing: border-box; }
body { margin: 0; font: 14px/1.45 system-ui, -apple-system, "Segoe UI", Roboto, "DejaVu Sans", sans-serif;
       background: var(--bg); color: var(--ink); }
header { background: #151827; color: #fff; display: flex; align-items: center; gap: 28px;
         padding: 0 28px; height: 56px; }
header .logo { font-weight: 700; font-size: 17px; letter-spacing: .2px; display: flex; align-items: center; gap: 10px; }
header .logo i { width: 22px; height: 22px; border-radius: 6px; background: linear-gradient(135deg, #6d75ff, #3ac0ff); display: inline-block; }
header .logo small { font-weight: 400; color: #9aa1b8; font-size: 13px; }
nav { display: flex; gap: 4px; height: 100%; }
nav a { color: #b9bfd3; text-decoration: none; padding: 0 14px; display: flex; align-items: center;
        border-bottom: 3px solid transparent; font-weight: 500; }
nav a:hover { color: #fff; }
nav a.active { color: #fff; border-bottom-color: #6d75ff; }
header .server { margin-left: auto; color: #9aa1b8; font-family: var(--mono); font-size: 12px; }
main { max-width: 1180px; margin: 0 auto; padding: 24px 28px 48px; }
h1 { font-size: 22px; margin: 0 0 4px; }
h2 { font-size: 15px; margin: 0 0 14px; text-transform: uppercase; letter-spacing: .6px; color: var(--muted); }
p.lead { color: var(--muted); margin: 0 0 20px; }
.grid { display: grid; grid-template-columns: 1fr 1fr; gap: 20px; }
.grid.session { grid-template-columns: 380px 1fr; align-items: start; }
.card { background: var(--card); border: 1px solid var(--line); border-radius: 10px; padding: 20px 22px;
        box-shadow: 0 1px 2px rgba(20,24,40,.04); }
.card + .card { margin-top: 20px; }
.grid > .card + .card { margin-top: 0; }
th, td.actions { white-space: nowrap; }
.code { font-family: var(--mono); font-size: 40px; font-weight: 700; letter-spacing: 8px; color: var(--brand);
        background: #f0f1ff; border-radius: 8px; padding: 14px 18px; text-align: center; }
.link { font-family: var(--mono); font-size: 12px; background: #f6f7fa; border: 1px solid var(--line);
        border-radius: 6px; padding: 8px 10px; word-break: break-all; margin: 6px 0 0; }
.row { display: flex; gap: 10px; align-items: center; flex-wrap: wrap; }
.spacer { flex: 1; }
label { display: block; font-weight: 600; font-size: 12px; color: var(--muted); margin: 12px 0 5px; text-transform: uppercase; letter-spacing: .4px; }
select, input, textarea { width: 100%; font: inherit; border: 1px solid #cfd4df; border-radius: 6px; padding: 7px 9px; background: #fff; color: var(--ink); }
textarea { font-family: var(--mono); font-size: 12.5px; min-height: 92px; resize: vertical; }
button { font: inherit; font-weight: 600; border: 1px solid #cfd4df; background: #fff; color: var(--ink);
         border-radius: 6px; padding: 7px 14px; cursor: pointer; }
button:hover { background: #f3f4f8; }
button.primary { background: var(--brand); border-color: var(--brand); color: var(--brand-ink); }
button.primary:hover { background: #3c46d6; }
button.small { padding: 3px 9px; font-size: 12px; font-weight: 500; }
button:disabled { opacity: .5; cursor: default; }
.quick { display: flex; flex-wrap: wrap; gap: 6px; margin-top: 14px; }
table { width: 100%; border-collapse: collapse; }
th { text-align: left; font-size: 12px; color: var(--muted); font-weight: 600; text-transform: uppercase; letter-spacing: .4px;
     border-bottom: 1px solid var(--line); padding: 6px 8px; }
td { border-bottom: 1px solid var(--line); padding: 9px 8px; vertical-align: middle; }
td.mono, .mono { font-family: var(--mono); font-size: 12px; }
tr:last-child td { border-bottom: 0; }
.pill { display: inline-block; border-radius: 999px; padding: 1px 9px; font-size: 12px; font-weight: 600; }
.pill.polling, .pill.answered, .pill.published { background: #e3f6ea; color: var(--ok); }
.pill.connected, .pill.delivered, .pill.complete { background: #e6ecff; color: #3b49c9; }
.pill.paired, .pill.queued, .pill.receiving { background: #eef0f4; color: var(--muted); }
.pill.revoked, .pill.failed, .pill.abandoned, .pill.expired { background: #fde8e8; color: var(--bad); }
.status { margin-top: 14px; padding: 9px 12px; border-radius: 6px; background: #f6f7fa; color: var(--muted); font-size: 13px; min-height: 38px; }
.status.ok { background: #e9f7ef; color: #176c3c; } .status.bad { background: #fdeeee; color: #a33030; } .status.busy { background: #fff7e6; color: #8a5a00; }
.empty { color: var(--muted); padding: 18px 0; text-align: center; }
.results { display: flex; flex-direction: column; gap: 14px; }
.result { border: 1px solid var(--line); border-radius: 8px; overflow: hidden; }
.result .head { display: flex; gap: 10px; align-items: center; padding: 8px 12px; background: #fafbfc; border-bottom: 1px solid var(--line); }
.result .head b { font-family: var(--mono); font-size: 13px; }
.result .head .time { color: var(--muted); font-size: 12px; margin-left: auto; }
.result .body { padding: 12px; }
.result pre { margin: 0; font-family: var(--mono); font-size: 12px; white-space: pre-wrap; word-break: break-word; max-height: 420px; overflow: auto; }
.result img { max-width: 100%; border: 1px solid var(--line); border-radius: 4px; display: block; }
.result .error { color: var(--bad); font-family: var(--mono); }
.meta { color: var(--muted); font-size: 12px; margin-top: 8px; }
video { width: 100%; max-height: 460px; background: #000; border-radius: 8px; display: block; }
.hidden { display: none !important; }
footer { text-align: center; color: var(--muted); font-size: 12px; padding: 10px 0 24px; }
</style>
</head>
<body>
<header>
  <div class="logo"><i></i>Pavix <small>dev server</small></div>
  <nav>
    <a href="#pair" data-view="pair">Pairing</a>
    <a href="#session" data-view="session">Live session</a>
    <a href="#recordings" data-view="recordings">Recordings</a>
  </nav>
  <div class="server" id="server-address"></div>
</header>
<main>

<section id="view-pair" data-view="pair">
  <h1>Pairing</h1>
  <p class="lead">Give the one-time code to Pavix, or open the setup link on the computer that runs it.</p>
  <div class="grid">
    <div class="card">
      <h2>One-time code</h2>
      <div class="code" id="pair-code">········</div>
      <label>Setup link</label>
      <div class="link" id="setup-link">…</div>
      <div class="row" style="margin-top:14px">
        <button class="primary" id="new-code">New code</button>
        <button id="copy-link">Copy link</button>
        <span class="spacer"></span>
        <span class="mono" id="code-expiry" style="color:var(--muted)"></span>
      </div>
      <div class="status" id="pair-status">Codes are single use and expire.</div>
    </div>
    <div class="card">
      <h2>Devices</h2>
      <table>
        <thead><tr><th>Device</th><th>State</th><th>Last seen</th><th></th></tr></thead>
        <tbody id="device-rows"><tr><td colspan="4" class="empty">No device paired yet.</td></tr></tbody>
      </table>
    </div>
  </div>
</section>

<section id="view-session" data-view="session" class="hidden">
  <h1>Live session</h1>
  <p class="lead">Send the agent's commands to a paired device and see what it answers.</p>
  <div class="grid session">
    <div class="card">
      <h2>Command</h2>
      <label for="device-select">Device</label>
      <select id="device-select"></select>
      <label for="method-select">Method</label>
      <select id="method-select"></select>
      <label for="args-input">Arguments (JSON list)</label>
      <textarea id="args-input" spellcheck="false">[]</textarea>
      <label for="timeout-input">Time-out (seconds)</label>
      <input id="timeout-input" type="number" min="1" max="600" value="30">
      <div class="row" style="margin-top:14px">
        <button class="primary" id="send-button">Send command</button>
        <span class="spacer"></span>
        <button id="clear-results" class="small">Clear results</button>
      </div>
      <div class="quick">
        <button class="small" data-quick="listSources">List sources</button>
        <button class="small" data-quick="screenshot">Screenshot</button>
        <button class="small" data-quick="readPage">Read window</button>
        <button class="small" data-quick="startRecording">Start recording</button>
        <button class="small" data-quick="stopRecording">Stop recording</button>
      </div>
      <div class="status" id="session-status">Choose a device and a method.</div>
    </div>
    <div class="card">
      <h2>Results</h2>
      <div class="results" id="results"><div class="empty" id="no-results">No command sent yet.</div></div>
    </div>
  </div>
</section>

<section id="view-recordings" data-view="recordings" class="hidden">
  <h1>Recordings</h1>
  <p class="lead">Recordings that devices uploaded and published.</p>
  <div class="card" id="player-card">
    <h2 id="player-title">Player</h2>
    <video id="player" controls preload="metadata"></video>
    <div class="meta" id="player-meta">Choose a recording below to play it.</div>
  </div>
  <div class="card">
    <div class="row"><h2 style="margin:0">Published</h2><span class="spacer"></span><button class="small" id="refresh-recordings">Refresh</button></div>
    <table style="margin-top:10px">
      <thead><tr><th>Capture</th><th>Device</th><th>Size</th><th>Video</th><th>Published</th><th></th></tr></thead>
      <tbody id="recording-rows"><tr><td colspan="6" class="empty">No recording published yet.</td></tr></tbody>
    </table>
  </div>
</section>
</main>
<footer>pavix-devserver · local development service · listening on 127.0.0.1 only</footer>

<script>
"use strict";
const $ = (id) => document.getElementById(id);
const METHODS = {
  listSources: [{}], selectSource: [{ sourceId: "window-1" }],
  startRecording: [{ captureId: "(new)", windowSize: "" }], stopRecording: [{}],
  screenshot: [{}], markDemoMoment: [{ label: "moment" }], dispose: [{}], currentUrl: [{}],
  readPage: [], pageText: [], pointer: ["left_click", { ref: "ref_1" }], formInput: ["ref_1", "text"],
  typeText: ["hello"], pressKey: ["Return"], scrollBy: ["down", { x: 400, y: 300 }],
  redactSensitiveText: [],
};
let devices = [];
let knownDevices = null;  // how many devices the last listing had
let codeExpiresAt = 0;

async function api(method, path, body) {
  const init = { method, headers: {} };
  if (method !== "GET") { init.headers["Content-Type"] = "application/json"; init.body = JSON.stringify(body || {}); }
  const res = await fetch(path, init);
  let data = {};
  try { data = await res.json(); } catch (e) { data = { error: "not_json" }; }
  return { status: res.status, data };
}
function esc(s) { return String(s).replace(/[&<>"]/g, (c) => ({ "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;" }[c])); }
function ago(ms) {
  if (!ms) return "never";
  const s = Math.max(0, Math.round((Date.now() - ms) / 1000));
  if (s < 5) return "just now";
  if (s < 60) return s + " s ago";
  if (s < 3600) return Math.round(s / 60) + " min ago";
  return new Date(ms).toLocaleString();
}
function setStatus(id, text, kind) { const el = $(id); el.textContent = text; el.className = "status" + (kind ? " " + kind : ""); }

// Views
function show() {
  const view = (location.hash || "#pair").slice(1).split("/")[0];
  const known = ["pair", "session", "recordings"].includes(view) ? view : "pair";
  document.querySelectorAll("section[data-view]").forEach((s) => s.classList.toggle("hidden", s.dataset.view !== known));
  document.querySelectorAll("nav a").forEach((a) => a.classList.toggle("active", a.dataset.view === known));
  if (known === "recordings") loadRecordings();
}
window.addEventListener("hashchange", show);

// Pairing
async function loadCode(fresh) {
  let r = fresh ? null : await api("GET", "/agent/pairing-codes");
  let code = r && r.data.codes && r.data.codes[0];
  if (!code) { r = await api("POST", "/agent/pairing-codes"); code = r.data; }
  if (!code || !code.code) { setStatus("pair-status", "Could not create a code: " + (r.data.error || r.status), "bad"); return; }
  $("pair-code").textContent = code.code;
  $("setup-link").textContent = code.setupLink;
  codeExpiresAt = code.expiresAt;
  setStatus("pair-status", fresh ? "New code created. It works once." : "Waiting for a device to pair with this code.", fresh ? "ok" : "");
}
function tickExpiry() {
  const left = Math.round((codeExpiresAt - Date.now()) / 1000);
  $("code-expiry").textContent = codeExpiresAt ? (left > 0 ? "expires in " + Math.floor(left / 60) + ":" + String(left % 60).padStart(2, "0") : "expired") : "";
  if (codeExpiresAt && left <= 0) { codeExpiresAt = 0; loadCode(true); }
}
$("new-code").onclick = () => loadCode(true);
$("copy-link").onclick = async () => {
  try { await navigator.clipboard.writeText($("setup-link").textContent); setStatus("pair-status", "Setup link copied.", "ok"); }
  catch (e) { setStatus("pair-status", "Select the link and copy it by hand.", ""); }
};

async function loadDevices() {
  const r = await api("GET", "/agent/devices");
  if (r.status !== 200) return;
  devices = r.data.devices;
  const rows = devices.map((d) => `<tr>
      <td><div><b>${esc(d.name)}</b></div><div class="mono" style="color:var(--muted)">${esc(d.deviceId)}</div></td>
      <td><span class="pill ${esc(d.state)}">${esc(d.state)}</span></td>
      <td>${esc(ago(d.lastSeen))}<div class="mono" style="color:var(--muted)">${d.appVersion ? "app " + esc(d.appVersion) : ""}</div></td>
      <td class="actions" style="text-align:right">${d.revoked ? "" : `<button class="small" data-disconnect="${esc(d.deviceId)}" ${d.session ? "" : "disabled"}>Disconnect</button>
        <button class="small" data-revoke="${esc(d.deviceId)}">Revoke</button>`}</td></tr>`).join("");
  $("device-rows").innerHTML = rows || `<tr><td colspan="4" class="empty">No device paired yet.</td></tr>`;
  if (knownDevices !== null && devices.length > knownDevices) {
    // The shown code was just used: show the next one, and say who paired.
    await loadCode(false);
    setStatus("pair-status", "Paired: " + devices[0].name + ". Open the live session to send commands.", "ok");
  }
  knownDevices = devices.length;
  const sel = $("device-select"), keep = sel.value;
  const usable = devices.filter((d) => !d.revoked);
  sel.innerHTML = usable.map((d) => `<option value="${esc(d.deviceId)}">${esc(d.name)} · ${esc(d.state)} · ${esc(d.deviceId.slice(0, 8))}</option>`).join("")
    || `<option value="">No paired device</option>`;
  if (usable.some((d) => d.deviceId === keep)) sel.value = keep;
  else { const live = usable.find((d) => d.session); if (live) sel.value = live.deviceId; }
}
document.addEventListener("click", async (ev) => {
  const t = ev.target;
  if (t.dataset && t.dataset.disconnect) { await api("POST", `/agent/devices/${t.dataset.disconnect}/disconnect`); loadDevices(); }
  if (t.dataset && t.dataset.revoke) { if (confirm("Revoke this device? It has to pair again.")) { await api("POST", `/agent/devices/${t.dataset.revoke}/revoke`); loadDevices(); } }
  if (t.dataset && t.dataset.play) play(t.dataset.play, t.dataset.label);
});

// Live session
const methodSelect = $("method-select");
methodSelect.innerHTML = Object.keys(METHODS).map((m) => `<option>${m}</option>`).join("");
function template(m) { $("args-input").value = JSON.stringify(METHODS[m] || [], null, 1).replace(/\n\s*/g, " "); }
methodSelect.onchange = () => template(methodSelect.value);
template(methodSelect.value);
document.querySelectorAll("[data-quick]").forEach((b) => b.onclick = () => { methodSelect.value = b.dataset.quick; template(b.dataset.quick); send(); });
$("clear-results").onclick = () => { $("results").innerHTML = `<div class="empty" id="no-results">No command sent yet.</div>`; };
$("send-button").onclick = () => send();

function renderValue(value) {
  if (value && typeof value === "object" && value.body && typeof value.body === "object" && typeof value.body["$bytes"] === "string") {
    const type = value.contentType || "image/png";
    const rest = Object.assign({}, value, { body: { $bytes: `(${value.body["$bytes"].length} base64 characters)` } });
    return `<img alt="screenshot" class="shot" src="data:${esc(type)};base64,${value.body["$bytes"]}"><div class="meta">${esc(JSON.stringify(rest))}</div>`;
  }
  if (typeof value === "string") return `<pre class="outline">${esc(value)}</pre>`;
  return `<pre>${esc(JSON.stringify(value, null, 2))}</pre>`;
}
function addResult(method, state, html) {
  const none = $("no-results"); if (none) none.remove();
  const el = document.createElement("div");
  el.className = "result";
  el.innerHTML = `<div class="head"><b>${esc(method)}</b><span class="pill ${esc(state)}">${esc(state)}</span><span class="time">${new Date().toLocaleTimeString()}</span></div><div class="body">${html}</div>`;
  $("results").prepend(el);
  return el;
}
async function send() {
  const device = $("device-select").value;
  if (!device) { setStatus("session-status", "Pair a device first.", "bad"); return; }
  const method = methodSelect.value;
  let args;
  try { args = JSON.parse($("args-input").value || "[]"); } catch (e) { setStatus("session-status", "The arguments are not JSON.", "bad"); return; }
  if (!Array.isArray(args)) args = [args];
  if (args[0] && args[0].captureId === "(new)") {
    const c = await api("POST", "/agent/captures", { deviceId: device });
    if (c.status !== 200) { setStatus("session-status", "Could not issue a capture id: " + c.data.error, "bad"); return; }
    args[0].captureId = c.data.captureId;
    if (!args[0].windowSize) delete args[0].windowSize;
  }
  const timeoutMs = Math.max(1, Number($("timeout-input").value) || 30) * 1000;
  $("send-button").disabled = true;
  setStatus("session-status", `Sent ${method}; waiting for the device…`, "busy");
  const started = Date.now();
  const r = await api("POST", `/agent/devices/${device}/commands`, { method, args, timeoutMs });
  $("send-button").disabled = false;
  const took = ((Date.now() - started) / 1000).toFixed(1) + " s";
  if (r.status === 200 && r.data.reply && "error" in r.data.reply) {
    addResult(method, "failed", `<div class="error">${esc(r.data.reply.error)}</div>`);
    setStatus("session-status", `${method} failed on the device (${took}).`, "bad");
  } else if (r.status === 200) {
    const meta = r.data.reply.meta ? `<div class="meta">meta: ${esc(JSON.stringify(r.data.reply.meta))}</div>` : "";
    addResult(method, "answered", renderValue(r.data.reply.value) + meta);
    setStatus("session-status", `${method} answered in ${took}.`, "ok");
  } else {
    addResult(method, r.data.error === "command_timeout" ? "expired" : "abandoned", `<div class="error">${esc(r.data.error || ("HTTP " + r.status))}${r.data.reason ? " · " + esc(r.data.reason) : ""}</div>`);
    setStatus("session-status", r.data.error === "command_timeout" ? `No answer within ${timeoutMs / 1000} s. Is the device connected?` : `The command did not complete: ${r.data.error}.`, "bad");
  }
  loadDevices();
}

// Recordings
function size(n) { return n >= 1048576 ? (n / 1048576).toFixed(1) + " MiB" : n >= 1024 ? (n / 1024).toFixed(1) + " KiB" : n + " B"; }
async function loadRecordings() {
  const r = await api("GET", "/agent/recordings");
  if (r.status !== 200) return;
  const names = Object.fromEntries(devices.map((d) => [d.deviceId, d.name]));
  $("recording-rows").innerHTML = r.data.recordings.map((u) => `<tr>
      <td class="mono">${esc(u.id)}</td><td>${esc(names[u.deviceId] || u.deviceId.slice(0, 8))}</td><td>${size(u.bytes)}</td>
      <td>${esc(u.media.width)}×${esc(u.media.height)} · ${(u.media.durationMs / 1000).toFixed(1)} s</td>
      <td>${esc(ago(u.publishedAt))}</td>
      <td style="text-align:right"><button class="small primary" data-play="${esc(u.id)}" data-label="${esc(u.id.slice(0, 8))}">Play</button>
        <a class="small" href="${esc(u.video)}?download=1"><button class="small">Download</button></a></td></tr>`).join("")
    || `<tr><td colspan="6" class="empty">No recording published yet.</td></tr>`;
}
function play(id, label) {
  $("player").src = `/agent/recordings/${id}/video`;
  $("player-title").textContent = "Player · " + label;
  $("player-meta").textContent = "Capture " + id;
  $("player").play().catch(() => {});
}
$("refresh-recordings").onclick = loadRecordings;

// Start
$("server-address").textContent = location.origin;
show();
loadCode(false);
loadDevices();
setInterval(loadDevices, 2000);
setInterval(tickExpiry, 1000);
setInterval(() => { if (!$("view-recordings").classList.contains("hidden")) loadRecordings(); }, 5000);
</script>
</body>
</html>
)PAVIX";

}  // namespace

const std::string& html() {
    static const std::string page = kPage;
    return page;
}

}  // namespace pavix::devserver::ConsolePage
