# -*- coding: utf-8 -*-
"""kelputil run for one router with --json: its command line, the password
through a pipe (never argv, never an environment), its JSON lines read as
they come and its answer as a dict."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import base64
import json
import os
import re
import shutil
import subprocess
import threading

MIN_VERSION = (1, 0, 0)
# The router's settings every module takes; each falls back to the host's
# variable kelp_NAME, the address to ansible_host and the port to ansible_port.
SETTINGS = ('kelputil', 'host', 'port', 'plain', 'pin', 'known_hosts', 'timeout', 'password')

_checked = {}  # program path -> its full path, once its version passed


class KelputilError(Exception):
    """kelputil cannot be run at all: missing, too old or not kelputil."""


def find_kelputil(path):
    """The program's full path, checked once per process to be a kelputil recent enough."""
    path = path or 'kelputil'
    if path in _checked:
        return _checked[path]
    found = shutil.which(path)
    if not found:
        raise KelputilError('kelputil not found (%s): install the kelputil package, or give its path as the '
                            'kelputil option or the kelp_kelputil variable' % path)
    try:
        said = subprocess.run([found, '--version'], stdin=subprocess.DEVNULL, capture_output=True, timeout=30,
                              check=False).stdout.decode('utf-8', 'replace').strip()
    except (OSError, subprocess.TimeoutExpired) as e:
        raise KelputilError('%s --version failed: %s' % (found, e))
    m = re.match(r'kelputil (\d+)\.(\d+)\.(\d+)', said)
    wanted = '.'.join(map(str, MIN_VERSION))
    if not m:
        raise KelputilError('%s is not kelputil (its --version says %r): install the kelputil package' % (found, said))
    if tuple(int(n) for n in m.groups()) < MIN_VERSION:
        raise KelputilError('%s is %s, too old: kelp.router needs kelputil %s or later (upgrade the kelputil package)'
                            % (found, said, wanted))
    _checked[path] = found
    return found


class Router:
    """One router as kelputil reaches it. settings: SETTINGS as a dict."""

    def __init__(self, settings):
        self.settings = settings
        if not settings.get('password'):
            raise KelputilError('no password for %s: set ansible_password or kelp_password (Ansible Vault keeps it '
                                'encrypted), or the password option' % settings['host'])
        if '\n' in settings['password'] or '\r' in settings['password']:
            raise KelputilError('the password for %s holds a line break: kelputil takes one line' % settings['host'])
        if len(settings['password'].encode('utf-8', 'surrogateescape')) > 4000:
            raise KelputilError('the password for %s is longer than the 4000 bytes kelputil reads' % settings['host'])
        self.program = find_kelputil(settings.get('kelputil'))
        self.on_note = None  # called with each line kelputil writes on standard error

    def argv(self, args, password_fd, fleet):
        """fleet: the command names its hosts in an inventory, which holds their addresses and ports."""
        s = self.settings
        argv = [self.program, '--json'] + ([] if fleet else ['-H', s['host']])
        for option, key in (('-p', 'port'), ('--pin', 'pin'), ('--known-hosts', 'known_hosts'),
                            ('--timeout', 'timeout')):
            if s.get(key) not in (None, '') and not (fleet and key == 'port'):
                argv += [option, str(s[key])]
        if s.get('plain'):
            argv.append('--plain')
        return argv + ['--password-file', '/dev/fd/%d' % password_fd] + list(args)

    def run(self, *args, **kw):
        """kelputil's answer to one command: its last JSON object, with 'events' (the JSON lines before it),
        'hosts' (a fleet command's lines for its hosts) and 'notes' (what it said on standard error).
        stdin: bytes for a FILE given as '-'; on_event(event) is called as each event arrives."""
        stdin, on_event = kw.get('stdin'), kw.get('on_event')
        read_end, write_end = os.pipe()
        try:
            os.write(write_end, self.settings['password'].encode('utf-8', 'surrogateescape') + b'\n')
        finally:
            os.close(write_end)
        env = dict((k, v) for k, v in os.environ.items() if k != 'KELPUTIL_PASSWORD')
        try:
            proc = subprocess.Popen(self.argv(args, read_end, args[0] == 'fleet'), stdout=subprocess.PIPE,
                                    stdin=subprocess.DEVNULL if stdin is None else subprocess.PIPE,
                                    stderr=subprocess.PIPE, pass_fds=(read_end,), env=env)
        except OSError as e:
            raise KelputilError('cannot run %s: %s' % (self.program, e))
        finally:
            os.close(read_end)
        threads, errors = [], []
        if stdin is not None:
            threads.append(threading.Thread(target=_feed, args=(proc.stdin, stdin)))
        threads.append(threading.Thread(target=lambda: errors.append(proc.stderr.read())))
        for t in threads:
            t.start()
        answer, events, hosts = None, [], []
        for raw in proc.stdout:
            try:
                line = json.loads(raw)
            except ValueError:
                continue
            if isinstance(line, dict) and 'ok' in line:
                if answer is not None:
                    hosts.append(answer)  # a fleet's host lines come before its summary
                answer = line
            elif isinstance(line, dict) and 'event' in line:
                events.append(line)
                if on_event:
                    on_event(line)
        proc.wait()
        for t in threads:
            t.join()
        notes = [n[len('kelputil: '):] if n.startswith('kelputil: ') else n
                 for n in b''.join(errors).decode('utf-8', 'replace').splitlines() if n.strip()]
        for note in notes if self.on_note else []:
            self.on_note(note)
        if answer is None:
            said = 'kelputil ended (status %s) without an answer: %s' % (proc.returncode, ' '.join(notes))
            answer = {'ok': False, 'exit': proc.returncode, 'code': None, 'data': None, 'message': said}
        answer.update(events=events, notes=notes, hosts=hosts)
        return answer


def _feed(pipe, data):
    try:
        pipe.write(data)
        pipe.close()
    except OSError:
        pass  # kelputil stopped reading: its answer says why


def text_of(data, key='text'):
    """A text kelputil gave, as its exact bytes (it adds KEY_base64 when the text is not UTF-8)."""
    if data.get(key + '_base64') is not None:
        return base64.b64decode(data[key + '_base64'])
    return data.get(key, '').encode('utf-8')
