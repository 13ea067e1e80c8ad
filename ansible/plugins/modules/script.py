#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: script
short_description: A router's traffic-shaping, firewall, NAT or DHCP script
description:
  - Puts a script on the router when its bytes differ from what the router holds, and optionally has the router
    apply its settings afterwards.
  - Check mode compares and changes nothing; with C(--diff) the change is shown as a unified diff.
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - kelp.router.controller
  - kelp.router.connection
  - ansible.builtin.action_common_attributes
  - ansible.builtin.action_common_attributes.flow
attributes:
  diff_mode:
    support: full
options:
  name:
    description: The script, as kelputil names it.
    type: str
    required: true
    choices: [cbq, fw, nat, dhcp]
  content:
    description: The script's text. One of I(content) and I(src).
    type: str
  src:
    description: A file on the controller holding the script (looked for under C(files/) too, as
      M(ansible.builtin.copy) does).
    type: path
  apply:
    description: After a change, have the router apply its settings (its post-action). Nothing is applied when the
      script is unchanged.
    type: bool
    default: false
  backup:
    description: Save the script as it was on the controller before changing it (mode 600), even when unchanged;
      not in check mode.
    type: bool
    default: false
  backup_options:
    description: Where I(backup) saves.
    type: dict
    suboptions:
      dir_path:
        description: The folder. Default C(backup/) beside the playbook.
        type: path
      filename:
        description: The file's name. Default C(HOST_NAME.scr.DATE@TIME).
        type: str
'''

EXAMPLES = r'''
- name: The firewall script from the role's files, applied where it changed
  kelp.router.script:
    name: fw
    src: fw.scr
    apply: true
    backup: true

- name: NAT from a template's text
  kelp.router.script:
    name: nat
    content: "{{ lookup('ansible.builtin.template', 'nat.scr.j2') }}"
'''

RETURN = r'''
name:
  description: The script.
  returned: always
  type: str
  sample: fw
bytes:
  description: The wanted script's size.
  returned: always
  type: int
  sample: 112
sha1:
  description: The wanted script's SHA-1.
  returned: always
  type: str
  sample: 2aae6c35c94fcfb415dbe95f408b9ce91ee846ed
backup_path:
  description: Where the script as it was was saved.
  returned: when backup is true, except in check mode
  type: str
  sample: /srv/play/backup/router1_fw.scr.2026-11-24@10:15:02
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
    AnsibleModule(supports_check_mode=True, **rules('script')).fail_json(msg=ON_TARGET % 'script')


if __name__ == '__main__':
    main()
