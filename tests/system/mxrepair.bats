# mxrepair from the outside: it makes what is missing, says so, and never replaces anything.
load helpers

ROOTS="/etc/domainkeys /usr/lib/kavro-9.0 /var/lib/kavro /var/lock/files /var/qmail /var/spool/postfix/kavro"
setup() { reset_stores; }
teardown() { [ ! -e /tmp/postmap ] || mv /tmp/postmap /usr/sbin/postmap; }

@test "eight at once from nothing make each piece once, with its own rights; another says nothing" {
  rights() { find $ROOTS -printf '%y %m %u:%g %p\n' | sort -k 4; }
  rm -rf $ROOTS
  mxrepair --init >/tmp/alone
  rights >/tmp/rights
  rm -rf $ROOTS
  for i in {1..8}; do timeout 60 bash -c "umask 0$((i % 2))77; exec mxrepair --init || echo failed" & done >/tmp/together 2>&1
  wait
  [ "$(grep -c . /tmp/together)" = 17 ]
  same report "$(sort /tmp/alone)" "$(sort /tmp/together)"
  same rights "$(cat /tmp/rights)" "$(rights)"
  with "" mxrepair --init
  same another "0||" "$status|$out|$err"
}

@test "half of database and key, a file in the way and a missing postmap are told, and nothing is replaced" {
  for pair in "passwd.db passwd_db_key" "passwd_db_key passwd.db"; do
    mv $TABLES/${pair% *} /tmp/lost
    with "" mxrepair --init
    same "$pair" "1||mxrepair: $TABLES/${pair#* } exists but $TABLES/${pair% *} is missing" "$status|$out|${err%%: put*}"
    [ ! -e $TABLES/${pair% *} ]
    mv /tmp/lost $TABLES/${pair% *}
  done
  rmdir $KEYS
  echo kept >$KEYS
  with "" mxrepair --init
  same "in the way" "1||mxrepair: cannot make the directory $KEYS: Not a directory kept" "$status|$out|$err $(cat $KEYS)"
  rm -rf $ROOTS
  mv /usr/sbin/postmap /tmp/postmap
  with "" mxrepair --init
  same "no postmap" "1||" "$status|$out|$(ls -d $ROOTS 2>/dev/null)"
}
