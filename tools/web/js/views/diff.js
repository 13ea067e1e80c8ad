// A change as a diff: added and removed lines marked by sign, element and
// colour. With no revisions in the address the host's last change is shown,
// and the address is then completed so that it stays valid when pasted.
import { request } from '../api.js';
import { paths, hostFromApi, diffFromApi } from '../api_fields.js';
import { el, fill, heading } from '../dom.js';
import { links, replaceAddress } from '../route.js';
import { shortRev } from '../widgets.js';

// Splits a unified diff into one part per file, each named by its path in
// the host's folder (the patch itself keeps git's paths).
function splitFiles(patch, name) {
  const parts = [];
  for (const line of patch.replace(/\n$/, '').split('\n')) {
    if (line.startsWith('diff ') || !parts.length) parts.push({ title: '', lines: [] });
    const part = parts[parts.length - 1];
    // A binary file has no ---/+++ lines: its name is in the diff line.
    const m = /^\+\+\+ (?:b\/)?(.*)$/.exec(line) || /^--- (?:a\/)?(.*)$/.exec(line) || /^diff --git a\/.* b\/(.*)$/.exec(line);
    if (m && m[1] !== '/dev/null') part.title = m[1].startsWith(`${name}/`) ? m[1].slice(name.length + 1) : m[1];
    part.lines.push(line);
  }
  return parts;
}

function lineNode(line) {
  if (line.startsWith('+++') || line.startsWith('---') || line.startsWith('diff ') || line.startsWith('index '))
    return el('span', { class: 'meta' }, line + '\n');
  if (line.startsWith('@@')) return el('span', { class: 'hunk' }, line + '\n');
  if (line.startsWith('+')) return el('ins', {}, line + '\n');
  if (line.startsWith('-')) return el('del', {}, line + '\n');
  return el('span', {}, line + '\n');
}

function filePart(part) {
  const body = part.lines.filter((l) => !/^(\+\+\+|---) /.test(l));
  const added = body.filter((l) => l.startsWith('+')).length;
  const removed = body.filter((l) => l.startsWith('-')).length;
  const binary = body.some((l) => l.startsWith('Binary files '));
  return el('section', { class: 'diff-file' },
    el('h2', {}, part.title || 'change',
      el('span', { class: 'muted' }, binary ? ' binary' : ` +${added} −${removed}`)),
    el('pre', { class: 'diff', tabindex: '0' }, part.lines.map(lineNode)));
}

async function resolve(name, params) {
  if (params.to && params.from) return params;
  const host = hostFromApi(await request(paths.host(name)));
  const i = params.to ? host.history.findIndex((c) => c.rev === params.to) : 0;
  const to = params.to || host.history[0]?.rev;
  const from = params.from || (i >= 0 ? host.history[i + 1]?.rev : undefined);
  return { from, to };
}

export function renderDiff(view, route) {
  const name = route.parts[1];
  const body = el('div', {}, el('p', {}, 'Loading…'));
  const where = el('p', { class: 'muted' });
  fill(view, el('nav', { class: 'crumbs', 'aria-label': 'Breadcrumb' },
    el('a', { href: links.fleet() }, 'Fleet'), ' › ', el('a', { href: links.host(name) }, name), ' › '),
  heading(`${name}: change`), where, body);

  async function load() {
    const { from, to } = await resolve(name, route.params);
    if (to && view.isConnected) replaceAddress(links.diff(name, from, to));
    const d = diffFromApi(await request(paths.diff(name, from, to)));
    fill(where, from ? `From ${shortRev(d.from ?? from)} to ${shortRev(d.to ?? to)}` : `First backup, ${shortRev(d.to ?? to)}`);
    const parts = d.patch ? splitFiles(d.patch, name) : [];
    fill(body, parts.length ? parts.map(filePart) : el('p', {}, 'No differences.'));
  }
  return { ready: load() };
}
