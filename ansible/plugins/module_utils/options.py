# -*- coding: utf-8 -*-
"""Every module's options, in one place: what the modules declare (for
ansible-doc and ansible-test) and what the action plugins check are the same."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type

SCRIPTS = ['cbq', 'fw', 'nat', 'dhcp']

ROUTER = dict(
    kelputil=dict(type='path'),
    host=dict(type='str'),
    port=dict(type='int'),
    plain=dict(type='bool'),
    pin=dict(type='str'),
    known_hosts=dict(type='path'),
    timeout=dict(type='int'),
    password=dict(type='str', no_log=True),
)

MODULES = {
    'facts': dict(argument_spec=dict(gather_subset=dict(type='list', elements='str', default=['min']))),
    'script': dict(
        argument_spec=dict(
            name=dict(type='str', required=True, choices=SCRIPTS),
            content=dict(type='str'),
            src=dict(type='path'),
            apply=dict(type='bool', default=False),
            backup=dict(type='bool', default=False),
            backup_options=dict(type='dict', options=dict(dir_path=dict(type='path'), filename=dict(type='str'))),
        ),
        mutually_exclusive=[['content', 'src']],
        required_one_of=[['content', 'src']],
    ),
    'backup': dict(
        argument_spec=dict(dest=dict(type='path'), into=dict(type='path'), scripts=dict(type='bool', default=False)),
        mutually_exclusive=[['dest', 'into']],
        required_one_of=[['dest', 'into']],
    ),
    'restore': dict(argument_spec=dict(src=dict(type='path', required=True), apply=dict(type='bool', default=False))),
    'firmware': dict(argument_spec=dict(
        src=dict(type='path', required=True),
        version=dict(type='str', required=True),
        settle=dict(type='int', default=120),
    )),
    'session': dict(
        argument_spec=dict(
            kind=dict(type='str', choices=['ppp', 'hotspot']),
            user=dict(type='str'),
            address=dict(type='str'),
            state=dict(type='str', default='present', choices=['present', 'absent']),
        ),
        mutually_exclusive=[['user', 'address']],
        required_if=[['state', 'absent', ['user', 'address'], True]],
        required_by={'user': 'kind'},
    ),
}


def rules(module):
    """The module's options with the router's, and its other rules, as AnsibleModule takes them."""
    found = dict(MODULES[module])
    found['argument_spec'] = dict(ROUTER, **found['argument_spec'])
    return found


# What a module says when it was sent to a host instead of running as its action plugin.
ON_TARGET = ('kelp.router.%s runs on the controller as an action plugin and was sent to the host instead: run it as '
             'a task of its own (its action plugin then runs it)')

# The environment variable in which the kelp.router.kelputil connection hands a module the router's settings (as
# JSON; the password itself only through the pipe it names, password_fd).
SETTINGS_FROM_CONNECTION = 'KELP_ROUTER_SETTINGS'
