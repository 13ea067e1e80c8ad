// Which hosts' current files contain a text: file, line number and the
// line, each linking to the file at that line.
import { request } from '../api.js';
import { paths, searchFromApi } from '../api_fields.js';
import { el, fill, heading } from '../dom.js';
import { links } from '../route.js';
import { table } from '../widgets.js';

// The line with each occurrence marked, all as text; the service matches
// case and all, and so does the mark.
function marked(text, n) {
  const out = [];
  let at = 0;
  for (let i = text.indexOf(n); n && i >= 0; i = text.indexOf(n, at)) {
    out.push(text.slice(at, i), el('mark', {}, text.slice(i, i + n.length)));
    at = i + n.length;
  }
  out.push(text.slice(at));
  return el('code', {}, out);
}

function results(q, found) {
  if (!found.length) return el('p', {}, `No current file contains “${q}”.`);
  const hosts = new Set(found.map((m) => m.host)).size;
  const rows = found.map((m) => [
    el('a', { href: links.host(m.host) }, m.host),
    m.path,
    el('a', { href: links.file(m.host, m.path, undefined, m.line), 'aria-label': `${m.host} ${m.path} line ${m.line}` },
      String(m.line)),
    marked(m.text, q),
  ]);
  return [el('p', { role: 'status' }, `${found.length} lines in ${hosts} hosts`),
    table(['Host', 'File', 'Line', 'Text'], rows, `Lines containing ${q}`)];
}

export function renderSearch(view, route) {
  const q = route.params.q || '';
  const input = el('input', { type: 'search', id: 'search-text', name: 'q', value: q, required: true });
  const form = el('form', { role: 'search', class: 'filter' },
    el('label', { for: 'search-text' }, 'Text in current files '), input, ' ',
    el('button', { type: 'submit' }, 'Search'));
  form.addEventListener('submit', (e) => {
    e.preventDefault();
    location.hash = links.search(input.value);
  });
  const body = el('div');
  fill(view, heading('Search'), form, body);

  async function load() {
    if (!q) return input.focus();
    fill(body, el('p', {}, 'Searching…'));
    fill(body, results(q, searchFromApi(await request(paths.search(q)))));
  }
  return { ready: load(), keepFocus: !q };
}
