// The entries in view as a list: only the rows that can be seen exist, however many there are.

import {h, setText} from "./dom.js";
import {LANES} from "./store.js";
import {timeText} from "./lanes.js";

const ROW = 28;
const AROUND = 6;
const PAGE = 10;

export class EntryList {
  constructor(element, choose, entered) {
    this.element = element;
    this.spacer = element.querySelector(".spacer");
    this.choose = choose;
    this.entered = entered;
    this.rows = [];
    this.entries = [];
    this.from = 0;
    this.to = 0;
    this.chosen = null;
    this.atEnd = true;
    element.addEventListener("scroll", () => {
      this.atEnd = element.scrollTop + element.clientHeight >= element.scrollHeight - ROW;
      this.render();
    });
    element.addEventListener("keydown", (event) => this.#key(event));
  }

  // Entries from one index to before another are in view.
  show(entries, from, to, chosen) {
    Object.assign(this, {entries, from, to, chosen});
    const height = `${(to - from) * ROW}px`;
    if (this.spacer.style.height !== height) this.spacer.style.height = height;
    if (this.atEnd) this.element.scrollTop = this.element.scrollHeight;
    this.render();
  }

  render() {
    const first = Math.max(0, Math.floor(this.element.scrollTop / ROW) - AROUND);
    const count = Math.min(this.to - this.from - first, Math.ceil(this.element.clientHeight / ROW) + 2 * AROUND);
    while (this.rows.length < count) this.rows.push(this.#make());
    let active = null;
    this.rows.forEach((row, index) => {
      const inUse = index < count;
      row.element.hidden = !inUse;
      if (!inUse) return;
      const position = first + index;
      const entry = this.entries[this.from + position];
      row.entry = entry;
      row.element.style.transform = `translateY(${position * ROW}px)`;
      row.element.setAttribute("aria-posinset", position + 1);
      row.element.setAttribute("aria-setsize", this.to - this.from);
      const chosen = entry === this.chosen;
      row.element.setAttribute("aria-selected", String(chosen));
      if (chosen) active = row.element.id;
      const level = entry.rank >= 4 ? "err" : entry.rank === 3 ? "warning" : entry.rank === 0 ? "debug" : "info";
      if (row.element.dataset.level !== level) row.element.dataset.level = level;
      if (row.element.dataset.lane !== entry.lane) row.element.dataset.lane = entry.lane;
      setText(row.time, timeText(entry.t));
      setText(row.lane, LANES[entry.laneIndex].name);
      setText(row.title, entry.error ? `${entry.title}: ${entry.error.text || entry.error.name}` : entry.title);
      setText(row.took, entry.d === null ? "" : entry.d < 0.0995 ? `${(entry.d * 1000).toFixed(1)} ms` : `${entry.d.toFixed(2)} s`);
    });
    if (active) this.element.setAttribute("aria-activedescendant", active);
    else this.element.removeAttribute("aria-activedescendant");
  }

  #make() {
    const row = {time: h("span", {class: "time"}), lane: h("span", {class: "lane"}), title: h("bdi", {class: "title"}), took: h("span", {class: "took"}), entry: null};
    row.element = h("div", {class: "entry", role: "option", id: `entry-${this.rows.length}`, onclick: () => this.choose(row.entry)},
                    row.time, row.lane, row.title, row.took);
    this.element.append(row.element);
    return row;
  }

  #key(event) {
    const steps = {ArrowUp: -1, ArrowDown: 1, PageUp: -PAGE, PageDown: PAGE, Home: -Infinity, End: Infinity};
    if (event.key === "Enter" && this.chosen) {
      event.preventDefault();
      this.entered();
    }
    if (!(event.key in steps) || this.to === this.from) return;
    event.preventDefault();
    const present = this.chosen ? this.entries.indexOf(this.chosen, this.from) : -1;
    const begin = present >= this.from && present < this.to ? present : event.key === "ArrowDown" ? this.from - 1 : this.to;
    const index = Math.max(this.from, Math.min(this.to - 1, begin + steps[event.key]));
    this.choose(this.entries[index], true);
    this.reveal(index);
  }

  reveal(index) {
    const top = (index - this.from) * ROW;
    if (top < this.element.scrollTop) this.element.scrollTop = top;
    else if (top + ROW > this.element.scrollTop + this.element.clientHeight) this.element.scrollTop = top + ROW - this.element.clientHeight;
    this.render();
  }
}
