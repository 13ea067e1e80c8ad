// Small pieces that several views show the same way.
import { el } from './dom.js';
import { ago, exactTime, isoTime, now } from './time.js';

const STATES = ['ok', 'failed', 'pending', 'retired'];

// The state as a word and a colour, never the colour alone.
export function stateBadge(state) {
  const known = STATES.includes(state) ? state : 'unknown';
  return el('span', { class: `state state-${known}` }, String(state ?? 'unknown'));
}

// The API's verdict: no success within two intervals of the later of the
// service's start and the host's joining the schedule.
export const overdueMark = () =>
  el('span', { class: 'overdue', title: 'no backup within two intervals' }, 'overdue');

const RESULTS = { changed: 'ok', unchanged: 'ok', failed: 'failed' };

export function resultBadge(result) {
  return el('span', { class: `state state-${RESULTS[result] ?? 'unknown'}` }, String(result ?? 'unknown'));
}

const FILE_STATES = { A: 'added', D: 'deleted', R: 'renamed' };

// A changed file: its path in the host's folder, and what happened to it
// when that is more than a change of content.
export function fileName(f) {
  const what = FILE_STATES[f.status];
  return [f.path, what ? el('span', { class: 'muted' }, ` (${what})`) : null];
}

// Names with numbers in them in the order people count: router2 before router10.
const collator = new Intl.Collator('en', { numeric: true, sensitivity: 'base' });
export const naturally = (a, b) => collator.compare(String(a ?? ''), String(b ?? ''));

export function when(t, at = now()) {
  if (t === null || t === undefined) return el('span', { class: 'never' }, 'never');
  return el('time', { datetime: isoTime(t), title: exactTime(t) }, ago(t, at));
}

export const shortRev = (rev) => String(rev ?? '').slice(0, 10);

export function table(columns, rows, caption) {
  return el('div', { class: 'scroller', tabindex: '0', role: 'region', 'aria-label': caption },
    el('table', { class: 'cards' },
      el('caption', { class: 'visually-hidden' }, caption),
      el('thead', {}, el('tr', {}, columns.map((c) => el('th', { scope: 'col' }, c)))),
      el('tbody', {}, rows.map((cells) =>
        // One element per cell: a narrow window lays a cell out as label and value.
        el('tr', {}, cells.map((cell, i) => el('td', { 'data-label': columns[i] },
          Array.isArray(cell) ? el('span', {}, cell) : cell)))))));
}
