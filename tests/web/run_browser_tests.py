"""The web page in a real headless Chromium. Today against the stand-in
API (standin.py); `kelputil serve` on a simulated fleet replaces it in
Target alone. Exit 77 when there is no Chromium to ask."""
import argparse, os, re, subprocess, sys, tempfile, unittest, urllib.error, urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import browser  # noqa: E402
import standin  # noqa: E402

ARGS = None
TOKEN = 's3cret'
ASSETS = tempfile.TemporaryDirectory(prefix='kelp-web-assets-')


class Target:
    """A service under test: its base URL, its token, and a way to change a
    router's file so that its next backup finds a change."""

    def __init__(self, size, assets):
        self.fleet = standin.Fleet(size, TOKEN)
        self.server, self.url = standin.serve(self.fleet, assets)
        self.token = TOKEN

    def change_file(self, host, path, old, new):
        self.fleet.change_file(host, path, old, new)

    def close(self):
        self.server.shutdown()
        self.server.server_close()


def setUpModule():
    os.mkdir(os.path.join(ASSETS.name, 'files'))
    subprocess.run([ARGS.dump, ASSETS.name], check=True)


def tearDownModule():
    ASSETS.cleanup()


def get(url, token=None):
    req = urllib.request.Request(url, headers={'Authorization': f'Bearer {token}'} if token else {})
    try:
        with urllib.request.urlopen(req, timeout=10) as r:
            return r.status
    except urllib.error.HTTPError as e:
        return e.code


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.target = Target(20, ASSETS.name)
        cls.b = browser.Browser()
        cls.open('#/')
        cls.b.find('#token').send_keys(TOKEN + '\n')
        cls.b.wait('the fleet after the token', lambda: len(cls.b.texts('table.fleet tbody tr')) == 20)

    @classmethod
    def tearDownClass(cls):
        cls.b.quit()
        cls.target.close()

    @classmethod
    def open(cls, address):
        """As when pasted into the address bar: a new load, not a hash change."""
        cls.b.driver.get('about:blank')
        cls.b.driver.get(cls.target.url + address)

    def fleet_rows(self):
        return self.b.js("""return [...document.querySelectorAll('table.fleet tbody tr')].map(r =>
            [...r.cells].map(c => c.textContent).concat(r.querySelector('.state').className))""")

    def test_fleet_lists_every_host_and_marks_the_down_one(self):
        self.open('#/')
        rows = self.b.wait('20 hosts', lambda: len(self.fleet_rows()) == 20 and self.fleet_rows())
        self.assertEqual([r[0] for r in rows], [f'router{k}' for k in range(1, 21)])
        by_name = {r[0]: r for r in rows}
        for host, address, state, failures, error in [
                ('router1', '198.18.0.2', 'state state-ok', '0', ''),
                ('router7', '198.18.0.8', 'state state-failed', '5', 'connection refused'),
                ('router12', '198.18.0.13', 'state state-pending', '0', '')]:
            with self.subTest(host=host):
                r = by_name[host]
                self.assertEqual((r[1], r[2], r[7], r[5], r[6]), (address, state.split('-')[-1], state, failures, error))
        self.assertEqual(by_name['router12'][3], 'never')
        self.assertEqual(self.b.texts('.counts li'),
                         ['18 ok', '1 failed', '1 pending', '2 not backed up for two intervals'])
        self.b.shot(ARGS.shots, 'fleet.png')

    def test_every_view_has_its_own_address(self):
        for address, title, shows in [
                ('#/', 'Fleet', 'table.fleet'),
                ('#/changes', 'Changes', 'a[href^="#/hosts/router3/diff?to="]'),
                ('#/search?q=198.18.5.4', 'Search', 'a[href="#/hosts/router5/files/scripts/fw.scr?line=4"]'),
                ('#/hosts/router3', 'router3', 'a[href^="#/hosts/router3/diff?from="]'),
                ('#/hosts/router5/files/scripts/fw.scr?line=2', 'scripts/fw.scr', 'li.target'),
                ('#/hosts/router3/history', 'No such page', 'a[href="#/"]'),
                ('#/hosts/router3/diff', 'router3: change', 'ins')]:
            with self.subTest(address=address):
                self.open(address)
                self.b.find(f'main {shows}')
                self.assertEqual(self.b.heading(), title)
        # A diff's address is completed with both revisions and still shows
        # the same change when pasted into a fresh browser tab.
        self.assertRegex(self.b.driver.current_url, r'#/hosts/router3/diff\?from=[0-9a-f]{40}&to=[0-9a-f]{40}$')
        self.open(self.b.driver.current_url[len(self.target.url):])
        self.b.find('main ins')
        self.assertEqual(self.b.texts('main ins, main del'), [
            '-/ip firewall filter add chain=input action=accept src-address=198.18.3.2\n',
            '+/ip firewall filter add chain=input action=accept src-address=198.18.3.9\n'])
        # Changes: every host's latest, newest first.
        self.open('#/changes')
        times = self.b.wait('the changes', lambda: self.b.js(
            "return [...document.querySelectorAll('main time')].map(t => t.getAttribute('datetime'))"))
        self.assertEqual((len(times) >= 6, times), (True, sorted(times, reverse=True)))
        # Each change in a host's history links to its diff against the one before.
        self.open('#/hosts/router3')
        newest, first = self.b.wait('the history', lambda: self.b.js(
            "return [...document.querySelectorAll('main tbody a[href*=\"/diff?\"]')].map(a => a.getAttribute('href'))"))
        self.assertEqual(first, '#/hosts/router3/diff?to=' + re.match(r'#/hosts/router3/diff\?from=(\w+)&to=\w+$', newest)[1])

    def test_back_up_now_shows_the_changed_line_in_the_diff(self):
        self.target.change_file('router4', 'scripts/fw.scr', 'src-address=198.18.4.3', 'src-address=203.0.113.77')
        self.open('#/hosts/router4')
        self.b.find('main table')
        self.b.wait('the button', lambda: [b for b in self.b.driver.find_elements('css selector', 'main button')
                                           if b.text == 'Back up now'])[0].click()
        done = self.b.wait('the result', lambda: self.b.texts('main .done'))
        self.assertRegex(done[0], r'^Backup done: changed, now at [0-9a-f]{10}\.$')
        self.b.wait('the new change in the history', lambda: len(self.b.texts('main tbody tr')) == 2)
        self.b.find('main tbody tr a[href*="/diff?"]').click()
        self.b.wait('the diff', lambda: self.b.texts('main ins'))
        self.assertEqual(self.b.texts('main ins, main del'), [
            '-/ip firewall filter add chain=input action=accept src-address=198.18.4.3\n',
            '+/ip firewall filter add chain=input action=accept src-address=203.0.113.77\n'])
        self.assertEqual(self.b.heading(), 'router4: change')
        self.b.shot(ARGS.shots, 'diff.png')

    def test_search_finds_the_line_and_its_link_opens_the_file_at_it(self):
        from selenium.webdriver.common.keys import Keys
        self.open('#/search')
        self.b.find('#search-text').send_keys('SRC-address=198.18.5.4' + Keys.ENTER)
        self.b.wait('a result', lambda: self.b.texts('main tbody tr'))
        self.assertEqual(self.b.js("""return [...document.querySelectorAll('main tbody td')].map(c => c.textContent)"""),
                         ['router5', 'scripts/fw.scr', '4', '/ip firewall filter add chain=input action=accept src-address=198.18.5.4'])
        self.assertEqual(self.b.texts('main mark'), ['src-address=198.18.5.4'])
        self.b.find('main a[aria-label="router5 scripts/fw.scr line 4"]').send_keys(Keys.ENTER)
        self.b.find('main li.target')
        self.assertEqual(self.b.js("""const t = document.querySelector('main li.target');
            return [[...t.parentNode.children].indexOf(t) + 1, t.textContent, document.activeElement === t]"""),
                         [4, '/ip firewall filter add chain=input action=accept src-address=198.18.5.4', True])

    def test_filter_sort_scroll_and_focus_survive_a_refresh(self):
        from selenium.webdriver.common.keys import Keys
        self.b.driver.set_window_size(900, 420)
        try:
            self.open('#/')
            self.b.find('#fleet-filter').send_keys('ROUTER1')
            # Both answer at once: a refresh, seconds later, must not be what puts them right.
            names = lambda: [r[0] for r in self.fleet_rows()]  # noqa: E731
            self.b.wait('the filter', lambda: names() == ['router1'] + [f'router{k}' for k in range(10, 20)], 1)
            self.b.find('table.fleet th button').send_keys(Keys.ENTER)
            expected = [f'router{k}' for k in range(19, 9, -1)] + ['router1']
            self.b.wait('the sort', lambda: names() == expected, 1)
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
        img, script = standin.HOSTILE
        for address, wanted in [('#/?q=router13', [script]), ('#/hosts/router13', [img, script]),
                                ('#/hosts/router13/diff', ['+' + img, '+' + script]),
                                ('#/hosts/router13/files/scripts/fw.scr', [img, script]),
                                ('#/search?q=%3Cimg', [img])]:
            with self.subTest(address=address):
                self.open(address)
                text = self.b.wait('the texts', lambda: all(w in self.b.js(
                    "return document.querySelector('main').textContent") for w in wanted))
                self.assertTrue(text)
                self.assertEqual(self.b.js("""return [window.__pwned ?? null, document.querySelectorAll('main img, main script').length,
                    performance.getEntriesByType('resource').filter(r => /\/x$/.test(r.name)).length]"""), [None, 0, 0])
        self.assertEqual(self.b.errors(), [])
        # The policy itself: a script element slipped into the page is not run.
        self.b.js("const s = document.createElement('script'); s.textContent = 'window.__pwned = 3'; document.body.append(s)")
        self.assertIsNone(self.b.js('return window.__pwned ?? null'))
        self.assertTrue(any('Content Security Policy' in e for e in self.b.errors()))

    def test_the_token_is_asked_once_and_a_wrong_one_is_said_to_be_wrong(self):
        for token, status in [(None, 401), ('wrong', 401), (TOKEN, 200)]:
            with self.subTest(token=token):
                self.assertEqual(get(self.target.url + 'api/v1/hosts', token), status)
        self.assertEqual(get(self.target.url), 200)  # the page itself, to ask for it
        d = self.b.driver
        first = d.current_window_handle
        d.switch_to.new_window('tab')
        try:
            d.get(self.target.url + '#/changes')
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
                                                 ('#/hosts/router3/diff', 'light', 'rgb(255, 255, 255)'),
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
        with open(os.path.join(ASSETS.name, 'assets.tsv')) as index:
            sizes = [os.path.getsize(os.path.join(ASSETS.name, line.split('\t')[2].strip()))
                     for line in index if not line.startswith('/\t')]
        self.assertLessEqual(sum(sizes), 100 * 1024)
        target, b = Target(1000, ASSETS.name), browser.Browser()
        try:
            b.driver.get(target.url)
            b.js("sessionStorage.setItem('kelputil.token', arguments[0])", TOKEN)
            b.driver.get('about:blank')
            b.driver.get(target.url + '#/')
            b.wait('1000 hosts', lambda: b.js("return document.querySelectorAll('table.fleet tbody tr').length") == 1000)
            shown = b.wait('the mark', lambda: b.js(
                "return performance.getEntriesByName('kelputil:fleet')[0]?.startTime"))
            print(f'\n1000 hosts shown {shown:.0f} ms after navigation; page files {sum(sizes)} bytes', file=sys.stderr)
            self.assertLess(shown, 1000)
        finally:
            b.quit()
            target.close()


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument('--dump', required=True, help='the dump_web_assets program')
    parser.add_argument('--shots', required=True, help='where screenshots go')
    ARGS, rest = parser.parse_known_args()
    why = browser.missing()
    if why:
        print(f'SKIP: {why}')
        return 77
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
