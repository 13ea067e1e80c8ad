"""A stand-in for kelputil serve on 127.0.0.1: the page's files as kelputil
embeds them (written out by dump_web_assets) with the same headers, and the
API over a canned fleet whose backups are revisions with real unified diffs."""
import difflib, hashlib, json, pathlib, threading, time, urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

HOSTILE = ['<img src=x onerror=window.__pwned=1>', '</script><script>window.__pwned=2</script>']
INTERVAL = 3600


def rule(k, i):
    return f'/ip firewall filter add chain=input action=accept src-address=198.18.{k}.{i}'


class Fleet:
    """routerK for K in 1..size: router7 is down, router12 never backed up,
    router13's texts are hostile, router17 is late by one interval; every
    third host has changed once."""

    def __init__(self, size, token=None):
        self.token, self.revs, self.hosts, self.staged = token, {}, {}, {}
        now = int(time.time())
        for k in range(1, size + 1):
            name = f'router{k}'
            files = {'config.plain': f'hostname {name}\nmodel KR-450\n',
                     'scripts/fw.scr': ''.join(rule(k, i) + '\n' for i in range(1, 6))}
            h = dict(name=name, address=f'198.18.{(k + 1) // 256}.{(k + 1) % 256}', state='ok', failures=0,
                     last_error=None, model='KR-450', firmware='kelp 6.2.1', last_attempt=now - 60,
                     last_success=now - 60, last_duration=0.8, next_due=now + INTERVAL - 60)
            self.hosts[name], self.revs[name] = h, []
            if k == 12:
                h.update(state='pending', last_attempt=None, last_success=None, last_duration=None)
                continue
            self.commit(name, files, now - 3 * 86400, 'fleet backup: first run')
            if k == 17:  # late, but not yet by two intervals
                h.update(last_success=now - INTERVAL * 3 // 2)
            if k == 7:
                h.update(state='failed', failures=5, last_error='connection refused', last_success=now - 5 * INTERVAL)
            if k == 13:
                h.update(model=HOSTILE[0], last_error=HOSTILE[1], firmware=HOSTILE[0])
                files = dict(files, **{'scripts/fw.scr': files['scripts/fw.scr'] + '\n'.join(HOSTILE) + '\n'})
                self.commit(name, files, now - 7200, 'fleet backup: ' + HOSTILE[1])
            elif k % 3 == 0:
                self.commit(name, self.replaced(name, rule(k, 2), rule(k, 9)), now - 7200 - 60 * k,
                            'fleet backup: 1 changed, 0 failed, 0 unreachable')

    def commit(self, name, files, at, message):
        rev = hashlib.sha1(f'{name}{len(self.revs[name])}{at}'.encode()).hexdigest()
        self.revs[name].append(dict(rev=rev, time=at, message=message, files=files))

    def replaced(self, name, old, new):
        return {p: t.replace(old, new) for p, t in self.revs[name][-1]['files'].items()}

    # What a router's operator would do between two backups.
    def change_file(self, name, path, old, new):
        files = dict(self.revs[name][-1]['files'])
        self.staged[name] = dict(files, **{path: files[path].replace(old, new)})

    def host(self, name, history=False):
        revs, h = self.revs[name], dict(self.hosts[name])
        h.update(last_change=revs[-1]['time'] if len(revs) > 1 else None,
                 last_commit=revs[-1]['rev'] if len(revs) > 1 else None)
        if history:
            h['history'] = [dict(rev=r['rev'], time=r['time'], message=r['message'],
                                 files=[dict(path=p, status='M') for p in self.changed(revs, i)])
                            for i, r in reversed(list(enumerate(revs)))]
        return h

    def changed(self, revs, i):
        before = revs[i - 1]['files'] if i else {}
        return [p for p, t in revs[i]['files'].items() if before.get(p) != t]

    def diff(self, name, q):
        revs = self.revs[name]
        at = {r['rev']: i for i, r in enumerate(revs)}
        to = at.get(q.get('to'), len(revs) - 1)
        frm = at.get(q.get('from'), to - 1)
        old, new = revs[frm]['files'] if frm >= 0 else {}, revs[to]['files']
        patch = ''.join(f'diff --git a/{name}/{p} b/{name}/{p}\n' + ''.join(difflib.unified_diff(
            old.get(p, '').splitlines(True), new[p].splitlines(True), f'a/{name}/{p}', f'b/{name}/{p}'))
            for p in sorted(new) if old.get(p) != new[p])
        return dict({'from': revs[frm]['rev']} if frm >= 0 else {}, to=revs[to]['rev'], patch=patch)

    def backup(self, name):
        h, now = self.hosts[name], int(time.time())
        if h['state'] == 'failed':
            return dict(ok=False, changed=False, message=h['last_error'])
        staged = self.staged.pop(name, None)
        if staged:
            self.commit(name, staged, now, 'fleet backup: 1 changed, 0 failed, 0 unreachable')
        h.update(state='ok', last_attempt=now, last_success=now)
        return dict(ok=True, changed=bool(staged), commit=self.revs[name][-1]['rev'], message='')

    def search(self, q):
        return [dict(host=n, path=p, line=i, text=line) for n, revs in self.revs.items() if revs
                for p, t in sorted(revs[-1]['files'].items())
                for i, line in enumerate(t.splitlines(), 1) if q.lower() in line.lower()]

    def answer(self, method, parts, q):
        """(status, body) for an API request; parts: the path after /api/v1/."""
        if parts == ['hosts'] and method == 'GET':
            return 200, dict(interval=INTERVAL, hosts=[self.host(n) for n in self.hosts])
        if parts == ['search'] and method == 'GET':
            return 200, dict(q=q.get('q', ''), matches=self.search(q.get('q', '')))
        if len(parts) < 2 or parts[0] != 'hosts' or parts[1] not in self.hosts:
            return 404, dict(error='no such host or path')
        name, rest = parts[1], parts[2:]
        revs = self.revs[name]
        if method == 'POST':
            return (200, self.backup(name)) if rest == ['backup'] else (405, dict(error='method not allowed'))
        if not rest:
            return 200, self.host(name, history=True)
        if rest == ['diff'] and revs:
            return 200, self.diff(name, q)
        files = next((r['files'] for r in revs if r['rev'] == q.get('rev')), revs[-1]['files'] if revs else {})
        if rest == ['files']:
            return 200, dict(rev=revs[-1]['rev'] if revs else None,
                             files=[dict(path=p, size=len(t)) for p, t in sorted(files.items())])
        path = '/'.join(rest[1:])
        if rest[0] == 'files' and path in files:
            return 200, dict(path=path, content=files[path])
        return 404, dict(error='no such file')


def serve(fleet, asset_dir):
    """Starts the stand-in on a free loopback port; returns (server, base URL)."""
    folder = pathlib.Path(asset_dir)
    assets = {path: (ctype, (folder / file).read_bytes()) for path, ctype, file in
              (line.split('\t') for line in (folder / 'assets.tsv').read_text().splitlines())}
    headers = [line.split('\t') for line in (folder / 'headers.tsv').read_text().splitlines()]

    class Handler(BaseHTTPRequestHandler):
        def log_message(self, *args):
            pass

        def reply(self, status, ctype, body):
            self.send_response(status)
            for name, value in headers + [('Content-Type', ctype), ('Content-Length', str(len(body)))]:
                self.send_header(name, value)
            self.end_headers()
            self.wfile.write(body)

        def handle_any(self, method):
            url = urllib.parse.urlsplit(self.path)
            if not url.path.startswith('/api/'):
                ctype, body = assets.get(url.path, ('text/plain', None))
                return self.reply(200, ctype, body) if body else self.reply(404, 'text/plain', b'not found')
            if fleet.token and self.headers.get('Authorization') != f'Bearer {fleet.token}':
                status, answer = 401, dict(error='missing or wrong token')
            else:
                parts = [urllib.parse.unquote(p) for p in url.path.split('/')[3:]]
                status, answer = fleet.answer(method, parts, dict(urllib.parse.parse_qsl(url.query)))
            self.reply(status, 'application/json', json.dumps(answer).encode())

        def do_GET(self):
            self.handle_any('GET')

        def do_POST(self):
            self.handle_any('POST')

    server = ThreadingHTTPServer(('127.0.0.1', 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server, f'http://127.0.0.1:{server.server_port}/'
