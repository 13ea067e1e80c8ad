#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: session
short_description: A router's PPP and hotspot sessions; disconnect a user or address
description:
  - Lists the router's PPP and hotspot sessions.
  - With I(state=absent), disconnects the session of I(user) (of I(kind)) or of the hotspot client at I(address)
    when there is one, and changes nothing when there is none.
  - Check mode lists and changes nothing.
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - kelp.router.controller
  - kelp.router.connection
  - ansible.builtin.action_common_attributes
  - ansible.builtin.action_common_attributes.flow
options:
  kind:
    description: Which sessions; both when not given. Needed with I(user).
    type: str
    choices: [ppp, hotspot]
  user:
    description: A user name (a PPP session's name, a hotspot session's user).
    type: str
  address:
    description: A hotspot client's IPv4 address.
    type: str
  state:
    description: C(absent) disconnects the session; C(present) only lists.
    type: str
    choices: [present, absent]
    default: present
'''

EXAMPLES = r'''
- name: Who is online
  kelp.router.session:
  register: online

- name: Disconnect alice's PPP session
  kelp.router.session:
    kind: ppp
    user: alice
    state: absent

- name: Disconnect a hotspot client by address
  kelp.router.session:
    address: 10.0.0.102
    state: absent
'''

RETURN = r'''
sessions:
  description: The sessions before any disconnection, per kind, as kelputil lists them.
  returned: when the router answered
  type: dict
  sample: {"ppp": [{"name": "alice", "interface": "ppp0", "remote": "10.64.0.1", "type": "pppoe", "cbq_rule": 12}],
           "hotspot": [{"user": "carol", "ip": "10.0.0.101", "mac": "00:11:22:33:44:55", "bytes_in": 1048576,
                        "bytes_out": 5242880, "session_s": 3600, "idle_s": 12}]}
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
    AnsibleModule(supports_check_mode=True, **rules('session')).fail_json(msg=ON_TARGET % 'session')


if __name__ == '__main__':
    main()
