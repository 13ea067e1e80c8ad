// Requests to the service, with the access token when one was given.
import { errorText } from './api_fields.js';

const TOKEN_KEY = 'kelputil.token';

export class ApiError extends Error {
  constructor(status, message, sentToken) {
    super(message);
    this.status = status;
    this.sentToken = sentToken;
  }
}

// Kept for the browser session: asked once, not left on the machine.
export const token = {
  get: () => sessionStorage.getItem(TOKEN_KEY),
  set: (t) => sessionStorage.setItem(TOKEN_KEY, t),
};

async function body(res) {
  const type = res.headers.get('Content-Type') || '';
  if (type.includes('json')) return res.json().catch(() => null);
  return res.text();
}

export async function request(path, method = 'GET') {
  const t = token.get();
  const headers = t ? { Authorization: `Bearer ${t}` } : {};
  const res = await fetch(path, { method, headers, cache: 'no-store' });
  const data = await body(res);
  if (!res.ok) throw new ApiError(res.status, errorText(data) || `${res.status} ${res.statusText}`, t !== null);
  return data;
}

// A request whose answer is read whatever its status (/healthz says why it
// fails in its body); null when the service does not answer at all.
export async function probe(path) {
  try {
    const res = await fetch(path, { cache: 'no-store' });
    return { status: res.status, data: await body(res) };
  } catch {
    return null;
  }
}
