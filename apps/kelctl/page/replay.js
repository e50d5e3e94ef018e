"use strict";

// The page: what is shown of the story, and the mark one stands on.

class App {
  constructor(story) {
    this.model = new Model(story);
    this.filter = new Filter(this.model);
    this.lanes = new Lanes(this);
    this.details = new Details(this);
    this.table = new Table(this);
    this.overview = new Overview(this);
    this.active = undefined;
    this.pinned = false;
  }

  start() {
    if (matchMedia("(max-width: 60rem)").matches) byId("choice").open = false;
    this.showHead();
    showFilterControls(this);
    followDrags(this.lanes);
    followWheel(this.lanes);
    followKeys(this);
    followButtons(this.lanes, this.model.axis.total);
    addEventListener("beforeprint", () => this.beforePrint());
    addEventListener("afterprint", () => this.afterPrint());
    this.filterChanged();
  }

  showHead() {
    const { story, steps, axis, marks } = this.model;
    const host = shown(story.host || "a host");
    document.title = `${host}: replay of ${shown(story.capture || "a capture")}`;
    byId("host").textContent = `What ${host} saw`;
    const counts = orEmpty(story.counts);
    const of = (kinds) => marks.reduce((sum, mark) => sum + (kinds.has(mark.kind) ? 1 : 0), 0);
    const events = number(counts.events, of(new Set(["problem", "audit", "clear"])));
    const facts = [["Capture", shown(story.capture)],
      ["From", `${timeText(wallAt(axis, 0))} ${shown(story.clock || "UTC")}`],
      ["To", `${timeText(timeOf(story.to_us, wallAt(axis, axis.total)))} ${shown(story.clock || "UTC")}`], ["Time passed", spanText(axis.total)],
      ["Observations", counted(number(counts.observations, of(new Set(["observation"]))))], ["Events", counted(events)],
      ["Actions", counted(number(counts.actions, of(new Set(["action"]))))], ["Steps", counted(steps.length)], ["Made by", `kelctl ${shown(story.version)}`]];
    byId("facts").append(...facts.map(([name, value]) => make("div", {}, make("dt", {}, name), make("dd", {}, value))));
  }

  filterChanged() {
    this.filter.apply();
    if (this.active && !this.filter.marks.includes(this.active)) {
      this.close();
      this.leave();
    }
    this.lanes.lay();
    this.table.lay();
    this.overview.lay();
    this.showNotice();
  }

  viewChanged() {
    this.overview.draw();
    this.showNotice();
  }

  showNotice() {
    const { model, filter, lanes } = this;
    const parts = [];
    if (filter.active) parts.push(`${counted(filter.marks.length)} of ${plural(model.marks.length, "mark")} pass the filter.`);
    if (lanes.to - lanes.from < model.axis.total) {
      const [from, to] = [lanes.from, lanes.to].map((at) => timeText(wallAt(model.axis, at)));
      parts.push(`Shown: ${from} to ${to}, ${spanText(lanes.to - lanes.from)}.`);
    }
    if (model.steps.length > kPageSteps * 4) {
      parts.push("Marks too near one another to be told apart are drawn as one, with their number; zoom in to part them.");
    }
    for (const group of model.groups.values()) {
      if (group.merged) parts.push(`${shown(group.name)}: the ${plural(group.merged, "quietest object")} share one lane.`);
    }
    if (model.steps.length > kPrintedSteps) parts.push(`On paper the table ends after ${counted(kPrintedSteps)} steps.`);
    byId("notice").textContent = parts.join(" ");
  }

  hover(mark) {
    if (this.pinned || mark === this.hovered) return;
    this.hovered = mark;
    if (mark) this.details.show(mark, false);
    else if (this.active) this.details.show(this.active, false);
  }

  stand(mark) {
    this.active = mark;
    this.lanes.reveal(mark);
    this.lanes.draw();
    this.details.show(mark, this.pinned);
    this.table.markCurrent();
    this.lanes.box.setAttribute("aria-activedescendant", "active-mark");
    const where = mark.lane.subject ? `, ${subjectText(mark.lane)}` : "";
    byId("live").textContent = `${kKindNames.get(mark.kind)}, ${timeText(this.model.timeOf(mark.step))}, ` +
      `${shown(mark.lane.group.name)}${where}: ${shown(markText(this.model, mark))}`;
  }

  pick(mark) {
    this.lanes.box.focus({ preventScroll: true });
    if (!mark) return this.close();
    this.pinned = true;
    return this.stand(mark);
  }

  pickStep(step) {
    const { marks, firstMark } = this.model;
    const own = marks.slice(firstMark[step], firstMark[step + 1]).filter((mark) => this.filter.marks.includes(mark));
    const best = own.find((mark) => mark.kind === "problem") || own.find((mark) => kEventKinds.has(mark.kind)) || own[0];
    if (!best) return;
    byId("line-title").scrollIntoView({ block: "start" });
    this.pick(best);
  }

  moveTo(at) {
    const { marks } = this.filter;
    if (marks.length) this.stand(marks[Math.min(Math.max(at, 0), marks.length - 1)]);
  }

  move(by) {
    const { marks } = this.filter;
    const at = this.active ? marks.indexOf(this.active) : -1;
    if (at >= 0) this.moveTo(at + by);
    else this.moveTo(by > 0 ? lowerBound(marks, this.lanes.from) : lowerBound(marks, this.lanes.to) - 1);
  }

  /** To the nearest mark in time of the next lane up or down that has any. */
  moveLane(by) {
    if (!this.active) return this.move(1);
    const { rows } = this.lanes;
    let at = rows.indexOf(this.lanes.rowFor(this.active)) + by;
    while (rows[at] && !rows[at].marks.length) at += by;
    if (!rows[at]) return undefined;
    const { marks } = rows[at];
    const next = Math.min(lowerBound(marks, this.active.at), marks.length - 1);
    const before = Math.max(next - 1, 0);
    const nearer = this.active.at - marks[before].at < marks[next].at - this.active.at && next > 0;
    return this.stand(marks[nearer ? before : next]);
  }

  open() {
    if (!this.active) this.move(1);
    if (!this.active) return;
    this.pinned = true;
    this.details.show(this.active, true);
    this.details.box.focus({ preventScroll: true });
  }

  /** Closes the details; where they are closed, leaves the mark. */
  close() {
    const inside = this.details.box.contains(document.activeElement);
    const wasOpen = this.details.isOpen;
    this.pinned = false;
    this.hovered = undefined;
    this.details.clear();
    if (!wasOpen) this.leave();
    if (inside) this.lanes.box.focus({ preventScroll: true });
  }

  leave() {
    this.active = undefined;
    this.lanes.box.removeAttribute("aria-activedescendant");
    this.lanes.draw();
    this.table.markCurrent();
  }

  beforePrint() {
    this.lanes.drawForPrint();
    this.table.drawForPrint();
  }

  afterPrint() {
    this.lanes.endPrint();
    this.table.draw();
  }
}

function start() {
  const story = byId("story");
  const parsed = JSON.parse(exactIntegers(story.textContent));
  story.remove();
  new App(parsed).start();
}

start();
