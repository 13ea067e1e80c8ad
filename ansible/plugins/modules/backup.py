#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: backup
short_description: A router's configuration bundle, to a file or a kelputil backup repository on the controller
description:
  - Fetches the router's configuration bundle to I(dest), replacing the file (atomically, mode 600) only when the
    bytes differ.
  - Or, with I(into), backs the router up into a kelputil backup repository (a git repository, one folder per host),
    as C(kelputil fleet backup) does, one commit when something changed. Hosts writing into one repository take
    turns.
  - Check mode fetches and compares, and writes nothing.
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - kelp.router.controller
  - kelp.router.connection
  - ansible.builtin.action_common_attributes
  - ansible.builtin.action_common_attributes.flow
options:
  dest:
    description: The file on the controller (its folder is made, mode 700). One of I(dest) and I(into).
    type: path
  into:
    description: The backup repository's folder (made when new). In check mode only the bundle is compared, with
      the repository's C(HOST/config.dat).
    type: path
  scripts:
    description: With I(into), the four scripts too.
    type: bool
    default: false
'''

EXAMPLES = r'''
- name: Nightly bundle per router
  kelp.router.backup:
    dest: "backups/{{ inventory_hostname }}.dat"

- name: Into the same repository kelputil serve keeps
  kelp.router.backup:
    into: /srv/router-backups
    scripts: true
'''

RETURN = r'''
dest:
  description: The file written.
  returned: with dest
  type: str
  sample: /srv/play/backups/router1.dat
bytes:
  description: The bundle's size.
  returned: with dest
  type: int
  sample: 10288
commit:
  description: The repository's new commit, null when nothing changed.
  returned: with into, except in check mode
  type: str
  sample: 3f1c2a9e0b
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
    AnsibleModule(supports_check_mode=True, **rules('backup')).fail_json(msg=ON_TARGET % 'backup')


if __name__ == '__main__':
    main()
