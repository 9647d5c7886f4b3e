// The air: networks by how strongly they are received, stations, radio and cable.

import {$, arrange, h, setText, showAnswer, svg} from "./dom.js";
import {ask} from "./connection.js";

const STRONGEST = -30;   // in the picture
const WEAKEST = -100;
const MOST = 0;          // of the sliders: what vantora-simctl takes
const LEAST = -120;
const HEARD = -92;
const USABLE = -86;
const RINGS = [-45, -60, -75, HEARD];
const RADIUS = 150;
const CENTRE = 170;
const LABELS = 7;
const CROWD = 40;

export function networkName(network) {
  return network.hidden ? `${network.ssid} (hidden)` : network.ssid;
}

function distance(dbm) {
  const share = (STRONGEST - Math.max(Math.min(dbm, STRONGEST), WEAKEST)) / (STRONGEST - WEAKEST);
  return 22 + share * (RADIUS - 22);
}

// Each turned from the one before by the golden angle: evenly spread however many come, and nobody moves for a new one.
const GOLDEN = Math.PI * (3 - Math.sqrt(5));
const FIRST_TURN = 0.65;  // so that the first few leave the labels of the rings free
const OFF = "switch off ";
const ON = "On again: ";

// What a row is made of; all else changes in it.
function rowKey(network) {
  return JSON.stringify([network.ssid_hex, network.band, network.channel, network.security, network.hidden, network.passphrase !== ""]);
}

export class AirPanel {
  constructor(store) {
    this.store = store;
    this.rows = new Map();
    this.dots = new Map();
    this.turns = new Map();   // by address, in radians
    this.moved = new Map();   // by address: what a person is choosing, until the server says the same
    this.moving = new Set();  // of these a request is under way
    this.key = "";
    this.#makeRadar();
    this.#makeForm();
    $("network-search").addEventListener("input", () => this.#filter());
  }

  async command(command, given, place = "air-answer") {
    const answer = await ask("command", {command, arguments: given});
    showAnswer($(place), answer);
    return answer;
  }

  update() {
    const state = this.store.state;
    if (!state) return;
    const key = JSON.stringify([state.networks.map((one) => [one.bssid, rowKey(one)]), state.removed?.map((one) => one.bssid)]);
    if (this.key !== key) {
      this.key = key;
      this.#makeRows(state.networks, state.removed ?? []);
    }
    const joined = state.client.bssid;
    for (const network of state.networks) {
      const row = this.rows.get(network.bssid);
      const chosen = this.moved.get(network.bssid);
      if (chosen !== undefined && chosen === network.strength) this.moved.delete(network.bssid);
      if (!this.moved.has(network.bssid) && document.activeElement !== row.slider) row.slider.value = network.strength;
      row.element.classList.toggle("joined", network.bssid === joined);
      row.badge.hidden = network.bssid !== joined;
    }
    this.signals();
    this.#stations(state);
    this.#switches(state);
    const heard = state.networks.filter((network) => (this.store.signal(network.bssid) ?? network.strength) >= HEARD).length;
    setText($("air-count"), `${state.networks.length} networks, ${heard} strong enough to be heard`);
  }

  signals() {
    const state = this.store.state;
    if (!state) return;
    // Among too many the names would stand on each other: a search, or the pointer, tells them then.
    const sought = state.networks.filter((one) => !this.rows.get(one.bssid)?.element.hidden);
    const ranked = sought.length > CROWD ? [] : sought.sort((one, other) => other.strength - one.strength).slice(0, LABELS).map((one) => one.bssid);
    for (const network of state.networks) {
      const signal = this.store.signal(network.bssid) ?? network.strength;
      const row = this.rows.get(network.bssid);
      if (!row) continue;
      setText(row.signal, `${signal} dBm`);
      row.slider.setAttribute("aria-valuetext", `${network.strength} dBm`);
      const dot = this.dots.get(network.bssid);
      const away = distance(this.moved.get(network.bssid) ?? signal);
      const turn = this.turns.get(network.bssid);
      dot.element.setAttribute("transform", `translate(${CENTRE + away * Math.cos(turn)} ${CENTRE + away * Math.sin(turn)})`);
      dot.element.setAttribute("class", ["dot", network.security === "open" ? "open" : "", network.bssid === state.client.bssid ? "joined" : "",
        signal < HEARD ? "lost" : signal < USABLE ? "weak" : "", ranked.includes(network.bssid) ? "named" : "", row.element.hidden ? "faded" : ""].join(" "));
      dot.label.setAttribute("text-anchor", Math.cos(turn) > 0.3 ? "end" : Math.cos(turn) < -0.3 ? "start" : "middle");
    }
  }

  #makeRadar() {
    this.layer = svg("g");
    const picture = svg("svg", {viewBox: `0 0 ${2 * CENTRE} ${2 * CENTRE}`, role: "img",
                                "aria-label": "The device in the middle, networks around it, the nearer the stronger; the list has the same as text"},
      ...RINGS.map((dbm) => svg("circle", {class: dbm === HEARD ? "ring last" : "ring", cx: CENTRE, cy: CENTRE, r: distance(dbm)})),
      ...RINGS.map((dbm) => svg("text", {class: "ring-label", x: CENTRE, y: CENTRE - distance(dbm) - 3}, `${dbm}`)),
      svg("circle", {class: "pulse", cx: CENTRE, cy: CENTRE, r: 20}),
      svg("rect", {class: "self", x: CENTRE - 11, y: CENTRE - 8, width: 22, height: 16, rx: 4}),
      svg("circle", {class: "self-light", cx: CENTRE + 6, cy: CENTRE + 3, r: 2}),
      this.layer);
    $("radar").replaceChildren(picture, h("p", {class: "muted hint"}, "Drag a network nearer or farther, or use the sliders."));
    this.picture = picture;
  }

  #dragFrom(network, event) {
    if (document.body.dataset.connected !== "true") return;
    event.preventDefault();
    const element = this.dots.get(network.bssid).element;
    element.setPointerCapture(event.pointerId);
    const follow = (move) => {
      const box = this.picture.getBoundingClientRect();
      const scale = (2 * CENTRE) / box.width;
      const away = Math.hypot((move.clientX - box.left) * scale - CENTRE, (move.clientY - box.top) * scale - CENTRE);
      const share = Math.max(0, Math.min(1, (away - 22) / (RADIUS - 22)));
      this.moved.set(network.bssid, Math.round(STRONGEST - share * (STRONGEST - WEAKEST)));
      this.rows.get(network.bssid).slider.value = this.moved.get(network.bssid);
      this.signals();
    };
    const finish = () => {
      element.removeEventListener("pointermove", follow);
      const dbm = this.moved.get(network.bssid);
      if (dbm !== undefined) this.#move(network.bssid, dbm);
    };
    element.addEventListener("pointermove", follow);
    element.addEventListener("pointerup", finish, {once: true});
    element.addEventListener("pointercancel", finish, {once: true});
  }

  // One request at a time for each network, then the latest value: requests that overlap may be done in any order.
  async #move(bssid, dbm) {
    this.moved.set(bssid, dbm);
    if (this.moving.has(bssid)) return;
    this.moving.add(bssid);
    let asked = null;
    while (this.moved.has(bssid) && this.moved.get(bssid) !== asked) {
      asked = this.moved.get(bssid);
      const answer = await this.command("signal", {network: bssid, dbm: asked});
      if (answer.error !== undefined) this.moved.delete(bssid);
    }
    this.moving.delete(bssid);
  }

  #makeRows(networks, removed) {
    for (const {bssid} of networks) if (!this.turns.has(bssid)) this.turns.set(bssid, FIRST_TURN + this.turns.size * GOLDEN);
    const focused = document.activeElement?.getAttribute?.("aria-label");
    const ordered = [...networks].sort((one, other) => other.strength - one.strength);
    const before = this.rows;
    const dots = this.dots;
    this.rows = new Map();
    this.dots = new Map();
    const kept = (network) => before.get(network.bssid)?.key === rowKey(network);
    arrange($("networks"), [
      ...ordered.map((network) => (kept(network) ? this.#keep(before.get(network.bssid), network) : this.#row(network))),
      ...removed.map((network) => this.#removedRow(network)),
    ]);
    arrange(this.layer, [...ordered].reverse().map((network) => {
      if (kept(network)) {
        this.dots.set(network.bssid, dots.get(network.bssid));
        return dots.get(network.bssid).element;
      }
      const label = svg("text", {y: -9}, networkName(network));
      const element = svg("g", {onpointerdown: (event) => this.#dragFrom(network, event)},
        svg("circle", {class: "hit", r: 15}), svg("circle", {class: "mark", r: 6}), label, svg("title", {}, `${networkName(network)} ${network.bssid}`));
      this.dots.set(network.bssid, {element, label});
      return element;
    }));
    this.#filter();
    if (!focused || document.activeElement !== document.body) return;
    // Who has switched a network off with the keyboard can switch it on again at once.
    const other = focused.startsWith(OFF) ? ON + focused.slice(OFF.length) : focused.startsWith(ON) ? OFF + focused.slice(ON.length) : focused;
    const find = (label) => $("networks").querySelector(`[aria-label="${CSS.escape(label)}"]`);
    (find(focused) ?? find(other))?.focus();
  }

  #keep(row, network) {
    this.rows.set(network.bssid, row);
    return row.element;
  }

  #row(network) {
    const name = networkName(network);
    const signal = h("output", {class: "signal"});
    const badge = h("span", {class: "badge", hidden: true}, "joined");
    const slider = h("input", {type: "range", min: LEAST, max: MOST, step: 1, value: network.strength, "data-live": true,
      "aria-label": `signal of ${name}, ${network.bssid}`,
      oninput: () => { this.moved.set(network.bssid, Number(slider.value)); this.signals(); },
      onchange: () => this.#move(network.bssid, Number(slider.value))});
    const actions = h("span", {class: "actions"}, h("button", {type: "button", class: "quiet", "data-live": true, "aria-label": `${OFF}${name}, ${network.bssid}`,
      onclick: () => this.command("remove", {network: network.bssid})}, "Off"));
    const element = h("li", {class: "network", "data-bssid": network.bssid},
      h("div", {class: "network-head"}, h("bdi", {class: "name"}, name), badge,
        h("span", {class: "muted small"}, `${network.security}, ${network.band} GHz, channel ${network.channel}`)),
      slider, signal, actions);
    if (network.passphrase) {
      const input = h("input", {"aria-label": `new passphrase of ${name}, ${network.bssid}`, value: network.passphrase, autocomplete: "off", spellcheck: "false"});
      const form = h("form", {class: "key", hidden: true, "data-live": true, onsubmit: async (event) => {
        event.preventDefault();
        const answer = await this.command("key", {network: network.bssid, passphrase: input.value});
        if (answer.error === undefined) form.hidden = true;
      }}, input, h("button", {}, "Set"));
      actions.append(h("button", {type: "button", class: "quiet", "data-live": true, "aria-label": `Key: change the passphrase of ${name}, ${network.bssid}`,
        onclick: () => {
          form.hidden = !form.hidden;
          if (form.hidden) return;
          input.value = this.store.state.networks.find((one) => one.bssid === network.bssid)?.passphrase ?? "";
          input.focus();
        }}, "Key"));
      element.append(form);
    }
    this.rows.set(network.bssid, {element, slider, signal, badge, key: rowKey(network), text: `${name} ${network.bssid}`.toLowerCase()});
    return element;
  }

  #removedRow(network) {
    const name = networkName(network);
    return h("li", {class: "network removed"}, h("div", {class: "network-head"}, h("bdi", {class: "name"}, name),
      h("span", {class: "muted small"}, "switched off")),
      h("button", {type: "button", class: "quiet", "data-live": true, "aria-label": `${ON}${name}, ${network.bssid}`, onclick: () => this.#restore(network)}, "On again"));
  }

  #restore(network) {
    const {bssid, band, channel, security, address, ssid_hex} = network;
    const again = {ssid_hex, bssid, band, channel, signal: network.strength, security, address};
    if (network.passphrase) again.passphrase = network.passphrase;
    if (network.hidden) again.hidden = true;
    this.command("add", {network: again});
  }

  #filter() {
    const wanted = $("network-search").value.toLowerCase();
    for (const [bssid, row] of this.rows) {
      const fits = row.text.includes(wanted);
      row.element.hidden = !fits;
    }
    this.signals();
  }

  #makeForm() {
    const field = (name, label, input) => h("label", {}, label, fillName(input, name));
    const fillName = (input, name) => { input.name = name; return input; };
    const check = (name, label) => h("label", {class: "check"}, fillName(h("input", {type: "checkbox"}), name), label);
    const choice = (values) => h("select", {}, ...values.map(([value, text]) => h("option", {value}, text)));
    const form = $("add-form");
    form.append(
      field("ssid", "Name", h("input", {required: true, autocomplete: "off"})),
      field("passphrase", "Passphrase", h("input", {autocomplete: "off"})),
      field("security", "Security", choice([["", "by the passphrase"], ...["open", "wep", "wpa2", "wpa2-wpa3", "wpa3", "enterprise"].map((one) => [one, one])])),
      field("band", "Band", choice([["2.4", "2.4 GHz"], ["5", "5 GHz"]])),
      field("channel", "Channel", h("input", {type: "number", min: 1, max: 177, placeholder: "6 or 36"})),
      field("signal", "Signal, dBm", h("input", {type: "number", min: -110, max: 0, value: "-55"})),
      field("address", "Address it gives", h("input", {placeholder: "192.168.1.50/24", autocomplete: "off"})),
      field("bssid", "Its own address", h("input", {placeholder: "made up", autocomplete: "off"})),
      check("hidden", "hides its name"), check("hex", "name is hexadecimal digits"), check("no-dhcp", "gives no address"),
      h("button", {}, "Add"));
    form.addEventListener("submit", async (event) => {
      event.preventDefault();
      const network = {};
      const given = new FormData(form);
      for (const [name, value] of given) {
        if (name === "hidden") network.hidden = true;
        else if (name === "ssid" && given.has("hex")) network.ssid_hex = value;
        else if (name === "no-dhcp") network.address = null;
        else if (name !== "hex" && value !== "" && !(name === "address" && given.has("no-dhcp"))) network[name] = name === "channel" || name === "signal" ? Number(value) : value;
      }
      await this.command("add", {network});
    });
  }

  #stations(state) {
    const key = JSON.stringify(state.stations);
    if (this.stationKey === key) return;
    this.stationKey = key;
    const focused = document.activeElement?.dataset?.station;
    $("stations").replaceChildren(...(state.stations.length ? state.stations.map((station) => h("li", {class: station.here ? "chip here" : "chip"},
      h("span", {}, station.name), h("span", {class: "muted small"}, station.here ? "joined" : "away"),
      h("button", {type: "button", class: "quiet", "data-live": true, "data-station": station.name,
                   "aria-label": `let ${station.name} ${station.here ? "leave" : "join"}`,
                   onclick: () => this.command(station.here ? "leave" : "join", {station: station.name})}, station.here ? "Leave" : "Join")))
      : [h("li", {class: "muted"}, "none in this world")]));
    if (focused) $("stations").querySelector(`[data-station="${CSS.escape(focused)}"]`)?.focus();
  }

  // An address is for a cable that is plugged, where one is given.
  #plug(plugged) {
    const address = $("cable-address").value.trim();
    this.command("cable", plugged && address ? {plugged, address} : {plugged});
  }

  #switches(state) {
    const key = JSON.stringify([state.radio, state.cable, state.addresses]);
    if (this.switchKey === key) return;
    this.switchKey = key;
    const focused = document.activeElement?.id;
    const {soft_blocked: soft, hard_blocked: hard, interface_type: kind, mhz} = state.radio;
    const toggle = (id, pressed, text, act) => h("button", {type: "button", id, "data-live": true, "aria-pressed": String(pressed), onclick: act}, text);
    $("switches").replaceChildren(
      toggle("soft-block", soft, "Radio blocked by software", () => this.command("radio", {blocked: !soft})),
      toggle("hard-block", hard, "Radio switched off by hand", () => this.command("radio", {blocked: !hard, hard: true})),
      toggle("cable-plug", state.cable, "Cable plugged", () => this.#plug(!state.cable)),
      h("span", {class: "muted small"}, `wlan0: ${kind}, ${mhz} MHz, ${state.addresses.wlan0?.join(", ") || "no address"}; eth0: ${state.addresses.eth0?.join(", ") || "no address"}`));
    if (focused) document.getElementById(focused)?.focus();
  }
}
