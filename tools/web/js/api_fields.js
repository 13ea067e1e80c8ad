// Every name of the service's JSON and paths, in one place: the rest of the
// page sees only the objects made here, so a rename in the API is a rename
// here alone.
const API = 'api/v1';
const enc = encodeURIComponent;

function query(params) {
  const kept = Object.entries(params).filter(([, v]) => v !== undefined && v !== null && v !== '');
  return kept.length ? '?' + new URLSearchParams(kept).toString() : '';
}

export const paths = {
  hosts: () => `${API}/hosts`,
  host: (name) => `${API}/hosts/${enc(name)}`,
  diff: (name, from, to) => `${API}/hosts/${enc(name)}/diff` + query({ from, to }),
  files: (name) => `${API}/hosts/${enc(name)}/files`,
  attempts: (name) => `${API}/hosts/${enc(name)}/attempts`,
  file: (name, path, rev) =>
    `${API}/hosts/${enc(name)}/files/${path.split('/').map(enc).join('/')}` + query({ rev }),
  backup: (name) => `${API}/hosts/${enc(name)}/backup?wait=1`,
  search: (text) => `${API}/search` + query({ q: text }),
  changes: (since, until, host) => `${API}/changes` + query({ since, until, host }),
  health: () => 'healthz',
};

export const errorText = (body) => (body && typeof body === 'object' ? body.error : undefined);

export function fleetFromApi(j) {
  return {
    interval: j.interval,
    started: j.started,
    hosts: j.hosts.map(hostFromApi),
    retired: (j.retired || []).map((r) => ({ name: r.name, lastCommit: r.last_commit, lastChange: r.last_change })),
  };
}

export function hostFromApi(h) {
  return {
    name: h.name,
    address: h.address,
    state: h.state,
    overdue: h.overdue === true,
    since: h.since,
    lastAttempt: h.last_attempt,
    lastSuccess: h.last_success,
    lastChange: h.last_change,
    lastCommit: h.last_commit,
    failures: h.failures,
    attemptsTotal: h.attempts_total,
    failuresTotal: h.failures_total,
    lastError: h.last_error,
    lastDuration: h.last_duration,
    nextDue: h.next_due,
    model: h.model,
    firmware: h.firmware,
    history: (h.history || []).map(changeFromApi),
  };
}

// Paths are relative to the host's folder; the status is git's letter (A, M, D...).
const fileFromApi = (f) => (typeof f === 'string' ? { path: f } : { path: f.path, status: f.status });

function changeFromApi(c) {
  return { host: c.host, rev: c.rev, time: c.time, message: c.message, files: (c.files || []).map(fileFromApi) };
}

export const changesFromApi = (j) => ({ since: j.since, until: j.until, changes: j.changes.map(changeFromApi) });

export const attemptsFromApi = (j) => j.attempts.map((a) => ({
  time: a.time, duration: a.duration, result: a.result, error: a.error, commit: a.commit,
}));

// 200 {"status":"ok"} or 503 {"status":"failing","error","reasons":[...]}.
export const healthFromApi = (j) => ({
  ok: Boolean(j) && j.status === 'ok',
  reasons: j && Array.isArray(j.reasons) ? j.reasons : j && j.error ? [j.error] : [],
});

export const diffFromApi = (j) => ({ from: j.from, to: j.to, patch: j.patch });

export const filesFromApi = (j) => ({
  rev: j.rev,
  files: (j.files || []).map((f) => ({ path: f.path, size: f.size })),
});

// A file comes as JSON with its text, or as the text itself.
export const fileTextFromApi = (body) => (typeof body === 'string' ? body : body.content);

export const searchFromApi = (j) =>
  j.matches.map((m) => ({ host: m.host, path: m.path, line: m.line, text: m.text }));

export const backupFromApi = (j) => ({ ok: j.ok, changed: j.changed, commit: j.commit, message: j.message });
