# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
name: kelputil
short_description: Modules for routers run on the controller, for a play's own fact gathering
description:
  - Runs modules on the controller, as the C(local) connection does, and hands them the router's address and
    settings, and its password through a pipe (never in an environment or a file).
  - kelp.router's tasks run on the controller whatever the connection (they are action plugins). This connection
    is for what ansible-core 2.14 runs as a module instead, above all a play's own fact gathering with
    C(ansible_facts_modules=kelp.router.facts); other modules it runs act on the controller.
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
options:
  remote_addr:
    description: The router's address.
    type: str
    default: inventory_hostname
    vars:
      - name: inventory_hostname
      - name: ansible_host
  port:
    description: The router's port; kelputil's default when not set.
    type: int
    vars:
      - name: ansible_port
  password:
    description: The router's admin password (C(kelp_password) wins over C(ansible_password)).
    type: str
    vars:
      - name: ansible_password
      - name: kelp_password
  plain:
    description: The plain protocol on port 856 instead of TLS.
    type: bool
    default: false
    vars:
      - name: kelp_plain
  pin:
    description: The router certificate's SHA-256 fingerprint to accept.
    type: str
    vars:
      - name: kelp_pin
  known_hosts:
    description: kelputil's file of remembered certificates.
    type: path
    vars:
      - name: kelp_known_hosts
  timeout:
    description: Seconds kelputil waits for a silent router.
    type: int
    vars:
      - name: kelp_timeout
  kelputil:
    description: The kelputil program, a path or a name on C(PATH).
    type: str
    default: kelputil
    vars:
      - name: kelp_kelputil
'''

import json
import os
import subprocess

from ansible import constants as C
from ansible.errors import AnsibleError
from ansible.plugins.connection.local import Connection as LocalConnection
from ansible.utils.display import Display
from ansible_collections.kelp.router.plugins.module_utils.options import SETTINGS_FROM_CONNECTION
from ansible_collections.kelp.router.plugins.module_utils.kelputil import SETTINGS

display = Display()


class Connection(LocalConnection):
    transport = 'kelp.router.kelputil'

    def exec_command(self, cmd, in_data=None, sudoable=True):
        """The local connection's, without privilege escalation (a router's admin is not a controller's user), and
        with the router's settings in the environment and its password in a pipe the command inherits."""
        super(LocalConnection, self).exec_command(cmd, in_data=in_data, sudoable=sudoable)
        if self.become:
            raise AnsibleError('kelp.router.kelputil runs modules on the controller: become does not apply')
        settings = dict((k, self.get_option('remote_addr' if k == 'host' else k)) for k in SETTINGS if k != 'password')
        read_end, write_end = os.pipe()
        try:
            os.write(write_end, (self.get_option('password') or '').encode('utf-8', 'surrogateescape') + b'\n')
        finally:
            os.close(write_end)
        settings['password_fd'] = read_end
        env = dict(os.environ)
        env[SETTINGS_FROM_CONNECTION] = json.dumps(settings)
        display.vvv('EXEC %s' % cmd, host=settings['host'])
        try:
            p = subprocess.Popen(cmd, shell=isinstance(cmd, (str, bytes)), executable=C.DEFAULT_EXECUTABLE.split()[0],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 pass_fds=(read_end,), env=env)
        finally:
            os.close(read_end)
        stdout, stderr = p.communicate(in_data)
        return p.returncode, stdout, stderr
