"use strict";

const FRESH_MS = 3000;
const WINDOW_MS = 120000;
const MAX_STEPS = 4000;
const RETRY_MS = 2000;
const SWITCH_LIMIT_MS = 8000;

const byId = (id) => document.getElementById(id);
const calm = matchMedia("(prefers-reduced-motion: reduce)");

let state = { board: null, pins: [] };
let layout = "";
let source = null;
let retry = 0;
let live = false;      // What is shown is known to be so now.
let wasLost = false;
const tiles = new Map();    // Pin number to the parts of its tile.
const history = new Map();  // Pin number to [time, level] steps, oldest first; null is a gap.
const recorded = new Set();
let choseRecorded = false;

const nameOf = (pin) => pin.name || `${pin.dir === "out" ? "Output" : "Input"} ${pin.n}`;
const wordOf = (pin) =>
  pin.level === null ? "not known" : pin.dir === "out" ? (pin.level ? "on" : "off") : pin.level ? "high" : "low";
const timeOf = (seconds) => new Date(seconds * 1000).toLocaleTimeString([], { hour12: false });

function element(tag, className, parent, attributes = {}) {
  const made = document.createElement(tag);
  made.className = className;
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  parent.append(made);
  return made;
}

function setText(target, text) {
  if (target.textContent !== text) target.textContent = text;
}

function shape(parent) {
  const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
  svg.setAttribute("viewBox", "0 0 24 20");
  svg.setAttribute("class", "shape");
  svg.setAttribute("aria-hidden", "true");
  const path = document.createElementNS(svg.namespaceURI, "path");
  svg.append(path);
  parent.append(svg);
  return path;
}

const SHAPES = { high: "M1 17h5V3h12v14h5", low: "M1 3h5v14h12V3h5", unknown: "M2 10h4m4 0h4m4 0h4" };

function makeTile(pin) {
  const name = nameOf(pin);
  const root = element("li", "tile", byId(pin.dir === "out" ? "outputs" : "inputs"), { id: `pin-${pin.n}` });
  const title = element("span", "name", root, { id: `name-${pin.n}` });
  title.textContent = name;
  if (pin.name) element("span", "number", title).textContent = ` ${pin.dir} ${pin.n}`;
  const record = element("button", "rec", root, {
    type: "button", id: `record-${pin.n}`, "aria-label": `Record ${name}`, "aria-pressed": recorded.has(pin.n),
  });
  record.textContent = "Rec";
  record.addEventListener("click", () => toggleRecord(pin.n));
  const tile = { root, record, freshUntil: 0, busy: false, toldAt: 0 };
  if (pin.dir === "out") {
    tile.button = element("button", "switch value", root, {
      type: "button", role: "switch", id: `switch-${pin.n}`, "aria-labelledby": `name-${pin.n}`,
      "aria-describedby": `word-${pin.n}`,
    });
    element("span", "track", tile.button, { "aria-hidden": "true" });
    tile.word = element("span", "word", tile.button, { id: `word-${pin.n}` });
    tile.button.addEventListener("click", () => toggle(pin.n));
  } else {
    const value = element("span", "value", root);
    tile.path = shape(value);
    tile.word = element("span", "word", value);
  }
  tile.when = element("span", "when", root);
  tiles.set(pin.n, tile);
}

function showPin(pin) {
  const tile = tiles.get(pin.n);
  const level = pin.level === null ? "unknown" : pin.level ? "high" : "low";
  tile.root.dataset.level = level;
  tile.root.classList.toggle("old", !live);
  if (tile.path) tile.path.setAttribute("d", SHAPES[level]);
  if (tile.button) {
    tile.button.setAttribute("aria-checked", String(pin.level === 1));
    tile.button.setAttribute("aria-busy", String(tile.busy));
    tile.button.setAttribute("aria-disabled", String(Boolean(state.readOnly) || !live));
  }
  setText(tile.word, tile.busy ? "switching…" : wordOf(pin) + (live || pin.level === null ? "" : " (old)"));
}

function showAll() {
  const now = state.pins.map((pin) => [pin.n, pin.name, pin.dir]);
  if (JSON.stringify(now) !== layout) {
    layout = JSON.stringify(now);
    const focused = document.activeElement && document.activeElement.id;
    tiles.clear();
    byId("outputs").replaceChildren();
    byId("inputs").replaceChildren();
    if (!choseRecorded && state.pins.length) {
      choseRecorded = true;
      const inputs = state.pins.filter((pin) => pin.dir === "in");
      (inputs.length ? inputs : state.pins).slice(0, 2).forEach((pin) => recorded.add(pin.n));
    }
    state.pins.forEach(makeTile);
    for (const list of ["outputs", "inputs"]) {
      byId(list).parentElement.hidden = !byId(list).childElementCount;
    }
    if (focused && byId(focused)) byId(focused).focus();
    nameRecorder();
  }
  state.pins.forEach(showPin);
  const about = state.backEnd
    ? (state.backEnd === "board" ? `Board ${state.firmware || ""}` : "Test back end, simulated pins") +
      (state.readOnly ? " · for looking only" : "")
    : "";
  setText(byId("about"), about);
}

function markFresh(pin, seconds) {
  const tile = tiles.get(pin.n);
  const until = Date.now() + FRESH_MS;
  tile.freshUntil = until;
  tile.root.classList.add("fresh");
  setText(tile.when, `changed ${timeOf(seconds)}`);
  setTimeout(() => {
    if (tile.freshUntil === until) {
      tile.root.classList.remove("fresh");
      setText(tile.when, "");
    }
  }, FRESH_MS);
}

function showLink(lost, text) {
  const isNews = lost !== wasLost || state.board === null;
  live = !lost;
  byId("link").dataset.state = lost ? "lost" : "live";
  setText(byId("link-text"), lost ? "Not connected" : "Live");
  byId("main").setAttribute("aria-busy", String(lost));
  if (lost) {
    byId("news").className = "bad";
    setText(byId("news"), text);
  } else if (isNews && wasLost) {
    byId("news").className = "";
    setText(byId("news"), "Connected again.");
    setTimeout(() => { if (live) setText(byId("news"), ""); }, 5000);
  }
  wasLost = lost;
  state.pins.forEach((pin) => { if (tiles.has(pin.n)) showPin(pin); });
}

const AWAY = "Board or server away. What is shown is old.";

function onSnapshot(event) {
  state = JSON.parse(event.data);
  if (state.board) {
    live = true;
    showAll();
    state.pins.forEach((pin) => note(pin.n, pin.level));
    showLink(false);
  } else {
    live = false;
    showAll();
    gap();
    showLink(true, state.backEnd ? AWAY : "Board or server away. Nothing is known of its pins yet.");
  }
}

function onChange(event) {
  const { n, level, t } = JSON.parse(event.data);
  const pin = state.pins.find((one) => one.n === n);
  if (!pin) return;
  pin.level = level;
  tiles.get(n).toldAt = performance.now();
  if (live) note(n, level);
  showPin(pin);
  if (live && level !== null) markFresh(pin, t);
}

function onLink(event) {
  if (!JSON.parse(event.data).board) {
    gap();
    showLink(true, AWAY);
  }
}

function open() {
  close();
  source = new EventSource("api/v1/events");
  source.addEventListener("snapshot", onSnapshot);
  source.addEventListener("change", onChange);
  source.addEventListener("link", onLink);
  source.addEventListener("error", () => {
    gap();
    showLink(true, "The page’s own server does not answer. What is shown is old.");
    if (source && source.readyState === EventSource.CLOSED) {
      clearTimeout(retry);
      retry = setTimeout(open, RETRY_MS);
    }
  });
}

function close() {
  clearTimeout(retry);
  if (source) source.close();
  source = null;
}

// A browser keeps six connections to one place; a page that nobody sees gives its own back.
document.addEventListener("visibilitychange", () => {
  if (document.hidden) {
    close();
    gap();
    live = false;
  } else if (!source) {
    byId("link").dataset.state = "waiting";
    setText(byId("link-text"), "Connecting");
    open();
    state.pins.forEach(showPin);
  }
});
addEventListener("pagehide", close);
addEventListener("pageshow", (event) => { if (event.persisted) open(); });

async function toggle(n) {
  const pin = state.pins.find((one) => one.n === n);
  const tile = tiles.get(n);
  if (tile.busy) return;
  if (state.readOnly || !live) {
    setText(byId("trouble"), state.readOnly ? "This page is for looking only." : AWAY);
    return;
  }
  const level = pin.level === 1 ? 0 : 1;
  const began = performance.now();
  const limit = new AbortController();
  const timer = setTimeout(() => limit.abort(), SWITCH_LIMIT_MS);
  tile.busy = true;
  setText(byId("trouble"), "");
  showPin(pin);
  try {
    const answer = await fetch(`api/v1/pins/${n}`, {
      method: "PUT",
      headers: { "Content-Type": "application/json", "X-Gpio": "1" },
      body: JSON.stringify({ level }),
      signal: limit.signal,
    });
    if (!answer.ok) {
      const { error } = await answer.json().catch(() => ({ error: `status ${answer.status}` }));
      throw new Error(error);
    }
    const now = state.pins.find((one) => one.n === n);
    if (now && tile.toldAt < began) {
      now.level = level;
      note(n, level);
    }
  } catch (error) {
    const words = limit.signal.aborted ? "no answer; it may have been carried out"
      : error instanceof TypeError ? "the page’s own server does not answer" : error.message;
    setText(byId("trouble"), `${nameOf(pin)} was not switched: ${words}.`);
  } finally {
    clearTimeout(timer);
    tile.busy = false;
    const now = state.pins.find((one) => one.n === n);
    if (now && tiles.get(n) === tile) showPin(now);
  }
}

function note(n, level) {
  const steps = history.get(n) || [];
  history.set(n, steps);
  const last = steps[steps.length - 1];
  if (last && last[1] === level) return;
  const now = Date.now();
  steps.push([now, level]);
  // The step before the window still says how the window begins.
  while (steps.length > MAX_STEPS || (steps.length > 1 && steps[1][0] < now - WINDOW_MS)) steps.shift();
  if (calm.matches) draw();
}

function gap() {
  for (const n of history.keys()) note(n, null);
}

function toggleRecord(n) {
  if (!recorded.delete(n)) recorded.add(n);
  tiles.get(n).record.setAttribute("aria-pressed", String(recorded.has(n)));
  nameRecorder();
}

const recordedPins = () => state.pins.filter((pin) => recorded.has(pin.n));

function nameRecorder() {
  const names = recordedPins().map(nameOf).join(", ");
  byId("recorder").setAttribute("aria-label", `Recorder: ${names ? "timing of " + names : "no pins are chosen"}`);
  draw();
}

const ROW = 38;
const TOP = 6;
let hatch = null;

function makeHatch(context, color) {
  const tile = document.createElement("canvas");
  tile.width = tile.height = 8;
  const brush = tile.getContext("2d");
  brush.strokeStyle = color;
  brush.beginPath();
  for (const x of [-4, 4, 12]) { brush.moveTo(x, 8); brush.lineTo(x + 8, 0); }
  brush.stroke();
  return context.createPattern(tile, "repeat");
}

function draw() {
  const canvas = byId("recorder");
  const pins = recordedPins();
  const scale = devicePixelRatio || 1;
  const width = canvas.clientWidth;
  const height = TOP + Math.max(pins.length, 1) * ROW + 18;
  if (canvas.width !== Math.round(width * scale) || canvas.height !== Math.round(height * scale)) {
    canvas.width = Math.round(width * scale);
    canvas.height = Math.round(height * scale);
    canvas.style.height = `${height}px`;
  }
  const style = getComputedStyle(document.documentElement);
  const color = (name) => style.getPropertyValue(name).trim();
  const context = canvas.getContext("2d");
  context.setTransform(scale, 0, 0, scale, 0, 0);
  context.clearRect(0, 0, width, height);
  context.font = "12px system-ui, sans-serif";
  const left = Math.min(130, width * 0.3);
  const now = Date.now();
  const xOf = (time) => left + (width - left) * Math.min(Math.max(1 - (now - time) / WINDOW_MS, 0), 1);
  if (hatch === null || hatch.color !== color("--line")) {
    hatch = { color: color("--line"), pattern: makeHatch(context, color("--line")) };
  }

  context.strokeStyle = color("--line");
  context.fillStyle = color("--soft");
  context.textAlign = "right";
  for (const ago of [120, 90, 60, 30, 0]) {
    const x = Math.round(xOf(now - ago * 1000)) - 0.5;
    context.beginPath();
    context.moveTo(x, TOP);
    context.lineTo(x, height - 16);
    context.stroke();
    if (ago !== 120) context.fillText(ago ? `−${ago} s` : "now", x, height - 3);
  }
  context.textAlign = "left";
  pins.forEach((pin, row) => drawPin(context, pin, TOP + row * ROW, { left, width, now, xOf, color }));
  if (!pins.length) context.fillText("Choose pins with their “Rec” buttons.", left + 8, TOP + 24);
}

function drawPin(context, pin, top, { left, width, now, xOf, color }) {
  const yOf = (level) => top + (level ? 8 : ROW - 8);
  context.fillStyle = color("--ink");
  context.fillText(nameOf(pin), 0, top + ROW / 2 + 4, left - 8);
  const steps = history.get(pin.n) || [];
  const blank = (from, to) => {
    context.fillStyle = hatch.pattern;
    context.fillRect(from, top + 8, to - from, ROW - 16);
  };
  context.lineWidth = 2;
  context.strokeStyle = color("--high");
  context.beginPath();
  let before = null;
  if (!steps.length || xOf(steps[0][0]) > left) blank(left, steps.length ? xOf(steps[0][0]) : width);
  steps.forEach(([time, level], index) => {
    const from = xOf(time);
    const to = index + 1 < steps.length ? xOf(steps[index + 1][0]) : xOf(now);
    if (level === null) {
      blank(from, to);
    } else {
      if (before === null) context.moveTo(from, yOf(level));
      else context.lineTo(from, yOf(level));
      context.lineTo(to, yOf(level));
    }
    before = level;
  });
  context.stroke();
  context.lineWidth = 1;
}

// Twenty frames a second are smooth at this speed; one a second for those who want no motion.
let drawnAt = 0;
function animate(time) {
  if (time - drawnAt >= (calm.matches ? 1000 : 50)) {
    drawnAt = time;
    draw();
  }
  requestAnimationFrame(animate);
}

if (!document.hidden) open();
requestAnimationFrame(animate);
