# mxrepair from the outside: it makes what is missing, says so, and never replaces anything.
load helpers

ROOTS="/etc/domainkeys /usr/lib/kavro-9.0 /var/lib/kavro /var/lock/files /var/qmail /var/spool/postfix/kavro"
setup() { reset_stores; }
teardown() {
  [ ! -e /tmp/postmap ] || mv /tmp/postmap /usr/sbin/postmap
  [ ! -e /tmp/passwd ] || mv /tmp/passwd /etc/passwd
}
# Owner, group and mode of everything, each with the names that have them.
rights() {
  find $ROOTS ! -path '*/files/*' -printf '%u:%g %m\t%f\n' | LC_ALL=C sort |
    awk -F '\t' '{ a[$1] = a[$1] " " $2 } END { for (k in a) print k a[k] }' | sort
}
contents() { find $ROOTS -type f ! -path "$1*" -exec md5sum {} + | sort; }

@test "what is missing is made with its own rights, and what is there stays as it is" {
  same rights "popuser:popuser 755 mailnames
postfix:postfix 770 kavro
postfix:root 440 passwd_db_key
postfix:root 460 passwd.db
root:popuser 640 handlers.db
root:root 644 aliases.db virtual.db virtual_domains.db vmailbox.db
root:root 700 files
root:root 755 domain_rename domainkeys handlers kavro kavro-9.0 mail qmail" "$(rights)"
  chmod 700 $KEYS
  postmap -i hash:$TABLES/virtual <<<'a@b.test c'
  rights >/tmp/rights
  for piece in $PLUGINS $HANDLERS_DB $TABLES/vmailbox.db; do
    contents $piece >/tmp/contents
    rm -r $piece
    with "" mxrepair --init
    same $piece "0 1 $(cat /tmp/rights /tmp/contents)" "$status $(grep -c . /tmp/out) $(rights; contents $piece)"
  done
}

@test "eight at once from nothing make each piece once; another says nothing" {
  rights >/tmp/rights
  rm -rf $ROOTS
  mxrepair --init >/tmp/alone
  rm -rf $ROOTS
  for i in {1..8}; do timeout 60 bash -c "umask 0$((i % 2))77; exec mxrepair --init || echo failed" & done >/tmp/together 2>&1
  wait
  [ "$(grep -c . /tmp/together)" = 17 ]
  same report "$(sort /tmp/alone)" "$(sort /tmp/together)"
  same rights "$(cat /tmp/rights)" "$(rights)"
  with "" mxrepair --init
  same another "0||" "$status|$out|$err"
}

@test "an empty database is made anew beside its key, whatever a killed run left" {
  md5sum $TABLES/passwd_db_key >/tmp/key
  rights >/tmp/rights
  for database in $AUTH_DB $HANDLERS_DB; do
    : >$database
    printf '\xd9\xd5\x05\xf9\x20\xa1\x63\xd7\xff\xff\xff\xff%04096d' 0 >$database-journal
    cp $database-journal $database.new-journal
    echo half >$database.new
    with "" mxrepair --init
    same report "0 created mail ${database##*/}" "$status $(sed 's/.*mail .* database .*\//created mail /' /tmp/out)"
    same "made of $database" "$(cat /tmp/rights /tmp/key)" "$(rights; md5sum $TABLES/passwd_db_key)"
    sql $database 'SELECT count(*) FROM handlers' || sql $database 'SELECT count(*) FROM users'
  done
  # Killed when the key has its name and the database not yet, and before: an empty database marks that none is lost.
  for at in 1 2; do
    rm $TABLES/passwd*
    with "" strace -qq -o /dev/null -e trace=rename -e inject=rename:signal=KILL:when=$at mxrepair --init
    same "killed at $at" "137 0" "$status $(stat -c %s $AUTH_DB)"
    with "" mxrepair --init
    same "after the kill" "0 $(cat /tmp/rights)" "$status $(rights)"
  done
}

@test "half of database and key, a file in the way, what postmap says, and what must be there first, are told" {
  for pair in "passwd.db passwd_db_key" "passwd_db_key passwd.db"; do
    mv $TABLES/${pair% *} /tmp/lost
    with "" mxrepair --init
    same "$pair" "1||mxrepair: $TABLES/${pair#* } exists but $TABLES/${pair% *} is missing" "$status|$out|${err%%: put*}"
    [ ! -e $TABLES/${pair% *} ]
    mv /tmp/lost $TABLES/${pair% *}
  done
  rm $TABLES/aliases.db
  replace_postmap 'echo "postmap: fatal: no" >&2; exit 1'
  with "" mxrepair --init
  restore_postmap
  same "postmap fails" "1||mxrepair: cannot make the table hash:$TABLES/aliases: postmap: fatal: no" "$status|$out|$err"
  rmdir $KEYS
  echo kept >$KEYS
  with "" mxrepair --init
  same "in the way" "1||mxrepair: cannot make the directory $KEYS: Not a directory kept" "$status|$out|$err $(cat $KEYS)"
  rm -rf $ROOTS
  mv /usr/sbin/postmap /tmp/postmap
  cp -p /etc/passwd /tmp/passwd
  sed -i '/^popuser:/d' /etc/passwd
  with "" mxrepair --init
  same "what is missing" "1||mxrepair: nothing was made, because this is missing:
  the user popuser
  the program /usr/sbin/postmap" "$status|$out|$err$(ls -d $ROOTS 2>/dev/null)"
  with "" mxrepair --bogus
  [[ $status == 1 && $err == "Error: unknown option --bogus"* ]]
  with "" mxrepair --check --domain=../etc
  [[ $status == 1 && $err == "Error: --domain: '../etc' is not the name of a domain"* ]]
}
