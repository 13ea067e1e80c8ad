# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

from ansible_collections.kelp.router.plugins.module_utils.router_facts import GatherError, chosen_subsets, gather
from ansible_collections.kelp.router.plugins.plugin_utils.action import RouterAction


class ActionModule(RouterAction):
    MODULE = 'facts'

    def act(self, router, args, task_vars):
        try:
            return dict(changed=False, ansible_facts=gather(router, chosen_subsets(args['gather_subset'])))
        except ValueError as e:
            return dict(failed=True, msg=str(e))
        except GatherError as e:
            return self.failed(e.answer)
