# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import hashlib
import os
import time

from ansible.module_utils.common.text.converters import to_bytes, to_text
from ansible_collections.kelp.router.plugins.module_utils.kelputil import text_of
from ansible_collections.kelp.router.plugins.plugin_utils.action import RouterAction


class ActionModule(RouterAction):
    MODULE = 'script'

    def act(self, router, args, task_vars):
        name = args['name']
        wanted = self.wanted(args)
        answer = router.run('get-script', name)
        if not answer['ok']:
            return self.failed(answer)
        before = text_of(answer['data'])
        result = dict(changed=before != wanted, name=name, bytes=len(wanted), sha1=hashlib.sha1(wanted).hexdigest())
        if self._task.diff and result['changed']:
            header = '%s: %s' % (task_vars['inventory_hostname'], name)
            result['diff'] = dict(before=to_text(before, errors='surrogate_or_replace'), before_header=header,
                                  after=to_text(wanted, errors='surrogate_or_replace'), after_header=header)
        if args['backup'] and not self._task.check_mode:
            result['backup_path'] = self.save_backup(before, args, task_vars)
        if not result['changed'] or self._task.check_mode:
            return result
        answer = router.run(*(['--apply'] if args['apply'] else []) + ['put-script', name, '-'], stdin=wanted)
        if not answer['ok']:
            return self.failed(answer, **result)
        result['msg'] = answer['message']
        return result

    def wanted(self, args):
        if args['content'] is not None:
            return to_bytes(args['content'], errors='surrogate_or_strict')
        with open(self.controller_file(args['src']), 'rb') as f:
            return f.read()

    def save_backup(self, text, args, task_vars):
        """The script as it was, on the controller: as network modules keep theirs, under backup/ beside the
        playbook unless told otherwise; mode 600, written whole or not at all."""
        options = args['backup_options'] or {}
        folder = options.get('dir_path') or os.path.join(self._loader.get_basedir(), 'backup')
        stamp = time.strftime('%Y-%m-%d@%H:%M:%S')
        name = options.get('filename') or '%s_%s.scr.%s' % (task_vars['inventory_hostname'], args['name'], stamp)
        os.makedirs(folder, mode=0o700, exist_ok=True)
        path = os.path.join(folder, name)
        temporary = self.temporary(folder, '.' + name + '.')
        try:
            with open(temporary, 'wb') as f:
                f.write(text)
                f.flush()
                os.fsync(f.fileno())
            os.rename(temporary, path)
        except OSError:
            os.unlink(temporary)
            raise
        return path
