#!/usr/bin/env bash
# The collection's static checks, offline: ansible-test sanity's tests that
# need no virtual environment of their own (those fetch their tools with pip),
# then what the others check, with Debian's tools: validate-modules (the
# documentation against the options each declares), ansible-doc for every plugin,
# pycodestyle and yamllint. Exit 77 without ansible-test.
# Usage: sanity.sh COLLECTION_DIR WORK_DIR
set -euo pipefail
source=$1 work=$2
command -v ansible-test >/dev/null || { echo "SKIP: ansible-test is not installed (ansible-core)"; exit 77; }
python=/usr/bin/python3
rm -rf "$work" && mkdir -p "$work/ansible_collections/kelp"
root=$work/ansible_collections/kelp/router
cp -r "$source" "$root"
cd "$root"
git init -q . && git add -A  # ansible-test takes the files git lists
venv_tests=(ansible-doc import pep8 pylint runtime-metadata validate-modules yamllint)
ansible-test sanity --color no --python "$($python -c 'import sys; print("%d.%d" % sys.version_info[:2])')" \
  "${venv_tests[@]/#/--skip-test=}"

export ANSIBLE_COLLECTIONS_PATH=$work
validate=$(dirname "$($python -c 'import ansible_test; print(ansible_test.__file__)')")/_util/controller/sanity/validate-modules
# --arg: validate-modules also imports each module and checks the arguments it
# takes against its documentation.
for type in modules connection inventory; do
  args=(--format json --arg --collection ansible_collections/kelp/router --collection-version 1.0.0)
  [[ $type == modules ]] || args+=(--plugin-type "$type")
  PYTHONPATH=$validate $python "$validate/validate.py" "${args[@]}" plugins/$type/*.py >"$work/validate.json" || true
  $python - "$work/validate.json" tests/sanity/ignore-2.14.txt <<'PY'
import json, sys
ignored = {tuple(line.split()) for line in open(sys.argv[2])}
found = [(path, e['code'], e.get('msg', '')) for path, r in json.load(open(sys.argv[1])).items()
         for e in r['errors'] + r['traces'] if (path, 'validate-modules:' + e.get('code', '')) not in ignored]
for f in found:
    print('validate-modules: %s: %s: %s' % f)
sys.exit(1 if found else 0)
PY
done
for plugin in plugins/modules/*.py plugins/connection/*.py plugins/inventory/*.py; do
  type=$(basename "$(dirname "$plugin")") name=kelp.router.$(basename "$plugin" .py)
  out=$(ansible-doc -t "${type%s}" "$name" 2>&1) && [[ $out != *WARNING* ]] || { echo "ansible-doc $name: $out"; exit 1; }
done
pycodestyle --max-line-length 120 --ignore "$(paste -sd, "$validate/../pep8/current-ignore.txt")" plugins
yamllint -d '{extends: default, rules: {document-start: disable, line-length: {max: 120}}}' galaxy.yml meta
echo "sanity: offline ansible-test tests, validate-modules, ansible-doc, pycodestyle and yamllint passed"
