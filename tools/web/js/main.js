// Picks the view for the address and shows it; a refused request asks for
// the access token and then shows the same view again.
import { parse } from './route.js';
import { probe } from './api.js';
import { paths, healthFromApi } from './api_fields.js';
import { el, fill, errorBox } from './dom.js';
import { renderFleet } from './views/fleet.js';
import { renderHost } from './views/host.js';
import { renderDiff } from './views/diff.js';
import { renderFile } from './views/file.js';
import { renderSearch } from './views/search.js';
import { renderChanges } from './views/changes.js';
import { renderToken } from './views/token.js';

const main = document.getElementById('main');
const health = document.getElementById('health');
const HEALTH_MS = 5000;
let current = { stop() {} };

function pick(parts) {
  const [first, name, sub] = parts;
  if (!first) return ['fleet', renderFleet];
  if (first === 'changes' && !name) return ['changes', renderChanges];
  if (first === 'search' && !name) return ['search', renderSearch];
  if (first === 'hosts' && name && !sub) return ['fleet', renderHost];
  if (first === 'hosts' && name && sub === 'diff' && parts.length === 3) return ['changes', renderDiff];
  if (first === 'hosts' && name && sub === 'files' && parts.length > 3) return ['fleet', renderFile];
  return [null, null];
}

function markNav(section) {
  for (const a of document.querySelectorAll('header nav a')) {
    if (a.dataset.view === section) a.setAttribute('aria-current', 'page');
    else a.removeAttribute('aria-current');
  }
}

function fail(err) {
  current.stop?.();
  if (err.status === 401) return renderToken(main, err.sentToken, show);
  fill(main, el('h1', {}, 'Something went wrong'), errorBox(err));
}

function show() {
  current.stop?.();
  let route;
  try {
    route = parse(location.hash);
  } catch {
    route = { parts: ['?'], params: {} };
  }
  const [section, render] = pick(route.parts);
  markNav(section);
  // Each view draws into its own container: a late answer for a view left
  // behind lands in a detached node, not over the new one.
  const view = el('div');
  fill(main, view);
  if (!render) return fill(view, el('h1', {}, 'No such page'), el('p', {}, el('a', { href: '#/' }, 'To the fleet')));
  window.scrollTo(0, 0);
  current = render(view, route, { fail });
  if (!current.keepFocus) view.querySelector('h1')?.focus({ preventScroll: true });
  current.ready?.then(() => requestAnimationFrame(() => performance.mark(`kelputil:${route.parts[0] || 'fleet'}`)),
    (err) => { if (main.contains(view)) fail(err); });
}

// The service's own verdict above every view (/healthz needs no token),
// redrawn only when it changes so that it is read out once.
async function checkHealth() {
  const r = await probe(paths.health());
  const h = r ? healthFromApi(r.data) : { ok: false, reasons: ['it does not answer'] };
  const text = h.ok || r?.status === 200 ? '' : h.reasons.join('; ') || `health check answered ${r.status}`;
  if (health.textContent === (text && `The service is failing: ${text}`)) return;
  fill(health, text && el('p', { class: 'banner' }, el('strong', {}, 'The service is failing: '), text));
}

// Only route addresses change the view: the skip link's #main does not.
window.addEventListener('hashchange', () => {
  if (location.hash === '' || location.hash.startsWith('#/')) show();
checkHealth();
setInterval(checkHealth, HEALTH_MS);
});
show();
checkHealth();
setInterval(checkHealth, HEALTH_MS);
