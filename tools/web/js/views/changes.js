// What changed in the fleet between two days, newest first, each change
// linking to its diff. The range is in the address (?since=DAY&until=DAY,
// optionally &host=NAME); without one, the service's default: the last 7 days.
import { request } from '../api.js';
import { paths, changesFromApi } from '../api_fields.js';
import { el, fill, heading } from '../dom.js';
import { links } from '../route.js';
import { day, dayStart, dayEnd } from '../time.js';
import { when, shortRev, table, fileName } from '../widgets.js';

function rangeForm(params) {
  const since = el('input', { type: 'date', id: 'changes-since', value: params.since || '' });
  const until = el('input', { type: 'date', id: 'changes-until', value: params.until || '' });
  const form = el('form', { class: 'filter range' },
    el('label', { for: 'changes-since' }, 'From '), since, ' ',
    el('label', { for: 'changes-until' }, 'to '), until, ' ',
    el('button', { type: 'submit' }, 'Show'));
  form.addEventListener('submit', (e) => {
    e.preventDefault();
    location.hash = links.changes({ since: since.value, until: until.value, host: params.host });
  });
  return { form, since, until };
}

function changeCell(c) {
  const label = `${c.host} change ${shortRev(c.rev)}`;
  return el('a', { href: links.diff(c.host, undefined, c.rev), 'aria-label': label }, el('code', {}, shortRev(c.rev)));
}

function changeTable(list) {
  if (!list.length) return el('p', {}, 'No change in this range.');
  const rows = list.map((c) => [
    when(c.time),
    el('a', { href: links.host(c.host) }, c.host),
    changeCell(c),
    c.message,
    el('ul', { class: 'plain' }, c.files.map((f) => el('li', {}, fileName(f)))),
  ]);
  return [el('p', { role: 'status' }, `${list.length} changes in ${new Set(list.map((c) => c.host)).size} hosts`),
    table(['Time', 'Host', 'Change', 'Message', 'Files'], rows, 'Changes')];
}

export function renderChanges(view, route) {
  const params = route.params;
  const { form, since, until } = rangeForm(params);
  const body = el('div', { class: 'changes' }, el('p', {}, 'Loading…'));
  fill(view, heading('Changes'), form,
    params.host ? el('p', {}, `Only ${params.host} · `, el('a', { href: links.changes({ since: params.since,
      until: params.until }) }, 'every host')) : null,
    body);

  async function load() {
    const to = dayEnd(params.until);
    const from = dayStart(params.since) ?? (to === null ? null : Math.max(0, to + 1 - 7 * 86400));
    if (from !== null && to !== null && from > to) {
      return fill(body, el('p', { class: 'error' }, 'The range ends before it begins.'));
    }
    const found = changesFromApi(await request(paths.changes(from, to, params.host)));
    // The inputs show the range the service used, defaults included.
    since.value = day(found.since);
    until.value = day(found.until);
    fill(body, changeTable(found.changes));
  }
  return { ready: load() };
}
