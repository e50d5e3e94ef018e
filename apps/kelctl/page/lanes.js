"use strict";

// The lanes: rows of the picture, which of them are drawn, and what of the time is seen.

const kFewLanes = 40;
const kLeastSpan = 200;

class Lanes {
  constructor(app) {
    this.app = app;
    this.box = byId("lanes");
    this.from = 0;
    this.to = app.model.axis.total;
    this.all = false;
    this.printing = false;
    this.rowOf = new Map();
    this.collapsed = new Set();
    const groups = app.model.sortedGroups();
    const count = groups.reduce((sum, group) => sum + Math.min(group.lanes.size, kLanesOfAGroup), 0);
    if (count > kFewLanes) groups.filter((group) => group.lanes.size > 8).forEach((group) => this.collapsed.add(group));
    this.axis = makeSvg("svg", { "aria-hidden": "true", focusable: "false" });
    this.head = make("div", { class: "row axis" }, make("div", { class: "label" }, shown(app.model.story.clock || "UTC")), this.axis);
    this.box.addEventListener("scroll", () => this.draw());
    new ResizeObserver(() => this.draw()).observe(this.box);
  }

  scale(width) {
    return new Scale(this.from, this.to, width || Math.max(this.box.clientWidth - this.labelWidth(), 80));
  }

  labelWidth() {
    return this.head.firstChild.offsetWidth;
  }

  /** Lays the rows anew, for what the filter lets through. */
  lay() {
    const byLane = new Map();
    for (const mark of this.app.filter.marks) {
      const lane = this.collapsed.has(mark.lane.group) && !this.all ? mark.lane.group : mark.lane.shared || mark.lane;
      const marks = byLane.get(lane);
      if (marks) marks.push(mark);
      else byLane.set(lane, [mark]);
    }
    this.rowOf = new Map();
    this.rows = [];
    for (const group of this.app.model.sortedGroups()) this.layGroup(group, byLane);
    this.box.replaceChildren(this.head, ...this.rows.map((row) => row.node));
    if (!this.rows.length) this.box.append(make("p", { class: "nothing" }, "Nothing of the story passes the filter."));
    this.draw();
  }

  layGroup(group, byLane) {
    if (byLane.has(group)) {
      this.addRow(this.groupRow(group, byLane.get(group), true), group);
      return;
    }
    const lanes = [...group.lanes.values()].filter((lane) => byLane.has(lane)).sort((a, b) => byName(a.subject, b.subject));
    if (group.others && byLane.has(group.others)) lanes.push(group.others);
    if (!lanes.length) return;
    const single = lanes.length === 1 && lanes[0].subject === "";
    this.addRow(this.groupRow(group, single ? byLane.get(lanes[0]) : [], single), single ? lanes[0] : group);
    if (single) return;
    for (const lane of lanes) this.addRow(this.laneRow(lane, byLane.get(lane)), lane);
  }

  addRow(row, key) {
    this.rows.push(row);
    this.rowOf.set(key, row);
  }

  groupRow(group, marks, filled) {
    const foldable = group.lanes.size > 1 || !group.lanes.has("");
    const open = !this.collapsed.has(group) || this.all;
    const name = make("span", { class: "name" }, shown(group.name));
    const label = foldable
      ? make("button", { type: "button", "aria-expanded": String(open), title: shown(group.name) },
        make("span", { class: "arrow", "aria-hidden": "true" }, open ? "▾" : "▸"), name,
        make("span", { class: "count" }, counted(group.lanes.size)))
      : make("span", { class: "plain" }, name);
    if (foldable) label.addEventListener("click", () => this.toggle(group));
    return this.row("row group" + (filled ? "" : " bare"), label, marks);
  }

  laneRow(lane, marks) {
    const others = lane === lane.group.others;
    const text = others ? `${plural(lane.group.merged, "more object")}` : subjectText(lane) || "in general";
    const quiet = others || !lane.subject;
    return this.row("row lane", make("span", { class: "name" + (quiet ? " quiet" : ""), title: text }, text), marks);
  }

  row(className, label, marks) {
    const svg = makeSvg("svg", { "aria-hidden": "true", focusable: "false" });
    const tracks = barTracks(marks);
    const height = marks.length ? rowHeight(tracks) : 24;
    const node = make("div", { class: className }, make("div", { class: "label" }, label), svg);
    const longest = marks.reduce((most, mark) => Math.max(most, mark.end - mark.at), 0);
    const row = { node, svg, marks, tracks, height, longest, drawn: "" };
    node.style.height = `${height}px`;
    svg.addEventListener("pointermove", (event) => this.app.hover(this.markAt(row, event)));
    svg.addEventListener("pointerleave", () => this.app.hover(undefined));
    svg.addEventListener("click", (event) => this.app.pick(this.markAt(row, event)));
    return row;
  }

  toggle(group) {
    if (!this.collapsed.delete(group)) this.collapsed.add(group);
    this.lay();
    const row = this.rowOf.get(group);
    if (row) row.node.querySelector("button").focus();
  }

  rowFor(mark) {
    return this.rowOf.get(mark.lane.shared || mark.lane) || this.rowOf.get(mark.lane.group);
  }

  /** The mark that is meant by a place in a row: the nearest, and an event rather than a tick. */
  markAt(row, event) {
    const box = row.svg.getBoundingClientRect();
    const scale = this.scale();
    const x = event.clientX - box.left;
    const y = event.clientY - box.top;
    return y >= kBarsAt - 1 ? this.barAt(row, scale.at(x), y, scale) || this.pointAt(row, x, y, scale) : this.pointAt(row, x, y, scale);
  }

  pointAt(row, x, y, scale) {
    let best;
    let least = 10;
    for (let i = lowerBound(row.marks, scale.at(x - 9)); i < row.marks.length; ++i) {
      const mark = row.marks[i];
      const away = Math.abs(scale.x(mark.at) - x);
      if (scale.x(mark.at) > x + 9) break;
      if (kBars.has(mark.kind)) continue;
      const worth = isTick(mark.kind) ? away + 4 : away + Math.abs(glyphHeight(mark.kind) - y) / 4;
      if (worth < least) [best, least] = [mark, worth];
    }
    return best;
  }

  barAt(row, at, y, scale) {
    const kind = row.tracks[Math.floor((y - kBarsAt) / (kBarHeight + kBarGap))];
    const slack = 3 / scale.factor;
    for (let i = lowerBound(row.marks, at + slack) - 1; i >= 0; --i) {
      const mark = row.marks[i];
      if (mark.at < at - row.longest - slack) return undefined;
      if (mark.kind === kind && mark.end >= at - slack) return mark;
    }
    return undefined;
  }

  /** How many marks are drawn where this one is. */
  crowd(mark) {
    const row = this.rowFor(mark);
    const scale = this.scale();
    const reach = 5 / scale.factor;
    return row ? lowerBound(row.marks, mark.at + reach) - lowerBound(row.marks, mark.at - reach) : 1;
  }

  show(from, to) {
    const { total } = this.app.model.axis;
    const span = Math.min(Math.max(to - from, kLeastSpan), total);
    this.from = Math.min(Math.max(from, 0), total - span);
    this.to = this.from + span;
    this.draw();
    this.app.viewChanged();
  }

  zoom(factor, around) {
    const middle = around === undefined ? this.anchor() : around;
    this.show(middle - (middle - this.from) * factor, middle + (this.to - middle) * factor);
  }

  /** Zooming keeps the mark in sight that one stands on. */
  anchor() {
    const { active } = this.app;
    const inside = active && active.at >= this.from && active.at <= this.to;
    return inside ? active.at : (this.from + this.to) / 2;
  }

  pan(part) {
    const by = (this.to - this.from) * part;
    this.show(this.from + by, this.to + by);
  }

  reveal(mark) {
    const span = this.to - this.from;
    if (mark.at < this.from || mark.at > this.to) this.show(mark.at - span / 2, mark.at + span / 2);
    if (this.collapsed.has(mark.lane.group) && !this.rowFor(mark)) this.lay();
    const row = this.rowFor(mark);
    if (row) this.scrollTo(row);
  }

  scrollTo(row) {
    const top = row.node.offsetTop - this.head.offsetHeight;
    if (top < this.box.scrollTop) this.box.scrollTop = top;
    const bottom = row.node.offsetTop + row.height;
    if (bottom > this.box.scrollTop + this.box.clientHeight) this.box.scrollTop = bottom - this.box.clientHeight;
  }

  draw() {
    if (!this.rows || this.printing) return;
    const scale = this.scale();
    drawAxis(this.app, this.axis, scale);
    const top = this.box.scrollTop - 200;
    const bottom = this.box.scrollTop + this.box.clientHeight + 200;
    let at = this.head.offsetHeight;
    for (const row of this.rows) {
      if (at + row.height >= top && at <= bottom) this.drawRow(row, scale);
      at += row.height;
    }
  }

  drawRow(row, scale) {
    const { active } = this.app;
    const mine = active && this.rowFor(active) === row ? active : undefined;
    const key = [scale.from, scale.to, scale.width, mine ? `${mine.at} ${mine.kind} ${mine.step}` : ""].join();
    if (row.drawn === key) return;
    row.drawn = key;
    drawRow(this.app, row, scale, mine);
  }

  /** The whole time in all lanes, on a width that paper has. */
  drawForPrint() {
    this.all = true;
    this.lay();
    this.printing = true;
    const scale = new Scale(0, this.app.model.axis.total, 860);
    drawAxis(this.app, this.axis, scale);
    for (const row of this.rows) drawRow(this.app, row, scale, undefined);
  }

  endPrint() {
    this.all = false;
    this.printing = false;
    this.lay();
  }
}
