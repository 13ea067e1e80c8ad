#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: firmware
short_description: Flash a firmware image onto a router whose version is not the wanted one
description:
  - Reads the router's firmware version; when it is not I(version), uploads I(src), flashes it (its progress shown
    with C(-v)), waits until the router takes a login again and reads the version it then reports.
  - A router that does not answer within I(settle), or reports another version than I(version), fails the task,
    so that C(serial) with C(max_fail_percentage) stops a roll-out there.
  - Check mode reads the version and changes nothing.
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - kelp.router.controller
  - kelp.router.connection
  - ansible.builtin.action_common_attributes
  - ansible.builtin.action_common_attributes.flow
options:
  src:
    description: The image on the controller (looked for under C(files/) too).
    type: path
    required: true
  version:
    description: The version the image holds, as the router reports it (C(ansible_net_version)).
    type: str
    required: true
  settle:
    description: Seconds the router may take to answer again after its upgrade.
    type: int
    default: 120
'''

EXAMPLES = r'''
- name: Two routers at a time; the first failure stops the roll-out
  hosts: routers
  gather_facts: false
  serial: 2
  max_fail_percentage: 0
  tasks:
    - kelp.router.firmware:
        src: images/kelp-v3-3.3.0.bin
        version: 3.3.0
        settle: 180
'''

RETURN = r'''
version_before:
  description: The version the router reported first.
  returned: when the router answered
  type: str
  sample: 3.2.1
version:
  description: The version the router reports now (after the upgrade, when there was one).
  returned: when the router answered
  type: str
  sample: 3.3.0
back_after_s:
  description: Seconds from the end of the upgrade until the router took a login again.
  returned: when flashed
  type: float
  sample: 2.3
lines:
  description: The upgrade's progress lines.
  returned: when flashed
  type: list
  elements: str
  sample: ["checking image (300000 bytes)", "writing flash 100%"]
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
    AnsibleModule(supports_check_mode=True, **rules('firmware')).fail_json(msg=ON_TARGET % 'firmware')


if __name__ == '__main__':
    main()
