// The device: what its D-Bus object publishes, and forms made from what introspection says.

import {$, h, setText, showAnswer} from "./dom.js";
import {ask} from "./connection.js";

const MANY = 2;

function shown(value) {
  if (Array.isArray(value) && Array.isArray(value[0])) {
    return `${value.length} networks: ${value.slice(0, MANY).map(([name, , signal]) => `${JSON.stringify(name)} ${signal} dBm`)
      .join(", ")}${value.length > MANY ? ", …" : ""}`;
  }
  return JSON.stringify(value);
}

function plain(value) {
  return typeof value === "string" ? value : JSON.stringify(value);
}

export class DevicePanel {
  constructor(store) {
    this.store = store;
    this.made = "";
    this.cells = new Map();
    $("read-again").addEventListener("click", () => ask("read", {}));
  }

  update() {
    const device = this.store.device;
    if (!device) return;
    const key = JSON.stringify(device.members);
    if (this.made !== key) {
      this.made = key;
      this.#make(device.members);
    }
    this.#hero(device);
    for (const [name, cell] of this.cells) {
      const failed = device.failures[name];
      const text = name in device.values && failed === undefined ? shown(device.values[name]) : failed ?? "";
      if (cell.textContent !== text) {
        setText(cell, text);
        cell.classList.remove("new");
        void cell.offsetWidth;  // so that the next line starts the animation anew
        cell.classList.add("new");
      }
      cell.classList.toggle("bad", failed !== undefined);
    }
    $("device").classList.toggle("gone", !device.present);
  }

  #hero(device) {
    const value = device.values;
    const host = value.Mode === "Host";
    let title = "Between two modes";
    let lines = [];
    if (!device.present) {
      title = "The daemon is gone";
      lines = ["Nobody owns com.vantora.Network1; what is shown is what it said last."];
    } else if (Object.values(device.failures).includes("no answer")) {
      title = "The daemon does not answer";
      lines = ["It hangs, or takes its time; what is shown is what it said last."];
    } else if (!("Mode" in value)) {
      title = "The daemon starts";
    } else if (value.WiFiState === 0) {
      title = "Radio off";
    } else if (host) {
      title = value.WiFiAccessPointInitialised ? "Access point on the air" : "Access point, no word from hostapd";
      const count = value.WiFiConnectedClients ?? 0;
      lines = [value.SSID || "(no name yet)", `${value.WiFiFrequency || "?"} GHz`, `${count} station${count === 1 ? "" : "s"}`];
    } else if (value.Mode === "Client") {
      title = value.WiFiClientState === "completed" ? "Station, connected" : "Station, not connected";
      lines = [value.ClientSSID, value.WiFiClientState].filter(Boolean);
    }
    if (device.present && value.IPAddress) lines.push(value.IPAddress);
    const kind = !device.present || title === "The daemon does not answer" ? "gone" : value.WiFiState === 0 ? "off" : host ? "host" : "client";
    const key = JSON.stringify([title, lines, kind]);
    if (this.heroKey === key) return;
    this.heroKey = key;
    $("hero").dataset.kind = kind;
    $("hero").replaceChildren(h("p", {class: "hero-title"}, title),
                              h("p", {class: "hero-lines"}, ...lines.map((line) => h("bdi", {}, line))));
  }

  #make(members) {
    const facts = this.store.head.facts ?? {properties: {}, methods: {}, writes: {}};
    this.cells.clear();
    const order = Object.keys(facts.properties);
    const rank = (property) => (order.includes(property.name) ? order.indexOf(property.name) : order.length);
    const rows = [...members.properties].sort((one, other) => rank(one) - rank(other)).map((property) => {
      const fact = facts.properties[property.name];
      const cell = h("td", {class: "value", "data-property": property.name});
      this.cells.set(property.name, cell);
      return h("tr", {}, h("th", {scope: "row", title: fact ? `${fact.value}. Announced: ${fact.changes}.` : null}, property.name,
                           h("span", {class: "type"}, ` ${property.signature}`)),
               cell, h("td", {class: "writer"}, property.access === "readwrite" ? this.#writer(property, fact, facts.writes[property.name]) : null));
    });
    $("properties").replaceChildren(h("table", {class: "properties"},
      h("thead", {class: "unseen"}, h("tr", {}, ...["Property", "Value", "New value"].map((name) => h("th", {scope: "col"}, name)))),
      h("tbody", {}, ...rows)));
    $("methods").replaceChildren(...members.methods.map((method) => this.#caller(method, facts.methods[method.name])));
  }

  #writer(property, fact, written) {
    const words = [...(fact?.words ?? [])].filter((word) => word !== "unknown");
    const list = words.length ? h("datalist", {id: `words-${property.name}`}, ...words.map((word) => h("option", {value: word}))) : null;
    const input = h("input", {"aria-label": `new value of ${property.name}`, autocomplete: "off", spellcheck: "false",
                              list: list ? list.id : null, inputmode: property.signature === "s" ? null : "numeric"});
    return h("form", {"data-live": true, title: written ? `${written.does}. Refused: ${written.refused}.` : null, onsubmit: async (event) => {
      event.preventDefault();
      const answer = await ask("write", {name: property.name, value: input.value});
      if (answer.error === undefined) answer.text = `${property.name} is written`;
      showAnswer($("device-answer"), answer);
    }}, input, list, h("button", {"aria-label": `write ${property.name}`}, "Write"));
  }

  #caller(method, fact) {
    const inputs = method.in.map((signature, index) => {
      const name = fact?.arguments[index] ?? `argument ${index + 1}`;
      return h("label", {}, `${name} `, h("span", {class: "type"}, signature), h("input", {autocomplete: "off", spellcheck: "false"}));
    });
    return h("form", {class: "method", "data-live": true, title: fact?.does ?? null, onsubmit: async (event) => {
      event.preventDefault();
      const texts = inputs.map((label) => label.querySelector("input").value);
      const answer = await ask("call", {member: method.name, arguments: texts});
      if (answer.error === undefined) {
        answer.text = `${method.name} was answered${answer.reply.length ? `: ${answer.reply.map(plain).join(", ")}` : ""}`;
      }
      showAnswer($("device-answer"), answer);
    }}, ...inputs, h("button", {}, method.name));
  }
}
