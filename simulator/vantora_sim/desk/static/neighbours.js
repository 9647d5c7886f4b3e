// The neighbours: the daemons around, what runs of them, the units, and what the settings daemon keeps.

import {$, h, setText, showAnswer} from "./dom.js";
import {ask, get} from "./connection.js";

const ACTIONS = [["kill", "Kill"], ["hang", "Hang"], ["release", "Release"], ["start", "Start"]];

export class NeighboursPanel {
  constructor(store) {
    this.store = store;
    this.rows = new Map();
    this.stored = "";
    this.typed = new Map();
    $("settings-again").addEventListener("click", () => this.read());
  }

  update() {
    const state = this.store.state;
    if (!state) return;
    if (!this.rows.size) this.#make(Object.keys(state.running));
    for (const [name, row] of this.rows) {
      const how = !state.running[name] ? "gone" : state.hanging.includes(name) ? "hanging" : "running";
      if (row.element.dataset.how !== how) {
        row.element.dataset.how = how;
        setText(row.how, how);
        row.buttons.kill.dataset.no = String(how === "gone");
        row.buttons.hang.dataset.no = String(how !== "running");
        row.buttons.release.dataset.no = String(how !== "hanging");
        row.buttons.start.dataset.no = String(how !== "gone" || name === "vantora-network");
        for (const button of Object.values(row.buttons)) button.disabled = button.dataset.no === "true" || document.body.dataset.connected !== "true";
      }
    }
    const units = JSON.stringify([state.units, state.enabled]);
    if (this.units !== units) {
      this.units = units;
      $("units").replaceChildren(...Object.entries(state.units).map(([unit, how]) => h("li", {"data-how": how}, h("span", {class: "unit"}, unit),
        h("span", {class: "small how"}, how + (state.enabled.includes(unit) ? ", enabled" : "")))));
    }
  }

  async read() {
    const answer = await get("settings");
    if (answer.error !== undefined) {
      showAnswer($("neighbours-answer"), answer);
      return;
    }
    const key = JSON.stringify(answer.settings);
    if (this.stored === key) return;
    this.stored = key;
    const rows = [];
    for (const [section, values] of Object.entries(answer.settings)) {
      for (const [name, value] of Object.entries(values)) rows.push(this.#setting(`${section}.${name}`, value));
    }
    $("settings").replaceChildren(h("table", {class: "properties"},
      h("thead", {class: "unseen"}, h("tr", {}, ...["Setting", "Stored value"].map((one) => h("th", {scope: "col"}, one)))), h("tbody", {}, ...rows)));
  }

  #setting(name, value) {
    const input = typeof value === "boolean"
      ? h("select", {"aria-label": name}, ...["true", "false"].map((one) => h("option", {value: one}, one)))
      : h("input", {"aria-label": name, autocomplete: "off", spellcheck: "false"});
    input.value = String(value);
    return h("tr", {"data-setting": name}, h("th", {scope: "row"}, name), h("td", {class: "writer"}, h("form", {"data-live": true, onsubmit: async (event) => {
      event.preventDefault();
      showAnswer($("neighbours-answer"), await ask("command", {command: "set", arguments: {setting: name, value: input.value}}));
      this.read();
    }}, input, h("button", {"aria-label": `set ${name}`}, "Set"))));
  }

  #make(names) {
    $("daemons").replaceChildren(...names.map((name) => {
      const how = h("span", {class: "how"});
      const buttons = {};
      for (const [verb, text] of ACTIONS) {
        buttons[verb] = h("button", {type: "button", class: "quiet", "data-live": true, "aria-label": `${verb} ${name}`, onclick: async () => {
          showAnswer($("neighbours-answer"), await ask("command", {command: verb, arguments: {neighbour: name}}));
        }}, text);
      }
      const element = h("li", {"data-daemon": name}, h("span", {class: "daemon"}, name), how, h("span", {class: "buttons"}, ...Object.values(buttons)));
      this.rows.set(name, {element, how, buttons});
      return element;
    }));
  }
}
