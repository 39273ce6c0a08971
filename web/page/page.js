// The page: keeps the ranges as the server tells them, draws what is listed. Everything from outside becomes text only.
"use strict";

const $ = (id) => document.getElementById(id);
const ranges = new Map();  // id: range, with its row and `seen`, when (performance.now) it was read
let ports = [], generation = 0, sequence = 0, listening = false, writes = false, order = [];
let opened = null, curve = null, away = "";
const LIVELY = 2000;  // younger than so many milliseconds is all the same to an eye

const element = (name, classes, text) => {
  const made = document.createElement(name);
  if (classes) made.className = classes;
  if (text !== undefined) made.textContent = text;
  return made;
};
const put = (node, text) => { if (node.textContent !== text) node.textContent = text; };
const fetchJson = async (path) => {
  const answer = await fetch(path);
  if (!answer.ok) throw new Error(answer.status);
  return answer.json();
};

const ageText = (range) => {
  if (range.seen === null) return "–";
  const ms = performance.now() - range.seen;
  if (ms < LIVELY) return "< 2 s";
  if (ms < 120000) return `${Math.floor(ms / 1000)} s`;
  if (ms < 7200000) return `${Math.floor(ms / 60000)} min`;
  return ms < 172800000 ? `${Math.floor(ms / 3600000)} h` : `${Math.floor(ms / 86400000)} d`;
};
const periodText = (ms) => ms === null ? "–" : ms < 1000 ? `${Math.round(ms)} ms` : `${(ms / 1000).toFixed(1)} s`;
const elementText = (range, value) => typeof value !== "number" ? value : range.decimals !== null ? value.toFixed(range.decimals)
  : range.type === "float" ? String(Number(value.toPrecision(7))) : String(value);  // a float holds no more digits
const valueText = (range) => range.value === null ? "–"
  : range.value.map((value) => elementText(range, value)).join("  ") + (range.more ? " …" : "");
const seenOf = (age) => age === null ? null : performance.now() - age;
const numberOf = (range) => range.value !== null && typeof range.value[0] === "number" && range.state === "ok" ? range.value[0] : null;
const stateClass = (state) => "state " + state.replace(" ", "-");
const many = (n, word) => `${n} ${word}${n === 1 ? "" : "s"}`;

// ------------------------------------------------------------------------------------------------- the table

function makeRow(range) {
  const row = element("tr");
  row.setAttribute("role", "row");  // a telephone lays the table out otherwise, which would take its meaning away
  const cells = {};
  for (const name of ["name", "value", "unit", "state", "age", "period", "where"]) {
    const number = ["value", "age", "period"].includes(name) ? " number" : "";
    cells[name] = row.appendChild(element("td", name + number));
    cells[name].setAttribute("role", "cell");
  }
  const open = cells.name.appendChild(element("button", "open", range.name));
  open.type = "button";
  open.title = range.expression + (range.comment ? `: ${range.comment}` : "");
  cells.unit.textContent = range.unit;
  cells.where.textContent = (range.station_name || range.station) + (ports.length > 1 ? ` · ${range.port}` : "");
  row.addEventListener("click", () => show(range));
  range.row = row;
  range.cells = cells;
  range.open = open;
  draw(range);
}

function draw(range) {
  const { row, cells } = range;
  put(cells.value, valueText(range));
  if (range.drawn !== range.state) {
    cells.state.className = stateClass(range.state);
    put(cells.state, range.state);
    range.drawn = range.state;
  }
  row.classList.toggle("stale", range.state !== "ok" && range.value !== null || away.includes(`${range.port} `));
  put(cells.age, ageText(range));
  put(cells.period, periodText(range.period_ms));
}

const STATES = ["error", "time-out", "refused", "station off", "never read", "ok"];
const rank = {
  range: null,
  name: (a, b) => a.name.localeCompare(b.name, undefined, { numeric: true }),
  age: (a, b) => (a.seen ?? -Infinity) - (b.seen ?? -Infinity),
  period: (a, b) => (b.period_ms ?? -1) - (a.period_ms ?? -1),
  state: (a, b) => STATES.indexOf(a.state) - STATES.indexOf(b.state),
};

function listed(range) {
  const find = $("find").value.toLowerCase(), filter = $("filter").value, port = $("port").value, station = $("station").value;
  return (!find || range.name.toLowerCase().includes(find) || range.expression.includes(find)) &&
    (filter !== "subscribed" || range.subscribed) && (filter !== "failing" || range.state !== "ok") &&
    (!port || range.port === port) && (!station || station === `${range.port} ${range.station}`);
}

function list() {
  const sort = $("sort").value;
  const next = [...ranges.values()].filter(listed);
  if (rank[sort]) next.sort(rank[sort]);
  const reversed = $("reverse").ariaPressed === "true";
  if (reversed) next.reverse();
  if (next.length !== order.length || next.some((range, i) => range !== order[i])) {
    order = next;
    const focused = document.activeElement;
    $("rows").replaceChildren(...order.map((range) => range.row));
    if (focused && focused.isConnected && focused !== document.activeElement) focused.focus({ preventScroll: true });
  }
  for (const head of document.querySelectorAll("th")) {
    const own = head.firstElementChild?.dataset.sort;
    if (own && own === sort) head.setAttribute("aria-sort", (sort === "name") !== reversed ? "ascending" : "descending");
    else head.removeAttribute("aria-sort");
  }
  put($("count"), order.length === ranges.size ? many(ranges.size, "range") : `${order.length} of ${many(ranges.size, "range")}`);
  $("nothing").hidden = order.length !== 0;
}

async function loadRanges() {
  const all = await fetchJson("api/ranges");
  // Another run of the server has other ids: a range stays the same by what it reads.
  const known = new Map([...ranges.values()].map((range) => [range.port + range.expression, range]));
  ranges.clear();
  for (const told of all.ranges) {
    const range = Object.assign(known.get(told.port + told.expression) ?? {}, told, { seen: seenOf(told.age_ms) });
    ranges.set(told.id, range);
    if (range.row) draw(range); else makeRow(range);
  }
  generation = all.generation;
  sequence = all.sequence;
  list();
  if (opened && ranges.get(opened.id) !== opened) $("detail").close();
}

// [id, age, value or 0, state, period, subscribed]: what is missing at the end is as before.
function change([id, age, value, state, period, subscribed]) {
  const range = ranges.get(id);
  if (!range) return;
  range.seen = seenOf(age);
  if (value) range.value = value;
  if (state !== undefined) Object.assign(range, { state, period_ms: period, subscribed });
  draw(range);
  if (opened === range) drawNow();
}

// ------------------------------------------------------------------------------------------------- the ports

function portCard(port) {
  const card = element("article", port.service === "runs" ? "port" : "port old");
  const head = card.appendChild(element("h2"));
  head.append(element("span", "", `${port.name}`), element("span", "state " + port.service, port.service));
  const facts = [port.link];
  if (port.service === "runs") {
    facts.push(`${port.subscribed} subscribed`);
    if (port.round_ms !== null) facts.push(`round ${periodText(port.round_ms)}`);
    if (port.waiting) facts.push(`${many(port.waiting, "write")} waiting`);
    if (port.timeout) facts.push("link in time-out");
    if (port.comerror) facts.push("communication error");
  }
  card.append(element("p", "", facts.join(" · ")));
  const stations = card.appendChild(element("ul", "stations"));
  for (const station of port.stations) {
    const item = stations.appendChild(element("li", station.state === "dead" ? "dead" : ""));
    const answer = station.state === "answers" && station.answer_ms !== null ? ` ${station.answer_ms} ms` : "";
    item.append(`${station.name || "station " + station.station} `, element("span", "state " + station.state, station.state + answer));
    item.title = `station ${station.station}: ${many(station.calls, "call")}, ${many(station.timeouts, "time-out")}, ` +
      `${many(station.errors, "error")}, ${station.refused} refused`;
  }
  return card;
}

function offer(choice, options) {
  const before = choice.value;
  if (choice.options.length === options.length + 1) return;
  choice.replaceChildren(new Option("all", ""), ...options);
  choice.value = options.some((option) => option.value === before) ? before : "";
  choice.parentElement.hidden = options.length < 2;
}

function takePorts(told) {
  ports = told;
  $("ports").replaceChildren(...ports.map(portCard));
  offer($("port"), ports.map((port) => new Option(port.name, port.name)));
  offer($("station"), ports.flatMap((port) => port.stations.map((station) => new Option(
    (station.name || station.station) + (ports.length > 1 ? ` · ${port.name}` : ""), `${port.name} ${station.station}`))));
  const now = ports.filter((port) => port.service !== "runs").map((port) => `${port.name} `).join();
  if (now !== away) {
    away = now;
    ranges.forEach(draw);
  }
  banner();
}

function banner() {
  const lines = [];
  if (!listening) lines.push("This page's server does not answer; the values are old. It is tried again.");
  else for (const port of ports) {
    if (port.service !== "runs") lines.push(`${port.name}: ${port.text}`);
    else if (port.text) lines.push(`${port.name}: ${port.text}`);
    for (const station of port.service === "runs" ? port.stations : []) {
      if (station.state === "dead") lines.push(`${port.name}: station ${station.name || station.station} does not answer`);
    }
  }
  const box = $("banner");
  put(box, lines.join(" — "));
  box.hidden = lines.length === 0;
}

// ------------------------------------------------------------------------------------------- one range in detail

const HEIGHT = 220, LEFT = 58, BOTTOM = 24, SPAN = 600000;
const svg = (name, attributes, text) => {
  const made = document.createElementNS("http://www.w3.org/2000/svg", name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  if (text !== undefined) made.textContent = text;
  return made;
};
// Few digits, but enough to tell the marks of a scale from one another.
const mark = (value, span) => {
  const digits = Math.max(0, Math.min(6, 2 - Math.floor(Math.log10(span || 1))));
  return Math.abs(value) >= 1e7 ? value.toExponential(2) : String(Number(value.toFixed(digits)));
};

function drawCurve() {
  const picture = $("curve"), now = Date.now(), WIDTH = Math.max(260, picture.clientWidth);
  picture.setAttribute("viewBox", `0 0 ${WIDTH} ${HEIGHT}`);  // texts keep their size on every screen
  const points = curve.filter((point) => point[0] >= now - SPAN - 2000);
  curve = points;
  const numbers = points.map((point) => point[1]).filter((value) => value !== null);
  picture.replaceChildren();
  if (numbers.length === 0) {
    picture.append(svg("text", { x: WIDTH / 2, y: HEIGHT / 2, "text-anchor": "middle", class: "mark" }, "no number within ten minutes"));
    put($("summary"), "");
    return;
  }
  let low = numbers.reduce((a, b) => Math.min(a, b)), high = numbers.reduce((a, b) => Math.max(a, b));
  put($("summary"), `Ten minutes: lowest ${mark(low, high - low)}, highest ${mark(high, high - low)}${opened.unit ? " " + opened.unit : ""}` +
    (opened.count > 1 ? "; the first element" : ""));
  if (low === high) { low -= Math.abs(low) * 0.05 || 1; high += Math.abs(high) * 0.05 || 1; }
  const x = (time) => LEFT + (WIDTH - LEFT - 8) * (1 - (now - time) / SPAN);
  const y = (value) => 10 + (HEIGHT - BOTTOM - 16) * (1 - (value - low) / (high - low));
  for (let i = 0; i <= 4; ++i) {
    const value = low + (high - low) * i / 4;
    picture.append(svg("line", { x1: LEFT, x2: WIDTH - 8, y1: y(value), y2: y(value), class: "grid" }),
      svg("text", { x: LEFT - 8, y: y(value) + 4, "text-anchor": "end", class: "mark" }, mark(value, high - low)));
  }
  for (let minutes = WIDTH < 480 ? 8 : 10; minutes >= 0; minutes -= WIDTH < 480 ? 4 : 2) {
    picture.append(svg("text", { x: x(now - minutes * 60000), y: HEIGHT - 4, "text-anchor": minutes ? "middle" : "end", class: "mark" },
      minutes ? `−${minutes} min` : "now"));
  }
  let path = "", pen = false;
  for (const [time, value] of points) {
    if (value === null || time < now - SPAN) { pen = false; continue; }
    path += `${pen ? "L" : "M"}${x(time).toFixed(1)} ${y(value).toFixed(1)}`;
    if (!pen) path += "h.1";
    pen = true;
  }
  picture.append(svg("path", { d: path, class: "trace" }));
}

function drawNow() {
  put($("now"), valueText(opened));
  put($("state"), opened.state);
  $("state").className = stateClass(opened.state);
}

function explain(told) {
  const lines = [];
  const say = (text, classes) => lines.push(element("p", classes, text));
  if (!told.subscribed) {
    say("No client has subscribed it, so it is not polled.");
  } else {
    say(`Asked for ${told.asked}, ` + (told.station_off ? "not read: its station is switched off."
      : told.refused_since !== null ? "but refused." : told.achieved === null ? "not read twice yet." : `read every ${told.achieved}.`));
    if (told.refused_since !== null) {
      say(`Refused by the device since ${new Date(told.refused_since * 1000).toLocaleString()}; it is tried again, at the longest after an hour.`, "refused");
    }
    if (told.apart_from !== null) say(`Never read together with ${told.apart_from}: the device has refused that.`, "refused");
    if (told.read) {
      say(`Travels in read ${told.read}: ${many(told.elements, "element")}` + (told.gaps ? `, ${told.gaps} of them wanted by none` : "") +
        (told.others ? `, with ${many(told.others, "other range")}` : ", alone") + (told.failed ? "; it failed the last time." : "."));
      if (told.together.length) say(`In that read: ${told.together.slice(0, 12).join(", ")}${told.together.length > 12 ? " …" : ""}`);
    }
  }
  if (told.round) {
    say(`A round of ${many(told.round.ranges, "range")} takes ${periodText(told.round.ms)}: ${many(told.round.reads, "read")}, ` +
      `${periodText(told.round.driver_ms ?? 0)} in the driver, ${periodText(told.round.pauses_ms ?? 0)} of pauses.`);
  }
  for (const advice of told.advice ?? []) say(`Would help: ${advice.text}${advice.saves ? `, saves ${advice.saves} of a round` : ""}.`, "advice");
  $("explanation").replaceChildren(...lines);
}

async function loadDetail(range) {
  const answers = await Promise.allSettled([fetchJson(`api/history?id=${range.id}`), fetchJson(`api/explain?id=${range.id}`)]);
  if (opened !== range) return;
  if (answers[0].status === "fulfilled") {
    const { end, values } = answers[0].value;
    const first = end - values.length + 1;
    const live = curve.filter((point) => point[0] > end * 1000 + 1000);
    curve = values.map((value, i) => [(first + i) * 1000, value]).concat(live);
    drawCurve();
  }
  if (answers[1].status === "fulfilled") explain(answers[1].value);
}

function show(range) {
  opened = range;
  curve = [];
  put($("title"), range.name);
  put($("comment"), range.comment);
  put($("unit"), range.unit);
  drawNow();
  $("explanation").replaceChildren();
  const limits = range.minimum !== null || range.maximum !== null ? `${range.minimum ?? "…"} to ${range.maximum ?? "…"}` : null;
  const facts = { Register: range.expression, Port: range.port, Station: range.station_name ? `${range.station} (${range.station_name})` : range.station,
    Type: range.count > 1 ? `${range.count} × ${range.type}` : range.type, Limits: limits };
  $("facts").replaceChildren(...Object.entries(facts).filter((fact) => fact[1] !== null)
    .flatMap(([name, value]) => [element("dt", "", name), element("dd", "", String(value))]));
  $("write").hidden = !writes;
  $("values").value = "";
  put($("written"), "");
  $("detail").showModal();
  drawCurve();
  loadDetail(range);
}

async function write(event) {
  event.preventDefault();
  const text = $("values").value.trim();
  const body = opened.count > 1 ? text.split(/\s+/).join("\n") : text;
  put($("written"), "writing");
  try {
    const answer = await fetch(`api/write?id=${opened.id}`, { method: "POST", body, headers: { "Voq-Token": $("token").value, "Content-Type": "text/plain" } });
    put($("written"), (await answer.text()).trim());
  } catch {
    put($("written"), "the server does not answer");
  }
}

// ----------------------------------------------------------------------------------------------------- the stream

let loading = null;
function reload() {
  loading ??= (generation ? new Promise((done) => setTimeout(done, 300)).then(loadRanges) : loadRanges()).catch(() => {}).finally(() => { loading = null; });
  return loading;
}
function live(on) {
  listening = on;
  document.body.classList.toggle("old", !on);
  $("connection").className = on ? "live" : "";
  put($("connection"), on ? "live" : "no connection");
  banner();
}

function listen() {
  const stream = new EventSource("events");
  stream.addEventListener("hello", async (event) => {
    if (Number(event.data) !== generation) sequence = Infinity;  // its changes are not of the ranges that are known here
    try {
      const told = await fetchJson("api/ports");
      writes = told.writes;
      takePorts(told.ports);
      live(true);
    } catch { /* the stream says when it is over */ }
    await loading;
    reload();
  });
  stream.addEventListener("ranges", (event) => {
    if (Number(event.lastEventId) > sequence) JSON.parse(event.data).forEach(change);
  });
  stream.addEventListener("list", (event) => { if (Number(event.data) !== generation) reload(); });
  stream.addEventListener("ports", (event) => takePorts(JSON.parse(event.data)));
  stream.onerror = () => {
    live(false);
    sequence = Infinity;
    if (stream.readyState === EventSource.CLOSED) setTimeout(listen, 2000);
  };
}

setInterval(() => {
  for (const range of order) put(range.cells.age, ageText(range));
  if ($("sort").value !== "range" || $("filter").value !== "all") list();
  if (opened) {
    const number = numberOf(opened);
    if (opened.seen !== null && performance.now() - opened.seen < 5000 || number === null) curve.push([Date.now(), number]);
    drawCurve();
  }
}, 1000);
setInterval(() => { if (opened) fetchJson(`api/explain?id=${opened.id}`).then(explain, () => {}); }, 5000);

for (const id of ["find", "filter", "port", "station", "sort"]) $(id).addEventListener("input", list);
$("tools").addEventListener("submit", (event) => event.preventDefault());
for (const button of document.querySelectorAll("th button")) {
  button.addEventListener("click", () => {
    // Once, the other way round, and as it was.
    const again = $("sort").value === button.dataset.sort, reversed = $("reverse").ariaPressed === "true";
    $("sort").value = again && reversed ? "range" : button.dataset.sort;
    $("reverse").ariaPressed = again && !reversed;
    list();
  });
}
$("reverse").addEventListener("click", () => {
  $("reverse").ariaPressed = $("reverse").ariaPressed !== "true";
  list();
});
$("close").addEventListener("click", () => $("detail").close());
$("detail").addEventListener("close", () => { const range = opened; opened = null; if (range?.open.isConnected) range.open.focus(); });
$("detail").addEventListener("click", (event) => { if (event.target === $("detail")) $("detail").close(); });
$("write").addEventListener("submit", write);
window.addEventListener("resize", () => { if (opened) drawCurve(); });
document.addEventListener("keydown", (event) => {
  if (opened || event.ctrlKey || event.altKey || event.metaKey) return;
  const at = order.findIndex((range) => range.open === document.activeElement);
  if (event.key === "/" && document.activeElement.tagName !== "INPUT") {
    event.preventDefault();
    $("find").focus();
  } else if (at >= 0 && (event.key === "ArrowDown" || event.key === "ArrowUp")) {
    event.preventDefault();
    order[at + (event.key === "ArrowDown" ? 1 : -1)]?.open.focus();
  }
});
reload();
listen();
