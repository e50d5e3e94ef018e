"use strict";

// What is known of one step: the panel beside the time line.

function chip(kind, text) {
  return make("span", { class: `chip c-${kind}` }, text);
}

function stepTitle(model, index) {
  const step = model.steps[index];
  if (step.what === "observation") return shown(step.id || "observation");
  if (step.what === "timer") return "A timer fell due";
  return shown(step.what || "step");
}

function lasting(model, mark) {
  if (!kBars.has(mark.kind)) return "";
  const seconds = plural(Number(mark.what.seconds), "second");
  return `lasts ${spanText(mark.what.seconds * 1e6)} (${seconds}), until ${timeText(model.timeOf(mark.step) + mark.what.seconds * 1e6)}`;
}

function factsOf(model, mark) {
  const step = model.steps[mark.step];
  const rows = [["Time", `${timeText(model.timeOf(mark.step))} ${shown(model.story.clock || "UTC")}`]];
  if (mark.lane.subject) rows.push(["Object", subjectText(mark.lane)]);
  rows.push(["Correlator", shown(mark.lane.group.name)]);
  if (step.line !== undefined) rows.push(["Line", plain(step.line)]);
  const args = listOf(step.args);
  if (args.length) rows.push(["Arguments", shown(args.map(argument).join(", "))]);
  return make("dl", {}, rows.map(([name, value]) => make("div", {}, make("dt", {}, name), make("dd", {}, value))));
}

const kDecisionKinds = new Set(["counts", "waits", "holds", "concludes", "acts", "forgets"]);

function decisionNode(decision) {
  const { kind, name, subject, text, seconds } = orEmpty(decision);
  return make("li", {}, chip(kDecisionKinds.has(kind) ? kind : "other", shown(kind || "decision")),
    subject ? make("b", {}, shown(subject) + " ") : "", make("span", { class: "text" }, shown(text)),
    make("span", { class: "minor" }, shown(name), seconds > 0 ? ` · ${spanText(seconds * 1e6)}` : ""));
}

function eventNode(event) {
  const { kind, text, event: name } = orEmpty(event);
  return make("li", {}, chip(kEventKinds.has(kind) ? kind : "other", shown(kind || "event")),
    make("span", { class: "text" }, shown(text)), make("span", { class: "minor" }, shown(name)));
}

function actionNode(action) {
  return make("li", {}, chip("action", "action"), make("code", {}, shown(plain(action))));
}

/** What a correlator made of a step: decisions, events, actions and notes, as a list. */
function takenList(taken) {
  return make("ul", { class: "taken" }, listOf(taken.decisions).map(decisionNode), listOf(taken.events).map(eventNode),
    listOf(taken.actions).map(actionNode), listOf(taken.notes).map((note) => make("li", { class: "note" }, shown(note))));
}

function takenNodes(step) {
  return listOf(step.taken).filter(Boolean).map((taken) => {
    const list = takenList(taken);
    if (!list.childElementCount) list.append(make("li", { class: "note" }, "nothing to say"));
    return make("section", { class: "by" }, make("h4", {}, shown(taken.correlator || "unnamed")), list);
  });
}

class Details {
  constructor(app) {
    this.app = app;
    this.box = byId("details");
    this.clear();
  }

  get isOpen() {
    return this.box.classList.contains("full");
  }

  clear() {
    this.box.classList.remove("full", "pinned");
    this.box.replaceChildren(make("p", { class: "hint" }, "Point at a mark, or move to one with the arrow keys, to see what it says."));
  }

  show(mark, pinned) {
    const { model } = this.app;
    const step = model.steps[mark.step];
    const close = make("button", { type: "button", class: "close", "aria-label": "Close the details", title: "Close (Esc)" }, "×");
    close.addEventListener("click", () => this.app.close());
    const inTable = make("button", { type: "button", class: "link" }, "Show in the table");
    inTable.addEventListener("click", () => this.app.table.goTo(mark.step));
    const crowd = this.app.lanes.crowd(mark);
    this.box.classList.add("full");
    this.box.classList.toggle("pinned", pinned);
    this.box.replaceChildren(
      make("div", { class: "top" }, legendGlyph(mark.kind === "host" ? "host" : mark.kind),
        make("span", { class: "kind" }, kKindNames.get(mark.kind)), close),
      make("h3", {}, stepTitle(model, mark.step)),
      isTick(mark.kind) ? "" : make("p", { class: "said" }, shown(markText(model, mark))),
      lasting(model, mark) ? make("p", { class: "minor" }, lasting(model, mark)) : "",
      factsOf(model, mark), step.text && mark.kind !== "host" ? make("p", {}, shown(step.text)) : "", ...takenNodes(step),
      crowd > 1 ? make("p", { class: "minor" }, `${plural(crowd - 1, "more mark")} at this place: zoom in or go on with the arrow keys.`) : "",
      make("p", {}, inTable));
  }
}
