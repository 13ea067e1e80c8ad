# -*- coding: utf-8 -*-
"""A router's facts from its reports, under the names network collections
use (ansible_net_*) and kelp_* for the rest."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import hashlib
import re

from ansible_collections.kelp.router.plugins.module_utils.options import SCRIPTS
from ansible_collections.kelp.router.plugins.module_utils.kelputil import text_of

SUBSETS = ('min', 'interfaces', 'report', 'kernel', 'sessions', 'scripts')
SECTION = re.compile(r'^---\[ (.+?) \]-*$')
VERSION = re.compile(r'\d+(?:\.\d+)+[\w.+~-]*')


class GatherError(Exception):
    """kelputil's answer that stopped the gathering (its 'message' says why)."""

    def __init__(self, answer):
        super(GatherError, self).__init__(answer['message'])
        self.answer = answer


def chosen_subsets(asked):
    """gather_subset as network collections take it: names, 'all', '!name' to leave one out; min always."""
    chosen, left_out = set(['min']), set()
    for word in asked:
        name = word[1:] if word.startswith('!') else word
        if name not in SUBSETS + ('all',):
            raise ValueError('gather_subset: %r is not one of %s, all (or one of them after !)'
                             % (word, ', '.join(SUBSETS)))
        (left_out if word.startswith('!') else chosen).update(SUBSETS if name == 'all' else [name])
    return [s for s in SUBSETS if s in chosen - left_out or s == 'min']


def sections(lines):
    """The full report as {title: text}, in its order."""
    found, title = {}, None
    for line in lines:
        m = SECTION.match(line)
        if m:
            title = m.group(1)
            found[title] = []
        elif title is not None:
            found[title].append(line)
    return dict((t, '\n'.join(body).strip('\n')) for t, body in found.items())


def version_of(software):
    """The version in the Software Version section's first line (the line itself when it has none)."""
    first = next((line.strip() for line in software.splitlines() if line.strip()), '')
    m = VERSION.search(first)
    return m.group(0) if m else first


def core_values(lines):
    """The core report's 'key: value' lines as a dict."""
    return dict((k.strip(), v.strip()) for k, _, v in (line.partition(':') for line in lines) if _ and k.strip())


def interfaces(text):
    """`ip addr show` output as network collections' ansible_net_interfaces."""
    found, current = {}, None
    for line in text.splitlines():
        m = re.match(r'^\d+: ([^:@\s]+)(?:@\S+)?: <([^>]*)>(.*)$', line)
        if m:
            mtu, state = re.search(r'\bmtu (\d+)', m.group(3)), re.search(r'\bstate (\S+)', m.group(3))
            current = found[m.group(1)] = dict(ipv4=[], ipv6=[], macaddress=None, flags=m.group(2).split(','),
                                               mtu=int(mtu.group(1)) if mtu else None,
                                               operstatus=state.group(1).lower() if state else None)
            continue
        words = line.split()
        if current is None or len(words) < 2:
            continue
        if words[0].startswith('link/'):
            current['macaddress'] = words[1]
        elif words[0] in ('inet', 'inet6'):
            address, _, subnet = words[1].partition('/')
            current['ipv4' if words[0] == 'inet' else 'ipv6'].append(dict(address=address, subnet=subnet))
    return found


def gather(router, subsets):
    """The facts for the subsets; GatherError with kelputil's answer when a command fails."""
    answers = {}

    def ask(*args):
        if args not in answers:
            answer = router.run(*args)
            if not answer['ok']:
                raise GatherError(answer)
            answers[args] = answer['data']
        return answers[args]

    facts = dict(ansible_net_api='kelputil', ansible_net_gather_subset=subsets)
    full = sections(ask('report', 'full')['lines'])
    core = core_values(ask('report', 'core')['lines'])
    facts.update(ansible_net_model=core.get('model'), ansible_net_version=version_of(full.get('Software Version', '')),
                 kelp_software_version=full.get('Software Version', '').strip(), kelp_core=core)
    uptime = re.match(r'[\d.]+', core.get('uptime', ''))
    facts['kelp_uptime_s'] = float(uptime.group(0)) if uptime else None
    if 'interfaces' in subsets:
        found = interfaces(full.get('Active Devices', ''))
        facts['ansible_net_interfaces'] = found
        for family in ('ipv4', 'ipv6'):
            facts['ansible_net_all_%s_addresses' % family] = [a['address'] for i in found.values() for a in i[family]]
    if 'report' in subsets:
        facts['kelp_report'] = full
    if 'kernel' in subsets:
        facts['kelp_kernel_log'] = ask('report', 'kernel')['lines']
    if 'sessions' in subsets:
        facts.update(kelp_ppp_sessions=ask('ppp'), kelp_hotspot_sessions=ask('hotspot'))
    if 'scripts' in subsets:
        facts['kelp_scripts'] = dict((name, dict(bytes=len(text), sha1=hashlib.sha1(text).hexdigest()))
                                     for name, text in ((n, text_of(ask('get-script', n))) for n in SCRIPTS))
    return facts
