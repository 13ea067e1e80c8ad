# -*- coding: utf-8 -*-
"""What every kelp.router action shares: its options checked as its module
declares them, the router's settings from the task and the host's variables,
and kelputil's failures as Ansible's."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import os
import tempfile

from ansible.errors import AnsibleError
from ansible.module_utils.common.text.converters import to_text
from ansible.module_utils.parsing.convert_bool import boolean
from ansible.plugins.action import ActionBase
from ansible_collections.kelp.router.plugins.module_utils import options
from ansible_collections.kelp.router.plugins.module_utils.kelputil import SETTINGS, KelputilError, Router


class TaskFailure(Exception):
    """Why the task fails, said in its message, without a traceback."""


class RouterAction(ActionBase):
    """Subclasses name their MODULE and define act(router, args, task_vars) -> result dict."""

    TRANSFERS_FILES = False
    MODULE = None

    def run(self, tmp=None, task_vars=None):
        self._supports_check_mode = True
        result = super(RouterAction, self).run(tmp, task_vars)
        rules = options.rules(self.MODULE)
        _, args = self.validate_argument_spec(**rules)
        try:
            router = Router(self.router_settings(args, task_vars))
            router.on_note = lambda note: self.display_v(task_vars, note)  # e.g. a certificate remembered
            result.update(self.act(router, args, task_vars))
        except (KelputilError, TaskFailure, OSError) as e:
            result.update(failed=True, msg=str(e))
        return result

    def host_var(self, task_vars, name):
        value = task_vars.get(name)
        if value is None:
            return None
        value = self._templar.template(value)
        # Vault-encrypted strings decrypt when made text.
        return value if isinstance(value, (bool, int)) else to_text(value)

    def router_settings(self, args, task_vars):
        """The option, else the host's kelp_NAME; the address from ansible_host (else the inventory name), the port
        from ansible_port, the password from kelp_password or ansible_password."""
        fallback = dict(host=['ansible_host', 'inventory_hostname'], port=['ansible_port'],
                        password=['ansible_password'])
        settings = {}
        for key in SETTINGS:
            value = args.get(key)
            for name in ['kelp_' + key] + fallback.get(key, []):
                if value is None:
                    value = self.host_var(task_vars, name)
            settings[key] = value
        try:
            settings['plain'] = boolean(settings['plain'] or False)
            for key in ('port', 'timeout'):
                settings[key] = None if settings[key] in (None, '') else int(settings[key])
        except (TypeError, ValueError) as e:
            raise TaskFailure('%s: %s' % (task_vars.get('inventory_hostname'), e))
        return settings

    def display_v(self, task_vars, text):
        self._display.v('%s: %s' % (task_vars.get('inventory_hostname'), text))

    def failed(self, answer, **more):
        """kelputil's refusal as a failed task: its message, exit status and the router's code."""
        more.update(failed=True, msg=answer['message'], kelputil_exit=answer['exit'], code=answer.get('code'))
        return more

    def controller_file(self, path):
        """A file the task names, found as copy finds its src: the role's or playbook's files/ first."""
        try:
            return self._find_needle('files', path)
        except AnsibleError:
            raise TaskFailure('%s: no such file on the controller (looked under files/ and beside the playbook or '
                              'role too)' % path)

    def temporary(self, folder, prefix):
        """A new empty file of mode 600 in folder, for kelputil to write and us to rename or remove."""
        fd, path = tempfile.mkstemp(prefix=prefix, dir=folder)
        os.close(fd)
        return path
