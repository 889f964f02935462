// The dev Collector's page: recent traces, a trace as a waterfall, response-time
// percentiles, profiles. Reads the Collector's JSON from the same origin only.
"use strict";

const view = document.getElementById("view");

function el(tag, attrs, ...children) {
  const node = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (k === "class") node.className = v;
    else if (k.startsWith("on")) node.addEventListener(k.slice(2), v);
    else node.setAttribute(k, v);
  }
  for (const c of children.flat()) node.append(c instanceof Node ? c : document.createTextNode(c == null ? "" : String(c)));
  return node;
}

const ms = (us) => (us == null ? "" : (us / 1000).toFixed(1));
const get = (path) => fetch(path).then((r) => r.json());

function table(cls, headers, rows) {
  return el("table", { class: cls },
    el("thead", {}, el("tr", {}, headers.map(([h, num]) => el("th", num ? { class: "num" } : {}, h)))),
    el("tbody", {}, rows));
}

async function counts() {
  const c = await get("/api/summary");
  document.getElementById("counts").textContent =
    Object.entries(c).map(([k, v]) => `${k} ${v}`).join(" · ");
}

async function home() {
  const [traces, pct, profile] = await Promise.all([get("/api/traces"), get("/api/percentiles"), get("/api/profile")]);
  view.replaceChildren(
    el("h2", {}, "Recent traces"),
    traces.length ? table("traces", [["time"], ["transaction"], ["URL"], ["status"], ["ms", 1], ["events", 1], ["hosts"], ["services"], [""]],
      traces.map((t) => el("tr", { class: "link", onclick: () => (location.hash = "#/trace/" + t.task) },
        el("td", {}, new Date(t.start / 1000).toLocaleTimeString()),
        el("td", {}, t.transaction), el("td", {}, t.url),
        el("td", t.status >= 500 ? { class: "err" } : {}, t.status),
        el("td", { class: "num" }, ms(t.duration)), el("td", { class: "num" }, t.events),
        el("td", {}, t.hosts.join(", ")), el("td", {}, t.services.join(", ")),
        el("td", {}, t.errors ? el("span", { class: "badge err" }, `${t.errors} errors`) : "",
          t.profiled ? el("span", { class: "badge" }, "profiled") : ""))))
      : el("p", { class: "muted" }, "No traces yet: send the agent some requests."),
    el("h2", {}, "Response time by transaction (ms, from the metrics histograms)"),
    percentiles(pct),
    el("h2", {}, "Profiling: top frames (all profiled requests)"),
    topFrames(profile));
}

function percentiles(pct) {
  if (!pct.rows.length) return el("p", { class: "muted" }, "No metrics yet: the agent sends them every metrics interval.");
  const names = Object.keys(pct.rows[0].percentiles);
  // The service column only when a histogram names one (the tags carry SN only for named services).
  const services = pct.rows.some((r) => r.service);
  return el("div", {},
    table("percentiles", [...(services ? [["service"]] : []), ["transaction"], ["count", 1], ...names.map((n) => [n, 1]), ["max", 1]],
      pct.rows.map((r) => el("tr", {}, services ? el("td", {}, r.service) : "", el("td", {}, r.transaction),
        el("td", { class: "num" }, r.count), names.map((n) => el("td", { class: "num" }, ms(r.percentiles[n]))),
        el("td", { class: "num" }, ms(r.max))))),
    pct.undecodable ? el("p", { class: "err" }, `${pct.undecodable} histograms did not decode`) : "");
}

function topFrames(stacks) {
  if (!stacks.length) return el("p", { class: "muted" }, "No profiles yet (corvidine.enable_profiling=1).");
  const self = new Map(), total = new Map();
  let all = 0;
  for (const s of stacks) {
    all += s.samples;
    const leaf = s.stack[s.stack.length - 1] || "?";
    self.set(leaf, (self.get(leaf) || 0) + s.samples);
    for (const f of new Set(s.stack)) total.set(f, (total.get(f) || 0) + s.samples);
  }
  const rows = [...total.keys()].sort((a, b) => (self.get(b) || 0) - (self.get(a) || 0) || total.get(b) - total.get(a)).slice(0, 15);
  return el("div", {}, flame(stacks),
    table("frames", [["frame"], ["self", 1], ["self %", 1], ["total", 1]],
      rows.map((f) => el("tr", {}, el("td", {}, f), el("td", { class: "num" }, self.get(f) || 0),
        el("td", { class: "num" }, (100 * (self.get(f) || 0) / all).toFixed(1)), el("td", { class: "num" }, total.get(f))))));
}

// Stacks merged into a tree, drawn outermost frame at the top; width is samples.
function flame(stacks) {
  const root = { name: "all", n: 0, kids: new Map() };
  for (const s of stacks) {
    root.n += s.samples;
    let node = root;
    for (const f of s.stack) {
      if (!node.kids.has(f)) node.kids.set(f, { name: f, n: 0, kids: new Map() });
      node = node.kids.get(f);
      node.n += s.samples;
    }
  }
  const boxes = [];
  let depth = 0;
  (function place(node, left, d) {
    depth = Math.max(depth, d);
    boxes.push(el("div", { title: `${node.name}: ${node.n} samples`,
      style: `left:${(left * 100) / root.n}%;width:${(node.n * 100) / root.n}%;top:${d * 17}px;` +
        `background:hsl(${30 + ((node.name.length * 37) % 30)},90%,${62 + (d % 3) * 6}%)` }, node.name));
    let x = left;
    for (const k of node.kids.values()) { place(k, x, d + 1); x += k.n; }
  })(root, 0, 0);
  return el("div", { class: "flame", style: `height:${(depth + 1) * 17}px` }, boxes);
}

function spanLabel(s) {
  const k = s.keys;
  if (k.Query) return k.Query;
  // phpredis reports a hit only for a boolean true result (a string read is 0),
  // so only memcached's 0 means a miss.
  if (k.KVOp) return k.KVOp + (k.KVKey != null ? " " + k.KVKey : "") +
    (k.KVHit ? " (hit)" : k.KVHit === 0 && s.layer === "memcached" ? " (miss)" : "");
  if (k.RemoteURL) return `${k.HTTPMethod || ""} ${k.RemoteURL}` + (k.HTTPStatus ? ` → ${k.HTTPStatus}` : "");
  if (k.URL) return `${k.Method || ""} ${k.URL}` + (k.Status ? ` → ${k.Status}` : "");
  return k.Function || k.FunctionName || "";
}

async function trace(task) {
  const [spans, profile] = await Promise.all([get("/api/trace?task=" + task), get("/api/profile?task=" + task)]);
  if (!spans.length) { view.replaceChildren(el("p", {}, "No such trace.")); return; }
  const t0 = Math.min(...spans.map((s) => s.start));
  const t1 = Math.max(...spans.map((s) => s.end || s.start));
  const width = Math.max(1, t1 - t0);
  const root = spans[0];
  const rows = [];
  for (const s of spans) {
    const left = ((s.start - t0) * 100) / width, w = (((s.end || t1) - s.start) * 100) / width;
    const known = ["PHP", "cURL", "php_http", "php_pdo", "php_mysqli", "phpredis", "memcached"].includes(s.layer);
    rows.push(el("tr", { class: "span layer-" + s.layer + (s.errors.length ? " failed" : "") },
      el("td", { class: "name", title: spanLabel(s), style: `padding-left:${8 + s.depth * 16}px` },
        el("b", {}, s.layer), " ", spanLabel(s)),
      el("td", {}, s.service || s.host),
      el("td", { class: "num" }, s.end ? ms(s.end - s.start) : "open"),
      el("td", { class: "bar" }, el("span", { class: known ? "" : "other", style: `left:${left}%;width:${w}%` }))));
    for (const e of s.errors) {
      rows.push(el("tr", { class: "error" }, el("td", { colspan: 4, class: "detail err", style: `padding-left:${24 + s.depth * 16}px` },
        `${e.ErrorClass || "error"}: ${e.ErrorMsg || ""}`)));
    }
  }
  view.replaceChildren(
    el("p", {}, el("a", { href: "#/" }, "← all traces")),
    el("h2", {}, `${root.keys.TransactionName || root.layer} — ${ms(width)} ms, ${spans.length} spans`),
    el("p", { class: "muted" }, "trace ", el("code", {}, task)),
    table("waterfall", [["span"], ["service"], ["ms", 1], ["timeline"]], rows),
    el("h2", {}, "Profile of this request"),
    topFrames(profile));
}

async function route() {
  const m = location.hash.match(/^#\/trace\/([0-9A-Fa-f]+)/);
  try {
    await (m ? trace(m[1]) : home());
    counts();
  } catch (e) {
    view.replaceChildren(el("p", { class: "err" }, "The Collector did not answer: " + e));
  }
}

window.addEventListener("hashchange", route);
route();
// The list fills as requests come in: the home view refreshes itself while it is shown.
setInterval(() => { if (!location.hash.startsWith("#/trace/") && !document.hidden) route(); }, 5000);
