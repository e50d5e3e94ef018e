"use strict";

// Rows as SVG. All marks of one kind in a row are one path; marks that fall on the same point are one mark with
// their number, so that what is drawn is bounded by the width of the row and not by the length of the story.

const kPadding = 10;
const kProblemsAt = 10;
const kEventsAt = 21;
const kActionsAt = 32;
const kTickBottom = 38;
const kBarsAt = 42;
const kBarHeight = 5;
const kBarGap = 2;
const kGlyphWidth = 18;

const kGlyphs = new Map([
  ["problem", (x, y) => `M${x} ${y - 6}l6.5 11h-13z`],
  ["audit", (x, y) => `M${x - 5} ${y}a5 5 0 1 0 10 0a5 5 0 1 0 -10 0z`],
  ["clear", (x, y) => `M${x - 5} ${y - 5}h10v10h-10z`],
  ["action", (x, y) => `M${x} ${y - 6.5}l6.5 6.5l-6.5 6.5l-6.5 -6.5z`],
  ["queued", (x, y) => `M${x - 4} ${y}a4 4 0 1 0 8 0a4 4 0 1 0 -8 0z`],
  ["waiting", (x, y) => `M${x - 4} ${y - 5}h8l-8 10h8z`],
  ["resent", (x, y) => `M${x - 4} ${y - 5}l9 5l-9 5z`],
  ["dropped", (x, y) => `M${x - 4} ${y - 4}l8 8m0 -8l-8 8`],
  ["lost", (x, y) => `M${x - 5} ${y - 5}h10v10h-10zl10 10m0 -10l-10 10`],
  ["other", (x, y) => `M${x} ${y - 5}l5 5l-5 5l-5 -5z`],
  ["host", (x, y) => `M${x - 7} ${y - 7}h14v14h-14z`],
  ["decision", (x, y) => `M${x - 2} ${y}a2 2 0 1 0 4 0a2 2 0 1 0 -4 0z`],
  ["observation", (x) => `M${x} 3v34`],
  ["timer", (x) => `M${x} 3v5m0 3v5m0 3v5m0 3v5m0 3v2`],
]);

function glyphHeight(kind) {
  if (kind === "decision") return kTickBottom;
  if (kind === "problem") return kProblemsAt;
  return kind === "audit" || kind === "clear" || kind === "host" ? kEventsAt : kActionsAt;
}

const isTick = (kind) => kind === "observation" || kind === "timer";
const rounded = (x) => Math.round(x * 2) / 2;

function legendGlyph(kind) {
  const shapes = { delivery: "queued" };
  const drawn = shapes[kind] || kind;
  const svg = makeSvg("svg", { class: "glyph", width: 20, height: 16, viewBox: "0 0 20 16", "aria-hidden": "true" });
  if (kBars.has(drawn)) svg.append(makeSvg("path", { class: `k-${drawn}`, d: "M1 5h18v6h-18z" }));
  else if (isTick(drawn)) svg.append(makeSvg("path", { class: `k-${drawn}`, d: drawn === "timer" ? "M10 1v3m0 2v3m0 2v4" : "M10 1v14" }));
  else svg.append(makeSvg("path", { class: `k-${drawn}`, d: kGlyphs.get(drawn)(10, 8) }));
  return svg;
}

/** What of the time is seen, on how many pixels. */
class Scale {
  constructor(from, to, width) {
    Object.assign(this, { from, to, width });
    this.factor = (width - 2 * kPadding) / (to - from);
  }
  x(at) { return kPadding + (at - this.from) * this.factor; }
  at(x) { return this.from + (x - kPadding) / this.factor; }
}

function lowerBound(marks, at) {
  let low = 0;
  let high = marks.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (marks[middle].at < at) low = middle + 1;
    else high = middle;
  }
  return low;
}

const kDistances = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1e3, 2e3, 5e3, 1e4, 2e4, 5e4, 1e5, 2e5, 5e5,
  ...[1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400, 2 * 86400, 7 * 86400,
    30 * 86400, 90 * 86400, 365 * 86400, 3650 * 86400].map((seconds) => seconds * 1e6)];

const kMostTicks = 400;

/** The labelled places of the axis: round wall times, of each stretch between two clock steps. */
function ticksOf(axis, scale) {
  const least = (scale.to - scale.from) / Math.max(scale.width / 96, 1);
  const distance = kDistances.find((one) => one >= least) || kDistances[kDistances.length - 1];
  const ticks = [];
  axis.segments.forEach((segment, index) => {
    const end = index + 1 < axis.segments.length ? axis.segments[index + 1].at : axis.total;
    const from = Math.max(segment.at, scale.from);
    const offset = segment.wall - segment.at;
    const first = Math.ceil((from + offset) / distance);
    const last = Math.floor((Math.min(end, scale.to) + offset) / distance);
    for (let n = first; n <= last && n < first + kMostTicks; ++n) {
      const x = scale.x(n * distance - offset);
      if (!ticks.length || x - ticks[ticks.length - 1].x > 60) ticks.push({ x, text: tickText(n * distance, distance) });
    }
  });
  return { ticks, distance };
}

function barTracks(marks) {
  const kinds = new Set();
  for (const mark of marks) {
    if (kBars.has(mark.kind)) kinds.add(mark.kind);
    if (kinds.size === kBars.size) break;
  }
  return [...kBars].filter((kind) => kinds.has(kind));
}

const rowHeight = (tracks) => kBarsAt + tracks.length * (kBarHeight + kBarGap) + 3;

class RowPainter {
  constructor(row, scale) {
    Object.assign(this, { row, scale, paths: new Map(), badges: [], letters: [], open: new Map() });
  }

  path(kind, d) {
    const pieces = this.paths.get(kind);
    if (pieces) pieces.push(d);
    else this.paths.set(kind, [d]);
  }

  tick(mark) {
    const x = rounded(this.scale.x(mark.at));
    if (this.open.get(mark.kind) === x) return;
    this.open.set(mark.kind, x);
    this.path(mark.kind, kGlyphs.get(mark.kind)(x));
  }

  bar(mark) {
    const x = rounded(Math.max(this.scale.x(mark.at), -2));
    const end = Math.max(rounded(Math.min(this.scale.x(mark.end), this.scale.width + 2)), x + 3);
    const last = this.open.get(mark.kind);
    if (last && x <= last.end) {
      last.end = Math.max(last.end, end);
      return;
    }
    this.closeBar(mark.kind);
    this.open.set(mark.kind, { x, end });
  }

  closeBar(kind) {
    const bar = this.open.get(kind);
    if (!bar) return;
    const y = kBarsAt + this.row.tracks.indexOf(kind) * (kBarHeight + kBarGap);
    this.path(kind, `M${bar.x} ${y}h${bar.end - bar.x}v${kBarHeight}h${bar.x - bar.end}z`);
    this.open.delete(kind);
  }

  glyph(mark) {
    const x = rounded(this.scale.x(mark.at));
    const last = this.open.get(mark.kind);
    if (last && x - last.x < (mark.kind === "decision" ? 3 : kGlyphWidth)) {
      ++last.count;
      return;
    }
    this.closeGlyph(mark.kind);
    this.open.set(mark.kind, { x, count: 1, letter: mark.letter });
  }

  closeGlyph(kind) {
    const one = this.open.get(kind);
    if (!one) return;
    const y = glyphHeight(kind);
    this.path(kind, kGlyphs.get(kind)(one.x, y));
    if (one.letter) this.letters.push({ x: one.x, y: y + 4, text: one.letter });
    if (one.count > 1 && kind !== "decision") this.badges.push({ x: one.x + (kind === "host" ? 9 : 6), y: y - 2, text: badge(one.count), kind });
    this.open.delete(kind);
  }

  paint() {
    const { row, scale } = this;
    const margin = 10 / scale.factor;
    for (let i = lowerBound(row.marks, scale.from - Math.max(margin, row.longest)); i < row.marks.length; ++i) {
      const mark = row.marks[i];
      if (mark.at > scale.to + margin) break;
      if (mark.end < scale.from - margin) continue;
      if (isTick(mark.kind)) this.tick(mark);
      else if (kBars.has(mark.kind)) this.bar(mark);
      else this.glyph(mark);
    }
    for (const kind of [...this.open.keys()]) {
      if (kBars.has(kind)) this.closeBar(kind);
      else if (!isTick(kind)) this.closeGlyph(kind);
    }
    return this.nodes();
  }

  nodes() {
    const nodes = [];
    for (const kind of kGlyphOrder) {
      const pieces = this.paths.get(kind);
      if (pieces) nodes.push(makeSvg("path", { class: `k-${kind}`, d: pieces.join("") }));
    }
    for (const { x, y, text } of this.letters) nodes.push(makeSvg("text", { class: "letter", x, y }, text));
    for (const { x, y, text, kind } of this.badges) nodes.push(makeSvg("text", { class: `badge b-${kind}`, x, y }, text));
    return nodes;
  }
}

// From the ground up.
const kGlyphOrder = ["counts", "waits", "holds", "observation", "timer", "decision", "queued", "waiting", "resent",
  "other", "dropped", "lost", "action", "host", "audit", "clear", "problem"];

const badge = (count) => (count > 999 ? "999+" : String(count));

/** Where a mark is drawn, for the ring around it. */
function placeOf(mark, row, scale) {
  const x = scale.x(mark.at);
  if (isTick(mark.kind)) return { x, y: kEventsAt };
  if (!kBars.has(mark.kind)) return { x, y: glyphHeight(mark.kind) };
  return { x, y: kBarsAt + row.tracks.indexOf(mark.kind) * (kBarHeight + kBarGap) + kBarHeight / 2 };
}

function gridPath(axis, scale, height) {
  return ticksOf(axis, scale).ticks.map(({ x }) => `M${rounded(x)} 0v${height}`).join("");
}

function breakPath(axis, scale, height) {
  return axis.segments.slice(1).filter(({ at }) => at >= scale.from && at <= scale.to)
    .map(({ at }) => `M${rounded(scale.x(at))} 0v${height}`).join("");
}

function drawRow(app, row, scale, active) {
  const { svg, height } = row;
  sizeSvg(svg, scale.width, height);
  const { axis } = app.model;
  const nodes = [makeSvg("path", { class: "grid", d: gridPath(axis, scale, height) })];
  const breaks = breakPath(axis, scale, height);
  if (breaks) nodes.push(makeSvg("path", { class: "break", d: breaks }));
  nodes.push(...new RowPainter(row, scale).paint());
  if (active && active.at <= scale.to && active.at >= scale.from) nodes.push(ring(app, active, row, scale));
  svg.replaceChildren(...nodes);
}

function ring(app, mark, row, scale) {
  const { x, y } = placeOf(mark, row, scale);
  const label = `${kKindNames.get(mark.kind)}: ${shown(markText(app.model, mark))}`;
  return makeSvg("g", { id: "active-mark", role: "img", "aria-label": label },
    makeSvg("circle", { class: "ring", cx: x, cy: y, r: 10 }), makeSvg("circle", { class: "ring inner", cx: x, cy: y, r: 10 }));
}

function sizeSvg(svg, width, height) {
  fill(svg, { width, height, viewBox: `0 0 ${width} ${height}` }, []);
}

function drawAxis(app, svg, scale) {
  const height = 26;
  sizeSvg(svg, scale.width, height);
  const { ticks } = ticksOf(app.model.axis, scale);
  const nodes = ticks.map(({ x, text }) =>
    makeSvg("text", { x, y: 16, class: "tick" + (x < 34 ? " first" : x > scale.width - 34 ? " last" : "") }, text));
  nodes.push(makeSvg("path", { class: "grid", d: ticks.map(({ x }) => `M${rounded(x)} 21v5`).join("") }));
  nodes.push(makeSvg("path", { class: "break", d: breakPath(app.model.axis, scale, height) }));
  svg.replaceChildren(...nodes);
}
