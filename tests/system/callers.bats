# What is shipped for panel authors: the document's schema, callers in shell and Python, a role for Ansible.
load helpers

EXAMPLES=$BATS_TEST_DIRNAME/../../debian/examples
setup() { reset_stores; }

@test "the schema accepts and refuses what the reader does" {
  python3 - "$BATS_TEST_DIRNAME/../../docs/session.schema.json" <<'END'
import json, subprocess, sys, jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft7Validator.check_schema(schema)
whole = {"name": "d.test", "dom_aliases": ["A.test"], "maillists": ["news"], "mbox_quota": 5, "mbox_quota_unit": "MB",
         "mails": [{"name": "info", "aliases": ["o'brien+x"], "mbox_quota": -1, "other": [1.5, None, True]}], "more": {}}
changes = [{}, {"name": "-d.test"}, {"name": "d-.test"}, {"name": "d.test-"}, {"name": "d..test"}, {"name": ".d"},
           {"name": "d."}, {"name": "a" * 63 + ".test"}, {"name": "a" * 64 + ".test"}, {"name": "d.test", "mbox_quota": -2},
           {"mbox_quota": 1.5}, {"mbox_quota": "5"}, {"mbox_quota": 2**63 - 1, "mbox_quota_unit": "B"},
           {"mbox_quota": 2**63}, {"mbox_quota_unit": "mb"}, {"dom_aliases": None}, {"dom_aliases": ["a/b"]},
           {"maillists": ["a..b"]}, {"maillists": ["a" * 245]}, {"maillists": ["a" * 246]}, {"maillists": "news"},
           {"mails": [{"name": "info"}]}, {"mails": [{"aliases": []}]}, {"mails": [{"name": ".a", "aliases": []}]},
           {"mails": [{"name": "a", "aliases": ["b."]}]}, {"mails": [{"name": "", "aliases": []}]}, {"mails": ["info"]}]
documents = [{"domain": {**whole, **change}} for change in changes]
documents += [{"domain": {k: v for k, v in whole.items() if k != gone}} for gone in whole] + [{}, [], {"domain": []}]
wrong = 0
for document in documents:
    valid = jsonschema.Draft7Validator(schema).is_valid(document)
    read = subprocess.run(["mxadmin", "--add-domain", "--domain-name=d.test", "--wait-stdin"], capture_output=True,
                          input=json.dumps(document).encode()).returncode == 0
    if valid != read:
        wrong += 1
        print(f"schema {valid}, reader {read}: {json.dumps(document)[:300]}")
sys.exit(wrong != 0 or len(documents) < 30)
END
}

@test "the callers in shell and Python pass document and password, and refuse what would remove logins" {
  local caller
  export MXADMIN
  MXADMIN=$(command -v mxadmin)
  printf '%s' "$SAMPLE" >/tmp/document
  for caller in mxadmin-call.sh mxadmin_call.py; do
    reset_stores
    "$EXAMPLES/callers/$caller" /tmp/document --add-domain --domain-name=d.test
    "$EXAMPLES/callers/$caller" /tmp/document --add-mailname --domain-name=d.test --mailname=info --disk-quota=1000 \
      $([ $caller != *.sh ] || echo --wait-stdin)
    if [ $caller = mxadmin-call.sh ]; then
      "$EXAMPLES/callers/$caller" /tmp/document --with-password --set-password --domain-name=d.test --mailname=info <<<'a secret'
    else
      ZCP_PASSWORD='a secret' "$EXAMPLES/callers/$caller" /tmp/document --set-password --domain-name=d.test --mailname=info
    fi
    same "$caller" "a secret" "$(password_of info a1.test)"
    remember
    ! "$EXAMPLES/callers/$caller" /tmp/document --set-password --domain-name=d.test --mailname=info || false
    ! "$EXAMPLES/callers/$caller" /tmp/document --add-mailname --domain-name=d.test || false
    same "$caller, refused" "" "$(changes)"
  done
  same "the quota under both aliases" 2 "$(state | grep -c 'virtual: info@a[12]')"
}

@test "the Ansible role makes stores and calls mxadmin once" {
  reset_stores
  rm $TABLES/aliases.db
  mkdir -p /tmp/play
  ln -sfn "$(command -v mxadmin)" /usr/sbin/mxadmin
  ln -sfn "$(command -v mxrepair)" /usr/sbin/mxrepair
  cat >/tmp/play/site.yml <<END
- hosts: all
  gather_facts: false
  roles: [mxadmin]
  vars:
    mxadmin_install: false
    mxadmin_changes:
      - command: add-domain
        options: { domain-name: d.test }
        document: $SAMPLE
        unless: postmap -q d.test hash:$TABLES/virtual_domains
      - command: set-password
        options: { domain-name: d.test, mailname: info, mail-domain-disabled: true }
        document: $SAMPLE
        password: from the vault
        unless: sqlite3 $AUTH_DB 'SELECT 1 FROM users' | grep -q 1
END
  export ANSIBLE_ROLES_PATH=$EXAMPLES/ansible/roles ANSIBLE_NOCOLOR=1
  ansible-playbook -i node, -c local -e ansible_become=false /tmp/play/site.yml >/tmp/play/1
  ansible-playbook -i node, -c local -e ansible_become=false /tmp/play/site.yml >/tmp/play/2
  grep -q 'changed=3 .*failed=0' /tmp/play/1
  grep -q 'changed=0 .*failed=0' /tmp/play/2
  ! grep -q vault /tmp/play/1 || false
  same password "from the vault" "$(password_of sales a2.test)"
  [ -e $TABLES/aliases.db ]
}
