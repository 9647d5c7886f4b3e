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

  // What is refused changes nothing, so it is neither here nor in the files: what is listed is what they hold.
  update() {
    const {deeds} = this.store;
    const fresh = deeds.slice(this.seen);
    this.seen = deeds.length;
    if (!fresh.length) return;
    const list = $("deeds");
    list.append(...fresh.slice(-MOST).map((deed) => h("li", {}, h("span", {class: "time"}, timeText(deed.t)), h("bdi", {}, deed.text),
      h("code", {class: "line"}, deed.line), deed.world ? null : h("span", {class: "muted small"}, "script only"))));
    while (list.children.length > MOST) list.firstElementChild.remove();
    list.scrollTop = list.scrollHeight;
  }

  async #save(form, name, type) {
    const answer = await get(`replay/${form}`);
    if (answer.error === undefined) download(name, answer.text, type);
  }
}
