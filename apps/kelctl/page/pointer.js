"use strict";

// Dragging, the wheel and keys on the time line, and the strip that shows the whole time.

/** Dragging chooses a stretch to zoom into; a finger moves the picture. */
function followDrags(lanes) {
  const { box } = lanes;
  const band = make("div", { class: "band" });
  let drag;
  const place = (event) => {
    const left = box.getBoundingClientRect().left + lanes.labelWidth();
    return Math.min(Math.max(event.clientX - left, 0), lanes.scale().width);
  };
  box.addEventListener("pointerdown", (event) => {
    if (event.button !== 0 || !event.target.closest("svg")) return;
    drag = { x: place(event), from: lanes.from, to: lanes.to, touch: event.pointerType === "touch", id: event.pointerId, far: false };
  });
  box.addEventListener("pointermove", (event) => {
    if (!drag || event.pointerId !== drag.id) return;
    const x = place(event);
    if (!drag.far && Math.abs(x - drag.x) < 5) return;
    if (!drag.far) begin();
    drag.far = true;
    if (drag.touch) {
      const by = (drag.x - x) / lanes.scale().factor;
      lanes.show(drag.from + by, drag.to + by);
    } else {
      band.style.left = `${lanes.labelWidth() + Math.min(x, drag.x)}px`;
      band.style.width = `${Math.abs(x - drag.x)}px`;
    }
  });
  function begin() {
    box.setPointerCapture(drag.id);
    if (drag.touch) return;
    band.style.height = `${box.scrollHeight}px`;
    box.append(band);
  }
  const end = (event) => {
    if (!drag) return;
    const { far, touch, x } = drag;
    drag = undefined;
    band.remove();
    if (!far) return;
    box.addEventListener("click", (click) => click.stopPropagation(), { capture: true, once: true });
    setTimeout(() => box.dispatchEvent(new Event("click")), 0);
    if (touch || event.type === "pointercancel") return;
    const scale = lanes.scale();
    const [from, to] = [x, place(event)].sort((a, b) => a - b);
    lanes.show(scale.at(from), scale.at(to));
  };
  box.addEventListener("pointerup", end);
  box.addEventListener("pointercancel", end);
}

function followWheel(lanes) {
  lanes.box.addEventListener("wheel", (event) => {
    const scale = lanes.scale();
    const left = lanes.box.getBoundingClientRect().left + lanes.labelWidth();
    if (event.ctrlKey || event.metaKey) {
      event.preventDefault();
      lanes.zoom(Math.exp(Math.max(-1, Math.min(1, event.deltaY / 200))), scale.at(event.clientX - left));
    } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      event.preventDefault();
      lanes.pan((event.deltaX || event.deltaY) / scale.width);
    }
  }, { passive: false });
}

/** What a key does on the time line; those for zooming work wherever nothing is being typed. */
function followKeys(app) {
  const { lanes } = app;
  const zooms = new Map([
    ["+", () => lanes.zoom(0.5)], ["=", () => lanes.zoom(0.5)], ["-", () => lanes.zoom(2)], ["_", () => lanes.zoom(2)],
    ["0", () => lanes.show(0, app.model.axis.total)],
  ]);
  const moves = new Map([
    ["ArrowRight", () => app.move(1)], ["ArrowLeft", () => app.move(-1)], ["ArrowDown", () => app.moveLane(1)],
    ["ArrowUp", () => app.moveLane(-1)], ["Home", () => app.moveTo(0)], ["End", () => app.moveTo(app.filter.marks.length - 1)],
    ["PageDown", () => lanes.pan(0.8)], ["PageUp", () => lanes.pan(-0.8)], ["Enter", () => app.open()], [" ", () => app.open()],
  ]);
  const shifted = new Map([["ArrowRight", () => lanes.pan(0.25)], ["ArrowLeft", () => lanes.pan(-0.25)]]);
  const run = (event, act) => {
    if (!act) return;
    event.preventDefault();
    act();
  };
  document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || event.target.closest("input[type=search]")) return;
    if (event.key === "Escape") app.close();
    else if (event.target !== lanes.box) run(event, zooms.get(event.key));
    else run(event, zooms.get(event.key) || (event.shiftKey ? shifted : moves).get(event.key));
  });
}

function followButtons(lanes, total) {
  const acts = { "zoom-in": () => lanes.zoom(0.5), "zoom-out": () => lanes.zoom(2), "zoom-all": () => lanes.show(0, total),
    "pan-left": () => lanes.pan(-0.4), "pan-right": () => lanes.pan(0.4) };
  for (const [id, act] of Object.entries(acts)) byId(id).addEventListener("click", act);
}

/** The strip above the lanes: how much happened when, and which part of it is seen. */
class Overview {
  constructor(app) {
    this.app = app;
    this.box = byId("overview");
    this.svg = makeSvg("svg", { focusable: "false" });
    this.window = makeSvg("rect", { class: "window", y: 0.5, height: 29, rx: 3 });
    this.box.append(this.svg);
    new ResizeObserver(() => this.lay()).observe(this.box);
    this.box.addEventListener("pointerdown", (event) => {
      this.box.setPointerCapture(event.pointerId);
      this.goTo(event);
    });
    this.box.addEventListener("pointermove", (event) => {
      if (event.buttons & 1) this.goTo(event);
    });
  }

  scale() {
    return new Scale(0, this.app.model.axis.total, Math.max(this.box.clientWidth, 80));
  }

  goTo(event) {
    const { lanes } = this.app;
    const at = this.scale().at(event.clientX - this.box.getBoundingClientRect().left);
    const half = (lanes.to - lanes.from) / 2;
    lanes.show(at - half, at + half);
  }

  lay() {
    const scale = this.scale();
    sizeSvg(this.svg, scale.width, 30);
    const all = new Float64Array(Math.ceil(scale.width / 3) + 1);
    const problems = new Float64Array(all.length);
    for (const mark of this.app.filter.marks) {
      const bin = Math.floor(scale.x(mark.at) / 3);
      ++all[bin];
      if (mark.kind === "problem") ++problems[bin];
    }
    const most = Math.log1p(all.reduce((a, b) => Math.max(a, b), 1));
    const column = (counts) => [...counts].map((count, bin) => {
      const height = count ? Math.max(2, (Math.log1p(count) / most) * 26) : 0;
      return height ? `M${bin * 3} 28v${-height}h2.5v${height}z` : "";
    }).join("");
    this.svg.replaceChildren(makeSvg("path", { class: "density", d: column(all) }),
      makeSvg("path", { class: "density problems", d: column(problems) }), this.window);
    this.draw();
  }

  draw() {
    const scale = this.scale();
    const { from, to } = this.app.lanes;
    const x = scale.x(from);
    fill(this.window, { x, width: Math.max(scale.x(to) - x, 3) }, []);
    this.window.classList.toggle("whole", to - from >= this.app.model.axis.total);
  }
}
