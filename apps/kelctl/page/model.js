"use strict";

// The story as marks in lanes. Names from outside are keys of maps only.

const kLanesOfAGroup = 24;
const kHost = "host";
const kUntaken = "taken by nobody";
const kOthers = "\u0000others";

const kFilterGroups = [
  ["observation", "Observations"], ["timer", "Timers"], ["waits", "Pending records"], ["counts", "Windows"],
  ["holds", "Hold-offs"], ["decision", "Other decisions"], ["problem", "Problems"], ["audit", "Audits"],
  ["clear", "Clears"], ["delivery", "Delivery"], ["action", "Actions"], ["host", "Host and agent"],
];

// What is drawn for a mark, and in which of the filter's kinds it is.
const kKinds = new Map([
  ["observation", "observation"], ["timer", "timer"], ["waits", "waits"], ["counts", "counts"], ["holds", "holds"],
  ["decision", "decision"], ["problem", "problem"], ["audit", "audit"], ["clear", "clear"], ["queued", "delivery"],
  ["waiting", "delivery"], ["resent", "delivery"], ["dropped", "delivery"], ["lost", "delivery"],
  ["other", "delivery"], ["action", "action"], ["host", "host"],
]);
const kEventKinds = new Set(["problem", "audit", "clear", "dropped", "queued", "resent", "waiting", "lost"]);
const kBars = new Set(["waits", "counts", "holds"]);

const kLatest = 9e15;
const timeOf = (value, otherwise) => (Math.abs(value) <= kLatest ? number(value, otherwise) : otherwise);

/**
 * Where a step stands on the axis: the time that passed before it. A clock that is set back lets no time pass,
 * so that the order of the steps is the order of the axis; from then on the axis shows the new times.
 */
function layAxis(story, steps) {
  const first = steps.length ? timeOf(steps[0].time_us, 0) : 0;
  const from = Math.min(timeOf(story.from_us, first), first);
  const axis = { at: new Float64Array(steps.length), segments: [{ at: 0, wall: from }], setBack: new Map() };
  let wall = from;
  let at = 0;
  steps.forEach((step, index) => {
    const time = timeOf(step.time_us, wall);
    if (time >= wall) {
      at += time - wall;
      wall = time;
    } else if (step.what !== "timer" || wall - time > 2e6) {
      const stepped = index > 0 && steps[index - 1].what === "clock" ? index - 1 : index;
      axis.setBack.set(stepped, { from: wall, to: time });
      axis.segments.push({ at, wall: time });
      wall = time;
    }
    axis.at[index] = at;
    if (step.what === "clock" && timeOf(step.to_us, undefined) !== undefined) {
      axis.segments.push({ at, wall: step.to_us });
      wall = step.to_us;
    }
  });
  axis.total = Math.max(at + Math.max(timeOf(story.to_us, wall) - wall, 0), 1e6);
  return axis;
}

/** The wall time that the axis shows at a place. */
function wallAt(axis, at) {
  let found = axis.segments[0];
  for (const segment of axis.segments) {
    if (segment.at <= at) found = segment;
  }
  return found.wall + (at - found.at);
}

const orEmpty = (value) => (value === null || value === undefined ? {} : value);

class Model {
  constructor(story) {
    this.story = story && typeof story === "object" ? story : {};
    this.steps = listOf(this.story.steps).map((step) => (step && typeof step === "object" ? step : {}));
    this.axis = layAxis(this.story, this.steps);
    this.marks = [];
    this.groups = new Map();
    this.firstMark = new Uint32Array(this.steps.length + 1);
    this.subjects = knownSubjects(this.steps);
    this.steps.forEach((step, index) => {
      this.firstMark[index] = this.marks.length;
      this.addStep(step, index);
    });
    this.firstMark[this.steps.length] = this.marks.length;
    this.endBarsAtRestarts();
    this.limitLanes();
  }

  lane(correlator, subject) {
    let group = this.groups.get(correlator);
    if (!group) this.groups.set(correlator, (group = { name: correlator, lanes: new Map(), merged: 0 }));
    let lane = group.lanes.get(subject);
    if (!lane) group.lanes.set(subject, (lane = { group, subject, weight: 0 }));
    return lane;
  }

  add(kind, step, lane, what, seconds) {
    const at = this.axis.at[step];
    const end = seconds > 0 ? Math.min(at + seconds * 1e6, this.axis.total) : at;
    lane.weight += kind === "problem" ? 1000 : kEventKinds.has(kind) || kind === "action" ? 100 : 1;
    this.marks.push({ kind, step, lane, what, at, end, letter: "", back: undefined });
    return this.marks[this.marks.length - 1];
  }

  addStep(step, index) {
    const back = this.axis.setBack.get(index);
    if (back) Object.assign(this.add("host", index, this.lane(kHost, ""), step), { letter: "C", back });
    if (step.what !== "observation" && step.what !== "timer" && !(back && step.what === "clock")) {
      this.add("host", index, this.lane(kHost, ""), step).letter = (plain(step.what)[0] || "?").toUpperCase();
    }
    const taken = listOf(step.taken).filter((one) => one && typeof one === "object");
    for (const one of taken) this.addTaken(step, index, one);
    if (!taken.length && step.what === "observation") this.add("observation", index, this.lane(kUntaken, ""), step);
    if (!taken.length && step.what === "timer") this.add("timer", index, this.lane(kHost, ""), step);
  }

  addTaken(step, index, taken) {
    const name = plain(taken.correlator) || "unnamed";
    const decisions = listOf(taken.decisions).filter((one) => one && typeof one === "object");
    const subjects = subjectsOf(step, decisions, this.subjects.get(name));
    if (step.what === "observation" || step.what === "timer") {
      for (const subject of subjects) this.add(step.what, index, this.lane(name, subject), step);
    }
    for (const decision of decisions) this.addDecision(index, name, decision);
    for (const event of listOf(taken.events)) {
      const { kind, text } = orEmpty(event);
      this.add(kEventKinds.has(kind) ? kind : "other", index, this.lane(name, subjectNamed(subjects, text)), orEmpty(event));
    }
    for (const action of listOf(taken.actions)) {
      this.add("action", index, this.lane(name, subjectNamed(subjects, plain(action))), orEmpty(action));
    }
  }

  addDecision(index, name, decision) {
    const seconds = number(decision.seconds, 0);
    const kind = seconds <= 0 ? "decision" : decision.kind === "waits" || decision.kind === "counts" ? decision.kind : "holds";
    this.add(kind, index, this.lane(name, plain(decision.subject)), decision, seconds);
  }

  /** A first start knows nothing of what was pending before. */
  endBarsAtRestarts() {
    const restarts = [];
    this.steps.forEach((step, index) => {
      if (step.what === "restart") restarts.push(index);
    });
    if (!restarts.length) return;
    let next = 0;
    for (const mark of this.marks) {
      while (next < restarts.length && restarts[next] <= mark.step) ++next;
      if (next < restarts.length) mark.end = Math.min(mark.end, this.axis.at[restarts[next]]);
    }
  }

  /** Where a correlator saw very many objects, the quietest of them share a lane. */
  limitLanes() {
    for (const group of this.groups.values()) {
      if (group.lanes.size <= kLanesOfAGroup) continue;
      const lanes = [...group.lanes.values()].sort((a, b) => b.weight - a.weight || byName(a.subject, b.subject));
      const rest = { group, subject: kOthers, weight: 0 };
      for (const lane of lanes.slice(kLanesOfAGroup - 1)) lane.shared = rest;
      group.merged = lanes.length - kLanesOfAGroup + 1;
      group.others = rest;
    }
  }

  timeOf(step) {
    return timeOf(this.steps[step].time_us, wallAt(this.axis, this.axis.at[step]));
  }

  sortedGroups() {
    const rank = (group) => (group.name === kHost ? 0 : group.name === kUntaken ? 2 : 1);
    return [...this.groups.values()].sort((a, b) => rank(a) - rank(b) || byName(a.name, b.name));
  }
}

function knownSubjects(steps) {
  const known = new Map();
  for (const step of steps) {
    for (const taken of listOf(step.taken)) {
      const name = plain(taken && taken.correlator) || "unnamed";
      if (!known.has(name)) known.set(name, new Set());
      for (const decision of listOf(taken && taken.decisions)) known.get(name).add(plain(decision && decision.subject));
    }
  }
  return known;
}

/** The objects a correlator decided about; where it decided nothing, a known one that the observation names. */
function subjectsOf(step, decisions, known) {
  const named = new Set(decisions.map((decision) => plain(decision.subject)));
  if (named.size > 1) named.delete("");
  if (named.size) return [...named];
  const argued = listOf(step.args).find((value) => typeof value === "string" && value !== "" && known && known.has(value));
  return [argued === undefined ? "" : argued];
}

/** The object whose name stands in a text, if there are several; the longest one, as "qnic1" stands in "qnic10". */
function subjectNamed(subjects, text) {
  if (subjects.length === 1) return subjects[0];
  const inText = subjects.filter((subject) => subject && plain(text).includes(subject));
  return inText.sort((a, b) => b.length - a.length)[0] || "";
}

function subjectText(lane) {
  return lane.subject === "" ? "" : shown(lane.subject);
}

/** What a mark says, in one line. */
function markText(model, mark) {
  const step = model.steps[mark.step];
  if (mark.back) {
    const { from, to } = mark.back;
    return `Clock set back by ${spanText(from - to)}` + (step.what === "clock" && step.text ? `: ${plain(step.text)}` : "");
  }
  switch (mark.kind) {
    case "observation": return `${plain(step.id)} ${listOf(step.args).map(argument).join(", ")}`;
    case "timer": return "A timer fell due";
    case "host": return `${plain(step.what)}: ${plain(step.text)}`;
    case "action": return plain(mark.what);
    case "problem": case "audit": case "clear": return plain(mark.what.text) || plain(mark.what.event);
    default: return kEventKinds.has(mark.kind) || mark.kind === "other" ? eventText(mark.what) : plain(mark.what.text);
  }
}

function eventText(event) {
  return [plain(event.kind), plain(event.event), plain(event.text)].filter(Boolean).join(" ");
}

const kKindNames = new Map([
  ["observation", "Observation"], ["timer", "Timer"], ["waits", "Pending record"], ["counts", "Window"],
  ["holds", "Hold-off"], ["decision", "Decision"], ["problem", "Problem"], ["audit", "Audit"], ["clear", "Clear"],
  ["queued", "Queued"], ["waiting", "Waiting"], ["resent", "Resent"], ["dropped", "Dropped"], ["lost", "Lost"],
  ["other", "Event"], ["action", "Action"], ["host", "Host"],
]);
