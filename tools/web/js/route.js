// Each view has its own address, so that a link to it can be pasted into a
// ticket: #/, #/changes?since=DAY&until=DAY&host=, #/search?q=, #/hosts/NAME,
// #/hosts/NAME/diff?from=&to=, #/hosts/NAME/files/PATH?rev=&line=.
import { day } from './time.js';

export function parse(hash) {
  const h = hash.startsWith('#/') ? hash.slice(1) : '/';
  const cut = h.indexOf('?');
  const path = cut < 0 ? h : h.slice(0, cut);
  const parts = path.split('/').filter(Boolean).map(decodeURIComponent);
  const params = Object.fromEntries(new URLSearchParams(cut < 0 ? '' : h.slice(cut + 1)));
  return { parts, params };
}

export function href(parts, params = {}) {
  const path = '#/' + parts.map(encodeURIComponent).join('/');
  const kept = Object.entries(params).filter(([, v]) => v !== undefined && v !== null && v !== '');
  return kept.length ? `${path}?${new URLSearchParams(kept)}` : path;
}

export const links = {
  fleet: (params) => href([], params),
  changes: (params) => href(['changes'], params),
  // A host that left the inventory: all its changes up to its last one.
  retired: (name, last) => href(['changes'], { host: name, since: day(0), until: day(last) }),
  search: (q) => href(['search'], { q }),
  host: (name) => href(['hosts', name]),
  diff: (name, from, to) => href(['hosts', name, 'diff'], { from, to }),
  file: (name, path, rev, line) => href(['hosts', name, 'files', ...path.split('/')], { rev, line }),
};

// Keeps the address in step with what the view shows (a filter, a sort)
// without adding a history entry per keystroke.
export function replaceAddress(address) {
  if (location.hash !== address) history.replaceState(null, '', address);
}
