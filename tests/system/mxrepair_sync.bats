# mxrepair --sync: a node is brought to what session documents say, and nothing else is touched.
load helpers

setup() { reset_stores; }
teardown() { restore_postmap; }
sync_with() { with "$1" mxrepair --sync --wait-stdin; }

@test "from empty stores, a document makes what the commands make, but passwords" {
  make_sample
  sync_with "$SAMPLE"
  same "nothing is missing, and who does not deliver needs no password" "0 " "$status $out$err"
  rm -r $KEYS/*
  sql $AUTH_DB "DELETE FROM domains"
  sql $HANDLERS_DB "DELETE FROM handlers"
  remember
  cp -r $KEYS /tmp/keys
  reset_stores
  make_neighbours
  replace_postmap 'real "$@"'
  sync_with "$(document e.test "" "z:y") $SAMPLE $(document f.test)"
  same report "0 d.test: 2 homes made, 37 records added
e.test: 1 homes made, 10 records added
f.test: 7 records added
bob@d.test: password missing
info@d.test: password missing
z@e.test: password missing" "$status $out$err"
  same "runs that write" "-r -i hash:$TABLES/virtual -r -i hash:$TABLES/virtual_domains -r -i hash:$TABLES/vmailbox" \
    "$(grep -v '^-s' /tmp/postmap-calls | sort | tr '\n' ' ' | sed 's/ $//')"
  restore_postmap
  same "what differs from the commands' work" "-storage: d.test/bob/.qmail: | true~
+storage: d.test/bob/.qmail: | true~| /usr/lib/dovecot/dovecot-lda -d \"\$DELIVERED_TO\"~" \
    "$(changes | grep -v '[ @/][ef]\.test')"
  with "" mxrepair --check --domain=d.test
  same check "0|" "$status|$out$err"
}

@test "what removals and renamings left goes, what is missing comes, the neighbours and all mail stay" {
  make_sample
  add_handler sales@a1.test spam
  add_handler help@d.test spam
  postmap -r -i hash:$TABLES/virtual <<'END'
hand@d.test me@elsewhere.test
both@d.test me@elsewhere.test, info@d.test
postmaster@a1.test me@elsewhere.test
@a2.test info@d.test
@d.test info@d.test
END
  postmap -r -i hash:$TABLES/virtual <<<'bob@a1.test other@d.test'
  postmap -d root@a1.test hash:$TABLES/virtual
  rm -r $MAIL_ROOT/d.test/info/{.qmail,Maildir/cur} $KEYS/a1.test/default
  with "$(document off.test)" mxadmin --add-domain --domain-name=off.test
  sql $AUTH_DB "INSERT INTO domains (name) VALUES ('off.test')"
  with "$(document off.test)" mxadmin --turn-off-domain --domain-name=off.test
  sql $AUTH_DB "DELETE FROM users WHERE name='sales' AND dom_id<>1; UPDATE users SET status=1 WHERE name='info'"
  echo mail >$MAIL_ROOT/d.test/bob/Maildir/new/1
  echo "&me@elsewhere.test" >$MAIL_ROOT/d.test/bob/.qmail
  remember
  sync_with "$(document d.test a1.test "info=1MB:sales" other) $(document new.test) $(document off.test gone.test)"
  same report "0 d.test: 1 quotas set, 2 records added, 19 records removed, 4 logins removed, 1 logins copied, 2 addresses without handlers now, 1 keys copied, 1 keys removed
new.test: 7 records added
bob@d.test: not in the document, its home is kept" "$status $out$err"
  same changes "$({
    standard + new.test && standard - a2.test && seen_through - a2.test
    printf -- '-auth: %s encrypted 00\n' help@d.test help@a1.test help@a2.test
    printf -- '-virtual: help@%s info@d.test\n' d.test a1.test
    printf -- '-virtual: news@%s news@d.test\n' a1.test a2.test
    cat <<END
-keys: d 755 root:root a2.test
-keys: f 440 root:popuser a2.test/default
+keys: f 440 root:popuser a1.test/default
-handlers: help@d.test spam 1
-handlers: info@a2.test spam 1
-auth: info@a2.test encrypted 10
+auth: sales@a1.test encrypted 10
-virtual: @a2.test info@d.test
-virtual: a2.test 1
-virtual: bob@a1.test other@d.test
-virtual: bob@d.test bob@d.test
+virtual: other@a1.test other@d.test
+virtual: root@a1.test root@localhost.localdomain
+virtual_domains: new.test new.test/
-vmailbox: bob@d.test d.test/bob/Maildir/
+storage: d 750 popuser:popuser new.test
+storage: f 600 popuser:popuser d.test/info/.qmail
+storage: d 700 popuser:popuser d.test/info/Maildir/cur
+storage: d.test/info/.qmail: | true~| /usr/lib/dovecot/dovecot-lda -d "\$DELIVERED_TO"~
-storage: d.test/info/Maildir/maildirsize: 0S,0C~           0           0~
+storage: d.test/info/Maildir/maildirsize: $((1048576 - $(stat -c %s $MAIL_ROOT/d.test/info/@attachments)))S,0C~           0           0~
END
  } | sort)" "$(changes | sort)"
  remember
  sync_with "$(document d.test a1.test "info=1MB:sales" other) $(document new.test) $(document off.test gone.test)"
  same "a second run" "0 bob@d.test: not in the document, its home is kept" "$status $out$err$(changes)"
}

@test "documents that cannot be used change nothing" {
  make_sample
  remember
  for input in "$SAMPLE {" "$SAMPLE $SAMPLE" "$(document x.test d.test) $SAMPLE" ""; do
    sync_with "$input"
    same "$input" 1 "$status$out$(changes)"
  done
  with "$SAMPLE" mxrepair --sync
  same "without --wait-stdin" "1 mxrepair: --sync reads session documents from standard input: say so with --wait-stdin" \
    "$status $err"
}
