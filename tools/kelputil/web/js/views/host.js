// One host: its details, a "back up now" button, its history and its
// current files.
import { request } from '../api.js';
import { paths, hostFromApi, filesFromApi, backupFromApi } from '../api_fields.js';
import { el, fill, heading, errorBox } from '../dom.js';
import { links } from '../route.js';
import { duration } from '../time.js';
import { stateBadge, when, shortRev, table } from '../widgets.js';

function details(h) {
  const item = (term, value) => [el('dt', {}, term), el('dd', {}, value ?? '')];
  return el('dl', { class: 'details' },
    item('Address', h.address), item('State', stateBadge(h.state)),
    item('Model', h.model), item('Firmware', h.firmware),
    item('Last attempt', when(h.lastAttempt)), item('Last success', when(h.lastSuccess)),
    item('Last change', when(h.lastChange)), item('Consecutive failures', String(h.failures ?? '')),
    item('Last error', h.lastError || 'none'),
    item('Last duration', h.lastDuration === undefined || h.lastDuration === null ? '' : duration(h.lastDuration)),
    item('Next due', when(h.nextDue)));
}

// Newest first, as the service sends it; each change against the one before.
function history(h) {
  if (!h.history.length) return el('p', {}, 'No backup of this host yet.');
  const rows = h.history.map((c, i) => [
    when(c.time),
    el('a', { href: links.diff(h.name, h.history[i + 1]?.rev, c.rev) }, el('code', {}, shortRev(c.rev))),
    c.message,
    el('ul', { class: 'plain' }, c.files.map((f) => el('li', {}, f))),
  ]);
  return table(['Time', 'Change', 'Message', 'Files'], rows, `History of ${h.name}`);
}

function files(h, list) {
  if (!list.files.length) return el('p', {}, 'No files backed up yet.');
  return el('ul', { class: 'files' }, list.files.map((f) =>
    el('li', {}, el('a', { href: links.file(h.name, f.path) }, f.path),
      f.size === undefined ? '' : el('span', { class: 'muted' }, ` ${f.size} bytes`))));
}

function backupResult(r) {
  if (!r.ok) return el('p', { class: 'error' }, `Backup failed: ${r.message ?? ''}`);
  const what = r.changed ? `changed, now at ${shortRev(r.commit)}` : 'no change';
  return el('p', { class: 'done' }, `Backup done: ${what}.`);
}

export function renderHost(view, route, ctx) {
  const name = route.parts[1];
  const body = el('div');
  const result = el('div', { role: 'status', 'aria-live': 'polite' });
  const button = el('button', { type: 'button', class: 'primary' }, 'Back up now');

  async function load() {
    const [h, list] = await Promise.all([request(paths.host(name)), request(paths.files(name))]);
    const host = hostFromApi(h);
    fill(body, details(host), el('h2', {}, 'History'), history(host),
      el('h2', {}, 'Current files'), files(host, filesFromApi(list)));
  }

  button.addEventListener('click', async () => {
    button.disabled = true;
    fill(result, el('p', {}, `Backing up ${name}…`));
    try {
      fill(result, backupResult(backupFromApi(await request(paths.backup(name), 'POST'))));
      await load();
    } catch (err) {
      if (err.status === 401) return ctx.fail(err);
      fill(result, errorBox(err));
    } finally {
      button.disabled = false;
    }
  });

  fill(view, el('nav', { class: 'crumbs', 'aria-label': 'Breadcrumb' }, el('a', { href: links.fleet() }, 'Fleet'), ' › '),
    heading(name), el('p', {}, button), result, body);
  return { ready: load() };
}
