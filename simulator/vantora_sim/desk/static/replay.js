// Record and replay: what was done, and files that do it again.

import {$, download, h} from "./dom.js";
import {get} from "./connection.js";
import {timeText} from "./lanes.js";

const MOST = 300;  // that are listed; files have all of them

export class ReplayPanel {
  constructor(store) {
    this.store = store;
    this.seen = 0;
    // As a text: browsers hold programs back. "sh FILE" runs it all the same.
    $("script").addEventListener("click", () => this.#save("script", `${store.head.world}-again.txt`, "text/plain"));
    $("world-file").addEventListener("click", () => this.#save("world", `${store.head.world}-again.json`, "application/json"));
  }

  reset() {
    this.seen = 0;
    $("deeds").replaceChildren();
  }

  update() {
    const {entries} = this.store;
    const fresh = [];
    for (; this.seen < entries.length; this.seen += 1) {
      const entry = entries[this.seen];
      const done = entry.lane === "world" && entry.what !== "exit";
      const asked = entry.lane === "dbus" && entry.what === "call" && entry.body.from === "the desk";
      if (done || asked) fresh.push(entry);
    }
    if (!fresh.length) return;
    const list = $("deeds");
    list.append(...fresh.slice(-MOST).map((entry) => h("li", {}, h("span", {class: "time"}, timeText(entry.t)), " ", h("bdi", {}, entry.title))));
    while (list.children.length > MOST) list.firstElementChild.remove();
    list.scrollTop = list.scrollHeight;
  }

  async #save(form, name, type) {
    const answer = await get(`replay/${form}`);
    if (answer.error === undefined) download(name, answer.text, type);
  }
}
