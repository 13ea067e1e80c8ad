// The fleet: every host with its state, counts on top, a filter, sortable
// columns, and a refresh that keeps the filter, the sort and the scroll.
import { request } from '../api.js';
import { paths, fleetFromApi } from '../api_fields.js';
import { el, fill, heading, errorBox } from '../dom.js';
import { links, replaceAddress } from '../route.js';
import { exactTime, now } from '../time.js';
import { stateBadge, overdueMark, when, shortRev, naturally } from '../widgets.js';

const REFRESH_MS = 5000;
const STATE_ORDER = { failed: 0, pending: 1, ok: 2 };

const byText = (f) => (a, b) => naturally(f(a), f(b));
const byNumber = (f) => (a, b) => (f(a) ?? -Infinity) - (f(b) ?? -Infinity);

const columns = [
  { key: 'name', label: 'Name', order: byText((h) => h.name),
    show: (h) => [h.name, () => el('a', { href: links.host(h.name) }, h.name)] },
  { key: 'address', label: 'Address', order: byText((h) => h.address), show: (h) => text(h.address) },
  { key: 'state', label: 'State', order: byNumber((h) => (STATE_ORDER[h.state] ?? 3) - (h.overdue ? 0.5 : 0)),
    show: (h) => [`${h.state} ${h.overdue}`,
      () => el('span', {}, stateBadge(h.state), h.overdue ? [' ', overdueMark()] : null)] },
  { key: 'success', label: 'Last success', order: byNumber((h) => h.lastSuccess),
    show: (h, at) => timeCell(h.lastSuccess, at) },
  { key: 'change', label: 'Last change', order: byNumber((h) => h.lastChange),
    show: (h, at) => changeCell(h, at) },
  { key: 'failures', label: 'Failures', order: byNumber((h) => h.failures), show: (h) => text(h.failures) },
  { key: 'error', label: 'Last error', order: byText((h) => h.lastError), show: (h) => text(h.lastError) },
];

// A cell is [what it shows, how to build it]: it is rebuilt only when what
// it shows changed, so a focused link survives a refresh.
function text(v) {
  const s = v === null || v === undefined ? '' : String(v);
  return [s, () => s];
}

function timeCell(t, at) {
  const node = when(t, at);
  return [node.textContent + (node.title || ''), () => node];
}

function changeCell(h, at) {
  const [key, build] = timeCell(h.lastChange, at);
  if (!h.lastCommit) return [key, build];
  return [key + h.lastCommit, () => el('a', { href: links.diff(h.name, undefined, h.lastCommit) }, build())];
}

function matches(h, needle) {
  if (!needle) return true;
  return [h.name, h.address, h.state, h.overdue ? 'overdue' : null, h.lastError, h.model, h.firmware]
    .some((v) => v !== null && v !== undefined && String(v).toLowerCase().includes(needle));
}

// Overdue is the service's verdict, the same as its metric and alert: a
// fresh start is not an outage.
function counts(fleet) {
  const c = { ok: 0, failed: 0, pending: 0, overdue: 0 };
  for (const h of fleet.hosts) {
    if (h.state in c) c[h.state] += 1;
    if (h.overdue) c.overdue += 1;
  }
  return c;
}

function countList(c) {
  const item = (cls, n, label) => el('li', { class: cls }, el('strong', {}, String(n)), ' ', label);
  return el('ul', { class: 'counts', 'aria-label': 'Counts' },
    item('state-ok', c.ok, 'ok'), item('state-failed', c.failed, 'failed'),
    item('state-pending', c.pending, 'pending'), item('overdue', c.overdue, 'overdue (no backup in two intervals)'));
}

// Hosts that left the inventory: no longer backed up, their folders kept as
// they were, and still readable: history, diffs and files.
function retiredList(fleet) {
  if (!fleet.retired.length) return [];
  const rows = fleet.retired.map((r) => el('li', {}, el('a', { href: links.host(r.name) }, el('strong', {}, r.name)),
    ' · last change ', when(r.lastChange),
    r.lastCommit ? [' ', el('code', {}, shortRev(r.lastCommit))] : null,
    r.lastChange ? [' · ', el('a', { href: links.retired(r.name, r.lastChange) }, 'its changes')] : null));
  return [el('h2', {}, 'No longer in the inventory'),
    el('p', { class: 'muted' }, 'These hosts are not backed up any more. Their folders stay in the repository as ',
      'their last backup left them, with their history, diffs and files.'),
    el('ul', { class: 'plain retired' }, rows)];
}

class FleetTable {
  constructor(onSort) {
    this.rows = new Map();
    this.head = el('tr');
    this.body = el('tbody');
    this.onSort = onSort;
    this.node = el('div', { class: 'scroller', role: 'region', 'aria-label': 'Hosts', tabindex: '0' },
      el('table', { class: 'cards fleet' }, el('caption', { class: 'visually-hidden' }, 'Hosts'),
        el('thead', {}, this.head), this.body));
  }

  // Built once and then only marked, so that a focused sort button keeps
  // its focus across refreshes.
  header(sort, dir) {
    if (!this.head.children.length) {
      fill(this.head, columns.map((c) => el('th', { scope: 'col' },
        el('button', { type: 'button', onclick: () => this.onSort(c.key) }, c.label, el('span', { 'aria-hidden': 'true' })))));
    }
    columns.forEach((c, i) => {
      const th = this.head.children[i];
      const active = c.key === sort;
      if (active) th.setAttribute('aria-sort', dir === 'desc' ? 'descending' : 'ascending');
      else th.removeAttribute('aria-sort');
      th.querySelector('span').textContent = active ? (dir === 'desc' ? ' ▼' : ' ▲') : '';
    });
  }

  row(h, at) {
    let r = this.rows.get(h.name);
    if (!r) {
      const cells = columns.map((c) => el('td', { 'data-label': c.label }));
      r = { tr: el('tr', {}, cells), cells, keys: [] };
      this.rows.set(h.name, r);
    }
    columns.forEach((c, i) => {
      const [key, build] = c.show(h, at);
      if (r.keys[i] !== key) {
        fill(r.cells[i], build());
        r.keys[i] = key;
      }
    });
    return r.tr;
  }

  // Moves only rows out of place, so the page neither jumps nor loses focus.
  show(hosts, at) {
    const wanted = hosts.map((h) => this.row(h, at));
    wanted.forEach((tr, i) => {
      if (this.body.children[i] !== tr) this.body.insertBefore(tr, this.body.children[i] || null);
    });
    while (this.body.children.length > wanted.length) this.body.lastChild.remove();
  }
}

export function renderFleet(view, route, ctx) {
  const state = {
    filter: route.params.q || '',
    sort: columns.some((c) => c.key === route.params.sort) ? route.params.sort : 'name',
    dir: route.params.dir === 'desc' ? 'desc' : 'asc',
    fleet: null,
  };
  const summary = el('div');
  // Not a live region: it changes with every refresh, and would be read out each time.
  const shown = el('p', { class: 'muted' });
  const problem = el('div');
  const retired = el('div');
  const input = el('input', { type: 'search', id: 'fleet-filter', value: state.filter,
    placeholder: 'name, address, state, overdue, error', autocomplete: 'off' });
  const table = new FleetTable((key) => {
    state.dir = state.sort === key && state.dir === 'asc' ? 'desc' : 'asc';
    state.sort = key;
    update();
  });

  function update() {
    // An answer that arrives after the view was left must not touch the address.
    if (!view.isConnected) return;
    replaceAddress(links.fleet({ q: state.filter, sort: state.sort === 'name' ? '' : state.sort,
      dir: state.dir === 'asc' ? '' : state.dir }));
    table.header(state.sort, state.dir);
    if (!state.fleet) return;
    const at = now();
    const needle = state.filter.trim().toLowerCase();
    const col = columns.find((c) => c.key === state.sort);
    const sign = state.dir === 'desc' ? -1 : 1;
    const hosts = state.fleet.hosts.filter((h) => matches(h, needle))
      .sort((a, b) => sign * col.order(a, b) || naturally(a.name, b.name));
    table.show(hosts, at);
    fill(summary, countList(counts(state.fleet)));
    if (!retired.contains(document.activeElement)) fill(retired, retiredList(state.fleet));
    fill(shown, `Showing ${hosts.length} of ${state.fleet.hosts.length} hosts · updated ${exactTime(at)}`);
  }

  async function load() {
    state.fleet = fleetFromApi(await request(paths.hosts()));
    fill(problem);
    update();
  }

  input.addEventListener('input', () => {
    state.filter = input.value;
    update();
  });
  fill(view, heading('Fleet'), summary,
    el('p', { class: 'filter' }, el('label', { for: 'fleet-filter' }, 'Filter '), input),
    shown, problem, table.node, retired);
  update();

  const timer = setInterval(() => load().catch((err) => (err.status === 401 ? ctx.fail(err) : fill(problem, errorBox(err)))),
    REFRESH_MS);
  return { ready: load(), stop: () => clearInterval(timer) };
}
