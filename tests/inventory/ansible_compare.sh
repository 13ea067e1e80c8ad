#!/bin/bash
# kelputil reads inventories and --limit as Ansible does: the same inventories
# and patterns through Ansible's own tools and through kelputil --list-hosts
# give the same hosts, in the same order, at the same addresses and ports.
# Usage: ansible_compare.sh KELPUTIL. Exit 77 (skipped) without ansible-core.
set -eu
kelputil=$(realpath "$1")
for tool in ansible ansible-playbook ansible-inventory python3; do
    command -v "$tool" >/dev/null || { echo "SKIP: no $tool here (the Debian package ansible-core has it)"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Ansible writes under HOME and its temporary folder: both stay in ours.
export HOME=$work ANSIBLE_LOCAL_TEMP=$work/tmp ANSIBLE_NOCOLOR=1 ANSIBLE_HOST_PATTERN_MISMATCH=ignore
unset KELPUTIL_PASSWORD KELP_INVENTORY
python3 - "$kelputil" "$work" <<'PY'
import json, re, subprocess, sys

kelputil, work = sys.argv[1:3]

# Duplicates across ranges, lines and groups; comments after lines; nested
# groups; variables at every level. Patterns with every construct; those
# Ansible finds nothing for must be refused. Only one group of each level
# has children: below that, Ansible's order of sibling groups is a set's.
inventory = """router[1:2] # lab
router[2:3]
[core]
r[01:12]
r07 ansible_host=192.0.2.77 ansible_port=9857
[edge] # the far end
r01
e[a:c] port=856 plain=true # lab
r[11:12]
[edge:vars]
ansible_port=7000 # where edge listens
[core:vars]
ansible_port=8000
[site:children]
core # all of it
edge
[site:vars]
ansible_port=9000
tls=false
[all:vars]
ansible_port=1000
"""
patterns = [None, "router*", "core[0:2]", "core[-1]", "core[10:]", "core[1:0]", "core[2-4]", "site[1]", "site:!core",
            "!core", "core:&edge", "~r0[1-3]", "~e[ab]|router", "edge,router2", "r0?:!r07", "ungrouped:edge[3]",
            "router1,core[0:1]", "nosuch", "core:&router*"]

def run(*args):
    return subprocess.run(args, capture_output=True, text=True, timeout=20, cwd=work)

def listed(text):
    """The host names of each 'hosts (N):' block of Ansible's --list-hosts."""
    blocks, indent = [], 0
    for line in text.splitlines():
        if re.match(r"\s*hosts \(\d+\):", line):
            blocks.append([])
            indent = len(line) - len(line.lstrip())
        elif blocks and len(line) - len(line.lstrip()) > indent and line.strip():
            blocks[-1].append(line.strip())
        else:
            indent = 1 << 30
    return blocks

def ansible_hosts(path, patterns):
    """Ansible's --limit: the hosts of all, in all's order, that the pattern selects."""
    order = listed(run("ansible", "all", "-i", path, "--list-hosts").stdout)[0]
    plays = "".join("- hosts: %s\n  gather_facts: false\n" % json.dumps(p or "all") for p in patterns)
    with open(work + "/plays.yml", "w") as f:
        f.write(plays)
    chosen = listed(run("ansible-playbook", "-i", path, "--list-hosts", work + "/plays.yml").stdout)
    assert len(chosen) == len(patterns), "ansible-playbook listed %d plays of %d" % (len(chosen), len(patterns))
    return [[h for h in order if h in set(c)] for c in chosen]

def expected_row(name, v):
    plain = str(v.get("plain", "")).lower() in ("true", "yes", "1") or str(v.get("tls", "")).lower() in ("false", "no", "0")
    port = v.get("port", v.get("ansible_port", 856 if plain else 857))
    return {"host": name, "address": v.get("ansible_host", name), "port": int(port), "mode": "plain" if plain else "TLS"}

failures = []
path = work + "/inventory.ini"
with open(path, "w") as f:
    f.write(inventory)
# Ansible 2.14 takes a byte-order mark for part of the first line; kelputil
# skips it, so it gets the file with one.
with open(path + ".bom", "w", encoding="utf-8-sig") as f:
    f.write(inventory)
hostvars = json.loads(run("ansible-inventory", "-i", path, "--list").stdout)["_meta"]["hostvars"]
for pattern, hosts in zip(patterns, ansible_hosts(path, patterns)):
    got = run(kelputil, "--json", "fleet", "-i", path + ".bom", *(["--limit", pattern] if pattern else []), "--list-hosts")
    answer = json.loads(got.stdout.splitlines()[-1])
    want = [expected_row(h, hostvars.get(h, {})) for h in hosts]
    if hosts and answer["data"] != want:
        failures.append("--limit %s:\n  kelputil %s\n  Ansible  %s" % (pattern, answer["data"], want))
    elif not hosts and got.returncode != 1:
        failures.append("--limit %s: Ansible selects nothing, kelputil %s" % (pattern, answer["data"]))
print("\n".join(failures) or "kelputil and Ansible agree on %d patterns" % len(patterns))
sys.exit(1 if failures else 0)
PY
