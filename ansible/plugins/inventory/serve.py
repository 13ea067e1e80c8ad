# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
name: serve
short_description: The routers a kelputil serve backs up, grouped by the state of their last backup
description:
  - Reads C(GET /api/v1/hosts) of a C(kelputil serve) and gives each of its hosts, with C(ansible_host) its
    address and every field the service reports as C(kelp_FIELD) (C(kelp_model), C(kelp_firmware),
    C(kelp_last_success), C(kelp_last_error), ...).
  - Each host is in the group of its state, C(kelp_ok), C(kelp_failed) or C(kelp_pending), so that
    C(ansible-playbook -l kelp_failed fix.yml) runs on the routers whose last backup failed.
  - The inventory source is a YAML file whose C(plugin) is C(kelp.router.serve).
version_added: 1.0.0
author: kelp developers (!UNKNOWN)
extends_documentation_fragment:
  - constructed
options:
  plugin:
    description: This plugin's name.
    type: str
    required: true
    choices: [kelp.router.serve]
  url:
    description: The service's address, e.g. C(http://127.0.0.1:8750).
    type: str
    required: true
    env:
      - name: KELP_SERVE_URL
  token:
    description: The service's API token (its C(--token-file)); keep it in Ansible Vault (C(!vault)).
    type: str
  token_file:
    description: A file whose first line is the token (a relative path is taken from this file's folder); refused
      when others may read it.
    type: str
  validate_certs:
    description: Check the service's TLS certificate.
    type: bool
    default: true
  ca_path:
    description: A CA certificate file to check the service's certificate with (its own, when self-signed).
    type: path
  timeout:
    description: Seconds to wait for the service.
    type: int
    default: 30
'''

EXAMPLES = r'''
# routers.kelp_serve.yml
plugin: kelp.router.serve
url: https://backup.example.net:8750
token_file: /etc/kelputil/token
ca_path: /etc/kelputil/tls/cert.pem
keyed_groups:
  - key: kelp_model
    prefix: model

# ansible-inventory -i routers.kelp_serve.yml --graph kelp_failed
# ansible-playbook -i routers.kelp_serve.yml -l kelp_failed fix.yml
'''

import json
import os
import stat

from ansible.errors import AnsibleParserError
from ansible.module_utils.common.text.converters import to_native, to_text
from ansible.module_utils.urls import open_url
from ansible.plugins.inventory import BaseInventoryPlugin, Constructable

STATES = ('ok', 'failed', 'pending')


class InventoryModule(BaseInventoryPlugin, Constructable):
    NAME = 'kelp.router.serve'

    def verify_file(self, path):
        return super(InventoryModule, self).verify_file(path) and path.endswith(('.yml', '.yaml'))

    def parse(self, inventory, loader, path, cache=True):
        super(InventoryModule, self).parse(inventory, loader, path, cache)
        self._read_config_data(path)
        for state in STATES:
            self.inventory.add_group('kelp_' + state)
        strict = self.get_option('strict')
        for host in self.hosts(os.path.dirname(path)):
            name = host['name']
            self.inventory.add_host(name, group='kelp_' + host['state'] if host.get('state') in STATES else None)
            self.inventory.set_variable(name, 'ansible_host', host.get('address') or name)
            if host.get('port'):
                self.inventory.set_variable(name, 'ansible_port', host['port'])
            hostvars = dict(('kelp_' + k, v) for k, v in host.items() if k != 'name')
            for key, value in hostvars.items():
                self.inventory.set_variable(name, key, value)
            self._set_composite_vars(self.get_option('compose'), hostvars, name, strict=strict)
            self._add_host_to_composed_groups(self.get_option('groups'), hostvars, name, strict=strict)
            self._add_host_to_keyed_groups(self.get_option('keyed_groups'), hostvars, name, strict=strict)

    def token(self, folder):
        if self.get_option('token'):
            return to_text(self.get_option('token')).strip()
        if not self.get_option('token_file'):
            return None
        path = os.path.join(folder, os.path.expanduser(self.get_option('token_file')))
        try:
            if os.stat(path).st_mode & (stat.S_IRWXG | stat.S_IRWXO):
                raise AnsibleParserError('the token file %s is readable by others: chmod 600 %s' % (path, path))
            with open(path) as f:
                token = f.readline().strip()
        except (OSError, IOError) as e:
            raise AnsibleParserError('cannot read the token file %s: %s' % (path, to_native(e)))
        if not token:
            raise AnsibleParserError('the token file %s is empty (its first line is the token)' % path)
        return token

    def hosts(self, folder):
        url = self.get_option('url').rstrip('/') + '/api/v1/hosts'
        token = self.token(folder)
        try:
            answer = open_url(url, headers=dict(Authorization='Bearer ' + token) if token else {},
                              validate_certs=self.get_option('validate_certs'), ca_path=self.get_option('ca_path'),
                              timeout=self.get_option('timeout'), follow_redirects='none')
            body = json.loads(answer.read())
        except Exception as e:  # urllib's errors, a TLS failure, a body that is not JSON: all say why
            status = getattr(e, 'code', None)
            hint = {401: ': give its token (token or token_file)'}.get(status, '')
            raise AnsibleParserError('kelputil serve at %s: %s%s' % (url, to_native(e), hint))
        if not isinstance(body, dict) or not isinstance(body.get('hosts'), list):
            raise AnsibleParserError('kelputil serve at %s: the answer has no hosts list' % url)
        return body['hosts']
