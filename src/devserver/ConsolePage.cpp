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
.keyless { background: #fdeeee; color: #a33030; padding: 12px 28px; border-bottom: 1px solid #f3c9c9; }
.keyless code { font-family: var(--mono); font-size: 13px; }
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
.result details { margin-top: 8px; }
.result summary { cursor: pointer; color: var(--muted); font-size: 12px; font-weight: 600; }
.result details pre { margin-top: 8px; }
.outline-head { display: flex; align-items: center; gap: 6px; flex-wrap: wrap; }
.outline-head h2 { margin: 0 auto 0 0; }
.outline-title { display: flex; align-items: baseline; gap: 10px; margin: 12px 0 10px; min-width: 0; }
.outline-title b { font-size: 15px; overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
.outline-title .meta { margin: 0; white-space: nowrap; }
form.inline { display: flex; gap: 6px; align-items: center; margin: 0; }
form.inline .hint { color: var(--muted); font-size: 12px; white-space: nowrap; }
form.inline input, form.inline select { flex: 1; min-width: 0; padding: 4px 8px; font-size: 13px; }
#outline-prompt { margin-top: 12px; padding: 8px 10px; background: #f6f7fa; border-radius: 8px; }
.targets-box { border: 1px solid var(--line); border-radius: 8px; max-height: 420px; overflow: auto; }
table.targets { table-layout: fixed; }
table.targets td { padding: 7px 10px; }
table.targets td.ref { font-family: var(--mono); font-size: 11.5px; color: var(--muted); }
table.targets td.what { overflow-wrap: anywhere; }
table.targets td.where { color: var(--muted); font-size: 12px; white-space: nowrap; overflow: hidden; text-overflow: ellipsis; }
table.targets td.where.at { font-family: var(--mono); font-size: 11.5px; }
table.targets td.acts { text-align: right; white-space: nowrap; }
table.targets td.acts button + button { margin-left: 5px; }
table.targets tr.offscreen td.ref, table.targets tr.offscreen td.what, table.targets tr.offscreen td.where { opacity: .5; }
table.targets tr.changed { background: #f5f6ff; }
table.targets tr.changed td.ref { box-shadow: inset 3px 0 var(--brand); }
table.targets tr.editor td { background: #f6f7fa; padding-top: 6px; padding-bottom: 8px; }
.target-role { font-family: var(--mono); font-size: 12px; font-weight: 600; color: #3b49c9; margin-right: 6px; }
.target-name { font-weight: 600; }
.target-name.none { font-weight: 400; font-style: italic; color: var(--muted); }
.target-value { font-family: var(--mono); font-size: 12px; background: #fff; border: 1px solid #cfd4df; border-radius: 4px; padding: 0 6px; margin-left: 6px; }
.target-value.none { font-family: inherit; font-style: italic; color: var(--muted); border-style: dashed; }
.target-holder { color: var(--muted); font-size: 12px; margin-left: 6px; }
.badge { display: inline-block; border-radius: 4px; padding: 0 6px; margin-left: 6px; font-size: 11px; font-weight: 600; line-height: 18px;
         background: #eef0f4; color: var(--muted); vertical-align: 1px; }
.badge.focused, .badge.selected { background: #e6ecff; color: #3b49c9; }
.badge.checked { background: #e3f6ea; color: var(--ok); }
.badge.secure { background: #fff7e6; color: #8a5a00; }
.badge.disabled { background: #fde8e8; color: var(--bad); }
.note { margin-top: 10px; font-size: 12.5px; color: var(--muted); }
.note.bad { color: #a33030; background: #fdeeee; border-radius: 6px; padding: 8px 10px; }
.note.bad pre { margin: 6px 0 0; font-family: var(--mono); font-size: 12px; white-space: pre-wrap; word-break: break-word; color: var(--ink); max-height: 160px; overflow: auto; }
#outline-card.busy { cursor: progress; }
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
<div class="keyless hidden" id="keyless">This console needs the agent key. Open it at the console
  address that pavix-devserver printed when it started (<code>console http://127.0.0.1:…/?key=…</code>).</div>
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
    <div>
      <div class="card" id="outline-card">
        <div class="outline-head">
          <h2>Window outline</h2>
          <button class="small" id="outline-read">Read window</button>
          <button class="small" data-prompt="typeText">Type text…</button>
          <button class="small" data-prompt="pressKey">Press key…</button>
          <button class="small" data-scroll="down">Scroll down</button>
          <button class="small" data-scroll="up">Scroll up</button>
        </div>
        <form class="inline hidden" id="outline-prompt">
          <span class="hint" id="prompt-hint"></span>
          <input id="prompt-input" type="text" spellcheck="false" autocomplete="off">
          <button class="small primary" type="submit" id="prompt-send">Send</button>
          <button class="small" type="button" id="prompt-cancel">Cancel</button>
        </form>
        <div id="outline-view"><div class="empty">Read the window to list what the agent can operate in it.</div></div>
      </div>
      <div class="card">
        <h2>Results</h2>
        <div class="results" id="results"><div class="empty" id="no-results">No command sent yet.</div></div>
      </div>
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
  typeText: ["hello"], pressKey: ["Return"], scrollBy: ["down", 3],
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
  if (res.status === 401 && data.error === "agent_key_required") $("keyless").classList.remove("hidden");
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

function renderValue(value, method) {
  if (value && typeof value === "object" && value.body && typeof value.body === "object" && typeof value.body["$bytes"] === "string") {
    const type = value.contentType || "image/png";
    const rest = Object.assign({}, value, { body: { $bytes: `(${value.body["$bytes"].length} base64 characters)` } });
    return `<img alt="screenshot" class="shot" src="data:${esc(type)};base64,${esc(value.body["$bytes"])}"><div class="meta">${esc(JSON.stringify(rest))}</div>`;
  }
  if (typeof value === "string" && method === "readPage") {
    const read = parseOutline(value);
    return `<div class="meta" style="margin:0">${plural(read.targets.length, "target")}; shown in the window outline above.</div>
      <details><summary>Outline text</summary><pre class="outline">${esc(value)}</pre></details>`;
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

// While a command is out, nothing else can be sent from the page.
let busyDepth = 0;
function setBusy(on) {
  busyDepth = Math.max(0, busyDepth + (on ? 1 : -1));
  applyBusy();
}
function applyBusy() {
  const busy = busyDepth > 0;
  $("send-button").disabled = busy;
  document.querySelectorAll("[data-quick], #outline-card button").forEach((b) => { b.disabled = busy || b.dataset.off === "1"; });
  $("outline-card").classList.toggle("busy", busy);
}

// Sends one command, lists its answer and says in the status line how it went.
// `reached` is true when the device answered, with a value or an error.
async function runCommand(device, method, args) {
  const timeoutMs = Math.max(1, Number($("timeout-input").value) || 30) * 1000;
  setBusy(true);
  setStatus("session-status", `Sent ${method}; waiting for the device…`, "busy");
  const started = Date.now();
  let r;
  try { r = await api("POST", `/agent/devices/${encodeURIComponent(device)}/commands`, { method, args, timeoutMs }); }
  catch (e) { r = { status: 0, data: { error: "no_connection", reason: String(e && e.message || e) } }; }
  finally { setBusy(false); }
  const took = ((Date.now() - started) / 1000).toFixed(1) + " s";
  const reply = r.status === 200 && r.data && typeof r.data.reply === "object" && r.data.reply !== null ? r.data.reply : null;
  let out;
  if (reply && "error" in reply) {
    addResult(method, "failed", `<div class="error">${esc(typeof reply.error === "string" ? reply.error : JSON.stringify(reply.error))}</div>`);
    out = { reached: true, ok: false, summary: `${method} failed on the device (${took}).` };
  } else if (reply && "value" in reply) {
    const meta = reply.meta ? `<div class="meta">meta: ${esc(JSON.stringify(reply.meta))}</div>` : "";
    addResult(method, "answered", renderValue(reply.value, method) + meta);
    out = { reached: true, ok: true, summary: `${method} answered in ${took}.` };
    if (method === "readPage") showOutline(device, reply.value);
  } else if (r.status === 200) {
    addResult(method, "failed", `<div class="error">The answer has neither a value nor an error: ${esc(JSON.stringify(r.data))}</div>`);
    out = { reached: true, ok: false, summary: `${method} came back with an answer the console cannot read.` };
  } else {
    const error = (r.data && r.data.error) || ("HTTP " + r.status);
    addResult(method, error === "command_timeout" ? "expired" : "abandoned", `<div class="error">${esc(error)}${r.data && r.data.reason ? " · " + esc(r.data.reason) : ""}</div>`);
    out = { reached: false, ok: false, summary: error === "command_timeout" ? `No answer within ${timeoutMs / 1000} s. Is the device connected?` : `The command did not complete: ${error}.` };
  }
  setStatus("session-status", out.summary, out.ok ? "ok" : "bad");
  return out;
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
  await runCommand(device, method, args);
  loadDevices();
}

// Window outline: the last readPage answer as one row per target, with actions that send the
// control methods for that target and then read the window again. References are numbered
// afresh by every read, so only the newest outline of the selected device can be acted on.
const FILLS = ["textbox", "searchbox"], TOGGLES = ["checkbox", "switch", "radio"];
const STATES = ["disabled", "focused", "selected", "checked", "unchecked", "secure"];
const ARROWS = { above: "↑", below: "↓", left: "←", right: "→" };
let outline = null;  // { device, title, targets, odd, regions, readAt } or { device, problem }

function plural(n, word) { return n + " " + word + (n === 1 ? "" : "s"); }
// The JSON string or list that starts at text[at], and where it ends; null when it does not end
// or is not JSON.
function jsonAt(text, at) {
  let depth = 0, quoted = false;
  for (let i = at; i < text.length; i++) {
    const c = text[i];
    if (quoted) { if (c === "\\") i++; else if (c === '"') quoted = false; }
    else if (c === '"') quoted = true;
    else if (c === "[") depth++;
    else if (c === "]") depth--;
    if (!quoted && depth <= 0) {
      try { return { value: JSON.parse(text.slice(at, i + 1)), end: i + 1 }; } catch (e) { return null; }
    }
  }
  return null;
}
// `  [ref_4] button "Save" focused value="Ann" in "Toolbar" — visible at (120,48) window points`
function parseTarget(line) {
  const m = /^\s*\[([^\]\s]+)\] ?(.*)$/.exec(line);
  if (!m) return null;
  const rest = m[2];
  const t = { ref: m[1], role: /^[^\s"]*/.exec(rest)[0], name: null, states: [], value: null, options: null, selectedText: null, holder: null, where: "" };
  const keys = { "value=": "value", "options=": "options", "selected text: ": "selectedText", "in ": "holder" };
  let i = t.role.length;
  while (i < rest.length) {
    if (rest[i] === " ") { i++; continue; }
    if (rest[i] === "\u2014") { t.where = rest.slice(i + 1).trim(); return t; }
    const key = Object.keys(keys).find((k) => rest.startsWith(k, i) && '"['.includes(rest[i + k.length] || "x"));
    if (key || rest[i] === '"') {
      const found = jsonAt(rest, i + (key ? key.length : 0));
      if (!found) return null;
      const field = key ? keys[key] : "name";
      if (field === "options") t.options = Array.isArray(found.value) ? found.value.map(String) : null;
      else if (t[field] === null) t[field] = String(found.value);
      i = found.end;
      continue;
    }
    const word = /^\S+/.exec(rest.slice(i))[0];
    t.states.push(word);
    i += word.length;
  }
  return t;
}
function parseOutline(text) {
  const read = { title: null, targets: [], odd: [], regions: null };
  for (const line of String(text).split("\n")) {
    if (!line.trim()) continue;
    if (line.startsWith("Window ")) {
      const found = jsonAt(line, 7);
      if (found && typeof found.value === "string" && found.end === line.length) { read.title = found.value; continue; }
    }
    if (line.startsWith("Scroll areas")) {
      const brace = line.indexOf("{");
      try {
        const regions = brace >= 0 ? JSON.parse(line.slice(brace)).regions : null;
        if (Array.isArray(regions)) { read.regions = regions; continue; }
      } catch (e) { /* listed with the lines not understood */ }
    }
    const target = /^\s*\[/.test(line) ? parseTarget(line) : null;
    if (target) read.targets.push(target); else read.odd.push(line);
  }
  return read;
}
function placeOf(where) {
  const at = /^visible at \((-?[\d.]+), ?(-?[\d.]+)\)/.exec(where);
  if (at) return { visible: true, text: `(${at[1]}, ${at[2]})` };
  const off = /^offscreen((?:-[a-z]+)*)/.exec(where);
  if (off) {
    const arrows = off[1].split("-").map((d) => ARROWS[d] || "").join("");
    return { visible: false, text: arrows ? "offscreen " + arrows : off[1] === "-clipped" ? "clipped" : "offscreen" };
  }
  return { visible: true, text: where || "place unknown" };
}
function scrollNote(regions) {
  const parts = regions.map((r) => {
    const left = (r && r.remainingPixels) || {};
    const more = ["down", "left", "right"].filter((d) => Number(left[d]) > 0).map((d) => `${Number(left[d])} px ${d}`);
    return `${esc((r && r.kind) || "area")} ${more.length ? esc(more.join(", ")) : "at its end"}`;
  });
  return parts.length ? "More to scroll: " + parts.join(" · ") : "Nothing is scrolled out of view.";
}
function identity(t) { return [t.role, t.name, t.holder].join("\u0000"); }
function stateOf(t) { return [t.states.join(" "), t.value, t.selectedText].join("\u0000"); }

function showOutline(device, value) {
  const before = outline && outline.device === device && outline.targets ? outline : null;
  if (typeof value !== "string") {
    outline = { device, problem: `The device answered readPage with ${value === null ? "null" : typeof value}, not outline text; see the result below.` };
  } else {
    outline = Object.assign({ device, readAt: new Date() }, parseOutline(value));
    if (before) {
      // Mark what the last action changed: targets whose state or value differ, and new ones.
      const earlier = new Map();
      before.targets.forEach((t) => { const k = identity(t); earlier.set(k, (earlier.get(k) || []).concat(stateOf(t))); });
      outline.targets.forEach((t) => { const seen = earlier.get(identity(t)); t.changed = !seen || !seen.length || seen.shift() !== stateOf(t); });
    }
  }
  renderOutline();
}
function actionsOf(t) {
  const acts = [];
  if (FILLS.includes(t.role)) acts.push(["fill", "Fill…"]);
  if (TOGGLES.includes(t.role)) acts.push(["toggle", "Toggle"]);
  if (t.role === "combobox") acts.push(["choose", "Choose…"]);
  acts.push(["click", "Click"]);
  return acts;
}
function targetRow(t, i, live) {
  const place = placeOf(t.where);
  const off = !live || t.states.includes("disabled");
  const why = !live ? "Read the selected device's window first" : off ? "Disabled in the window" : "";
  const badges = t.states.map((s) => `<span class="badge ${STATES.includes(s) ? s : ""}">${esc(s)}</span>`).join("")
    + (t.selectedText !== null ? `<span class="badge">selected text “${esc(t.selectedText)}”</span>` : "");
  const value = t.value === null ? "" : t.value === "" ? `<span class="target-value none">empty</span>` : `<span class="target-value">${esc(t.value)}</span>`;
  const options = t.options ? `<span class="target-holder">${plural(t.options.length, "option")}</span>` : "";
  const buttons = actionsOf(t).map(([act, label]) =>
    `<button class="small" data-act="${act}" data-i="${i}"${off ? ` data-off="1" disabled title="${esc(why)}"` : ""}>${label}</button>`).join("");
  return `<tr class="target${place.visible ? "" : " offscreen"}${t.changed ? " changed" : ""}" data-i="${i}" data-ref="${esc(t.ref)}">
    <td class="ref">${esc(t.ref)}</td>
    <td class="what"><span class="target-role">${esc(t.role || "element")}</span>${t.name ? `<span class="target-name">${esc(t.name)}</span>` : `<span class="target-name none">no name</span>`}${value}${badges}${options}${t.holder !== null ? `<span class="target-holder">in ${esc(t.holder)}</span>` : ""}</td>
    <td class="where${/^\(/.test(place.text) ? " at" : ""}" title="${esc(t.where)}">${esc(place.text)}</td>
    <td class="acts">${buttons}</td></tr>`;
}
function renderOutline() {
  const view = $("outline-view");
  if (!outline) { view.innerHTML = `<div class="empty">Read the window to list what the agent can operate in it.</div>`; return; }
  if (outline.problem) { view.innerHTML = `<div class="note bad">${esc(outline.problem)}</div>`; return; }
  const live = outline.device === $("device-select").value;
  const name = (devices.find((d) => d.deviceId === outline.device) || {}).name || outline.device.slice(0, 8);
  const offscreen = outline.targets.filter((t) => !placeOf(t.where).visible).length;
  const rows = outline.targets.map((t, i) => targetRow(t, i, live)).join("");
  view.innerHTML = `<div class="outline-title"><b>${outline.title === null ? "Untitled window" : esc(outline.title)}</b>
      <span class="meta">${plural(outline.targets.length, "target")}${offscreen ? ` · ${offscreen} offscreen` : ""} · ${esc(name)} · read ${outline.readAt.toLocaleTimeString()}</span></div>
    ${live ? "" : `<div class="note bad" style="margin:0 0 10px">This outline is of another device. Read the window to act on the selected one.</div>`}
    ${rows ? `<div class="targets-box"><table class="targets"><colgroup><col style="width:78px"><col><col style="width:104px"><col style="width:160px"></colgroup><tbody id="outline-rows">${rows}</tbody></table></div>`
           : outline.odd.length ? "" : `<div class="empty">The window has no targets the agent can operate.</div>`}
    ${outline.odd.length ? `<div class="note bad">${plural(outline.odd.length, "line")} of the answer could not be read as targets; shown as received:<pre>${esc(outline.odd.join("\n"))}</pre></div>` : ""}
    ${outline.regions ? `<div class="note">${scrollNote(outline.regions)}</div>` : ""}`;
  applyBusy();
}

// An action, then a fresh read of the same window so that its effect shows.
async function act(device, method, args) {
  if (!device) { setStatus("session-status", "Pair a device first.", "bad"); return; }
  setBusy(true);
  try {
    const done = await runCommand(device, method, args);
    if (!done.reached) return;
    const again = await runCommand(device, "readPage", []);
    setStatus("session-status", done.summary + (again.ok ? " The window was read again." : " Reading the window again did not work: " + again.summary),
              done.ok && again.ok ? "ok" : "bad");
  } finally { setBusy(false); }
}
function closeEditors() {
  document.querySelectorAll("#outline-rows tr.editor").forEach((r) => r.remove());
}
// Asks inline for the value a row's Fill… or Choose… sends.
function openEditor(i, kind) {
  closeEditors();
  const t = outline.targets[i];
  const row = document.querySelector(`#outline-rows tr[data-i="${i}"]`);
  if (!t || !row) return;
  const choices = kind === "choose" && t.options && t.options.length ? t.options : null;
  const editor = document.createElement("tr");
  editor.className = "editor";
  editor.innerHTML = `<td></td><td colspan="3"><form class="inline">
      <span class="hint">${choices ? "Option" : "New value"}</span>
      ${choices ? `<select>${choices.map((o, k) => `<option value="${k}"${o === t.value ? " selected" : ""}>${esc(o)}</option>`).join("")}</select>` : `<input type="text" spellcheck="false" autocomplete="off">`}
      <button class="small primary" type="submit">${kind === "fill" ? "Fill" : "Choose"}</button>
      <button class="small" type="button" data-cancel="1">Cancel</button></form></td>`;
  row.after(editor);
  const form = editor.querySelector("form"), field = form.querySelector("input, select");
  if (!choices) { field.value = t.value || ""; field.select(); }
  field.focus();
  form.onsubmit = (ev) => {
    ev.preventDefault();
    const value = choices ? choices[Number(field.value)] : field.value;
    closeEditors();
    act(outline.device, "formInput", [t.ref, value]);
  };
  form.onkeydown = (ev) => { if (ev.key === "Escape") closeEditors(); };
}
$("outline-view").addEventListener("click", (ev) => {
  const b = ev.target.closest("button");
  if (!b || b.disabled || busyDepth > 0 || !outline || !outline.targets) return;
  if (b.dataset.cancel) { closeEditors(); return; }
  const i = Number(b.dataset.i), t = outline.targets[i];
  if (!t) return;
  if (b.dataset.act === "click") act(outline.device, "pointer", ["left_click", { ref: t.ref }]);
  else if (b.dataset.act === "toggle") act(outline.device, "formInput", [t.ref, t.states.includes("checked") ? "false" : "true"]);
  else if (b.dataset.act === "fill" || b.dataset.act === "choose") openEditor(i, b.dataset.act);
});

// Read window, type text, press keys and scroll, for the selected device.
const PROMPTS = {
  typeText: { hint: "Text to type", placeholder: "into the focused field", args: (v) => [v] },
  pressKey: { hint: "Keys", placeholder: "Return, Tab, ctrl+a…", args: (v) => [v.trim()] },
};
let promptMethod = "";
function closePrompt() { $("outline-prompt").classList.add("hidden"); promptMethod = ""; }
document.querySelectorAll("[data-prompt]").forEach((b) => b.onclick = () => {
  const p = PROMPTS[b.dataset.prompt];
  promptMethod = b.dataset.prompt;
  $("prompt-hint").textContent = p.hint;
  $("prompt-input").placeholder = p.placeholder;
  $("prompt-input").value = "";
  $("outline-prompt").classList.remove("hidden");
  $("prompt-input").focus();
});
$("outline-prompt").onsubmit = (ev) => {
  ev.preventDefault();
  const value = $("prompt-input").value, method = promptMethod;
  if (!method || busyDepth > 0) return;
  if (method === "pressKey" && !value.trim()) { setStatus("session-status", "Name the keys to press, e.g. Return or ctrl+a.", "bad"); return; }
  closePrompt();
  act($("device-select").value, method, PROMPTS[method].args(value));
};
$("prompt-cancel").onclick = closePrompt;
$("prompt-input").onkeydown = (ev) => { if (ev.key === "Escape") closePrompt(); };
document.querySelectorAll("[data-scroll]").forEach((b) => b.onclick = () => act($("device-select").value, "scrollBy", [b.dataset.scroll, 3]));
$("outline-read").onclick = async () => {
  const device = $("device-select").value;
  if (!device) { setStatus("session-status", "Pair a device first.", "bad"); return; }
  await runCommand(device, "readPage", []);
};
$("device-select").addEventListener("change", renderOutline);

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
