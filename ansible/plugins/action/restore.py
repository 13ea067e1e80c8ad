# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import filecmp
import os
import shutil
import tempfile

from ansible_collections.kelp.router.plugins.plugin_utils.action import RouterAction


class ActionModule(RouterAction):
    MODULE = 'restore'

    def act(self, router, args, task_vars):
        src = self.controller_file(args['src'])
        # Checked here first, as the router would check it: a damaged bundle fails in check mode too.
        answer = router.run('bundle-verify', src)
        if not answer['ok']:
            return self.failed(answer)
        work = tempfile.mkdtemp(prefix='kelp-restore-')
        try:
            current = os.path.join(work, 'current.dat')
            answer = router.run('backup', current)
            if not answer['ok']:
                return self.failed(answer)
            result = dict(changed=not filecmp.cmp(src, current, shallow=False), src=src)
        finally:
            shutil.rmtree(work)
        if not result['changed'] or self._task.check_mode:
            return result
        answer = router.run(*(['--apply'] if args['apply'] else []) + ['restore', src])
        if not answer['ok']:
            return self.failed(answer, **result)
        result['msg'] = answer['message']
        return result
