# Many commands at once on one set of stores.
load helpers

teardown() { restore_postmap; }
setup() {
  reset_stores
  DOC=$(document d.test a.test "info $(printf 'm%d ' {1..50})")
}

# all_at_once: runs each line of standard input as a command; all must succeed in silence.
all_at_once() {
  while read -r line; do { timeout 120 env $line || echo "failed: $line"; } <<<"$DOC" & done >/tmp/said 2>&1
  wait
  same "what they said" "" "$(cat /tmp/said)"
}

@test "50 mailnames added at once all get their storage and records" {
  with "$DOC" mxadmin --add-domain --domain-name=d.test
  with "$DOC" mxadmin --add-mailname --domain-name=d.test --mailname=info
  remember
  all_at_once < <(printf 'mxadmin --add-mailname --domain-name=d.test --mailname=m%d\n' {1..50})
  same "one after another would give the same" "$(for i in {1..50}; do
    grep -E '^(virtual|vmailbox|storage): .*info' /tmp/before | sed "s/^/+/; s/info/m$i/g"
  done | sorted)" "$(changes)"
}

@test "10 domains added at once all get their records; no older record is lost" {
  seq -f 'old%g@other.test x@other.test' 500 | postmap -r -i hash:$TABLES/virtual
  remember
  all_at_once < <(printf 'mxadmin --add-domain --domain-name=d%d.test\n' {1..10})
  same "what they added" "$(for i in {1..10}; do
    standard + d$i.test
    printf '+virtual_domains: d%d.test d%d.test/\n+storage: d 750 popuser:popuser d%d.test\n' $i $i $i
  done | sorted)" "$(changes)"
  # A map that grew while it is dumped would be read with records missing.
  replace_postmap "[ \$1 != -s ] || ! flock -n -x $TABLES/virtual.db true || touch /tmp/writable; real \"\$@\""
  all_at_once <<<"mxadmin --add-domain --domain-name=d.test"
  restore_postmap
  [ ! -e /tmp/writable ]
}

@test "40 password and alias changes at once all arrive while another process keeps locking the database" {
  with "$DOC" mxadmin --add-mailname --domain-name=d.test --mailname=info
  ZCP_PASSWORD=first with "$DOC" mxadmin --set-password --domain-name=d.test --mailname=info
  for i in 1 2; do printf '.timeout 60000\nBEGIN EXCLUSIVE;\n.shell touch /tmp/locked\n.shell sleep 2\nCOMMIT;\n'; done |
    sqlite3 $AUTH_DB &
  until [ -e /tmp/locked ]; do sleep 0.05; done
  all_at_once < <(for i in {1..20}; do
    echo "ZCP_PASSWORD=p$i mxadmin --set-password --domain-name=d.test --mailname=m$i"
    echo "mxadmin --add-alias --domain-name=d.test --mailname=info --alias=x$i"
  done)
  [ "$(sql $AUTH_DB 'PRAGMA integrity_check')" = ok ]
  names=$(printf '%s\n' info {m,x}{1..20})
  same "users" "$(for i in $names; do printf '%s@%s encrypted 00\n' $i a.test $i d.test; done | sort)" "$(auth_users | sort)"
  for i in {1..20}; do
    same "passwords $i" "p$i p$i first first" \
      "$(password_of m$i d.test) $(password_of m$i a.test) $(password_of x$i d.test) $(password_of x$i a.test)"
  done
  same "records" "$(for i in {1..20}; do printf 'virtual: x%d@%s info@d.test\n' $i a.test $i d.test; done | sort)" \
    "$(state | grep '^virtual: x' | sort)"
}
