// The lanes on a canvas: one mark for each entry, a bar for each call that took its time. Marks that fall on one pixel are drawn
// once, in the colour of the worst, so that a hundred thousand cost little more than a thousand.

import {LANES} from "./store.js";
import {colour} from "./theme.js";

const HEIGHT = 26;
const AXIS = 22;
const MARK = 3;
const NEAR = 7;
const LONGEST_CALL = 60;
const STEPS = [0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 30, 60, 120, 300, 600, 1800, 3600, 7200, 21600, 86400];

export function timeText(seconds, step = 0.01) {
  const digits = step < 0.01 ? 3 : step < 1 ? 2 : 0;
  seconds = Number(seconds.toFixed(digits));  // before it is taken apart: 59.7 s are a minute when nothing smaller is told
  if (seconds < 60) return `${seconds.toFixed(digits)} s`;
  const minutes = Math.floor(seconds / 60);
  const rest = (seconds % 60).toFixed(digits).padStart(digits ? 3 + digits : 2, "0");
  return minutes < 60 ? `${minutes}:${rest}` : `${Math.floor(minutes / 60)}:${String(minutes % 60).padStart(2, "0")}:${rest}`;
}

// The first index whose entry is not before this time. Entries are in order but for a few milliseconds.
export function firstAt(entries, time) {
  let low = 0;
  let high = entries.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (entries[middle].t < time) low = middle + 1;
    else high = middle;
  }
  return low;
}

export class Lanes {
  constructor(canvas, gutter) {
    this.canvas = canvas;
    this.gutter = gutter;
    this.context = canvas.getContext("2d");
    this.readColours();
  }

  readColours() {
    this.colours = Object.fromEntries(["ink", "muted", "line", "surface", "band", "err", "warning", "accent"].map((name) => [name, colour(name)]));
    this.marks = LANES.map((lane) => colour(`lane-${lane.id}`));
    this.font = `12px ${getComputedStyle(document.body).fontFamily}`;
  }

  draw(entries, view, chosen) {
    const began = performance.now();
    const {canvas, context, colours} = this;
    const width = canvas.clientWidth;
    const height = LANES.length * HEIGHT + AXIS;
    const ratio = devicePixelRatio || 1;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
      canvas.style.height = `${height}px`;
    }
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    const left = this.gutter();
    const scale = (width - left) / (view.to - view.from);
    context.font = this.font;
    context.textBaseline = "middle";
    LANES.forEach((lane, index) => {
      if (index % 2 === 0) {
        context.fillStyle = colours.band;
        context.fillRect(0, index * HEIGHT, width, HEIGHT);
      }
    });
    this.#axis(view, left, width, scale);

    context.save();
    context.beginPath();
    context.rect(left, 0, width - left, height);
    context.clip();
    const last = LANES.map(() => -10);
    const worst = LANES.map(() => -1);
    const start = firstAt(entries, view.from - LONGEST_CALL);
    for (let index = start; index < entries.length; index += 1) {
      const entry = entries[index];
      if (entry.t > view.to + 0.05) break;
      const lane = entry.laneIndex;
      const x = Math.round(left + (entry.t - view.from) * scale);
      const long = entry.d === null ? 0 : entry.d * scale;
      if (x + long < left - MARK) continue;
      if (x === last[lane] && long <= MARK && entry.rank <= worst[lane]) continue;
      if (x !== last[lane]) worst[lane] = -1;
      last[lane] = x;
      worst[lane] = Math.max(worst[lane], entry.rank);
      const y = lane * HEIGHT;
      context.fillStyle = entry.rank >= 4 ? colours.err : entry.rank === 3 ? colours.warning : this.marks[lane];
      if (long > MARK) {
        context.globalAlpha = 0.45;
        context.fillRect(x, y + 8, long, HEIGHT - 16);
        context.globalAlpha = 1;
      }
      context.fillRect(x, y + 5, MARK, HEIGHT - 10);
    }
    if (chosen && chosen.t >= view.from && chosen.t <= view.to) {
      const x = Math.round(left + (chosen.t - view.from) * scale);
      context.strokeStyle = colours.ink;
      context.lineWidth = 2;
      context.strokeRect(x - 3, chosen.laneIndex * HEIGHT + 2, MARK + 6, HEIGHT - 4);
    }
    context.restore();
    context.fillStyle = colours.ink;
    context.textAlign = "left";
    LANES.forEach((lane, index) => context.fillText(lane.name, 8, index * HEIGHT + HEIGHT / 2, left - 12));
    canvas.dataset.ms = (performance.now() - began).toFixed(2);
  }

  #axis(view, left, width, scale) {
    const {context, colours} = this;
    const bottom = LANES.length * HEIGHT;
    const step = STEPS.find((one) => one * scale >= 80) ?? STEPS[STEPS.length - 1];
    context.fillStyle = colours.muted;
    context.strokeStyle = colours.line;
    context.lineWidth = 1;
    context.textAlign = "center";
    context.beginPath();
    for (let time = Math.ceil(view.from / step) * step; time <= view.to; time += step) {
      const x = Math.round(left + (time - view.from) * scale) + 0.5;
      context.moveTo(x, 0);
      context.lineTo(x, bottom + 4);
      if (x > left + 20 && x < width - 20) context.fillText(timeText(time, step), x, bottom + AXIS / 2 + 2);
    }
    context.stroke();
  }

  // The entry nearest to a point, if there is one.
  find(entries, view, x, y) {
    const lane = Math.floor(y / HEIGHT);
    const left = this.gutter();
    const scale = (this.canvas.clientWidth - left) / (view.to - view.from);
    const time = view.from + (x - left) / scale;
    let best = null;
    for (let index = firstAt(entries, time - LONGEST_CALL); index < entries.length; index += 1) {
      const entry = entries[index];
      if (entry.t > time + NEAR / scale + 0.05) break;
      if (entry.laneIndex !== lane) continue;
      const within = time >= entry.t && time <= entry.t + (entry.d ?? 0);
      const away = within ? 0.5 : Math.abs(entry.t - time) * scale;
      if (away <= NEAR && (best === null || away <= best.away)) best = {entry, away};
    }
    return best?.entry ?? null;
  }
}
