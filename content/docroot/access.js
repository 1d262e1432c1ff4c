// What lets this page in: a key that the storage of its origin holds, port included. It goes along in a header, so that
// no server of another port is ever sent it; a cookie would be. An address that lets in leads here with a code in its
// fragment, which is worth a key, once.

const kStored = "vendra.key"; // the host's own page for whoever is not let in knows it, too

/// The host runs and does not let this page in, or not any more.
export class NotLetIn extends Error {
  constructor() {
    super("The host does not let this page in.");
  }
}

/// Nobody answers at the page's address.
export class HostGone extends Error {
  constructor() {
    super("The host does not answer.");
  }
}

async function post(path, headers, body) {
  let response;
  try {
    response = await fetch(path, {method: "POST", headers, body});
  } catch {
    throw new HostGone();
  }
  // 421: another host has the port now, and this page's name is none of its own.
  if (response.status === 401 || response.status === 421)
    throw new NotLetIn();
  return response;
}

async function claim(code) {
  const response = await post("/messageservice/entry", {"Vendra-Entry": code});
  if (response.ok)
    localStorage.setItem(kStored, (await response.json()).key);
}

/// Takes what brought the browser here out of the address bar; the code is claimed before anything is asked.
function arrive() {
  const address = new URL(location.href);
  const code = /^#entry=([0-9a-f]{64})$/.exec(address.hash)?.[1];
  if (!code && !address.searchParams.has("ticket"))
    return undefined;
  address.searchParams.delete("ticket");
  if (code)
    address.hash = "";
  history.replaceState(history.state, "", address);
  return code && claim(code).catch(() => {}); // what is asked next says why
}

const arrived = arrive();

/// POST with the page's key; rejects with NotLetIn and HostGone.
export async function ask(path, headers = {}, body = undefined) {
  await arrived;
  const key = localStorage.getItem(kStored);
  if (!key)
    throw new NotLetIn();
  return post(path, {...headers, "Vendra-Page": key}, body);
}

/// For one request to which no header can be added.
export async function ticket() {
  const response = await ask("/messageservice/ticket");
  if (!response.ok)
    throw new HostGone();
  return (await response.json()).ticket;
}
