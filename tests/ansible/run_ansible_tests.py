"""The kelp.router collection under Debian's real ansible-playbook, against a
simulated fleet of 12 routers: router3 down, router5 silent, router7 with
another password, router11 whose flash fails and router12 that does not come
back from a reboot. The script starts itself again inside `kelp-router`.
Exit 77 when Ansible is not installed."""
import argparse, glob, json, os, re, shutil, subprocess, sys, tempfile, threading, time, unittest, urllib.request

ARGS = None
PASSWORD = None  # the routers' admin password, Vault-encrypted for the plays
WORK = None  # in the fleet's own /tmp
FAULTY = {'router3', 'router5', 'router7'}
HOSTS = [f'router{k}' for k in range(1, 13)]
ANSWERING = [h for h in HOSTS if h not in FAULTY]
NEW_FW = '#!/bin/sh\n# firewall, from Ansible\niptables -P INPUT DROP\niptables -A INPUT -i lo -j ACCEPT\n'


def address(host):
    return f'198.18.0.{int(host[6:]) + 1}'


def kelputil(host, *args, **kw):
    return subprocess.run([ARGS.kelputil, '-q', '-H', address(host), '--password-file', '/proc/self/fd/0', *args],
                          input=PASSWORD + '\n', capture_output=True, text=True, timeout=60, **kw)


def read(path, mode='r'):
    with open(path, mode) as f:
        return f.read()


def router_log(host, name='messages'):
    return read(f'/run/fleet/{host}/{name}')


def play(playbook, *options, scan=None):
    """ansible-playbook's output, its recap as {host: {ok, changed, failed, ...}} and each host's last result."""
    tree = tempfile.mkdtemp(dir=WORK)
    env = dict(os.environ, ANSIBLE_CALLBACKS_ENABLED='tree', ANSIBLE_CALLBACK_TREE_DIR=tree)
    proc = subprocess.Popen(['ansible-playbook', '-i', os.environ['KELP_INVENTORY'], '--vault-password-file',
                             os.path.join(WORK, 'vault-pass'), os.path.join(WORK, playbook), *options],
                            cwd=WORK, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    watcher = threading.Thread(target=scan, args=(proc,)) if scan else None
    if watcher:
        watcher.start()
    out = proc.communicate(timeout=150)[0]
    if watcher:
        watcher.join()
    recap = {m[1]: {k: int(v) for k, v in re.findall(r'(\w+)=(\d+)', m[2])}
             for m in re.finditer(r'^(\S+)\s+: (ok=.*)$', out, re.M)}
    results = {h: json.loads(read(os.path.join(tree, h))) for h in os.listdir(tree)}
    return out, recap, results


def hosts_where(recap, key):
    return sorted((h for h, counts in recap.items() if counts[key]), key=HOSTS.index)


def setUpModule():
    for name, text in PLAYBOOKS.items():
        with open(os.path.join(WORK, name), 'w') as f:
            f.write(text)
    with open(os.path.join(WORK, 'vault-pass'), 'w') as f:
        f.write('vault-of-the-test\n')
    vault = ['ansible-vault', 'encrypt_string', '--vault-password-file', os.path.join(WORK, 'vault-pass')]
    secret = subprocess.run(vault + ['--stdin-name', 'kelp_password'], input=PASSWORD, capture_output=True, text=True,
                            check=True, timeout=60).stdout
    os.makedirs(os.path.join(WORK, 'group_vars'))
    with open(os.path.join(WORK, 'group_vars', 'routers.yml'), 'w') as f:
        f.write(secret.rstrip('\n') + '\nkelp_timeout: 3\n')
    with open(os.path.join(WORK, 'fw.bin'), 'wb') as f:
        f.write(b'kelp-firmware-version=3.3.0\n' + bytes(4096))


class Fleet(unittest.TestCase):
    def assert_faulty_reported(self, recap, results):
        self.assertEqual(hosts_where(recap, 'failed'), sorted(FAULTY, key=HOSTS.index))
        self.assertEqual(hosts_where(recap, 'unreachable'), [])
        for host, says in [('router3', 'refused the connection'), ('router5', 'sent no greeting'),
                           ('router7', 'the device refused the password')]:
            result = results[host].get('failed_modules', {}).get('kelp.router.facts', results[host])
            self.assertIn(says, result['msg'], host)

    def test_bundles_to_a_file_into_a_repository_and_back(self):
        out, recap, results = play('bundles.yml', '-l', 'router1,router2,router3')
        self.assertEqual({h: recap[h]['failed'] for h in recap}, {'router1': 0, 'router2': 0, 'router3': 1}, out)
        self.assertIn('198.18.0.4:857 refused the connection', results['router3']['msg'])
        self.assertEqual(os.stat(os.path.join(WORK, 'bundles', 'router1.dat')).st_mode & 0o777, 0o600)
        self.assertEqual(subprocess.run(['git', '-C', os.path.join(WORK, 'repo'), 'log', '--format=%s'], text=True,
                                        capture_output=True).stdout.count('\n'), 2)
        self.assertNotIn('configuration installed', router_log('router1', 'events'))

    def test_facts_for_every_answering_host_as_a_task_and_as_the_plays_gathering(self):
        for playbook in ['facts.yml', 'gather.yml']:
            out, recap, results = play(playbook)
            self.assertEqual(hosts_where(recap, 'ok'), ANSWERING, out)
            self.assert_faulty_reported(recap, results)
            for host in ANSWERING:
                mac = '02:00:c6:12:00:%02x' % (int(host[6:]) + 1)
                said = f'simulated kelp-v3 router 3.2.1 {address(host)} 1500 {mac} min,interfaces'
                self.assertEqual(results[host]['msg'], said, out)

    def test_upgrade_rollout_stops_at_the_batch_with_a_failed_router(self):
        # serial 2: batches router1+2, router3+4, ...; router3 is down. Then without router3 and router5 the
        # batches are router1+2, router4+6, router7+8, ...: router7 refuses the password. Last, the two whose
        # flash fails or who do not come back. (Last of the tests: router12 is gone after it.)
        for limit, failed, flashed, says in [
                ('routers', ['router3'], ['router1', 'router2', 'router4'], {}),
                ('routers:!router3:!router5', ['router7'], ['router6', 'router8'], {}),
                ('router11,router12', ['router11', 'router12'], [], {
                    'router11': 'error: image check failed',
                    'router12': 'router12 was flashed and did not answer again within 3 s (settle)'})]:
            before = {h: router_log(h).count('firmware received') for h in HOSTS}
            out, recap, results = play('firmware.yml', '-v', '-l', limit, '-e', 'settle=3')
            self.assertEqual(hosts_where(recap, 'failed'), failed, out)
            self.assertEqual(hosts_where(recap, 'changed'), flashed, out)
            received = [h for h in HOSTS if router_log(h).count('firmware received') > before[h]]
            self.assertEqual(received, sorted(flashed + list(says), key=HOSTS.index))
            for host in flashed:
                self.assertEqual((results[host]['version_before'], results[host]['version']), ('3.2.1', '3.3.0'))
            for host, message in says.items():
                self.assertIn(message, results[host]['msg'])
            self.assertIn('writing flash 50%', out)
        self.assertIn('3.2.1', kelputil('router10', 'report', 'full').stdout.splitlines()[1])

    def test_kelputil_missing_or_too_old_named(self):
        with open(os.open(os.path.join(WORK, 'old-kelputil'), os.O_WRONLY | os.O_CREAT, 0o755), 'w') as f:
            f.write('#!/bin/sh\necho kelputil 0.9.0\n')
        out, recap, results = play('kelputil.yml', '-l', 'router1')
        self.assertEqual(results['router1']['msg'].split(' | '), [
            'kelputil not found (/nonexistent/kelputil): install the kelputil package, or give its path as the '
            'kelputil option or the kelp_kelputil variable',
            f'{WORK}/old-kelputil is kelputil 0.9.0, too old: kelp.router needs kelputil 1.0.0 or later (upgrade the '
            'kelputil package)'], out)

    def test_inventory_plugin_gives_the_state_groups_of_a_real_kelputil_serve(self):
        with open(os.path.join(WORK, 'token'), 'w') as f:
            f.write('token-of-the-test\n')
        os.chmod(os.path.join(WORK, 'token'), 0o600)
        with open(os.path.join(WORK, 'pw'), 'w') as f:
            f.write(PASSWORD + '\n')
        os.chmod(os.path.join(WORK, 'pw'), 0o600)
        serve = subprocess.Popen([ARGS.kelputil, 'serve', '-i', os.environ['KELP_INVENTORY'], '--into',
                                  os.path.join(WORK, 'served'), '--interval', '2s', '--timeout', '2', '--password-file',
                                  os.path.join(WORK, 'pw'), '--token-file', os.path.join(WORK, 'token'), '--listen',
                                  '127.0.0.1:8770'], stderr=subprocess.DEVNULL)
        try:
            def states():
                request = urllib.request.Request('http://127.0.0.1:8770/api/v1/hosts',
                                                 headers={'Authorization': 'Bearer token-of-the-test'})
                try:
                    with urllib.request.urlopen(request, timeout=10) as r:
                        return {h['state'] for h in json.load(r)['hosts']}
                except OSError:
                    return {'pending'}
            end = time.monotonic() + 60
            while 'pending' in states():
                self.assertLess(time.monotonic(), end, 'every host tried within 60 s')
                time.sleep(0.2)
            source = os.path.join(WORK, 'routers.kelp_serve.yml')
            inventory = lambda: subprocess.run(['ansible-inventory', '-i', source, '--list'],  # noqa: E731
                                               capture_output=True, text=True, timeout=60)
            done = inventory()
            self.assertEqual(done.returncode, 0, done.stderr)
            listed = json.loads(done.stdout)
            groups = {g: sorted(listed[g]['hosts'], key=HOSTS.index) for g in ('kelp_ok', 'kelp_failed')}
            self.assertEqual(groups, {'kelp_ok': ANSWERING, 'kelp_failed': sorted(FAULTY, key=HOSTS.index)})
            router1 = listed['_meta']['hostvars']['router1']
            self.assertEqual((router1['ansible_host'], router1['kelp_model'], router1['kelp_state']),
                             ('198.18.0.2', 'simulated kelp-v3 router', 'ok'))
            os.chmod(os.path.join(WORK, 'token'), 0o644)
            self.assertIn('is readable by others: chmod 600', inventory().stderr)
        finally:
            serve.terminate()
            serve.wait(30)
            os.unlink(os.path.join(WORK, 'pw'))

    def test_script_check_mode_then_for_real_then_nothing_left_to_change(self):
        for host in ['router1', 'router2']:  # these two hold it already
            with open(os.path.join(WORK, 'fw.scr'), 'w') as f:
                f.write(NEW_FW)
            kelputil(host, 'put-script', 'fw', os.path.join(WORK, 'fw.scr'))
        differ = [h for h in ANSWERING if h not in ('router1', 'router2')]
        received = lambda: {h: router_log(h).count('fw script received') for h in HOSTS}  # noqa: E731
        applied = lambda: {h: router_log(h, 'events').count('networking reloaded') for h in HOSTS}  # noqa: E731
        start, start_applied = received(), applied()
        out, recap, results = play('script.yml', '--check', '--diff')
        self.assertEqual(hosts_where(recap, 'changed'), differ, out)
        self.assert_faulty_reported(recap, results)
        self.assertEqual(received(), start)
        self.assertIn('+++ after: router4: fw\n@@ -1,4 +1,4 @@\n #!/bin/sh\n-# firewall\n+# firewall, from Ansible\n',
                      out)
        self.assertIn('# firewall\n', kelputil('router4', 'get-script', 'fw').stdout)
        leaks = []
        out, recap, results = play('script.yml', '-vvv', scan=lambda proc: leaks.extend(password_in_processes(proc)))
        self.assertEqual(hosts_where(recap, 'changed'), differ, out)
        self.assertEqual(leaks[0], 'looked', leaks)
        self.assertNotIn(PASSWORD, out)
        self.assertEqual([h for h in HOSTS if received()[h] > start[h]], differ)
        self.assertEqual([h for h in HOSTS if applied()[h] > start_applied[h]], differ)
        self.assertEqual(kelputil('router4', 'get-script', 'fw').stdout, NEW_FW)
        out, recap, results = play('script.yml')
        self.assertEqual(hosts_where(recap, 'changed'), [], out)
        self.assertEqual(hosts_where(recap, 'ok'), ANSWERING, out)

    def test_sessions_kicked_once(self):
        out, recap, results = play('sessions.yml', '-l', 'router1')
        self.assertEqual(recap['router1'], dict(recap['router1'], changed=2, failed=0), out)
        self.assertEqual([u['user'] for u in results['router1']['sessions']['hotspot']], ['carol', 'dave'])
        self.assertNotIn('alice', kelputil('router1', 'ppp').stdout)
        self.assertIn('dave', kelputil('router1', 'hotspot').stdout)

    def test_z_no_password_in_any_file_the_runs_left(self):
        found = [path for folder in ('/tmp', '/run/sim') for path in files_under(folder)
                 if PASSWORD.encode() in read(path, 'rb')]
        self.assertEqual(found, [])


def files_under(folder):
    for root, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(root, name)
            if os.path.isfile(path) and not os.path.islink(path):
                yield path


def password_in_processes(proc):
    """Every process's command line and environment, looked at while the run lasts: 'looked' once a kelputil was
    seen, then what held the password."""
    found, seen = [], False
    while proc.poll() is None:
        for pid in filter(str.isdigit, os.listdir('/proc')):
            if int(pid) == os.getpid():
                continue
            for part in ('cmdline', 'environ'):
                try:
                    with open(f'/proc/{pid}/{part}', 'rb') as f:
                        text = f.read()
                except OSError:
                    continue
                seen |= part == 'cmdline' and b'kelputil\0' in text.replace(b'/kelputil\0', b'kelputil\0')
                if PASSWORD.encode() in text:
                    found.append(f'{pid} {part}: {text[:200]!r}')
        time.sleep(0.02)
    return (['looked'] if seen else ['no kelputil seen']) + found


PLAYBOOKS = {
    'facts.yml': """
- hosts: routers
  gather_facts: false
  tasks:
    - kelp.router.facts:
        gather_subset: [interfaces]
    - debug:
        msg: "{{ ansible_net_model }} {{ ansible_net_version }} {{ ansible_net_all_ipv4_addresses[-1] }}
          {{ ansible_net_interfaces.eth0.mtu }} {{ ansible_net_interfaces.eth0.macaddress }}
          {{ ansible_net_gather_subset | join(',') }}"
""",
    'gather.yml': """
- hosts: routers
  gather_subset: all
  vars:
    ansible_connection: kelp.router.kelputil
    ansible_facts_modules: kelp.router.facts
  module_defaults:
    kelp.router.facts:
      gather_subset: [interfaces]
  tasks:
    - debug:
        msg: "{{ ansible_net_model }} {{ ansible_net_version }} {{ ansible_net_all_ipv4_addresses[-1] }}
          {{ ansible_net_interfaces.eth0.mtu }} {{ ansible_net_interfaces.eth0.macaddress }}
          {{ ansible_net_gather_subset | join(',') }}"
""",
    'script.yml': f"""
- hosts: routers
  gather_facts: false
  tasks:
    - kelp.router.script:
        name: fw
        content: {json.dumps(NEW_FW)}
        apply: true
""",
    'firmware.yml': """
- hosts: routers
  gather_facts: false
  serial: 2
  max_fail_percentage: 0
  tasks:
    - kelp.router.firmware:
        src: fw.bin
        version: 3.3.0
        settle: "{{ settle | default(30) }}"
""",
    'kelputil.yml': """
- hosts: routers
  gather_facts: false
  tasks:
    - kelp.router.facts: {kelputil: /nonexistent/kelputil}
      register: missing
      ignore_errors: true
    - kelp.router.facts: {kelputil: "{{ playbook_dir }}/old-kelputil"}
      register: old
      ignore_errors: true
    - debug: {msg: "{{ missing.msg }} | {{ old.msg }}"}
""",
    'sessions.yml': """
- hosts: routers
  gather_facts: false
  tasks:
    - kelp.router.session: {kind: ppp, user: alice, state: absent}
    - kelp.router.session: {kind: ppp, user: alice, state: absent}
    - kelp.router.session: {address: 10.0.0.102, state: absent}
      check_mode: true
""",
    'bundles.yml': """
- hosts: routers
  gather_facts: false
  tasks:
    - kelp.router.backup: {into: repo}
    - kelp.router.backup: {into: repo}
      register: repo_again
    - kelp.router.backup: {dest: "bundles/{{ inventory_hostname }}.dat"}
    - kelp.router.backup: {dest: "bundles/{{ inventory_hostname }}.dat"}
      register: again
    - kelp.router.restore: {src: "bundles/{{ inventory_hostname }}.dat"}
      register: restore
    - assert:
        that: [not again.changed, not restore.changed, not repo_again.changed]
""",
    'routers.kelp_serve.yml': """
plugin: kelp.router.serve
url: http://127.0.0.1:8770
token_file: token
""",
}


def main():
    global ARGS, WORK, PASSWORD
    parser = argparse.ArgumentParser()
    parser.add_argument('--kelputil', required=True, help='the kelputil program')
    parser.add_argument('--collection', required=True, help="the collection's folder (galaxy.yml)")
    parser.add_argument('--router', help='kelp-router, to start the fleet and this script in it')
    parser.add_argument('--password-file', help='(inside the fleet) the routers\' password, removed once read')
    ARGS, rest = parser.parse_known_args()
    if ARGS.router:
        if not shutil.which('ansible-playbook'):
            print('SKIP: ansible-playbook is not installed (ansible-core)')
            return 77
        hand_over = tempfile.mkdtemp(prefix='kelp-ansible-', dir='/var/tmp')
        PASSWORD = f'kelp-{os.getpid()}-{time.time_ns() % 100000}'
        with open(os.open(os.path.join(hand_over, 'pw'), os.O_WRONLY | os.O_CREAT, 0o600), 'w') as f:
            f.write(PASSWORD)
        inside = [sys.executable, os.path.abspath(__file__), '--kelputil', ARGS.kelputil, '--collection',
                  ARGS.collection, '--password-file', os.path.join(hand_over, 'pw')] + rest
        try:
            faults = ['down:3', 'silent:5', 'password:7', 'upgrade-fails:11', 'no-return:12']
            fleet = [ARGS.router, '--password', PASSWORD, '--fleet', '12'] + [a for f in faults for a in ('--fault', f)]
            return subprocess.run(fleet + ['--'] + inside, timeout=170).returncode
        finally:
            shutil.rmtree(hand_over)
    with open(ARGS.password_file) as f:
        PASSWORD = f.read()
    os.unlink(ARGS.password_file)
    WORK = tempfile.mkdtemp(prefix='kelp-ansible-')
    collections = os.path.join(WORK, 'collections', 'ansible_collections', 'kelp')
    os.makedirs(collections)
    os.symlink(os.path.abspath(ARGS.collection), os.path.join(collections, 'router'))
    os.environ.pop('KELPUTIL_PASSWORD', None)
    os.environ.update(HOME=os.path.join(WORK, 'home'), XDG_CONFIG_HOME='/run/sim/config',
                      PATH=os.path.dirname(os.path.abspath(ARGS.kelputil)) + os.pathsep + os.environ['PATH'],
                      ANSIBLE_COLLECTIONS_PATH=os.path.join(WORK, 'collections'), ANSIBLE_FORKS='12',
                      ANSIBLE_HOST_KEY_CHECKING='false', ANSIBLE_RETRY_FILES_ENABLED='false', ANSIBLE_NOCOLOR='1',
                      ANSIBLE_INVENTORY_ENABLED='kelp.router.serve,ini',
                      ANSIBLE_INVENTORY_UNPARSED_FAILED='true')
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
