"use strict";
const STATES = ["pending", "sent", "started", "complete", "failed", "refused", "timed out",
                "cancelled"];
const REFRESH_MS = 5000;
let selected = null;

function cell(tr, value, cls) {
  const td = document.createElement("td");
  td.textContent = value === null || value === undefined || value === "" ? "-" : String(value);
  if (cls) td.className = cls.replace(/ /g, "-");
  tr.appendChild(td);
}

function fill(id, rows, draw) {
  const body = document.querySelector("#" + id + " tbody");
  body.replaceChildren(...rows.map((r) => {
    const tr = document.createElement("tr");
    draw(tr, r);
    return tr;
  }));
}

const SVG = "http://www.w3.org/2000/svg";

// Browsers read milliseconds at most.
function when(iso) {
  return Date.parse(iso.slice(0, 23) + "Z");
}

// Devices by state over time, one step line per state that occurs.
function draw(history, total) {
  const svg = document.getElementById("history");
  const legend = document.getElementById("legend");
  svg.replaceChildren();
  legend.replaceChildren();
  if (!history.length) return;
  const width = 600, height = 160;
  const start = when(history[0].time);
  const span = Math.max(Date.now() - start, when(history[history.length - 1].time) - start, 1);
  const top = Math.max(total, 1);
  for (const s of STATES) {
    if (!history.some((p) => p.counts[s])) continue;
    const points = [];
    let y = height;
    for (const p of history) {
      const x = ((when(p.time) - start) / span) * width;
      if (points.length) points.push(x.toFixed(1) + "," + y.toFixed(1));
      y = height - ((p.counts[s] || 0) / top) * height;
      points.push(x.toFixed(1) + "," + y.toFixed(1));
    }
    points.push(width + "," + y.toFixed(1));
    const line = document.createElementNS(SVG, "polyline");
    line.setAttribute("points", points.join(" "));
    line.setAttribute("class", s.replace(/ /g, "-"));
    const title = document.createElementNS(SVG, "title");
    title.textContent = s;
    line.appendChild(title);
    svg.appendChild(line);
    const key = document.createElement("span");
    key.className = s.replace(/ /g, "-");
    key.textContent = s;
    legend.appendChild(key);
  }
}

async function load(url) {
  const r = await fetch(url, {cache: "no-store"});
  if (!r.ok) throw new Error(url + ": " + r.status);
  return r.json();
}

async function refresh() {
  try {
    const fleet = await load("api/fleet");
    const ids = fleet.deployments.map((d) => d.id);
    if (!ids.includes(selected)) selected = ids.length ? ids[ids.length - 1] : null;
    fill("deployments", fleet.deployments, (tr, d) => {
      tr.dataset.id = d.id;
      if (d.id === selected) tr.className = "selected";
      tr.onclick = () => { selected = d.id; refresh(); };
      cell(tr, d.id);
      cell(tr, d.bundle);
      cell(tr, d.state, d.state);
      cell(tr, d.phase + "/" + d.phases.length);
      cell(tr, d.devices);
      for (const s of STATES) cell(tr, d.counts[s]);
      cell(tr, d.deadline);
    });
    fill("devices", fleet.devices, (tr, d) => {
      tr.dataset.device = d.device;
      cell(tr, d.device);
      cell(tr, d.hardware);
      cell(tr, d.installed);
      cell(tr, d.state, d.state);
      cell(tr, d.last_event);
      cell(tr, d.last_message);
      cell(tr, d.last_report);
    });
    let rows = [];
    let history = [];
    if (selected !== null) {
      const d = await load("api/deployments/" + selected);
      document.getElementById("selected").textContent =
          "Deployment " + d.id + ": " + d.bundle + ", " + d.state;
      rows = d.devices;
      history = d.history;
    }
    draw(history, rows.length);
    fill("deployment-devices", rows, (tr, d) => {
      tr.dataset.device = d.device;
      cell(tr, d.device);
      cell(tr, d.phase);
      cell(tr, d.state, d.state);
      cell(tr, d.code);
      cell(tr, d.text);
      cell(tr, d.updated);
    });
    document.getElementById("updated").textContent = "updated " + new Date().toISOString();
  } catch (e) {
    document.getElementById("updated").textContent = "cannot load: " + e.message;
  }
}

refresh();
setInterval(refresh, REFRESH_MS);
