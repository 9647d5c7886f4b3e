// The time line: what is in view, what is filtered out, and who draws it.

import {$, h, setText} from "./dom.js";
import {LANES, LEVELS, wordsOf} from "./store.js";
import {Curves} from "./curves.js";
import {firstAt, Lanes, timeText} from "./lanes.js";
import {EntryList} from "./list.js";

const FIRST_SPAN = 30;
const SHORTEST = 0.005;
const INDEX = Object.fromEntries(LANES.map((lane, index) => [lane.id, index]));
const CURVES_EVERY = 500;

export class TimeLine {
  constructor(store) {
    this.store = store;
    this.live = true;
    this.paused = false;
    this.chosen = null;
    this.lanesShown = new Set(LANES.map((lane) => lane.id));
    this.reset();
    const gutter = () => (innerWidth < 600 ? 106 : 120);
    this.curves = new Curves(store, gutter);
    this.lanes = new Lanes($("lanes"), gutter);
    this.list = new EntryList($("list"), (entry, byKey) => this.choose(entry, byKey), () => $("detail").focus());
    this.drawnCurves = 0;
    this.reveal = false;  // the chosen entry shall be scrolled to
    this.took = 0;  // milliseconds of the last picture
    this.#wire();
  }

  reset() {
    this.view = {from: 0, to: FIRST_SPAN};
    this.seen = 0;
    this.filtered = [];
    this.counts = LANES.map(() => 0);
    this.chosen = null;
  }

  // Times

  now() {
    const clock = this.live && this.store.head.started ? Date.now() / 1000 - this.store.head.started : 0;
    return Math.max(clock, this.store.end, 0.001);
  }

  fit() {
    this.setPaused(true);
    this.view = {from: 0, to: Math.max(this.now(), SHORTEST)};
    this.draw();
  }

  zoom(factor, at = 0.5) {
    const span = Math.max(SHORTEST, Math.min((this.view.to - this.view.from) * factor, Math.max(this.now() * 1.05, FIRST_SPAN)));
    const middle = this.paused ? this.view.from + (this.view.to - this.view.from) * at : this.view.to;
    this.view = this.paused ? {from: middle - span * at, to: middle + span * (1 - at)} : {from: middle - span, to: middle};
    this.draw();
  }

  move(share) {
    this.setPaused(true);
    const span = this.view.to - this.view.from;
    const from = Math.max(-span / 2, Math.min(this.view.from + share * span, this.now() - span / 2));
    this.view = {from, to: from + span};
    this.draw();
  }

  setPaused(paused) {
    this.paused = paused;
    $("pause").setAttribute("aria-pressed", String(paused));
    setText($("pause"), paused ? "Follow" : "Pause");
    if (!paused) this.list.atEnd = true;
  }

  // Entries

  choose(entry, byKey = false) {
    this.chosen = entry;
    if (byKey) this.setPaused(true);
    this.#detail(entry);
    this.draw();
  }

  refilter() {
    this.seen = 0;
    this.filtered = [];
    this.advance();
    this.reveal = this.chosen !== null;
    this.draw();
  }

  // Take up what is new in the store.
  advance() {
    const {entries} = this.store;
    const search = $("search").value.toLowerCase();
    const least = LEVELS[$("level").value];
    for (; this.seen < entries.length; this.seen += 1) {
      const entry = entries[this.seen];
      if (entry.laneIndex === undefined) {
        entry.laneIndex = INDEX[entry.lane] ?? 0;
        this.counts[entry.laneIndex] += 1;
      }
      if (entry.rank >= least && this.lanesShown.has(LANES[entry.laneIndex].id) && (search === "" || wordsOf(entry).includes(search))) this.filtered.push(entry);
    }
  }

  // What became of calls may let them through, or not, where errors or words are looked for.
  changed() {
    if (LEVELS[$("level").value] > 1 || $("search").value) this.refilter();
  }

  draw() {
    if (this.waiting) return;
    this.waiting = true;
    requestAnimationFrame(() => {
      this.waiting = false;
      this.#draw();
    });
  }

  #draw() {
    const began = performance.now();
    if (!this.paused) {
      const span = this.view.to - this.view.from;
      const now = this.now();
      const to = Math.max(now, span);
      this.view = {from: to - span, to};
    }
    this.lanes.draw(this.filtered, this.view, this.chosen);
    const from = firstAt(this.filtered, this.view.from);
    const to = firstAt(this.filtered, this.view.to + 1e-6);
    this.list.show(this.filtered, from, Math.max(to, from), this.chosen);
    if (this.reveal) this.#reveal(from, to);
    setText($("shown"), `${(to - from).toLocaleString("en")} of ${this.store.entries.length.toLocaleString("en")} entries in view, `
            + `${timeText(Math.max(this.view.from, 0))} to ${timeText(this.view.to)}${this.store.lost ? `, ${this.store.lost} forgotten` : ""}`);
    const time = performance.now();
    if (time - this.drawnCurves > CURVES_EVERY || this.paused) {
      this.drawnCurves = time;
      this.curves.update(this.view, this.now());
    }
    this.took = performance.now() - began;
  }

  // What was found by a search is seen among the others when the search is over.
  #reveal(from, to) {
    this.reveal = false;
    const index = this.filtered.indexOf(this.chosen);
    if (index < from || index >= to) return;
    this.list.atEnd = false;
    this.list.reveal(index);
  }

  #detail(entry) {
    if (!entry) return;
    const facts = [["time", timeText(entry.t, 0.001)], ["lane", LANES[entry.laneIndex].name], ["kind", entry.what]];
    const {body} = entry;
    for (const name of ["from", "to", "bus", "path", "interface", "member", "signature", "ident", "priority", "command"]) {
      if (typeof body[name] === "string" && body[name] !== "") facts.push([name, body[name]]);
    }
    if (entry.d !== null) facts.push(["took", `${(entry.d * 1000).toFixed(3)} ms`]);
    if (entry.error) facts.push(["error", `${entry.error.name}: ${entry.error.text}`]);
    const whole = {...body};
    if (entry.reply !== null && !entry.error) whole.reply = entry.reply;
    $("detail").replaceChildren(
      h("h3", {}, h("bdi", {}, entry.title)),
      h("dl", {}, ...facts.flatMap(([name, value]) => [h("dt", {}, name), h("dd", {}, h("bdi", {}, value))])),
      h("pre", {}, JSON.stringify(whole, null, 2)));
  }

  // Controls

  #wire() {
    $("pause").addEventListener("click", () => { this.setPaused(!this.paused); this.draw(); });
    $("earlier").addEventListener("click", () => this.move(-0.5));
    $("later").addEventListener("click", () => this.move(0.5));
    $("zoom-in").addEventListener("click", () => this.zoom(0.5));
    $("zoom-out").addEventListener("click", () => this.zoom(2));
    $("fit").addEventListener("click", () => this.fit());
    $("search").addEventListener("input", () => this.refilter());
    $("level").addEventListener("change", () => this.refilter());
    $("lane-choice").replaceChildren(...LANES.map((lane) => h("button", {type: "button", class: "chip lane-chip", "data-lane": lane.id, "aria-pressed": "true", onclick: (event) => {
      const shown = !this.lanesShown.has(lane.id);
      if (shown) this.lanesShown.add(lane.id);
      else this.lanesShown.delete(lane.id);
      event.currentTarget.setAttribute("aria-pressed", String(shown));
      this.refilter();
    }}, lane.name)));
    const canvas = $("lanes");
    canvas.addEventListener("wheel", (event) => {
      if (!event.ctrlKey && !event.shiftKey) return;  // the page scrolls
      event.preventDefault();
      const at = Math.max(0, Math.min(1, (event.offsetX - this.lanes.gutter()) / (canvas.clientWidth - this.lanes.gutter())));
      if (event.ctrlKey) this.zoom(event.deltaY > 0 ? 1.25 : 0.8, at);
      else this.move(Math.sign(event.deltaY || event.deltaX) * 0.1);
    }, {passive: false});
    canvas.addEventListener("pointerdown", (event) => this.#drag(event));
    new ResizeObserver(() => this.draw()).observe(canvas);
  }

  #drag(event) {
    const canvas = $("lanes");
    canvas.setPointerCapture(event.pointerId);
    const begin = {x: event.clientX, from: this.view.from, to: this.view.to};
    let moved = false;
    const follow = (move) => {
      const way = move.clientX - begin.x;
      if (!moved && Math.abs(way) < 4) return;
      moved = true;
      this.setPaused(true);
      const time = (way * (begin.to - begin.from)) / (canvas.clientWidth - this.lanes.gutter());
      this.view = {from: begin.from - time, to: begin.to - time};
      this.draw();
    };
    const finish = (up) => {
      canvas.removeEventListener("pointermove", follow);
      if (moved) return;
      const found = this.lanes.find(this.filtered, this.view, up.offsetX, up.offsetY);
      if (found) this.choose(found);
    };
    canvas.addEventListener("pointermove", follow);
    canvas.addEventListener("pointerup", finish, {once: true});
  }

  recolour() {
    this.lanes.readColours();
    this.curves.update(this.view, this.now());
    this.draw();
  }
}
