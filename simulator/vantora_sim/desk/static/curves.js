// The curves above the lanes: the signal of the strongest networks, and above it the state of the station.

import {CategoryScale, Chart, Legend, LinearScale, LineController, LineElement, PointElement, Tooltip} from "/lib/chart.mjs";
import {$} from "./dom.js";
import {networkName} from "./air.js";
import {colour} from "./theme.js";

Chart.register(CategoryScale, Legend, LinearScale, LineController, LineElement, PointElement, Tooltip);

const STATES = ["completed", "group_handshake", "4way_handshake", "associated", "associating", "authenticating", "scanning", "disconnected",
                "inactive", "interface_disabled", "off"];
const TOP = -20;
const NAMED = 6;          // have a colour and a place in the legend; all others are drawn thin behind them
const MOST_POINTS = 600;
const POINTS_BEHIND = 3000;  // of all of those together

// The points of a step curve within a view: with the value that held before it, and the last one until its end.
export function slice(points, from, to, most = MOST_POINTS) {
  let low = 0;
  let high = points.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (points[middle].x < from) low = middle + 1;
    else high = middle;
  }
  const found = low > 0 ? [{x: from, y: points[low - 1].y}] : [];
  let end = low;
  while (end < points.length && points[end].x <= to) end += 1;
  const step = Math.max(1, Math.ceil((end - low) / most));
  for (let index = low; index < end; index += step) found.push(points[index]);
  const last = end > 0 ? points[end - 1] : null;
  if (last) found.push({x: to, y: last.y});
  return found;
}

export class Curves {
  constructor(store, gutter) {
    this.store = store;
    const size = {family: getComputedStyle(document.body).fontFamily, size: 11};
    this.chart = new Chart($("curves"), {
      type: "line",
      data: {datasets: []},
      options: {
        animation: false, parsing: false, normalized: true, responsive: true, maintainAspectRatio: false,
        interaction: {mode: "nearest", axis: "xy", intersect: false},
        elements: {point: {radius: 0, hitRadius: 6}, line: {borderWidth: 2}},
        layout: {padding: {right: 0}},
        scales: {
          x: {type: "linear", axis: "x", display: false, min: 0, max: 30},
          dbm: {type: "linear", axis: "y", position: "left", stack: "one", stackWeight: 4, min: -100, max: TOP, title: {display: true, text: "dBm", font: size},
                // The topmost would stand on the lowest state.
                ticks: {stepSize: 20, font: size, callback: (value) => (value === TOP ? "" : value)}, afterFit: (scale) => { scale.width = gutter(); }},
          state: {type: "category", axis: "y", position: "left", stack: "one", stackWeight: 3, offset: true, labels: ["off"],
                  ticks: {font: {...size, size: 10}, autoSkip: false}, afterFit: (scale) => { scale.width = gutter(); }},
        },
        plugins: {legend: {position: "bottom", align: "start", labels: {boxWidth: 14, boxHeight: 2, font: size, padding: 10, filter: (item, data) => data.datasets[item.datasetIndex].named}}, tooltip: {animation: false}},
      },
    });
  }

  // `now` is where time has come to: nothing is drawn behind it.
  update(view, now) {
    const {chart, store} = this;
    const end = Math.min(view.to, now);
    const most = innerWidth < 600 ? NAMED / 2 : NAMED;
    const joined = store.state?.client.bssid;
    const here = new Map((store.state?.networks ?? []).map((network) => [network.bssid, network]));
    const rank = (address) => (address === joined ? Infinity : here.get(address)?.strength ?? -Infinity);
    // Also of networks that are gone: what was is on the time line, too.
    const order = [...store.series.keys()].sort((one, other) => (rank(one) === rank(other) ? 0 : rank(other) - rank(one)));
    const quiet = colour("curve-rest");
    const behind = Math.max(8, Math.min(MOST_POINTS, Math.floor(POINTS_BEHIND / order.length)));
    chart.data.datasets = order.map((address, index) => {
      const named = index < most;
      return this.#dataset(index, {
        named, label: store.names.get(address) ?? (here.has(address) ? networkName(here.get(address)) : address), yAxisID: "dbm", borderColor: named ? colour(`curve-${index}`) : quiet,
        borderWidth: address === joined ? 3 : named ? 1.75 : 1,
        data: slice(store.series.get(address), view.from, end, named ? MOST_POINTS : behind)});
    });
    const states = slice(store.states, view.from, end);
    const seen = new Set(states.map((point) => point.y));
    const known = STATES.filter((state) => seen.has(state) || state === "completed" || state === "disconnected");
    for (const state of seen) if (!known.includes(state)) known.push(state);
    chart.options.scales.state.labels = known;
    // Without its own reading of values the category scale wants positions.
    const positions = states.map((point) => ({x: point.x, y: known.indexOf(point.y)}));
    chart.data.datasets.push(this.#dataset(order.length, {named: true, label: "state of the station", yAxisID: "state", borderColor: colour("ink"), data: positions, borderWidth: 2.5}));
    Object.assign(chart.options.scales.x, {min: view.from, max: view.to});
    const ink = colour("muted");
    for (const scale of [chart.options.scales.dbm, chart.options.scales.state]) {
      scale.ticks.color = ink;
      scale.grid = {color: colour("line"), borderColor: colour("line")};
      if (scale.title) scale.title.color = ink;
    }
    chart.options.plugins.legend.labels.color = ink;
    chart.update("none");
  }

  #dataset(order, values) {
    return {stepped: true, spanGaps: false, backgroundColor: values.borderColor, order, ...values};
  }
}
