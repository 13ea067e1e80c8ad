# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

from ansible_collections.kelp.router.plugins.plugin_utils.action import RouterAction

KICK = dict(ppp='kick-ppp', hotspot='kick-hotspot')


class ActionModule(RouterAction):
    MODULE = 'session'

    def act(self, router, args, task_vars):
        if args['address'] and args['kind'] == 'ppp':
            return dict(failed=True, msg='address names a hotspot client: leave out kind, or give kind: hotspot')
        kinds = [args['kind']] if args['kind'] else (['hotspot'] if args['address'] else ['ppp', 'hotspot'])
        sessions = {}
        for kind in kinds:
            answer = router.run(kind)
            if not answer['ok']:
                return self.failed(answer)
            sessions[kind] = answer['data']
        result = dict(changed=False, sessions=sessions)
        if args['state'] == 'present':
            return result
        # As kelputil lists them: a PPP session's user is its name, a hotspot one's its user.
        if args['address']:
            present = any(s['ip'] == args['address'] for s in sessions['hotspot'])
            command = ['kick-ip', args['address']]
        else:
            key = 'name' if args['kind'] == 'ppp' else 'user'
            present = any(s[key] == args['user'] for s in sessions[args['kind']])
            command = [KICK[args['kind']], args['user']]
        result['changed'] = present
        if not present or self._task.check_mode:
            return result
        answer = router.run(*command)
        if not answer['ok']:
            return self.failed(answer, **result)
        result['msg'] = answer['message']
        return result
