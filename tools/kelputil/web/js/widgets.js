// Small pieces that several views show the same way.
import { el } from './dom.js';
import { ago, exactTime, isoTime, now } from './time.js';

const STATES = ['ok', 'failed', 'pending'];

// The state as a word and a colour, never the colour alone.
export function stateBadge(state) {
  const known = STATES.includes(state) ? state : 'unknown';
  return el('span', { class: `state state-${known}` }, String(state ?? 'unknown'));
}

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
        el('tr', {}, cells.map((cell, i) => el('td', { 'data-label': columns[i] }, cell)))))));
}
