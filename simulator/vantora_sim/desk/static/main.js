// Puts the page together: who shows what, and where it comes from.

import {$, download, h, setText} from "./dom.js";
import {ask, enter, stream} from "./connection.js";
import {readSaved, Store} from "./store.js";
import {AirPanel} from "./air.js";
import {DevicePanel} from "./device.js";
import {NeighboursPanel} from "./neighbours.js";
import {ReplayPanel} from "./replay.js";
import {TimeLine} from "./timeline.js";
import {timeText} from "./lanes.js";
import {startTheme} from "./theme.js";

const FRAME = 150;
const REST = 4;  // a slow machine draws less often: it rests so many times as long as it has drawn
const WORDS = {live: "live", wait: "connecting", off: "switched off", saved: "saved run", locked: "no key"};

const store = new Store();
let timeline = null;
const panels = {device: new DevicePanel(store), air: new AirPanel(store), neighbours: new NeighboursPanel(store), replay: new ReplayPanel(store)};

// Without a device nothing can be asked of it: what would only fail is disabled.
function setState(state) {
  const live = state === "live";
  document.body.dataset.connected = String(live);
  $("connection").dataset.state = state;
  setText($("connection"), WORDS[state]);
  if (timeline) timeline.live = live;
  disable();
}

function disable() {
  const live = document.body.dataset.connected === "true";
  for (const element of document.querySelectorAll("[data-live]")) {
    const controls = element.matches("button, input, select") ? [element] : element.querySelectorAll("button, input, select");
    for (const control of controls) control.disabled = !live || control.dataset.no === "true";
  }
}

function notice(text) {
  setText($("notice"), text);
  $("notice").hidden = text === "";
}

function updatePanels() {
  panels.device.update();
  panels.air.update();
  panels.neighbours.update();
  disable();
}

function begin(head) {
  store.clear();
  store.head = head;
  timeline.reset();
  panels.replay.reset();
  setText($("world"), head.world);
  document.title = `Desk: ${head.world}`;
}

function takeRecords(records) {
  store.take(records);
  timeline.advance();
  if (records.some((record) => record.k === "done")) timeline.changed();
  if (records.some((record) => record.k === "sig")) panels.air.signals();
  if (records.some((record) => record.k === "state" || record.k === "device")) updatePanels();
  panels.replay.update();
  timeline.draw();
}

let settingsKey = "";

function receive(message) {
  switch (message.type) {
    case "hello":
      begin(message);
      if (!message.live) showSaved();
      break;
    case "now": {
      store.state = Object.keys(message.state).length ? message.state : store.state;
      store.device = message.device;
      updatePanels();
      const key = JSON.stringify([store.state?.running["vantora-settingsd"], store.device.values.Mode, store.device.values.WiFiFrequency, store.device.values.SSID]);
      if (key !== settingsKey && store.state?.running["vantora-settingsd"]) {
        settingsKey = key;
        panels.neighbours.read();
      }
      break;
    }
    case "records":
      store.lost += message.lost;
      takeRecords(message.records);
      break;
    case "end":
      timeline.fit();
      break;
  }
}

function showSaved() {
  setState("saved");
  timeline.live = false;
}

let reading = false;  // a saved run is shown: what still comes from the server is not for it

async function openFile(file) {
  try {
    const saved = readSaved(await file.text());
    reading = true;
    begin(saved.head);
    showSaved();
    takeRecords(saved.records);
    timeline.fit();
    notice(`${file.name}: a saved run. Reload the page for the device.`);
  } catch (error) {
    notice(`${file.name} cannot be opened: ${error.message}`);
  }
}

function wire() {
  $("save").addEventListener("click", () => {
    const time = new Date((store.head.started ?? 0) * 1000).toISOString().replace(/[:.]/g, "-").slice(0, 19);
    download(`${store.head.world ?? "run"}-${time}.jsonl`, store.asText(), "application/jsonl");
  });
  $("open").addEventListener("change", (event) => {
    if (event.target.files.length) openFile(event.target.files[0]);
    event.target.value = "";
  });
  $("link").addEventListener("click", async () => {
    const answer = await ask("link", {});
    $("notice").replaceChildren("This address works once: ", h("code", {}, answer.link ?? answer.error));
    $("notice").hidden = false;
  });
}

function tick() {
  setText($("clock"), store.head.started ? timeText(timeline.now(), 1) : "");
  if (timeline.live && !timeline.paused && !document.hidden) timeline.draw();
  setTimeout(tick, Math.max(FRAME, REST * timeline.took));
}

async function start() {
  timeline = new TimeLine(store);
  wire();
  startTheme($("theme"), () => timeline.recolour());
  setState("wait");
  tick();
  try {
    await enter();
  } catch (error) {
    setState("locked");
    notice(error.message);
    return;
  }
  stream({
    message: (message) => { if (!reading) receive(message); },
    state: (state) => {
      if (reading || store.head.live === false) return;
      setState(state);
      if (state === "off") notice("The device is switched off. What was recorded stays here, and can be saved.");
    },
  });
}

start();
