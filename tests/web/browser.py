"""Headless Chromium through chromedriver, started so that it contacts
nothing but the page under test."""
import os, shutil, tempfile, time

FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
         '--disable-background-networking', '--disable-component-update', '--disable-sync']


def missing():
    """Why the browser tests cannot run here, or None."""
    if not shutil.which('chromium') or not shutil.which('chromedriver'):
        return 'chromium and chromium-driver are not installed (scripts/install-deps.sh native)'
    try:
        import selenium  # noqa: F401
    except ImportError:
        return "python3-selenium is not installed for this python"
    return None


class Browser:
    def __init__(self):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        self.profile = tempfile.mkdtemp(prefix='kelp-web-')
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which('chromium')
        for flag in FLAGS + [f'--user-data-dir={self.profile}', '--window-size=1280,900']:
            options.add_argument(flag)
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        self.driver = webdriver.Chrome(service=Service(shutil.which('chromedriver')), options=options)
        self.driver.set_page_load_timeout(20)

    def quit(self):
        self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)

    def js(self, script, *args):
        return self.driver.execute_script(script, *args)

    def wait(self, what, check, timeout=10):
        """Polls check() until it returns something true; fails naming what."""
        end = time.monotonic() + timeout
        while True:
            try:
                value = check()
            except Exception:  # the page may be between two views
                value = None
            if value:
                return value
            if time.monotonic() > end:
                raise AssertionError(f'waited {timeout} s for {what}')
            time.sleep(0.05)

    def find(self, css, timeout=10):
        return self.wait(css, lambda: self.driver.find_element('css selector', css), timeout)

    def texts(self, css):
        return self.js('return [...document.querySelectorAll(arguments[0])].map(e => e.textContent)', css)

    def heading(self):
        return self.wait('a heading', lambda: self.js("return document.querySelector('main h1')?.textContent"))

    def errors(self):
        return [e['message'] for e in self.driver.get_log('browser') if e['level'] == 'SEVERE']

    def shot(self, folder, name):
        os.makedirs(folder, exist_ok=True)
        self.driver.save_screenshot(os.path.join(folder, name))
