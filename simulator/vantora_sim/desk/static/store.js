// What the page knows: entries of the time line, signals, states, the device. Records are those of the server and of saved runs.

export const LANES = [
  {id: "world", name: "outside"},
  {id: "dbus", name: "D-Bus"},
  {id: "log", name: "log"},
  {id: "command", name: "commands"},
  {id: "unit", name: "units"},
  {id: "hostapd", name: "hostapd"},
  {id: "wpa", name: "wpa_supplicant"},
  {id: "address", name: "addresses"},
];
export const LEVELS = {debug: 0, info: 1, notice: 2, warning: 3, err: 4};
const MOST_POINTS = 20_000;

export class Store {
  constructor() {
    this.clear();
  }

  clear() {
    this.head = {};
    this.entries = [];
    this.byNumber = new Map();
    this.names = new Map();    // of networks, by address
    this.deeds = [];           // {t, text, line, world}: what a person did
    this.series = new Map();   // by address: [{x, y}], y null where a network went
    this.states = [];          // [{x, y}] of the station
    this.state = null;
    this.device = null;
    this.records = [];         // as they came, for saving
    this.lost = 0;
    this.end = 0;              // the latest time
  }

  take(records) {
    for (const record of records) {
      this.records.push(record);
      switch (record.k) {
        case "e": this.#entry(record); break;
        case "done": this.#done(record); break;
        case "sig": this.#signals(record); break;
        case "sta": this.states.push({x: record.t, y: record.state}); break;
        case "deed": this.deeds.push(record); break;
        case "state": this.state = record.state; break;
        case "device": this.device = record.device; break;
      }
      if (record.t > this.end) this.end = record.t;
    }
  }

  #entry(record) {
    const entry = {...record, rank: LEVELS[record.level] ?? 1, d: null, error: null, reply: null, words: null};
    this.byNumber.set(record.i, entry);
    this.entries.push(entry);
  }

  #done(record) {
    const entry = this.byNumber.get(record.i);
    if (!entry) return;
    Object.assign(entry, {d: record.d, reply: record.reply, error: record.error, words: null});
    if (record.error) entry.rank = LEVELS.err;
  }

  #signals(record) {
    for (const [address, name] of Object.entries(record.n ?? {})) this.names.set(address, name);
    for (const [address, value] of Object.entries(record.v)) {
      if (!this.series.has(address)) this.series.set(address, []);
      const points = this.series.get(address);
      points.push({x: record.t, y: value});
      if (points.length > MOST_POINTS) points.splice(0, MOST_POINTS / 10);
    }
  }

  signal(address) {
    const points = this.series.get(address);
    return points && points.length ? points[points.length - 1].y : null;
  }

  // The run as JSON lines.
  asText() {
    const first = {...this.head, k: "run", format: 1};
    delete first.type;
    const last = [];
    if (this.state) last.push({k: "state", state: this.state});
    if (this.device) last.push({k: "device", device: this.device});
    return [first, ...this.records.filter((record) => record.k !== "state" && record.k !== "device"), ...last]
      .map((record) => JSON.stringify(record)).join("\n") + "\n";
  }
}

// What a search looks at, made when it is first needed.
export function wordsOf(entry) {
  if (entry.words === null) {
    const body = entry.body || {};
    entry.words = [entry.title, entry.what, entry.lane, body.from, body.to, body.path, body.interface, body.member,
                   entry.error && `${entry.error.name} ${entry.error.text}`].filter(Boolean).join(" ").toLowerCase();
  }
  return entry.words;
}

export function readSaved(text) {
  const lines = text.split("\n").filter((line) => line.trim() !== "");
  const records = lines.map((line, number) => {
    try {
      const record = JSON.parse(line);
      if (record === null || typeof record !== "object" || Array.isArray(record)) throw new Error("not an object");
      return record;
    } catch (error) {
      throw new Error(`line ${number + 1}: ${error.message}`);
    }
  });
  if (!records.length || records[0].k !== "run" || records[0].format !== 1) throw new Error("not a saved run of this page");
  return {head: records[0], records: records.slice(1)};
}
