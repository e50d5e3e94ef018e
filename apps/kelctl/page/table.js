"use strict";

// Every step in words. On the screen a page at a time; on paper all that the filter lets through.

const kPageSteps = 250;
const kPrintedSteps = 20000;

class Table {
  constructor(app) {
    this.app = app;
    this.body = byId("steps").tBodies[0];
    this.page = 0;
    this.steps = [];
    this.rows = new Map();
  }

  lay() {
    this.steps = [];
    this.app.filter.shownSteps.forEach((isShown, step) => {
      if (isShown) this.steps.push(step);
    });
    this.page = 0;
    this.draw();
  }

  pages() {
    return Math.max(1, Math.ceil(this.steps.length / kPageSteps));
  }

  draw() {
    const begin = this.page * kPageSteps;
    this.fillRows(this.steps.slice(begin, begin + kPageSteps));
    this.showPager(begin);
  }

  fillRows(steps) {
    this.rows = new Map(steps.map((step) => [step, this.row(step)]));
    this.body.replaceChildren(...this.rows.values());
    if (!steps.length) this.body.append(make("tr", {}, make("td", { colspan: 4 }, "No step passes the filter.")));
    this.markCurrent();
  }

  row(index) {
    const { model } = this.app;
    const step = model.steps[index];
    const button = make("button", { type: "button", class: "link time", title: "Show on the time line" },
      timeText(model.timeOf(index)));
    button.addEventListener("click", () => this.app.pickStep(index));
    const args = listOf(step.args).map(argument).join(", ");
    const back = model.axis.setBack.get(index);
    return make("tr", { class: step.what === "observation" || step.what === "timer" ? "" : "host-step" },
      make("td", { class: "when" }, button), make("td", { class: "number" }, plain(step.line)),
      make("td", { class: "saw" }, make("b", {}, stepTitle(model, index)), args ? make("div", { class: "args" }, shown(args)) : "",
        step.text ? make("div", {}, shown(step.text)) : "",
        back ? make("div", { class: "note" }, `Clock set back by ${spanText(back.from - back.to)}`) : ""),
      make("td", { class: "made" }, takenNodes(step)));
  }

  showPager(begin) {
    const button = (text, label, page) => {
      const one = make("button", { type: "button", "aria-label": label, disabled: page < 0 || page >= this.pages() }, text);
      one.addEventListener("click", () => this.turnTo(page));
      return one;
    };
    const end = Math.min(begin + kPageSteps, this.steps.length);
    const text = this.steps.length ? `${counted(begin + 1)}–${counted(end)} of ${plural(this.steps.length, "step")}` : "no steps";
    const nodes = [make("span", { id: "shown-steps" }, text)];
    if (this.pages() > 1) {
      nodes.unshift(button("«", "First page", this.page ? 0 : -1), button("‹", "Page before", this.page - 1));
      nodes.push(button("›", "Next page", this.page + 1), button("»", "Last page", this.page + 1 < this.pages() ? this.pages() - 1 : -1));
    }
    byId("pager").replaceChildren(...nodes);
  }

  turnTo(page) {
    this.page = page;
    this.draw();
    byId("table-title").scrollIntoView({ block: "nearest" });
  }

  goTo(step) {
    const at = this.steps.indexOf(step);
    if (at < 0) return;
    if (Math.floor(at / kPageSteps) !== this.page) {
      this.page = Math.floor(at / kPageSteps);
      this.draw();
    }
    const row = this.rows.get(step);
    row.scrollIntoView({ block: "center" });
    row.querySelector("button").focus({ preventScroll: true });
  }

  markCurrent() {
    const { active } = this.app;
    for (const row of this.body.querySelectorAll("[aria-current]")) row.removeAttribute("aria-current");
    const row = active && this.rows.get(active.step);
    if (row) row.setAttribute("aria-current", "true");
  }

  drawForPrint() {
    this.fillRows(this.steps.slice(0, kPrintedSteps));
    const cut = this.steps.length > kPrintedSteps ? `; the first ${counted(kPrintedSteps)} are printed` : "";
    byId("pager").replaceChildren(make("span", {}, plural(this.steps.length, "step") + cut));
  }
}
