// Makes and changes elements. Texts only ever become text: nothing here, or anywhere in this page, reads mark-up from them.

export function $(id) {
  return document.getElementById(id);
}

// h("button", {type: "button", onclick: f}, "text", child...): an element with attributes, listeners and children.
export function h(tag, attributes = {}, ...children) {
  return fill(document.createElement(tag), attributes, children);
}

export function svg(tag, attributes = {}, ...children) {
  return fill(document.createElementNS("http://www.w3.org/2000/svg", tag), attributes, children);
}

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (name === "value") element.value = value;
    else if (value === true) element.setAttribute(name, "");
    else if (value !== false && value !== null && value !== undefined) element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

// Make these the children of a place. Those that stay are not touched: whoever is about to press one of them, does.
export function arrange(place, children) {
  const wanted = new Set(children);
  for (const child of [...place.children]) if (!wanted.has(child)) child.remove();
  children.forEach((child, index) => {
    if (place.children[index] !== child) place.insertBefore(child, place.children[index] ?? null);
  });
}

// Show the answer to something that was asked for: what was done, or why not, and the command that does the same.
export function showAnswer(place, answer) {
  const lines = [];
  if (answer.error !== undefined) {
    lines.push(h("strong", {class: "bad"}, answer.name ? `${answer.name}: ` : "", `${answer.error || "(no text)"}`));
    if (answer.about) lines.push(h("span", {}, `Why: ${answer.about.why}. What to do: ${answer.about.advice}.`));
  } else {
    lines.push(h("strong", {class: "good"}, answer.text));
  }
  if (answer.line) lines.push(h("code", {class: "line"}, answer.line));
  place.replaceChildren(...lines);
}

export function download(name, text, type) {
  const address = URL.createObjectURL(new Blob([text], {type}));
  const anchor = h("a", {href: address, download: name});
  document.body.append(anchor);
  anchor.click();
  anchor.remove();
  setTimeout(() => URL.revokeObjectURL(address), 10_000);
}
