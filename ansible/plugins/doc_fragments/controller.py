# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type


class ModuleDocFragment(object):
    # Where every module runs and what it supports; a module states only where it differs (script's diff).
    DOCUMENTATION = r'''
notes:
  - Runs on the controller (an action plugin), through C(kelputil --json); the play needs no C(connection) setting
    and the router no Python.
  - A router that cannot be reached is reported as failed, not unreachable, so that C(serial) with
    C(max_fail_percentage) stops a roll-out at that batch.
attributes:
  action:
    support: full
  async:
    support: none
  bypass_host_loop:
    support: none
  check_mode:
    support: full
  diff_mode:
    support: none
  platform:
    platforms: kelputild routers
'''
