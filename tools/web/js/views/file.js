// One backed-up file with numbered lines; ?line=N marks that line and
// brings it into view.
import { request } from '../api.js';
import { paths, fileTextFromApi } from '../api_fields.js';
import { el, fill, heading } from '../dom.js';
import { links } from '../route.js';
import { shortRev } from '../widgets.js';

export function renderFile(view, route) {
  const name = route.parts[1];
  const path = route.parts.slice(3).join('/');
  const { rev, line } = route.params;
  const body = el('div', {}, el('p', {}, 'Loading…'));
  fill(view, el('nav', { class: 'crumbs', 'aria-label': 'Breadcrumb' },
    el('a', { href: links.fleet() }, 'Fleet'), ' › ', el('a', { href: links.host(name) }, name), ' › '),
  heading(path), el('p', { class: 'muted' }, rev ? `${name} at ${shortRev(rev)}` : `${name}, current`), body);

  async function load() {
    const text = fileTextFromApi(await request(paths.file(name, path, rev)));
    const target = Number(line);
    const items = text.replace(/\n$/, '').split('\n').map((l, i) =>
      el('li', i + 1 === target ? { class: 'target', 'aria-current': 'true', tabindex: '-1' } : {},
        el('code', {}, l)));
    fill(body, el('ol', { class: 'file' }, items));
    const marked = body.querySelector('.target');
    if (marked) {
      marked.scrollIntoView({ block: 'center' });
      marked.focus({ preventScroll: true });
    }
  }
  return { ready: load(), keepFocus: Boolean(line) };
}
