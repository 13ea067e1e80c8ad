# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import fcntl
import filecmp
import os
import shutil
import tempfile

from ansible_collections.kelp.router.plugins.plugin_utils.action import RouterAction


class ActionModule(RouterAction):
    MODULE = 'backup'

    def act(self, router, args, task_vars):
        if args['into']:
            return self.into_repository(router, args, task_vars)
        dest = os.path.abspath(args['dest'])
        folder = os.path.dirname(dest)
        os.makedirs(folder, mode=0o700, exist_ok=True)
        fetched = self.temporary(folder, '.%s.' % os.path.basename(dest))
        try:
            answer = router.run('backup', fetched)
            if not answer['ok']:
                return self.failed(answer)
            changed = not (os.path.exists(dest) and filecmp.cmp(fetched, dest, shallow=False))
            if changed and not self._task.check_mode:
                os.rename(fetched, dest)  # kelputil wrote it mode 600 and flushed it
            return dict(changed=changed, dest=dest, bytes=answer['data']['bytes'], msg=answer['message'])
        finally:
            if os.path.exists(fetched):
                os.unlink(fetched)

    def into_repository(self, router, args, task_vars):
        """One host's backup as kelputil fleet backup makes it (one commit when it changed). kelputil takes one
        run at a time on a repository: the hosts' runs wait in turn on a lock of the repository's folder's parent."""
        into, host = os.path.abspath(args['into']), task_vars['inventory_hostname']
        parent = os.path.dirname(into)
        os.makedirs(parent, mode=0o700, exist_ok=True)
        work = tempfile.mkdtemp(prefix='kelp-backup-')
        lock = os.open(parent, os.O_RDONLY)
        try:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if self._task.check_mode:
                return self.compare_with_repository(router, os.path.join(into, host, 'config.dat'), work)
            line = '%s ansible_host=%s' % (host, router.settings['host'])
            with open(os.path.join(work, 'host.ini'), 'w') as f:
                f.write(line + (' ansible_port=%d\n' % router.settings['port'] if router.settings['port'] else '\n'))
            command = ['fleet', '-i', os.path.join(work, 'host.ini'), 'backup', '--into', into]
            answer = router.run(*command + (['--scripts'] if args['scripts'] else []))
            if not answer['ok']:
                line = next((h for h in answer['hosts'] if h.get('host') == host), None)
                return self.failed(line or answer)
            data = answer['data']
            return dict(changed=host in data['changed'], commit=data['commit'], msg=answer['message'])
        finally:
            os.close(lock)
            shutil.rmtree(work)

    def compare_with_repository(self, router, kept, work):
        fetched = os.path.join(work, 'config.dat')
        answer = router.run('backup', fetched)
        if not answer['ok']:
            return self.failed(answer)
        same = os.path.exists(kept) and filecmp.cmp(fetched, kept, shallow=False)
        return dict(changed=not same, msg=answer['message'])
