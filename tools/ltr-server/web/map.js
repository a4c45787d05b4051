// The live map: draws the site to scale and follows the server's event stream.
"use strict";
const NS = "http://www.w3.org/2000/svg";
const svg = document.getElementById("map");
const state = { aps: [], stations: new Map(), selected: null, hover: null, box: null };

function el(name, attrs, parent) {
  const e = document.createElementNS(NS, name);
  for (const k in attrs) e.setAttribute(k, attrs[k]);
  if (parent) parent.appendChild(e);
  return e;
}

function esc(v) {
  return String(v).replace(/[&<>"]/g, c => ({ "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;" })[c]);
}

function fmt(v) { return (Math.round(v * 10) / 10).toFixed(1); }

// Metres to drawing units: y grows upwards on the site, downwards on screen.
function px(x) { return (x - state.box.x0) * state.box.k; }
function py(y) { return (state.box.y1 - y) * state.box.k; }

function placed() {
  return state.aps.filter(a => typeof a.x === "number");
}

// The box holding every placed access point and station, with a margin; grows only.
function fit() {
  const xs = [], ys = [];
  for (const a of placed()) { xs.push(a.x); ys.push(a.y); }
  for (const s of state.stations.values())
    if (s.position) { xs.push(s.position.x); ys.push(s.position.y); }
  if (!xs.length) { xs.push(0, 10); ys.push(0, 10); }
  let x0 = Math.min(...xs) - 3, x1 = Math.max(...xs) + 3;
  let y0 = Math.min(...ys) - 3, y1 = Math.max(...ys) + 3;
  const b = state.box;
  if (b && x0 >= b.x0 && x1 <= b.x1 && y0 >= b.y0 && y1 <= b.y1) return false;
  if (b) { x0 = Math.min(x0, b.x0); x1 = Math.max(x1, b.x1); y0 = Math.min(y0, b.y0); y1 = Math.max(y1, b.y1); }
  const k = 1000 / Math.max(x1 - x0, y1 - y0);
  state.box = { x0, x1, y0, y1, k };
  svg.setAttribute("viewBox", `0 0 ${(x1 - x0) * k} ${(y1 - y0) * k}`);
  return true;
}

function drawGrid() {
  const g = document.getElementById("grid");
  g.replaceChildren();
  g.setAttribute("class", "grid");
  const b = state.box, step = (b.x1 - b.x0) > 60 ? 10 : 5;
  for (let x = Math.ceil(b.x0 / step) * step; x <= b.x1; x += step) {
    el("line", { x1: px(x), x2: px(x), y1: 0, y2: py(b.y0) }, g);
    el("text", { x: px(x) + 2, y: py(b.y0) - 3 }, g).textContent = x + " m";
  }
  for (let y = Math.ceil(b.y0 / step) * step; y <= b.y1; y += step) {
    el("line", { x1: 0, x2: px(b.x1), y1: py(y), y2: py(y) }, g);
    el("text", { x: 2, y: py(y) - 2 }, g).textContent = y + " m";
  }
  const s = el("g", { class: "scale" }, g);
  el("line", { x1: px(b.x0) + 20, x2: px(b.x0) + 20 + step * b.k, y1: 20, y2: 20 }, s);
  el("text", { x: px(b.x0) + 20, y: 36 }, s).textContent = step + " m";
}

function apOf(s) {
  return state.aps.find(a => a.mac === s.owner_mac) || state.aps.find(a => a.name && a.name === s.owner);
}

function drawAps() {
  const g = document.getElementById("aps");
  g.replaceChildren();
  for (const a of placed()) {
    const e = el("g", { class: "ap" + (a.connected ? "" : " off"), "data-name": a.name,
                        "data-x": a.x, "data-y": a.y }, g);
    el("rect", { x: px(a.x) - 9, y: py(a.y) - 9, width: 18, height: 18, rx: 3 }, e);
    el("text", { x: px(a.x) + 12, y: py(a.y) - 10 }, e).textContent = a.name;
    el("title", {}, e).textContent = `${a.name} ${a.mac || ""} (${fmt(a.x)}, ${fmt(a.y)}) ` +
      (a.connected ? "connected" : "not connected");
  }
}

function readingsText(s) {
  return s.readings.map(r => `${r.ap || r.ap_mac}: ${r.rssi} dBm @ ${r.freq} MHz`).join("\n");
}

function drawStation(s) {
  const layer = document.getElementById("stations");
  let g = layer.querySelector(`g[data-mac="${s.mac}"]`);
  const links = document.getElementById("links");
  let link = links.querySelector(`line[data-mac="${s.mac}"]`);
  // The areas lie under everything else as one tint (the layer's opacity): a crowd of
  // wide circles neither hides the access points and dots nor adds up to a solid wash.
  const areas = document.getElementById("areas");
  let area = areas.querySelector(`circle[data-mac="${s.mac}"]`);
  if (!s.position || !s.present) {
    if (g) g.remove();
    if (link) link.remove();
    if (area) area.remove();
    return;
  }
  if (!area) area = el("circle", { "data-mac": s.mac }, areas);
  const p = s.position, x = px(p.x), y = py(p.y);
  if (!g) {
    g = el("g", { class: "station", "data-mac": s.mac }, layer);
    el("polyline", { class: "trail" }, g);
    el("circle", { class: "conf" }, g);
    el("circle", { class: "dot", r: 7 }, g);
    el("text", {}, g).textContent = s.mac.slice(-5);
    el("title", {}, g);
    g.addEventListener("click", () => select(s.mac));
    g.addEventListener("mouseenter", () => { state.hover = s.mac; showDetail(); });
    g.addEventListener("mouseleave", () => { state.hover = null; showDetail(); });
  }
  g.setAttribute("data-x", p.x);
  g.setAttribute("data-y", p.y);
  g.classList.toggle("sel", state.selected === s.mac);
  g.querySelector(".trail").setAttribute("points", s.trail.map(t => `${px(t[0])},${py(t[1])}`).join(" "));
  const r = Math.max(p.radius * state.box.k, 8);
  for (const c of [g.querySelector(".conf"), area]) {
    c.setAttribute("cx", x); c.setAttribute("cy", y); c.setAttribute("r", r);
  }
  const d = g.querySelector(".dot");
  d.setAttribute("cx", x); d.setAttribute("cy", y);
  const t = g.querySelector("text");
  t.setAttribute("x", x + 9); t.setAttribute("y", y + 4);
  g.querySelector("title").textContent = `${s.mac} owner ${s.owner}\n${readingsText(s)}`;
  const ap = apOf(s);
  if (ap && typeof ap.x === "number") {
    if (!link) link = el("line", { class: "owner", "data-mac": s.mac }, links);
    link.setAttribute("x1", x); link.setAttribute("y1", y);
    link.setAttribute("x2", px(ap.x)); link.setAttribute("y2", py(ap.y));
  } else if (link) {
    link.remove();
  }
}

function showDetail() {
  const box = document.getElementById("detail");
  const s = state.stations.get(state.hover || state.selected);
  if (!s) {
    box.innerHTML = '<p class="hint">Point at or select a station to see its readings.</p>';
    return;
  }
  const pos = s.position ? `(${fmt(s.position.x)}, ${fmt(s.position.y)}) m, within ${fmt(s.position.radius)} m`
                         : "not placed";
  const rows = s.readings.map(r =>
    `<tr><td>${esc(r.ap || "?")}</td><td>${r.ap_mac}</td><td>${r.rssi} dBm</td><td>${r.freq} MHz</td><td>${fmt(r.age)} s</td></tr>`);
  box.innerHTML = `<h2>${s.mac}</h2><p>${s.present ? "present" : "left"}, owner ${esc(s.owner)}<br>${pos}</p>` +
    `<table class="readings"><thead><tr><th>AP</th><th>MAC</th><th>RSSI</th><th>channel</th><th>age</th></tr></thead>` +
    `<tbody>${rows.join("")}</tbody></table>`;
}

function drawList() {
  const body = document.querySelector("#list tbody");
  body.replaceChildren();
  const now = Date.now() / 1000;
  for (const s of [...state.stations.values()].sort((a, b) => a.mac < b.mac ? -1 : 1)) {
    const tr = document.createElement("tr");
    tr.dataset.mac = s.mac;
    if (s.mac === state.selected) tr.className = "sel";
    else if (!s.present) tr.className = "left";
    const pos = s.position ? `${fmt(s.position.x)}, ${fmt(s.position.y)} ±${fmt(s.position.radius)}` : "-";
    for (const v of [s.mac, s.owner, pos, `${fmt(Math.max(0, now - s.last_seen))} s ago`]) {
      const td = document.createElement("td");
      td.textContent = v;
      tr.appendChild(td);
    }
    tr.addEventListener("click", () => select(s.mac));
    body.appendChild(tr);
  }
  const present = [...state.stations.values()].filter(s => s.present).length;
  document.getElementById("counts").textContent =
    `${placed().length} access points, ${present} stations present`;
}

function select(mac) {
  state.selected = state.selected === mac ? null : mac;
  for (const g of document.querySelectorAll("#stations g.station"))
    g.classList.toggle("sel", g.dataset.mac === state.selected);
  showDetail();
  drawList();
}

function redraw() {
  fit();
  drawGrid();
  drawAps();
  document.getElementById("stations").replaceChildren();
  document.getElementById("links").replaceChildren();
  document.getElementById("areas").replaceChildren();
  for (const s of state.stations.values()) drawStation(s);
  drawList();
  showDetail();
}

function upsert(s) {
  state.stations.set(s.mac, s);
  if (s.position && fit()) { redraw(); return; }
  drawStation(s);
  drawList();
  if (state.selected === s.mac || state.hover === s.mac) showDetail();
}

function connect() {
  const status = document.getElementById("status");
  const es = new EventSource("/events");
  es.onopen = () => { status.textContent = "live"; status.className = "up"; };
  es.onerror = () => { status.textContent = "reconnecting"; status.className = "down"; };
  es.addEventListener("snapshot", e => {
    const d = JSON.parse(e.data);
    state.aps = d.aps;
    state.stations = new Map(d.stations.map(s => [s.mac, s]));
    redraw();
  });
  es.addEventListener("aps", e => { state.aps = JSON.parse(e.data); redraw(); });
  es.addEventListener("station", e => upsert(JSON.parse(e.data)));
  es.addEventListener("gone", e => {
    state.stations.delete(JSON.parse(e.data).mac);
    redraw();
  });
}

fit();
connect();
setInterval(drawList, 1000);
