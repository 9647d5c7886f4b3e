// The way to the server: the key, the stream, requests.

const PROTOCOL = "vantora-desk";
const STORE = "visit";
const LONGEST_PAUSE = 4000;

// The key of a link is used up at once and taken out of the address; the key of the visit stays with this tab.
export async function enter() {
  const key = new URLSearchParams(location.hash.slice(1)).get("key");
  if (key) {
    history.replaceState(null, "", location.pathname);
    const answer = await fetch("/api/enter", {method: "POST", headers: {"Content-Type": "application/json"},
                                              body: JSON.stringify({key})});
    if (answer.ok) sessionStorage.setItem(STORE, (await answer.json()).visit);
    else if (!sessionStorage.getItem(STORE)) throw new Error(await answer.text());
  }
  if (!sessionStorage.getItem(STORE)) throw new Error("Open this page with the link that vantora-sim has printed.");
}

function headers() {
  return {Authorization: `Bearer ${sessionStorage.getItem(STORE)}`};
}

export async function ask(path, body) {
  try {
    const answer = await fetch(`/api/${path}`, {method: "POST", headers: {...headers(), "Content-Type": "application/json"},
                                                body: JSON.stringify(body)});
    return answer.ok ? await answer.json() : {error: await answer.text()};
  } catch {
    return {error: "The device is switched off."};
  }
}

export async function get(path) {
  try {
    const answer = await fetch(`/api/${path}`, {headers: headers()});
    return answer.ok ? await answer.json() : {error: await answer.text()};
  } catch {
    return {error: "The device is switched off."};
  }
}

// Calls on.message with each message, on.state with "live", "wait" (it tries again) or "off". Once the server has said that it
// ends there is nobody to come back: the next run has other keys.
export function stream(on) {
  let pause = 250;
  let run = null;
  let tries = 0;
  const open = () => {
    const socket = new WebSocket(`ws://${location.host}/api/stream`, [PROTOCOL, sessionStorage.getItem(STORE)]);
    socket.onmessage = (event) => {
      const message = JSON.parse(event.data);
      if (message.type === "hello") {
        if (run !== null && run !== message.run) return;
        run = message.run;
        pause = 250;
        tries = 0;
        on.state("live");
      }
      on.message(message);
    };
    socket.onclose = (event) => {
      tries += 1;
      if (event.code === 1001 || tries > 8) {
        on.state("off");
        return;
      }
      on.state("wait");
      setTimeout(open, pause);
      pause = Math.min(2 * pause, LONGEST_PAUSE);
    };
  };
  open();
}
