# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type


class ModuleDocFragment(object):
    DOCUMENTATION = r'''
notes:
  - Each of I(host), I(port), I(password), I(plain), I(pin), I(known_hosts), I(timeout) and I(kelputil) falls back
    to the host's variable C(kelp_NAME) (C(kelp_pin), C(kelp_timeout), ...) when the task does not give it.
  - The password reaches kelputil through a pipe (C(--password-file /dev/fd/N)), never its command line or
    environment.
requirements:
  - kelputil 1.0.0 or later on the controller (the kelputil package).
options:
  host:
    description:
      - The router's address. Default C(ansible_host), else the inventory name.
    type: str
  port:
    description:
      - The router's port. Default C(ansible_port), else kelputil's (857 with TLS, 856 with I(plain)).
    type: int
  password:
    description:
      - The router's admin password. Default C(kelp_password), else C(ansible_password); keep either in Ansible
        Vault.
    type: str
  plain:
    description:
      - The plain protocol on port 856 instead of TLS (default false); anyone who captures the login can read
        the password.
    type: bool
  pin:
    description:
      - Accept only the router certificate with this SHA-256 fingerprint (64 hex digits), instead of the
        remembered one.
    type: str
  known_hosts:
    description:
      - The file of remembered certificates. Default kelputil's, C($XDG_CONFIG_HOME/kelputil/known_hosts).
    type: path
  timeout:
    description:
      - Seconds to wait for a silent router before giving up. Default kelputil's, 15.
    type: int
  kelputil:
    description:
      - The kelputil program, a path or a name on C(PATH). Default C(kelputil).
    type: path
'''
