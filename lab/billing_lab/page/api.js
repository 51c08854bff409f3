// api.js - calls the lab's control interface. The token is in the fragment of the page's address, behind "#", which a
// browser sends to no server.
import { memory } from "./dom.js";

const given = new URLSearchParams(location.hash.slice(1)).get("token");
if (given) {
  memory.set("token", given);
  history.replaceState(null, "", location.pathname);
}
const token = memory.get("token", "");

// A page that the browser restores from its back/forward cache has closed its event stream.
addEventListener("pageshow", (event) => { if (event.persisted) location.reload(); });

export class Problem extends Error {}

export async function ask(path, { method = "GET", body } = {}) {
  let response;
  try {
    response = await fetch(`/api/${path}`, {
      method, headers: { Authorization: `Bearer ${token}`, ...(body ? { "Content-Type": "application/json" } : {}) },
      body: body ? JSON.stringify(body) : undefined,
    });
  } catch {
    throw new Problem("The lab does not answer. Start it again with: billing-lab up");
  }
  const told = await response.json().catch(() => ({}));
  if (!response.ok) {
    throw new Problem(response.status === 401 || response.status === 403
      ? "The lab does not take this page's token. Open the address that billing-lab status prints."
      : told.error || `The lab answered with status ${response.status}.`);
  }
  return told;
}

export const send = (path, body, method = "POST") => ask(path, { method, body });

/** Follows the journal and the lab's state. @param on {entry(entry), state(status), up(), down(ended)} */
export function follow(after, on) {
  const source = new EventSource(`/api/events?token=${encodeURIComponent(token)}&after=${after}`);
  for (const name of ["journal", "begun"]) source.addEventListener(name, (event) => on.entry(JSON.parse(event.data)));
  source.addEventListener("state", (event) => on.state(JSON.parse(event.data)));
  source.addEventListener("open", on.up);
  source.addEventListener("error", () => on.down(source.readyState === EventSource.CLOSED));
  // A browser opens six connections to a server at most, those of pages in its back/forward cache included.
  addEventListener("pagehide", () => source.close(), { once: true });
  return source;
}
