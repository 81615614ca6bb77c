// Calls the service. Throws its message if it refuses.

async function call(method, path, parameters, body) {
  const query = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters ?? {}))
    if (value !== undefined && value !== "" && value !== false) query.set(name, value === true ? "1" : value);
  const text = query.toString();
  const answer = await fetch(text ? `${path}?${text}` : path, {
    method,
    headers: body === undefined ? {} : { "Content-Type": "application/json" },
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  const content = await answer.json();
  if (!answer.ok) throw new Error(`${content.error} (${content.where}): ${content.fix}`);
  return content;
}

export const summaries = (query) => call("GET", "/inspect/summaries", query);
export const request = (id) => call("GET", "/inspect/request", { id });
export const event = (id) => call("GET", "/inspect/event", { id });
export const installs = () => call("GET", "/inspect/installs");
export const timeline = (install) => call("GET", "/inspect/timeline", { install });
export const ledgers = () => call("GET", "/inspect/ledger");
export const ledgerOf = (install) => call("GET", "/inspect/ledger", { install });
export const forms = () => call("GET", "/inspect/forms");
export const addBehaviour = (behaviour) => call("POST", "/inspect/behaviour", {}, behaviour);
export const removeBehaviour = (endpoint, kind) => call("DELETE", "/inspect/behaviour", { endpoint, kind });
export const clearBehaviours = () => call("DELETE", "/inspect/behaviour");
