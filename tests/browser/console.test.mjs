// The pavix-devserver console in headless Chromium: a pairing code is shown, a command sent from
// the page is answered by a small fake device (this script, long-polling like the app) and its
// result appears, the window outline lists its targets and its row actions send the control
// methods, and a published recording is listed and plays.
//
// usage: node console.test.mjs PATH/TO/pavix-devserver
// Screenshots of the three views go to $PAVIX_SCREENSHOT_DIR (default: a temporary directory).
import { spawn, spawnSync } from "node:child_process";
import { createHash } from "node:crypto";
import { mkdtempSync, mkdirSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { deflateSync } from "node:zlib";
import { chromium } from "playwright-core";

const binary = process.argv[2];
if (!binary) {
  console.error("usage: node console.test.mjs PATH/TO/pavix-devserver");
  process.exit(2);
}
const work = mkdtempSync(join(tmpdir(), "pavix-console-"));
const shots = process.env.PAVIX_SCREENSHOT_DIR || join(work, "screenshots");
mkdirSync(shots, { recursive: true });
let passed = 0, failed = 0;
const cleanups = [];

async function check(name, fn) {
  try {
    await fn();
    passed++;
    console.log(`ok - ${name}`);
  } catch (e) {
    failed++;
    console.log(`not ok - ${name}\n  ${String(e && e.stack || e).split("\n").join("\n  ")}`);
  }
}
function assert(cond, msg) { if (!cond) throw new Error(msg); }

// --- the service ---------------------------------------------------------------------------
const server = spawn(binary, ["--port", "0", "--data", join(work, "data"), "--poll-hold-ms", "1000"],
                     { stdio: ["ignore", "pipe", "inherit"] });
cleanups.push(() => server.kill("SIGTERM"));
const lines = {};
await new Promise((resolve, reject) => {
  const rl = createInterface({ input: server.stdout });
  const timer = setTimeout(() => reject(new Error("the service printed no 'ready' line")), 10000);
  rl.on("line", (l) => {
    const sp = l.indexOf(" ");
    if (sp > 0) lines[l.slice(0, sp)] = l.slice(sp + 1);
    if (l === "ready") { clearTimeout(timer); resolve(); }
  });
  server.on("exit", (code) => reject(new Error("the service exited with " + code)));
});
const base = lines.server;

// --- a fake device speaking the service interface -----------------------------------------
function png(width, height) {
  // A small RGB gradient, encoded by hand (IHDR, IDAT, IEND).
  const crcTable = Array.from({ length: 256 }, (_, n) => {
    let c = n;
    for (let k = 0; k < 8; k++) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
    return c >>> 0;
  });
  const crc = (buf) => { let c = 0xffffffff; for (const b of buf) c = crcTable[(c ^ b) & 0xff] ^ (c >>> 8); return (c ^ 0xffffffff) >>> 0; };
  const chunk = (type, data) => {
    const len = Buffer.alloc(4); len.writeUInt32BE(data.length);
    const td = Buffer.concat([Buffer.from(type), data]);
    const c = Buffer.alloc(4); c.writeUInt32BE(crc(td));
    return Buffer.concat([len, td, c]);
  };
  const ihdr = Buffer.alloc(13);
  ihdr.writeUInt32BE(width, 0); ihdr.writeUInt32BE(height, 4); ihdr[8] = 8; ihdr[9] = 2;
  const raw = Buffer.alloc((width * 3 + 1) * height);
  for (let y = 0; y < height; y++) {
    for (let x = 0; x < width; x++) {
      const o = y * (width * 3 + 1) + 1 + x * 3;
      raw[o] = 60 + (x * 160) / width; raw[o + 1] = 80 + (y * 120) / height; raw[o + 2] = 230;
    }
  }
  return Buffer.concat([Buffer.from([137, 80, 78, 71, 13, 10, 26, 10]), chunk("IHDR", ihdr),
                        chunk("IDAT", deflateSync(raw)), chunk("IEND", Buffer.alloc(0))]);
}

class FakeDevice {
  constructor() {
    this.token = "";
    this.running = true;
    this.seen = [];  // { method, args } of each command, in order
    this.window = { name: "Ann", subscribed: true };
    this.outline = null;  // when set, readPage answers this instead of the window's outline
  }
  async post(path, body, extra = {}) {
    const headers = { "X-Pavix-App-Version": "0.1.0", ...extra };
    if (this.token) headers.Authorization = "Bearer " + this.token;
    let payload = body;
    if (!Buffer.isBuffer(body)) { headers["Content-Type"] = "application/json"; payload = JSON.stringify(body || {}); }
    const res = await fetch(base + "/local-browser/" + path, { method: "POST", headers, body: payload });
    return { status: res.status, body: await res.json() };
  }
  async pair(code) {
    const r = await this.post("pair", { code, persistent: true, deviceName: "console-test-box" });
    assert(r.status === 200, "pairing failed: " + JSON.stringify(r.body));
    this.token = r.body.accessToken;
    this.deviceId = r.body.deviceId;
  }
  meta() {
    return { captureViewport: { width: 1280, height: 720 }, recordingMode: "screencast", pointerTrail: [], identitySightings: [] };
  }
  answer(method) {
    if (method === "screenshot") {
      return { body: { $bytes: png(320, 180).toString("base64") }, contentType: "image/png", redactionPassed: true };
    }
    if (method === "readPage") return this.outline !== null ? this.outline : this.readPage();
    return { ok: true, method };
  }
  readPage() {
    const q = JSON.stringify, at = " — visible at ";
    return [
      `Window ${q("Pavix GTK fixture")}`,
      `  [ref_1] menubaritem ${q("File")} in ${q("menu bar")}${at}(20,12) window points`,
      `  [ref_2] button ${q("Open")} disabled${at}(64,48) window points`,
      `  [ref_3] link ${q(INJECTED)}${at}(420,48) window points`,
      `  [ref_4] button ${q("Save")}${at}(120,48) window points`,
      `  [ref_5] textbox ${q("Name")} focused value=${q(this.window.name)}${at}(300,80) window points`,
      `  [ref_6] combobox ${q("Colour")} value=${q("Red")} options=${q(["Red", "Green"])}${at}(300,120) window points`,
      `  [ref_7] checkbox ${q("Subscribe")} ${this.window.subscribed ? "checked" : "unchecked"} — offscreen-below (scroll to reveal)`,
      `Scroll areas (layout only; offscreen content is not visual proof): ${q({ regions: [{ kind: "panel", remainingPixels: { down: 170, left: 0, right: 0 } }] })}`,
    ].join("\n");
  }
  act(method, args) {
    if (method === "formInput" && args[0] === "ref_5") this.window.name = String(args[1]);
    if (method === "formInput" && args[0] === "ref_7") this.window.subscribed = args[1] === "true";
  }
  async loop() {
    while (this.running) {
      const p = await this.post("poll", {}).catch(() => null);
      if (!p || p.status !== 200 || !p.body.command) continue;
      const { id, method, args } = p.body.command;
      this.seen.push({ method, args });
      this.act(method, args);
      await this.post("result/" + id, { value: this.answer(method), meta: this.meta() });
    }
  }
  async upload(bytes) {
    const begin = await this.post("desktop-recording/begin", { requestId: crypto.randomUUID() });
    const id = begin.body.id;
    const sha256 = createHash("sha256").update(bytes).digest("hex");
    const b = await this.post(`desktop-upload/${id}/begin`, { bytes: bytes.length, sha256, media: { width: 640, height: 360, durationMs: 2000 } });
    assert(b.status === 200 && b.body.received === 0, "begin: " + JSON.stringify(b.body));
    for (let at = 0; at < bytes.length; at += 4194304) {
      const piece = bytes.subarray(at, Math.min(bytes.length, at + 4194304));
      const c = await this.post(`desktop-upload/${id}/chunk`, piece, { "Content-Type": "application/octet-stream", "X-Pavix-Offset": String(at) });
      assert(c.status === 200, "chunk: " + JSON.stringify(c.body));
    }
    assert((await this.post(`desktop-upload/${id}/complete`, {})).status === 200, "complete failed");
    assert((await this.post(`desktop-upload/${id}/publish`, {})).status === 200, "publish failed");
    return id;
  }
}

const INJECTED = "<img src=x onerror=window.__injected=1>";

// The commands the device received since `from`, once the page has finished with all of them.
async function sentSince(from, count) {
  for (let i = 0; i < 200 && device.seen.length < from + count; i++) await new Promise((r) => setTimeout(r, 50));
  await page.waitForFunction(() => !document.getElementById("outline-card").classList.contains("busy"));
  return JSON.stringify(device.seen.slice(from));
}
const reread = JSON.stringify({ method: "readPage", args: [] });

function video() {
  // A real two-second MP4 when ffmpeg is there, so the player has something to play.
  const out = join(work, "clip.mp4");
  const r = spawnSync("ffmpeg", ["-loglevel", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=640x360:rate=30", "-t", "2",
                                 "-pix_fmt", "yuv420p", "-movflags", "+faststart", out]);
  return r.status === 0 ? { bytes: readFileSync(out), playable: true } : { bytes: Buffer.alloc(100000, 7), playable: false };
}

// --- the browser ---------------------------------------------------------------------------
const profile = mkdtempSync(join(tmpdir(), "pavix-chromium-"));
cleanups.push(() => rmSync(profile, { recursive: true, force: true }));
const context = await chromium.launchPersistentContext(profile, {
  executablePath: "/usr/bin/chromium",
  headless: true,
  args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  viewport: { width: 1280, height: 800 },
});
cleanups.push(() => context.close());
const page = context.pages()[0] || await context.newPage();
page.setDefaultTimeout(15000);
const device = new FakeDevice();
let capture = "";

try {
  await check("without the agent key the page says how to open it, and shows nothing", async () => {
    await page.goto(base + "/#pair");
    await page.waitForSelector("#keyless:not(.hidden)");
    const text = await page.textContent("#keyless");
    assert(text.includes("needs the agent key"), "keyless banner: " + text);
    assert(await page.textContent("#pair-code") !== lines.code, "a code showed without the key");
    await page.screenshot({ path: join(shots, "keyless.png") });
  });

  await check("the pairing view shows the service's code and setup link", async () => {
    // The printed console address hands the key over and leaves it out of the address bar.
    await page.goto(lines.console + "#pair");
    assert(!page.url().includes("key="), "the key stayed in the address: " + page.url());
    assert(await page.isHidden("#keyless"), "the keyless banner shows with the key");
    await page.waitForFunction((code) => document.getElementById("pair-code").textContent === code, lines.code);
    const link = await page.textContent("#setup-link");
    assert(link === lines.link, `setup link ${link} != ${lines.link}`);
    await page.screenshot({ path: join(shots, "pair-empty.png") });
  });

  await check("a device pairing with it is listed", async () => {
    await device.pair(lines.code);
    device.loopDone = device.loop();
    await page.waitForSelector("#device-rows .pill.polling");
    const rows = await page.textContent("#device-rows");
    assert(rows.includes("console-test-box"), "device not listed: " + rows);
    await page.waitForFunction((code) => document.getElementById("pair-code").textContent !== code, lines.code);
    await page.screenshot({ path: join(shots, "pair.png") });
  });

  await check("a command sent from the page is answered and its result appears", async () => {
    await page.click("nav a[data-view=session]");
    await page.waitForFunction(() => document.getElementById("device-select").value !== "");
    await page.click("[data-quick=screenshot]");
    await page.waitForSelector(".result img.shot");
    const ok = await page.$eval(".result img.shot", (img) => img.complete && img.naturalWidth === 320);
    assert(ok, "the screenshot did not render as a 320 px image");
    await page.selectOption("#method-select", "readPage");
    await page.click("#send-button");
    await page.waitForSelector(".result pre.outline", { state: "attached" });
    const outline = await page.textContent(".result pre.outline");
    assert(outline.includes('[ref_4] button "Save"'), "outline missing: " + outline);
    assert((await page.textContent("#session-status")).includes("readPage answered"), "no status line");
    const methods = device.seen.map((c) => c.method).join();
    assert(methods === "screenshot,readPage", "device saw " + methods);
  });

  await check("the window outline shows each target's role, name and states, as text", async () => {
    const rows = await page.$$eval("#outline-rows tr.target", (trs) => trs.map((tr) => ({
      ref: tr.dataset.ref, role: tr.querySelector(".target-role").textContent, name: tr.querySelector(".target-name").textContent,
      value: (tr.querySelector(".target-value") || {}).textContent, badges: [...tr.querySelectorAll(".badge")].map((b) => b.textContent).join(),
      offscreen: tr.classList.contains("offscreen"), actions: [...tr.querySelectorAll("button")].map((b) => b.textContent + (b.disabled ? "(off)" : "")).join() })));
    const row = (ref) => JSON.stringify(rows.find((r) => r.ref === ref));
    assert(rows.length === 7, "rows: " + JSON.stringify(rows));
    assert(row("ref_4") === JSON.stringify({ ref: "ref_4", role: "button", name: "Save", badges: "", offscreen: false, actions: "Click" }), row("ref_4"));
    assert(row("ref_5") === JSON.stringify({ ref: "ref_5", role: "textbox", name: "Name", value: "Ann", badges: "focused", offscreen: false, actions: "Fill…,Click" }), row("ref_5"));
    assert(row("ref_7") === JSON.stringify({ ref: "ref_7", role: "checkbox", name: "Subscribe", badges: "checked", offscreen: true, actions: "Toggle,Click" }), row("ref_7"));
    assert(row("ref_2").includes('"badges":"disabled"') && row("ref_2").includes("Click(off)"), row("ref_2"));
    assert(row("ref_6").includes('"actions":"Choose…,Click"'), row("ref_6"));
    assert(row("ref_3").includes(JSON.stringify(INJECTED).slice(1, -1)), "the injected name is not shown as text: " + row("ref_3"));
    assert(await page.$$eval("#outline-card img", (imgs) => imgs.length) === 0, "the outline made an element from a name");
    assert(await page.evaluate(() => window.__injected) === undefined, "a name ran script");
    const card = await page.textContent("#outline-card");
    assert(card.includes("Pavix GTK fixture") && card.includes("panel 170 px down"), "title or scroll areas missing: " + card);
    await page.screenshot({ path: join(shots, "session.png") });
  });

  await check("the outline's actions send their control methods and read the window again", async () => {
    let from = device.seen.length;
    await page.click('#outline-rows tr[data-ref="ref_4"] button[data-act=click]');
    let sent = await sentSince(from, 2);
    assert(sent === `[${JSON.stringify({ method: "pointer", args: ["left_click", { ref: "ref_4" }] })},${reread}]`, "sent " + sent);

    from = device.seen.length;
    await page.click('#outline-rows tr[data-ref="ref_5"] button[data-act=fill]');
    await page.fill("#outline-rows tr.editor input", "Bob <b>");
    await page.screenshot({ path: join(shots, "session-fill.png") });
    await page.press("#outline-rows tr.editor input", "Enter");
    sent = await sentSince(from, 2);
    assert(sent === `[${JSON.stringify({ method: "formInput", args: ["ref_5", "Bob <b>"] })},${reread}]`, "sent " + sent);
    const filled = await page.$eval('#outline-rows tr[data-ref="ref_5"]', (tr) => [tr.querySelector(".target-value").textContent, tr.classList.contains("changed")]);
    assert(filled[0] === "Bob <b>" && filled[1], "the re-read did not show the new value: " + filled);

    from = device.seen.length;
    await page.click("[data-prompt=pressKey]");
    await page.fill("#prompt-input", "ctrl+a");
    await page.press("#prompt-input", "Enter");
    await page.click("[data-scroll=down]");
    await page.click('#outline-rows tr[data-ref="ref_7"] button[data-act=toggle]');
    sent = await sentSince(from, 6);
    const each = [{ method: "pressKey", args: ["ctrl+a"] }, { method: "scrollBy", args: ["down", 3] }, { method: "formInput", args: ["ref_7", "false"] }];
    assert(sent === `[${each.map((c) => `${JSON.stringify(c)},${reread}`).join(",")}]`, "sent " + sent);
    assert((await page.textContent('#outline-rows tr[data-ref="ref_7"] .badge')) === "unchecked", "the toggle did not show");
    assert((await page.textContent("#session-status")).includes("read again"), "no status after the re-read");
    await page.screenshot({ path: join(shots, "session-after-actions.png") });
  });

  await check("an outline the console cannot read is reported in the page", async () => {
    device.outline = 'Window "Odd"\n  [ref_1] button "unterminated\nnot a target line';
    await page.click("#outline-read");
    await page.waitForSelector("#outline-view .note.bad pre");
    const note = await page.textContent("#outline-view .note.bad");
    assert(note.includes("2 lines") && note.includes('[ref_1] button "unterminated') && note.includes("not a target line"), note);
    await page.screenshot({ path: join(shots, "session-odd-outline.png") });
    device.outline = { unexpected: true };
    await page.click("#outline-read");
    await page.waitForFunction(() => document.getElementById("outline-view").textContent.includes("not outline text"));
    device.outline = null;
    await page.click("[data-quick=readPage]");
    await page.waitForSelector('#outline-rows tr[data-ref="ref_4"]');
  });

  await check("a published recording is listed and plays", async () => {
    const clip = video();
    capture = await device.upload(clip.bytes);
    await page.click("nav a[data-view=recordings]");
    await page.waitForSelector(`#recording-rows button[data-play="${capture}"]`);
    await page.click(`#recording-rows button[data-play="${capture}"]`);
    if (clip.playable) {
      await page.waitForFunction(() => document.getElementById("player").readyState >= 2);
      const w = await page.$eval("#player", (v) => v.videoWidth);
      assert(w === 640, "video width " + w);
      await page.$eval("#player", (v) => { v.pause(); v.currentTime = 1; });
      await page.waitForFunction(() => !document.getElementById("player").seeking);
    }
    await page.screenshot({ path: join(shots, "recordings.png") });
  });
} finally {
  device.running = false;
  for (const c of cleanups.reverse()) { try { await c(); } catch (e) { /* best effort */ } }
  rmSync(join(work, "data"), { recursive: true, force: true });
}
console.log(`screenshots in ${shots}`);
console.log(`${passed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);
