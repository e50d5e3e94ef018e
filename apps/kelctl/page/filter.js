"use strict";

// What of the story is shown.

class Filter {
  constructor(model) {
    this.model = model;
    this.words = [];
    this.hiddenKinds = new Set();
    this.hiddenGroups = new Set();
    this.shownSteps = new Uint8Array(model.steps.length);
    this.marks = [];
    this.apply();
  }

  search(text) {
    this.words = text.toLowerCase().split(/\s+/).filter(Boolean);
  }

  get active() {
    return this.words.length > 0 || this.hiddenKinds.size > 0 || this.hiddenGroups.size > 0;
  }

  /** Every word stands somewhere in what the mark, or the observation it comes from, says. */
  matches(mark) {
    const step = this.model.steps[mark.step];
    const what = mark.what;
    const text = [step.id, listOf(step.args).map(plain).join(" "), mark.lane.group.name, mark.lane.subject, what.name,
      what.event, markText(this.model, mark)].map(plain).join("\n").toLowerCase();
    return this.words.every((word) => text.includes(word));
  }

  apply() {
    this.shownSteps.fill(0);
    this.marks = this.model.marks.filter((mark) =>
      !this.hiddenKinds.has(kKinds.get(mark.kind)) && !this.hiddenGroups.has(mark.lane.group) &&
      (!this.words.length || this.matches(mark)));
    for (const mark of this.marks) this.shownSteps[mark.step] = 1;
    for (let step = 0; step < this.shownSteps.length; ++step) {
      if (!this.active) this.shownSteps[step] = 1;
    }
  }
}

function checkbox(label, glyph, count, changed) {
  const input = make("input", { type: "checkbox", checked: true });
  input.checked = true;
  input.addEventListener("change", () => changed(input.checked));
  return make("label", {}, input, glyph, make("span", {}, label), make("span", { class: "count" }, counted(count)));
}

function showFilterControls(app) {
  const { model, filter } = app;
  const kinds = new Map();
  const groups = new Map();
  for (const mark of model.marks) {
    const kind = kKinds.get(mark.kind);
    kinds.set(kind, (kinds.get(kind) || 0) + 1);
    groups.set(mark.lane.group, (groups.get(mark.lane.group) || 0) + 1);
  }
  const toggle = (set, value) => (checked) => {
    if (checked) set.delete(value);
    else set.add(value);
    app.filterChanged();
  };
  for (const [kind, label] of kFilterGroups) {
    if (!kinds.has(kind)) continue;
    byId("kinds").append(checkbox(label, legendGlyph(kind), kinds.get(kind), toggle(filter.hiddenKinds, kind)));
  }
  for (const group of model.sortedGroups()) {
    byId("correlators").append(checkbox(shown(group.name), "", groups.get(group) || 0, toggle(filter.hiddenGroups, group)));
  }
  let pending = 0;
  byId("search").addEventListener("input", () => {
    clearTimeout(pending);
    pending = setTimeout(() => {
      filter.search(byId("search").value);
      app.filterChanged();
    }, model.marks.length > 50000 ? 250 : 60);
  });
}
