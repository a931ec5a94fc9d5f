# mxrepair tells what a node holds, keeps it, and puts it back.
load helpers

setup() {
  reset_stores
  make_sample
  mxrepair --fix >/dev/null || true
  rm -rf /tmp/backup*
}

@test "--list and --show tell names, states, quotas and logins, and no password" {
  mx --add-domain-alias --domain-name=d.test --domain-alias-name=a1.test --set-catchall --email=bob@d.test
  mx --add-domain-alias --domain-name=d.test --domain-alias-name=a2.test --set-bounce --phrase=gone
  sql $AUTH_DB "UPDATE users SET status = 1 WHERE name = 'sales' AND dom_id = (SELECT id FROM domains WHERE name = 'd.test')"
  printf 'x%.0s' {1..100} >"$MAIL_ROOT/d.test/bob/Maildir/new/1.a,S=100" && rm "$MAIL_ROOT/d.test/bob/Maildir/maildirsize"
  mx --set-mailbox-disk-quota --domain-name=d.test --mailname=bob --disk-quota=5242880
  with "" mxrepair --list --domain=d.test
  same "list" "0 domain        d.test        enabled                            unknown names: reject
domain alias  a1.test                                          of d.test, unknown names: catch-all bob@d.test
domain alias  a2.test                                          of d.test, unknown names: bounce
mailname      bob@d.test    login none     5242840   used 100  1 messages
mailname      info@d.test   login enabled  no quota  used 0    0 messages
mail alias    help@d.test                                      of info@d.test
mail alias    sales@d.test                                     of info@d.test
mailing list  news@d.test" "$status $out"
}

@test "the JSON of --list and --show is as its schema says" {
  local name
  for name in --list --show=d.test --show=A1.test --show=info@d.test --show=sales@a1.test --show=root@d.test; do
    mxrepair $name --json >/tmp/json
    python3 -c 'import json, jsonschema, sys
jsonschema.validate(json.load(open("/tmp/json")), json.load(open(sys.argv[1])))' "$BATS_TEST_DIRNAME/../../docs/mxrepair.schema.json"
  done
  same "kinds" "alias login enabled,mailname login enabled,standard address login none" "$(for name in sales@a2.test INFO@d.test root@d.test; do
    mxrepair --show=$name | sed -E 's/  .*(login \w+).*/ \1/'; done | paste -sd,)"
  with "" mxrepair --show=nobody@d.test
  same "unknown" "1 mxrepair: this node does not know nobody@d.test" "$status $err$out"
  mx --turn-off-domain --domain-name=d.test
  [[ $(mxrepair --show=d.test) == *disabled* && $(mxrepair --show=d.test --json) == *'"enabled": false'* ]]
  ! mxrepair --list --json | grep -F -e '$AES' -e secret
}

wreck() {
  for table in virtual vmailbox; do : | postmap -r -i hash:$TABLES/$table; rm $TABLES/$table.db; done
  postmap -d d.test hash:$TABLES/virtual_domains || true
  rm -f $TABLES/passwd.db $TABLES/passwd_db_key $HANDLERS_DB
  rm -rf $KEYS/*
}

@test "what a backup holds comes back, also onto a node that lost its stores" {
  local checked
  checked=$(mxrepair --check || true)
  remember
  mxrepair --backup=/tmp/backup
  [ "$(stat -c '%a %U' /tmp/backup)" = "700 root" ]
  ! mxrepair --backup=/tmp/backup || false
  same "nothing changed" "" "$(changes)"
  wreck
  mxrepair --init >/dev/null || true
  touch $AUTH_DB-journal $TABLES/virtual.db.before # a killed command's, of what is replaced
  with "" mxrepair --restore=/tmp/backup
  [ $status = 0 ]
  same "left over" "" "$(leftovers)"
  [[ $out == *"replaces $TABLES/virtual.db"* ]]
  same "state" "" "$(changes)"
  same "check" "$checked" "$(mxrepair --check)"
  same "owners" "460 postfix:root,440 postfix:root,640 root:popuser,644 root:root" \
    "$(stat -c '%a %U:%G' $TABLES/passwd.db $TABLES/passwd_db_key $HANDLERS_DB $TABLES/virtual.db | paste -sd,)"
  same "password" secret "$(password_of info a1.test)"
  # On a node that has nothing at all.
  rm -rf $TABLES /var/lib/kavro $KEYS
  mxrepair --restore=/tmp/backup >/dev/null
  same "state of a bare node" "" "$(changes)"
}

@test "a backup that is not as its manifest tells is refused, and changes nothing" {
  mxrepair --backup=/tmp/backup
  mxrepair --backup=/tmp/backup.changed
  local change
  for change in 'echo x >>virtual' 'rm passwd_db_key' 'echo x >surplus' 'sed -i 1d manifest' 'ln -s /etc/passwd link' \
    'sed -i "s/ [0-9]* 460/ 1 460/" manifest'; do
    rm -rf /tmp/backup.changed
    cp -a /tmp/backup /tmp/backup.changed
    (cd /tmp/backup.changed && eval "$change")
    remember
    with "" mxrepair --restore=/tmp/backup.changed
    [[ $status = 1 && -n $err ]]
    same "$change" "" "$(changes)"
  done
}

@test "a restoration killed anywhere is completed by the same call; a backup killed leaves no backup" {
  mxrepair --backup=/tmp/backup
  remember
  local call killed=0
  for call in renameat:{1..7} renameat2:1; do
    wreck
    strace -qq -o /tmp/log -e signal=none -e inject=${call%:*}:signal=KILL:when=${call#*:} \
      mxrepair --restore=/tmp/backup >/dev/null 2>&1 ||
      killed=$((killed + 1))
    mxrepair --restore=/tmp/backup >/dev/null
    same "killed at rename $call" "" "$(changes)"
    [ ! -e /var/spool/postfix/.mxrepair-restore ]
  done
  [ $killed = 8 ]
  strace -qq -o /tmp/log -e signal=none -e inject=fsync:signal=KILL:when=5 mxrepair --backup=/tmp/backup2 >/dev/null 2>&1 || true
  [ ! -e /tmp/backup2 ]
  mxrepair --backup=/tmp/backup2 && [ ! -e /tmp/backup2.unfinished ]
}
