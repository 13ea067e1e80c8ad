// One host: its details and "back up now" from the first second, then its
// attempts, its history and its current files. Each part shows its own
// error, so that a host never backed up still has its whole page.
import { request } from '../api.js';
import { paths, hostFromApi, filesFromApi, backupFromApi, attemptsFromApi } from '../api_fields.js';
import { el, fill, heading, errorBox } from '../dom.js';
import { links } from '../route.js';
import { duration } from '../time.js';
import { stateBadge, overdueMark, resultBadge, when, shortRev, table, fileName } from '../widgets.js';

const REFRESH_MS = 5000;

const seconds = (s) => (s === undefined || s === null ? '' : duration(s));

function details(h) {
  const item = (term, ...value) => [el('dt', {}, term), el('dd', {}, ...value)];
  const tried = h.lastAttempt === null || h.lastAttempt === undefined;
  return el('dl', { class: 'details' },
    item('State', stateBadge(h.state), h.overdue ? [' ', overdueMark()] : null,
      tried && h.state === 'pending' ? el('span', { class: 'muted' }, ' not tried yet') : null),
    item('Last error', h.lastError ? el('span', { class: 'error' }, h.lastError) : 'none'),
    item('Next backup', when(h.nextDue)),
    item('Address', h.address ?? ''),
    item('Last attempt', when(h.lastAttempt), seconds(h.lastDuration) && ` (took ${seconds(h.lastDuration)})`),
    item('Last success', when(h.lastSuccess)), item('Last change', when(h.lastChange)),
    item('Consecutive failures', String(h.failures ?? '')),
    item('Attempts', `${h.attemptsTotal ?? 0}, ${h.failuresTotal ?? 0} failed`),
    item('In the schedule since', when(h.since)),
    item('Model', h.model ?? ''), item('Firmware', h.firmware ?? ''));
}

function attempts(name, list) {
  if (!list.length) return el('p', {}, 'No attempt yet.');
  const rows = list.map((a) => [
    when(a.time), seconds(a.duration), resultBadge(a.result), a.error ?? '',
    a.commit ? el('a', { href: links.diff(name, undefined, a.commit) }, el('code', {}, shortRev(a.commit))) : '',
  ]);
  return table(['Time', 'Took', 'Result', 'Error', 'Change'], rows, `Backup attempts of ${name}`);
}

// Newest first, as the service sends it; each change against the one before.
function history(h) {
  if (!h.history.length) return el('p', {}, 'No backup of this host yet.');
  const rows = h.history.map((c, i) => [
    when(c.time),
    el('a', { href: links.diff(h.name, h.history[i + 1]?.rev, c.rev) }, el('code', {}, shortRev(c.rev))),
    c.message,
    el('ul', { class: 'plain' }, c.files.map((f) => el('li', {}, fileName(f)))),
  ]);
  return table(['Time', 'Change', 'Message', 'Files'], rows, `History of ${h.name}`);
}

function files(name, list) {
  if (!list.files.length) return el('p', {}, 'No files backed up yet.');
  return el('ul', { class: 'files' }, list.files.map((f) =>
    el('li', {}, el('a', { href: links.file(name, f.path) }, f.path),
      f.size === undefined ? '' : el('span', { class: 'muted' }, ` ${f.size} bytes`))));
}

function backupResult(r) {
  if (!r.ok) return el('p', { class: 'error' }, `Backup failed: ${r.message ?? ''}`);
  const what = r.changed ? `changed, now at ${shortRev(r.commit)}` : 'no change';
  return el('p', { class: 'done' }, `Backup done: ${what}.`);
}

// Redraws a part when what it shows changed, or else only when nothing in
// it has the focus (relative times move on), so a refresh keeps the focus.
function redraw(part, key, build) {
  if (part.key === key && part.node.contains(document.activeElement)) return;
  part.key = key;
  fill(part.node, build());
}

// A part's own request: its failure is shown in its place, except a refused
// token, which the whole page answers. True when it was shown.
async function settle(part, promise, show) {
  try {
    const data = await promise;
    redraw(part, JSON.stringify(data), () => show(data));
    return true;
  } catch (err) {
    if (err.status === 401) throw err;
    redraw(part, `error ${err.message}`, () => errorBox(err));
    return false;
  }
}

export function renderHost(view, route, ctx) {
  const name = route.parts[1];
  const part = () => ({ node: el('div'), key: null });
  const about = part(), tried = part(), past = part(), now = part();
  const result = el('div', { role: 'status', 'aria-live': 'polite' });
  const problem = el('div');
  const button = el('button', { type: 'button', class: 'primary' }, 'Back up now');
  const actions = el('div', {}, el('p', {}, button));
  let shownCommit;  // whose files the page shows: they are asked for again only after a change

  async function load() {
    const host = hostFromApi(await request(paths.host(name)));
    fill(problem);
    fill(about.node, details(host));
    if (host.state === 'retired') {
      // Not in the inventory any more: its files stay, nothing more is asked of it.
      fill(actions, el('p', { class: 'muted' }, `${name} is not in the inventory any more: it is not backed up; `,
        'its history and files stay.'));
      fill(tried.node);
    }
    redraw(past, JSON.stringify(host.history), () => history(host));
    const commit = host.lastCommit ?? '';
    await Promise.all([
      host.state !== 'retired' &&
        settle(tried, request(paths.attempts(name)).then(attemptsFromApi), (list) => attempts(name, list)),
      shownCommit !== commit && settle(now, request(paths.files(name)).then(filesFromApi), (list) => files(name, list))
        .then((shown) => { if (shown) shownCommit = commit; }),
    ]);
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
    heading(name), actions, result, problem, about.node,
    el('h2', {}, 'Attempts'), tried.node, el('h2', {}, 'History'), past.node, el('h2', {}, 'Current files'), now.node);
  const refresh = () => load().catch((err) => {
    if (!view.isConnected) return;  // an answer for a page already left
    if (err.status === 401) ctx.fail(err);
    else fill(problem, errorBox(err));
  });
  const timer = setInterval(refresh, REFRESH_MS);
  return { ready: load(), stop: () => clearInterval(timer) };
}
