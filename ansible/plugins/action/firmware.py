# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import time

from ansible_collections.kelp.router.plugins.module_utils.router_facts import sections, version_of
from ansible_collections.kelp.router.plugins.plugin_utils.action import RouterAction


class ActionModule(RouterAction):
    MODULE = 'firmware'

    def act(self, router, args, task_vars):
        image = self.controller_file(args['src'])  # a missing image fails in check mode too
        before, answer = self.version(router)
        if before is None:
            return self.failed(answer)
        result = dict(changed=before != args['version'], version_before=before, version=before)
        if not result['changed'] or self._task.check_mode:
            return result
        answer = router.run('firmware', image, '--upgrade', on_event=lambda e: self.progress(task_vars, e))
        if not answer['ok']:
            return self.failed(answer, **result)
        result['lines'] = answer['data'].get('lines', [])
        back = self.wait_until_back(router, args['settle'])
        if back is None:
            return dict(result, failed=True, msg='%s was flashed and did not answer again within %d s (settle): look '
                        'at it before going on' % (task_vars['inventory_hostname'], args['settle']))
        result['back_after_s'] = back
        result['version'], answer = self.version(router)
        if result['version'] is None:
            return self.failed(answer, **result)
        result['ansible_facts'] = dict(ansible_net_version=result['version'])
        if result['version'] != args['version']:
            return dict(result, failed=True, msg='after its upgrade %s reports firmware %s, not the wanted %s'
                        % (task_vars['inventory_hostname'], result['version'], args['version']))
        return result

    def version(self, router):
        """The firmware version the router reports, and kelputil's answer (the version None when it failed)."""
        answer = router.run('report', 'full')
        if not answer['ok']:
            return None, answer
        return version_of(sections(answer['data']['lines']).get('Software Version', '')), answer

    def progress(self, task_vars, event):
        if event.get('event') == 'upgrade':
            self.display_v(task_vars, event['line'])
        elif event.get('event') == 'phase':
            self.display_v(task_vars, event['text'])

    def wait_until_back(self, router, settle):
        """Seconds until the router takes a login again after its reboot, or None when settle passed first."""
        start = time.monotonic()
        while time.monotonic() - start < settle:
            if router.run('check')['ok']:
                return round(time.monotonic() - start, 1)
            time.sleep(1)
        return None
