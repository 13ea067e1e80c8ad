#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: facts
short_description: A router's model, firmware version, uptime and what its reports carry, as facts
description:
  - Reads the router's core and full reports (and, by I(gather_subset), its kernel log, sessions and scripts) and
    sets them as C(ansible_facts) under the names network collections use (C(ansible_net_version),
    C(ansible_net_model), C(ansible_net_interfaces), ...), and C(kelp_*) for the rest.
  - As a task it runs on the controller (an action plugin). As the facts module of a play's own fact gathering
    (C(ansible_facts_modules=kelp.router.facts)), ansible-core runs it as a module, which needs the routers'
    C(ansible_connection=kelp.router.kelputil) (see that connection plugin).
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - kelp.router.controller
  - kelp.router.connection
  - ansible.builtin.action_common_attributes
  - ansible.builtin.action_common_attributes.flow
  - ansible.builtin.action_common_attributes.facts
attributes:
  facts:
    support: full
options:
  gather_subset:
    description:
      - What to gather besides C(min) (model, firmware version, uptime, the core report), which is always
        gathered.
      - C(interfaces) (C(ansible_net_interfaces), C(ansible_net_all_ipv4_addresses), ...), C(report) (the full
        report by section), C(kernel) (the kernel log), C(sessions) (PPP and hotspot), C(scripts) (size and
        SHA-1 of each script), or C(all); C(!NAME) leaves one out.
    type: list
    elements: str
    default: [min]
'''

EXAMPLES = r'''
- name: Facts as a task
  kelp.router.facts:
    gather_subset: [interfaces, sessions]

- name: Only routers still on an old firmware
  kelp.router.script:
    name: fw
    src: fw-legacy.scr
  when: ansible_net_version is version('3.3', '<')

# As the play's own fact gathering, in the inventory:
#   [routers:vars]
#   ansible_connection=kelp.router.kelputil
#   ansible_facts_modules=kelp.router.facts
'''

RETURN = r'''
ansible_facts:
  description: The router's facts.
  returned: always
  type: dict
  contains:
    ansible_net_version:
      description: The firmware version (the first version-like word of the full report's Software Version).
      returned: always
      type: str
      sample: 3.2.1
    ansible_net_model:
      description: The model, from the core report.
      returned: always
      type: str
      sample: simulated kelp-v3 router
    ansible_net_api:
      description: How the facts were read.
      returned: always
      type: str
      sample: kelputil
    ansible_net_gather_subset:
      description: The subsets gathered.
      returned: always
      type: list
      elements: str
      sample: [min, interfaces]
    kelp_software_version:
      description: The full report's Software Version section.
      returned: always
      type: str
      sample: kelp-v3 router firmware 3.2.1 (simulated)
    kelp_uptime_s:
      description: Seconds since the router started.
      returned: always
      type: float
      sample: 735.95
    kelp_core:
      description: "Every C(key: value) line of the core report."
      returned: always
      type: dict
      sample: {"model": "simulated kelp-v3 router", "uptime": "735.95 s", "sessions": "2 ppp, 2 hotspot"}
    ansible_net_interfaces:
      description: Each interface with C(ipv4) and C(ipv6) (lists of C(address), C(subnet)), C(macaddress), C(mtu),
        C(operstatus) and C(flags).
      returned: with interfaces
      type: dict
    ansible_net_all_ipv4_addresses:
      description: Every IPv4 address of the router.
      returned: with interfaces
      type: list
      elements: str
      sample: [127.0.0.1, 198.18.0.2]
    ansible_net_all_ipv6_addresses:
      description: Every IPv6 address of the router.
      returned: with interfaces
      type: list
      elements: str
    kelp_report:
      description: The full report, section title to text.
      returned: with report
      type: dict
    kelp_kernel_log:
      description: The kernel log's lines.
      returned: with kernel
      type: list
      elements: str
    kelp_ppp_sessions:
      description: The PPP sessions, as M(kelp.router.session) lists them.
      returned: with sessions
      type: list
      elements: dict
    kelp_hotspot_sessions:
      description: The hotspot sessions.
      returned: with sessions
      type: list
      elements: dict
    kelp_scripts:
      description: Per script (C(cbq), C(fw), C(nat), C(dhcp)), its C(bytes) and C(sha1).
      returned: with scripts
      type: dict
      sample: {"fw": {"bytes": 78, "sha1": "0b6f0c3e9f1e2f6a7c1d6c1b3b0b1e0e7a1c2d3e"}}
msg:
  description: kelputil's message, why gathering failed.
  returned: on failure
  type: str
kelputil_exit:
  description: kelputil's exit status (2 wrong password, 3 could not connect).
  returned: on failure
  type: int
'''

import json
import os

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.kelp.router.plugins.module_utils.options import SETTINGS_FROM_CONNECTION, rules
from ansible_collections.kelp.router.plugins.module_utils.kelputil import KelputilError, Router
from ansible_collections.kelp.router.plugins.module_utils.router_facts import GatherError, chosen_subsets, gather


def main():
    """Run as a module: only by a play's fact gathering, through the kelp.router.kelputil connection, which hands
    over the router's settings and its password's pipe."""
    module = AnsibleModule(supports_check_mode=True, **rules('facts'))
    if SETTINGS_FROM_CONNECTION not in os.environ:
        module.fail_json(msg='kelp.router.facts was sent to the host as a module: as a task it runs on the '
                             'controller (its action plugin); as ansible_facts_modules it needs '
                             'ansible_connection=kelp.router.kelputil')
    settings = json.loads(os.environ[SETTINGS_FROM_CONNECTION])
    with os.fdopen(settings.pop('password_fd'), 'rb') as pipe:
        settings['password'] = pipe.read().decode('utf-8', 'surrogateescape').rstrip('\n')
    settings.update((k, v) for k, v in module.params.items() if v is not None and k in settings)
    try:
        subsets = chosen_subsets(module.params['gather_subset'])
        module.exit_json(changed=False, ansible_facts=gather(Router(settings), subsets))
    except (KelputilError, ValueError) as e:
        module.fail_json(msg=str(e))
    except GatherError as e:
        module.fail_json(msg=e.answer['message'], kelputil_exit=e.answer['exit'])


if __name__ == '__main__':
    main()
