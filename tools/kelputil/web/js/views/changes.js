// The latest change of every host, newest first, each linking to its diff.
import { request } from '../api.js';
import { paths, fleetFromApi } from '../api_fields.js';
import { el, fill, heading } from '../dom.js';
import { links } from '../route.js';
import { when, shortRev, table } from '../widgets.js';

export function renderChanges(view) {
  const body = el('div', {}, el('p', {}, 'Loading…'));
  fill(view, heading('Changes'), body);

  async function load() {
    const hosts = fleetFromApi(await request(paths.hosts())).hosts
      .filter((h) => h.lastChange && h.lastCommit)
      .sort((a, b) => b.lastChange - a.lastChange);
    if (!hosts.length) return fill(body, el('p', {}, 'No host has changed yet.'));
    fill(body, table(['Time', 'Host', 'Change'], hosts.map((h) => [
      when(h.lastChange),
      el('a', { href: links.host(h.name) }, h.name),
      el('a', { href: links.diff(h.name, undefined, h.lastCommit) }, el('code', {}, shortRev(h.lastCommit))),
    ]), 'Latest changes'));
  }
  return { ready: load() };
}
