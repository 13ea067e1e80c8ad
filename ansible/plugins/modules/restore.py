#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: restore
short_description: A configuration bundle back onto a router
description:
  - Checks the bundle on the controller as the router would, then installs it when it differs from the router's
    current configuration.
  - Check mode checks and compares, and changes nothing.
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - kelp.router.controller
  - kelp.router.connection
  - ansible.builtin.action_common_attributes
  - ansible.builtin.action_common_attributes.flow
options:
  src:
    description: The bundle on the controller (looked for under C(files/) too).
    type: path
    required: true
  apply:
    description: After installing, have the router apply its settings.
    type: bool
    default: false
'''

EXAMPLES = r'''
- name: Back to last night's configuration
  kelp.router.restore:
    src: "backups/{{ inventory_hostname }}.dat"
    apply: true
'''

RETURN = r'''
src:
  description: The bundle installed or compared.
  returned: when the bundle passed its check
  type: str
  sample: /srv/play/backups/router1.dat
msg:
  description: kelputil's message; on failure, why (a refused password, a router that cannot be reached, ...).
  returned: on failure, and when the router changed
  type: str
  sample: "198.18.0.4:857 refused the connection: is kelputild running there, and is the port right? (TLS 857,
    plain 856)"
kelputil_exit:
  description: kelputil's exit status (2 wrong password, 3 could not connect, 10 and up the router's refusal).
  returned: on failure
  type: int
  sample: 3
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.kelp.router.plugins.module_utils.options import ON_TARGET, rules


def main():
    AnsibleModule(supports_check_mode=True, **rules('restore')).fail_json(msg=ON_TARGET % 'restore')


if __name__ == '__main__':
    main()
