"""The web page in a real headless Chromium against the real `kelputil serve`
on a simulated fleet of 20 routers, router7 down. The script starts itself
again inside `kelp-router --fleet 20`. Exit 77 when there is no Chromium."""
import argparse, json, os, re, subprocess, sys, tempfile, time, unittest, urllib.error, urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import browser  # noqa: E402

ARGS = None
TOKEN = '0123456789abcdef0123'
HOSTILE = ['<img src=x onerror=window.__pwned=1>', '</script><script>window.__pwned=2</script>']
FW = 'config/fw.scr'
SEARCHED = 'iptables -A INPUT -s 198.18.5.4 -j ACCEPT'  # router5's fifth line
HISTORY = '[aria-label^="History of"]'
GONE = 'gone1'  # backed up once, then left out of the inventory
DOWN = ('198.18.0.8:857 refused the connection: is kelputild running there, and is the port right? '
        '(TLS 857, plain 856)')
WORK = None  # in the fleet's own /tmp
SERVE = None


def until(what, check, timeout=30):
    end = time.monotonic() + timeout
    while not check():
        if time.monotonic() > end:
            raise AssertionError(f'waited {timeout} s for {what}')
        time.sleep(0.1)


def add_lines(address, lines):
    """As an operator would: the router's fw script with lines added."""
    run = lambda *a, **kw: subprocess.run(  # noqa: E731
        [ARGS.kelputil, '-q', '-H', address, *a], check=True, timeout=30, **kw)
    text = run('get-script', 'fw', capture_output=True, text=True).stdout
    with open(os.path.join(WORK, 'fw.scr'), 'w') as f:
        f.write(text + ''.join(line + '\n' for line in lines))
    run('put-script', 'fw', os.path.join(WORK, 'fw.scr'))


def get(url, token=TOKEN, method='GET'):
    req = urllib.request.Request(url, method=method, headers={'Authorization': f'Bearer {token}'} if token else {})
    try:
        with urllib.request.urlopen(req, timeout=60) as r:
            return r.status, json.loads(r.read() or 'null')
    except urllib.error.HTTPError as e:
        return e.code, None
    except OSError:
        return None, None


class Service:
    """kelputil serve on 127.0.0.1:port, its repository and state in WORK."""

    def __init__(self, inventory, port, interval):
        self.url = f'http://127.0.0.1:{port}/'
        self.hosts_url = self.url + 'api/v1/hosts'
        with open(os.path.join(WORK, f'serve{port}.log'), 'a') as log:
            self.proc = subprocess.Popen([ARGS.kelputil, 'serve', '-i', inventory,
                                          '--into', os.path.join(WORK, f'bk{port}'),
                                          '--interval', interval, '--timeout', '2',
                                          '--token-file', os.path.join(WORK, 'token'),
                                          '--listen', f'127.0.0.1:{port}'], stderr=log)
        until('the API', lambda: get(self.hosts_url)[0] == 200)

    def hosts(self):
        return get(self.hosts_url)[1]['hosts']

    def close(self):
        self.proc.terminate()
        self.proc.wait(20)


def setUpModule():
    global SERVE
    with open(os.path.join(WORK, 'token'), 'w') as f:
        f.write(TOKEN + '\n')
    os.chmod(os.path.join(WORK, 'token'), 0o600)
    add_lines('198.18.0.14', HOSTILE)  # router13
    # Every router once at a 2 s interval (and GONE, router1 under another
    # name); then the same repository and state at an hour without GONE, so
    # that no scheduled backup races the tests' own.
    with open(os.environ['KELP_INVENTORY']) as f, open(os.path.join(WORK, 'first.ini'), 'w') as first:
        first.write(f.read() + f'{GONE} ansible_host=198.18.0.2\n')
    SERVE = Service(first.name, 8760, '2s')
    until('every host tried', lambda: all(h['state'] != 'pending' for h in SERVE.hosts()))
    SERVE.close()
    add_lines('198.18.0.6', [SEARCHED])  # router5
    SERVE = Service(os.environ['KELP_INVENTORY'], 8760, '1h')
    until('nothing due',
          lambda: all(h['next_due'] > time.time() + 150 for h in SERVE.hosts() if h['name'] != 'router7'))
    assert get(SERVE.url + 'api/v1/hosts/router5/backup?wait=1', method='POST')[0] == 200


def tearDownModule():
    SERVE.close()


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.b = browser.Browser()
        cls.open('#/')
        cls.b.find('#token').send_keys(TOKEN + '\n')
        cls.b.wait('the fleet after the token', lambda: len(cls.b.texts('table.fleet tbody tr')) == 20)

    @classmethod
    def tearDownClass(cls):
        cls.b.quit()

    @classmethod
    def open(cls, address):
        """As when pasted into the address bar: a new load, not a hash change."""
        cls.b.driver.get('about:blank')
        cls.b.driver.get(SERVE.url + address)

    def fleet_rows(self):
        return self.b.js("""return [...document.querySelectorAll('table.fleet tbody tr')].map(r =>
            [...r.cells].map(c => c.textContent).concat(r.querySelector('.state').className))""")

    def test_fleet_lists_every_host_and_marks_the_down_one(self):
        self.open('#/')
        rows = self.b.wait('20 hosts', lambda: len(self.fleet_rows()) == 20 and self.fleet_rows())
        self.assertEqual([r[0] for r in rows], [f'router{k}' for k in range(1, 21)])
        self.assertEqual([h['name'] for h in SERVE.hosts()], [f'router{k}' for k in range(1, 21)])
        by_name = {r[0]: r for r in rows}
        for host, address, state, error in [
                ('router1', '198.18.0.2', 'state state-ok', ''),
                ('router7', '198.18.0.8', 'state state-failed', DOWN),
                ('router20', '198.18.0.21', 'state state-ok', '')]:
            with self.subTest(host=host):
                r = by_name[host]
                self.assertEqual((r[1], r[2], r[7], r[5] != '0', r[6]),
                                 (address, state.split('-')[-1], state, bool(error), error))
        self.assertEqual(by_name['router7'][3:5], ['never', 'never'])
        # router7 has never been backed up, but the service started minutes ago: not overdue.
        self.assertEqual(self.b.texts('.counts li'),
                         ['19 ok', '1 failed', '0 pending', '0 overdue (no backup in two intervals)'])
        self.assertRegex(self.b.texts('main .retired li')[0], rf'^{GONE} · last change .+ · its changes$')
        self.b.shot(ARGS.shots, 'fleet.png')

    def test_every_view_has_its_own_address(self):
        for address, title, shows in [
                ('#/', 'Fleet', 'table.fleet'),
                ('#/changes', 'Changes', 'a[href^="#/hosts/router5/diff?to="]'),
                ('#/search?q=198.18.5.4', 'Search', f'a[href="#/hosts/router5/files/{FW}?line=5"]'),
                ('#/hosts/router5', 'router5', 'a[href^="#/hosts/router5/diff?from="]'),
                (f'#/hosts/router5/files/{FW}?line=2', FW, 'li.target'),
                ('#/hosts/router3/history', 'No such page', 'a[href="#/"]'),
                ('#/hosts/router5/diff', 'router5: change', 'ins')]:
            with self.subTest(address=address):
                self.open(address)
                self.b.find(f'main {shows}')
                self.assertEqual(self.b.heading(), title)
        # A diff's address is completed with both revisions and still shows
        # the same change when pasted into a fresh browser tab.
        self.assertRegex(self.b.driver.current_url, r'#/hosts/router5/diff\?from=[0-9a-f]{10}&to=[0-9a-f]{10}$')
        self.open(self.b.driver.current_url[len(SERVE.url):])
        self.b.find('main ins')
        self.assertEqual(self.b.texts('main ins, main del'), ['+' + SEARCHED + '\n'])
        # A first backup is a change too: every line added.
        self.open('#/hosts/router3/diff')
        self.b.find('main ins')
        self.assertRegex(self.b.driver.current_url, r'#/hosts/router3/diff\?to=[0-9a-f]{10}$')
        self.assertRegex(self.b.texts('main p.muted')[0], r'^First backup, [0-9a-f]{10}$')
        self.assertIn('+iptables -P INPUT DROP\n', self.b.texts('main ins'))
        # Changes: every host's latest, newest first.
        self.open('#/changes')
        times = self.b.wait('the changes', lambda: self.b.js(
            "return [...document.querySelectorAll('main time')].map(t => t.getAttribute('datetime'))"))
        self.assertEqual((len(times) >= 19, times), (True, sorted(times, reverse=True)))
        # Each change in a host's history links to its diff against the one before.
        self.open('#/hosts/router5')
        newest, first = self.b.wait('the history', lambda: self.b.js(
            "return [...document.querySelectorAll(arguments[0])].map(a => a.getAttribute('href'))",
            f'main {HISTORY} a'))
        self.assertEqual(first, '#/hosts/router5/diff?to='
                         + re.match(r'#/hosts/router5/diff\?from=(\w+)&to=\w+$', newest)[1])

    def test_back_up_now_shows_the_changed_line_in_the_diff(self):
        add_lines('198.18.0.5', ['iptables -A INPUT -s 198.18.4.77 -j ACCEPT'])  # router4
        self.open('#/hosts/router4')
        self.b.find('main table')
        self.b.wait('the button', lambda: [b for b in self.b.driver.find_elements('css selector', 'main button')
                                           if b.text == 'Back up now'])[0].click()
        done = self.b.wait('the result', lambda: self.b.texts('main .done'), 40)
        self.assertRegex(done[0], r'^Backup done: changed, now at [0-9a-f]{10}\.$')
        self.b.wait('the new change in the history', lambda: len(self.b.texts(f'main {HISTORY} tbody tr')) == 2)
        self.b.find(f'main {HISTORY} tbody tr a[href*="/diff?"]').click()
        self.b.wait('the diff', lambda: self.b.texts('main ins'))
        self.assertEqual(self.b.texts('main ins, main del'), ['+iptables -A INPUT -s 198.18.4.77 -j ACCEPT\n'])
        self.assertEqual(self.b.heading(), 'router4: change')
        # One heading per file the API names, by its path in the host's folder; the script's with the line.
        query = re.search(r'diff\?(.*)$', self.b.driver.current_url)[1]
        files = get(f'{SERVE.url}api/v1/hosts/router4/diff?{query}')[1]['files']
        titles = dict(re.match(r'^(.*) (\+\d+ −\d+|binary)$', t).groups() for t in self.b.texts('main h2'))
        self.assertEqual((list(titles), titles.get(FW)), ([f['path'] for f in files], '+1 −0'))
        self.b.shot(ARGS.shots, 'diff.png')

    def test_every_host_has_its_whole_page(self):
        for host, state, error, result, files in [
                ('router7', 'failed', DOWN, 'failed', 'No files backed up yet.'),
                ('router5', 'ok', 'none', 'changed', FW)]:
            with self.subTest(host=host):
                self.open(f'#/hosts/{host}')
                attempts = self.b.wait('the attempts', lambda: self.b.js(
                    "return [...document.querySelectorAll('main [aria-label^=\"Backup attempts\"] tbody tr')]"
                    ".map(r => [...r.cells].map(c => c.textContent))"))
                details = dict(zip(self.b.texts('main dt'), self.b.texts('main dd')))
                self.assertEqual((self.b.heading(), details['State'], details['Last error']), (host, state, error))
                self.assertRegex(details['Next backup'], r'^in \d+ \w+$|^now$|^\d+ \w+ ago$')
                self.assertIn([result, '' if state == 'ok' else error], [a[2:4] for a in attempts])
                text = self.b.js("return document.querySelector('main').textContent")
                self.assertEqual(('Something went wrong' in text, files in text, 'Back up now' in text),
                                 (False, True, True))
        self.b.shot(ARGS.shots, 'host.png')

    def test_changes_in_a_range_link_to_each_diff(self):
        self.open('#/')
        retired = self.b.find('main .retired a[href^="#/changes"]').get_attribute('href')[len(SERVE.url):]
        first = get(SERVE.url + 'api/v1/hosts/router4')[1]['history'][-1]['rev']
        gone = get(SERVE.url + f'api/v1/hosts/{GONE}')[1]['history'][0]['rev']
        day = lambda t: time.strftime('%Y-%m-%d', time.localtime(t))  # noqa: E731
        def shown():
            return self.b.js("""const c = document.querySelector('main .changes');
                return c && !c.textContent.startsWith('Loading') && {rows: [...c.querySelectorAll('tbody tr')].map(r =>
                    [r.cells[1].textContent, r.cells[2].querySelector('a')?.getAttribute('href') ?? null])}""")
        # The range typed into the form or given in a link; a change it shows; the only host it shows.
        for since, until, address, change, only in [
                (day(time.time() - 86400), day(time.time()), '#/changes',
                 ['router4', f'#/hosts/router4/diff?to={first}'], None),
                ('2001-01-01', '2001-01-31', '#/changes', None, None),
                (None, None, retired, [GONE, f'#/hosts/{GONE}/diff?to={gone}'], GONE)]:
            with self.subTest(since=since, address=address):
                self.open(address)
                self.b.find('main table')
                if since:
                    self.b.js("document.getElementById('changes-since').value = arguments[0];"
                              "document.getElementById('changes-until').value = arguments[1]", since, until)
                    self.b.find('main form button').click()
                    self.b.wait('the range', lambda: self.b.js('return location.hash') ==
                                f'#/changes?since={since}&until={until}')
                rows = self.b.wait('the changes', shown)['rows']
                self.assertTrue(change in rows if change else rows == [], rows)
                self.assertEqual({r[0] for r in rows} if only else None, {only} if only else None)
        self.open('#/changes')
        self.b.find(f'main a[href="#/hosts/router4/diff?to={first}"]').click()
        self.b.find('main ins')
        self.assertEqual(self.b.heading(), 'router4: change')
        # A host that left the inventory keeps its page: history and files, nothing to back up.
        self.open(f'#/hosts/{GONE}')
        self.b.find(f'main a[href="#/hosts/{GONE}/files/{FW}"]')
        text = self.b.js("return document.querySelector('main').textContent")
        state = dict(zip(self.b.texts('main dt'), self.b.texts('main dd')))['State']
        self.assertEqual((state, 'Back up now' in text, 'Something went wrong' in text), ('retired', False, False))

    def test_search_finds_the_line_and_its_link_opens_the_file_at_it(self):
        from selenium.webdriver.common.keys import Keys
        self.open('#/search')
        self.b.find('#search-text').send_keys('-s 198.18.5.4' + Keys.ENTER)
        self.b.wait('a result', lambda: self.b.texts('main tbody tr'))
        self.assertEqual(
            self.b.js("""return [...document.querySelectorAll('main tbody td')].map(c => c.textContent)"""),
            ['router5', FW, '5', SEARCHED])
        self.assertEqual(self.b.texts('main mark'), ['-s 198.18.5.4'])
        self.b.find(f'main a[aria-label="router5 {FW} line 5"]').send_keys(Keys.ENTER)
        self.b.find('main li.target')
        self.assertEqual(self.b.js("""const t = document.querySelector('main li.target');
            return [[...t.parentNode.children].indexOf(t) + 1, t.textContent, document.activeElement === t]"""),
                         [5, SEARCHED, True])

    def test_filter_sort_scroll_and_focus_survive_a_refresh(self):
        from selenium.webdriver.common.keys import Keys
        self.b.driver.set_window_size(900, 420)
        try:
            self.open('#/')
            names = lambda: [r[0] for r in self.fleet_rows()]  # noqa: E731
            ascending = ['router1'] + [f'router{k}' for k in range(10, 20)]
            expected = ascending[::-1]
            sort = lambda: self.b.find('table.fleet th button').send_keys(Keys.ENTER)  # noqa: E731

            # Both answer at once: a refresh, every few seconds, must not be
            # what puts them right. One that falls in between proves nothing,
            # so the step is tried again.
            def at_once(what, step, shown):
                for _ in range(3):
                    refreshed = self.b.texts('main p.muted')[0]
                    step()
                    self.b.wait(what, lambda: names() == shown)
                    if self.b.texts('main p.muted')[0] == refreshed:
                        return
                self.fail(f'{what}: shown only after a refresh')
            at_once('the filter', lambda: (self.b.find('#fleet-filter').clear(),
                                           self.b.find('#fleet-filter').send_keys('ROUTER1')), ascending)
            at_once('the sort', lambda: (sort(), self.b.wait('ascending', lambda: names() == ascending), sort())
                    if names() == expected else sort(), expected)
            self.b.js('window.scrollTo(0, 120)')
            before = self.b.texts('main p.muted')[0]
            self.b.wait('a refresh', lambda: self.b.texts('main p.muted')[0] != before, timeout=15)
            self.assertEqual(names(), expected)
            self.assertEqual(self.b.js("""return [document.getElementById('fleet-filter').value, scrollY,
                document.activeElement.textContent, location.hash]"""),
                             ['ROUTER1', 120, 'Name ▼', '#/?q=ROUTER1&dir=desc'])
        finally:
            self.b.driver.set_window_size(1280, 900)

    def test_hostile_texts_are_shown_as_text_and_run_nothing(self):
        self.b.errors()
        img, script = HOSTILE
        for address, wanted in [('#/hosts/router13/diff', ['+' + img, '+' + script]),
                                (f'#/hosts/router13/files/{FW}', [img, script]),
                                ('#/search?q=%3Cimg', [img])]:
            with self.subTest(address=address):
                self.open(address)
                text = self.b.wait('the texts', lambda: all(w in self.b.js(
                    "return document.querySelector('main').textContent") for w in wanted))
                self.assertTrue(text)
                self.assertEqual(self.b.js(
                    """return [window.__pwned ?? null, document.querySelectorAll('main img, main script').length,
                    performance.getEntriesByType('resource').filter(r => /\/x$/.test(r.name)).length]"""), [None, 0, 0])
        self.assertEqual(self.b.errors(), [])
        # The service's policy itself: a script element slipped into the page is not run.
        self.b.js("const s = document.createElement('script'); s.textContent = 'window.__pwned = 3'; "
                  "document.body.append(s)")
        self.assertIsNone(self.b.js('return window.__pwned ?? null'))
        self.assertTrue(any('Content Security Policy' in e for e in self.b.errors()))

    def test_the_token_is_asked_once_and_a_wrong_one_is_said_to_be_wrong(self):
        for token, status in [(None, 401), ('wrong', 401), (TOKEN, 200)]:
            with self.subTest(token=token):
                self.assertEqual(get(SERVE.hosts_url, token)[0], status)
        d = self.b.driver
        first = d.current_window_handle
        d.switch_to.new_window('tab')
        try:
            d.get(SERVE.url + '#/changes')
            self.b.find('#token').send_keys('wrong\n')
            self.assertEqual(self.b.wait('the refusal', lambda: self.b.texts('main [role=alert]')),
                             ['That token is wrong: the service refused it.'])
            self.b.find('#token').send_keys(TOKEN + '\n')
            self.assertEqual(self.b.heading(), 'Changes')
            d.refresh()
            self.b.find('main table')
            self.assertEqual(self.b.heading(), 'Changes')
        finally:
            d.close()
            d.switch_to.window(first)

    def test_narrow_and_dark(self):
        self.b.driver.set_window_size(380, 800)
        try:
            for address, scheme, background in [('#/', 'light', 'rgb(255, 255, 255)'),
                                                 ('#/hosts/router3', 'dark', 'rgb(16, 20, 24)'),
                                                 ('#/hosts/router5/diff', 'light', 'rgb(255, 255, 255)'),
                                                 ('#/changes', 'dark', 'rgb(16, 20, 24)'),
                                                 ('#/', 'dark', 'rgb(16, 20, 24)')]:
                with self.subTest(address=address, scheme=scheme):
                    self.b.driver.execute_cdp_cmd('Emulation.setEmulatedMedia', {
                        'features': [{'name': 'prefers-color-scheme', 'value': scheme}]})
                    self.open(address)
                    self.b.find('main table, main ins')
                    self.assertEqual(self.b.js("""return [getComputedStyle(document.body).backgroundColor,
                        document.documentElement.scrollWidth <= innerWidth]"""), [background, True])
            self.b.shot(ARGS.shots, 'fleet-phone-dark.png')
        finally:
            self.b.driver.execute_cdp_cmd('Emulation.setEmulatedMedia', {'features': []})
            self.b.driver.set_window_size(1280, 900)


class Scale(unittest.TestCase):
    def test_a_thousand_hosts_within_a_second_and_small_files(self):
        # A second service with 1000 hosts at addresses of the fleet's network
        # where no router answers: pending, one tried and failed.
        inventory = os.path.join(WORK, 'thousand.ini')
        with open(inventory, 'w') as f:
            f.write('[routers]\n' + ''.join(f'host{k} ansible_host=198.18.{4 + k // 250}.{1 + k % 250}\n'
                                            for k in range(1000)))
        service, b = Service(inventory, 8761, '1h'), browser.Browser()
        try:
            b.driver.get(service.url)
            b.js("sessionStorage.setItem('kelputil.token', arguments[0])", TOKEN)
            b.driver.get('about:blank')
            b.driver.get(service.url + '#/')
            b.wait('1000 hosts',
                   lambda: b.js("return document.querySelectorAll('table.fleet tbody tr').length") == 1000)
            shown = b.wait('the mark', lambda: b.js(
                "return performance.getEntriesByName('kelputil:fleet')[0]?.startTime"))
            size = b.js(
                """return performance.getEntriesByType('navigation').concat(performance.getEntriesByType('resource'))
                .filter(r => !r.name.includes('/api/')).reduce((n, r) => n + r.decodedBodySize, 0)""")
            print(f'\n1000 hosts shown {shown:.0f} ms after navigation; page files {size} bytes', file=sys.stderr)
            self.assertLess(shown, 1000)
            self.assertLess(size, 100 * 1024)
            # A fresh start is no outage, and a host not tried yet has its address.
            self.assertEqual(b.js("""return [document.querySelectorAll('.counts li')[3].textContent,
                [...document.querySelectorAll('table.fleet tbody tr')].filter(r => !r.cells[1].textContent).length]"""),
                             ['0 overdue (no backup in two intervals)', 0])
            service.close()
            b.wait('the banner', lambda: b.texts('#health') == ['The service is failing: it does not answer'], 10)
        finally:
            b.quit()
            service.close()


def main():
    global ARGS, WORK
    parser = argparse.ArgumentParser()
    parser.add_argument('--kelputil', required=True, help='the kelputil program')
    parser.add_argument('--router', help='kelp-router, to start the fleet and this script in it')
    parser.add_argument('--shots', required=True, help='where screenshots go')
    ARGS, rest = parser.parse_known_args()
    if ARGS.router:
        why = browser.missing()
        if why:
            print(f'SKIP: {why}')
            return 77
        inside = [sys.executable, os.path.abspath(__file__), '--kelputil', ARGS.kelputil, '--shots', ARGS.shots] + rest
        return subprocess.run([ARGS.router, '--password', 'pw', '--fleet', '20', '--fault', 'down:7', '--'] + inside,
                              timeout=400).returncode
    WORK = tempfile.mkdtemp(prefix='kelp-web-')
    os.environ.update(KELPUTIL_PASSWORD='pw', XDG_CONFIG_HOME='/run/sim/config', HOME=WORK)
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
