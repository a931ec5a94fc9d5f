# mxrepair --check and --fix: a sound node is passed over in silence; whatever is broken is told in one line, mended
# where there is one right answer, and left alone where there is not.
load helpers

HOME_OF_INFO=$MAIL_ROOT/d.test/info
MAILDIR=$HOME_OF_INFO/Maildir

setup() {
  reset_stores
  make_sample
  sql $HANDLERS_DB "DELETE FROM handlers WHERE address='info@xd.test'"
  postmap -d x@xd.test hash:$TABLES/vmailbox
  mkdir -p -m 700 $MAIL_ROOT/lost+found # a file system's, and no domain
  remember
  keep sound
}

# broken WHAT EXPECTED-LINE: what --check says of it, and that it does not mend; then --fix.
broken() {
  eval "$1"
  state >/tmp/broken
  with "" mxrepair --check
  same "$1" "1 $2" "$status $(sed 's/; .*//' <<<"$out")$err"
  same "--check changed" "$(cat /tmp/broken)" "$(state)"
  with "" mxrepair --fix
  same "$1: lines of --fix" "$2" "$(sed 's/; .*//' <<<"$out")$err"
}

@test "what has one right answer is mended, and the stores are then as they were" {
  with "" mxrepair --check
  same "a sound node" "0|" "$status|$out$err"
  while IFS='|' read -r break line; do
    broken "$break" "$line"
    same "$break: status of --fix" 0 $status
    same "$break: after --fix" "" "$(changes)"
    with "" mxrepair --check
    same "$break: a second run" "0|" "$status|$out$err"
  done <<END
echo x >$TABLES/virtual|virtual: $TABLES/virtual: a text source that was left over
cp -p $TABLES/vmailbox.db $TABLES/vmailbox.db.before; : >$TABLES/vmailbox.db|vmailbox: $TABLES/vmailbox.db.before: a rebuild of the table was cut short
cp $TABLES/virtual.db $TABLES/virtual.db.before.new|virtual: $TABLES/virtual.db.before.new: a temporary file that was left over
mkdir -p $KEYS.restored/x|domain keys: $KEYS.restored: a temporary file that was left over
postmap -i hash:$TABLES/virtual <<<"d.test 1"|virtual: d.test: marked as a domain alias, and a domain in virtual_domains: its mail bounces
postmap -d root@d.test hash:$TABLES/virtual|virtual: root@d.test: standard address is missing
postmap -d kluser@a2.test hash:$TABLES/virtual|virtual: kluser@a2.test: standard address is missing
postmap -d bob@d.test hash:$TABLES/virtual|virtual: bob@d.test: a mailbox without its address
chmod 644 $TABLES/passwd_db_key|passwd.db: $TABLES/passwd_db_key: owner or mode is wrong
chown root $TABLES|directory: $TABLES: owner or mode is wrong
chgrp root $HANDLERS_DB|handlers.db: $HANDLERS_DB: owner or mode is wrong
sql $AUTH_DB "UPDATE domains SET status=1 WHERE name='a1.test'"|passwd.db: a1.test: logins are switched off, but mail is accepted
chmod 444 $KEYS/a1.test/default|domain keys: $KEYS/a1.test/default: owner or mode is wrong
touch $KEYS/a1.test/default.aBcDeF|domain keys: $KEYS/a1.test/default.aBcDeF: a temporary file that was left over
chmod 755 $MAIL_ROOT/d.test|mail storage: $MAIL_ROOT/d.test: owner or mode is wrong
chown root $HOME_OF_INFO|mail storage: $HOME_OF_INFO: owner or mode is wrong
rm -r $MAILDIR/cur $HOME_OF_INFO/@attachments|mail storage: $MAILDIR/cur: directory is missing
rm $HOME_OF_INFO/.qmail|mail storage: $HOME_OF_INFO/.qmail: is missing
: >$HOME_OF_INFO/.qmail|mail storage: $HOME_OF_INFO/.qmail: is empty
chmod 644 $HOME_OF_INFO/.qmail|mail storage: $HOME_OF_INFO/.qmail: owner or mode is wrong
touch $HOME_OF_INFO/.qmail.tmp|mail storage: $HOME_OF_INFO/.qmail.tmp: a temporary file that was left over
touch $MAILDIR/tmp/1.4194300.host-maildirsize|mail storage: $MAILDIR/tmp/1.4194300.host-maildirsize: a temporary file that was left over
rm $MAILDIR/maildirsize|mail storage: $MAILDIR/maildirsize: is missing
chown root $MAIL_ROOT/d.test/bob/Maildir/maildirsize|mail storage: $MAIL_ROOT/d.test/bob/Maildir/maildirsize: owner is wrong
echo "10 1" >>$MAIL_ROOT/d.test/bob/Maildir/maildirsize|mail storage: $MAIL_ROOT/d.test/bob/Maildir/maildirsize: shows a usage that is wrong
echo junk >>$MAIL_ROOT/d.test/bob/Maildir/maildirsize|mail storage: $MAIL_ROOT/d.test/bob/Maildir/maildirsize: is damaged
rm -r $MAIL_ROOT/d.test/info|mail storage: $HOME_OF_INFO: a mailbox without its home
END
}

@test "what has no one right answer is told and left as it is" {
  while IFS='|' read -r break line; do
    broken "$break" "$line"
    same "$break: status of --fix" 1 $status
    same "$break: left" "$(cat /tmp/broken)" "$(state)"
    restore sound
  done <<END
truncate -s 8192 $TABLES/virtual.db|virtual: $TABLES/virtual.db: is truncated
rm $TABLES/aliases.db|aliases: $TABLES/aliases.db: is missing
postmap -i hash:$TABLES/virtual <<<"old@d.test gone@d.test"|virtual: old@d.test: leads to gone@d.test, which leads nowhere
postmap -i hash:$TABLES/virtual <<<"@a2.test x@b.test, gone@d.test"|virtual: @a2.test: leads to gone@d.test, which leads nowhere
postmap -i hash:$TABLES/virtual <<<"gone@d.test gone@d.test"|virtual: gone@d.test: an address without a mailbox
head -c 31 $TABLES/passwd_db_key >/tmp/k; cat /tmp/k >$TABLES/passwd_db_key|passwd.db: $TABLES/passwd_db_key: the key is too short
openssl rand 32 >$TABLES/passwd_db_key|passwd.db: $TABLES/passwd_db_key: the key decrypts none of the stored passwords
sql $AUTH_DB "UPDATE users SET userPassword=NULL WHERE name='sales' AND dom_id=1"|passwd.db: sales@d.test: a user without a password
sql $AUTH_DB "INSERT INTO users (name, dom_id, userPassword) SELECT 'gone', dom_id, userPassword FROM users LIMIT 1"|passwd.db: gone@d.test: logins of an address that is not there
add_handler gone@d.test spam|handlers.db: gone@d.test: handlers of an address that is not there
add_handler gone@gone.test spam|handlers.db: gone.test: handlers of 1 addresses in a domain that is not here
rm $KEYS/a1.test/default|domain keys: $KEYS/a1.test/default: the key is missing or empty
mkdir $KEYS/gone.test|domain keys: $KEYS/gone.test: a key of a domain that is not here
mkdir -m 750 $MAIL_ROOT/d.test.KavroSaved.9|mail storage: $MAIL_ROOT/d.test.KavroSaved.9: a tree that was moved aside
mv $MAILDIR /tmp/m; ln -s /tmp/m $MAILDIR|mail storage: $MAILDIR: a link in a directory's place
ln -sf /etc/passwd $HOME_OF_INFO/.qmail|mail storage: $HOME_OF_INFO/.qmail: is a link, or no regular file
mkdir $MAIL_ROOT/d.test/lost+found|mail storage: $MAIL_ROOT/d.test/lost+found: a home without a mailbox record
END
}

@test "an open transaction of a process that died is played back" {
  cp $AUTH_DB /tmp/whole
  sql $AUTH_DB "PRAGMA cache_size=1; BEGIN; UPDATE users SET status=1; UPDATE domains SET status=1;
    CREATE TABLE filler AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 200)
      SELECT i, randomblob(900) FROM n;" ".shell cp -p $AUTH_DB /tmp/torn; cp -p $AUTH_DB-journal /tmp/journal"
  ! cmp -s /tmp/whole /tmp/torn || false
  cat /tmp/torn >$AUTH_DB
  cp -p /tmp/journal $AUTH_DB-journal
  with "" mxrepair --check
  same journal "1 passwd.db: $AUTH_DB-journal: a transaction was cut short; --fix: plays the journal back" "$status $out$err"
  with "" mxrepair --fix
  same fixed "0 " "$status $(changes)"
  head -c 512 /dev/zero >$HANDLERS_DB-journal
  with "" mxrepair --check
  same cold "1 handlers.db: $HANDLERS_DB-journal: a transaction was cut short before its first change; --fix: removes it" \
    "$status $out$err"
  with "" mxrepair --fix
  same "cold and fixed" "0 gone" "$status $([ -e $HANDLERS_DB-journal ] || echo gone)"
}

@test "session documents: what their domains lack and have too much is told, and of no other domain" {
  with "$(document d.test "a1.test a3.test" "info:sales bob=6MB new" lost) $(document other.test)" \
    mxrepair --check --wait-stdin
  same "all lines, counted by what is wrong" "1
1 document: names no domain of this node
1 domain keys: a domain alias without the domain's key
1 handlers.db: handlers of an address that is not in the document
1 mail storage: a mailname of the document without its home
1 mail storage: the quota is 5242840 bytes instead of 6291416 (0: none)
1 vmailbox: ~
15 virtual: is not in the document
15 virtual: ~
2 passwd.db: the mailbox has a password, this name of it has none
5 passwd.db: a login that is not in the document" "$status
$(sed -E 's/: [^:]*: /: /; s/; left.*//; s/does not lead to .*/~/' <<<"$out" | sort | uniq -c | sed 's/^ *//' | sort)"
  with "$SAMPLE" mxrepair --check --wait-stdin --domain=d.test
  same "its own document" "0|" "$status|$out$err"
}

@test "--check reads only, tells machines the same, and says 2 when it could not look" {
  whole() { find /etc /run /var -xdev \( -path /var/log -o -path /var/tmp \) -prune -o -printf '%p %i %m %U:%G %s %T@ %C@\n' | sort; }
  add_handler gone@d.test spam
  chmod 700 $MAIL_ROOT/d.test
  rm $MAIL_ROOT/d.test/bob/.qmail && mkfifo $MAIL_ROOT/d.test/bob/.qmail
  whole >/tmp/whole
  with "$SAMPLE" mxrepair --check --json --wait-stdin
  same "the system" "" "$(diff /tmp/whole <(whole))"
  same json "1 1" "$status $(sqlite3 :memory: "SELECT json_array_length('${out//\'/}') = 4 AND json_extract('${out//\'/}', '\$[1].fix') LIKE 'sets%'")"
  postmap -r -i hash:$TABLES/virtual <<<'root@a1.test me@elsewhere.test'
  mv $TABLES/virtual.db $TABLES/virtual.db.before
  postmap -i hash:$TABLES/virtual </dev/null
  with "" mxrepair --fix --domain=a1.test
  same "put back, and no record written over" "0 me@elsewhere.test" "$status $(postmap -q root@a1.test hash:$TABLES/virtual)"
  for input in '' '{' 'x' "$SAMPLE $SAMPLE" "$(document d.test e.test) $(document e.test)" '{"domain": {}}'; do
    with "$input" mxrepair --check --wait-stdin
    [ "$status" = 2 ] || { echo "$input: $status"; return 1; }
  done
  with "" mxrepair --check --domain=e.test
  same "no domain of it" "2 mxrepair: this node does not know e.test" "$status $out$err"
  rm $TABLES/virtual.db && mkfifo $TABLES/virtual.db
  with "" mxrepair --check --domain=d.test
  same "no table" "1 virtual: $TABLES/virtual.db: '$TABLES/virtual.db' is not a regular file" "$status ${out%%;*}$err"
}

# killed WHERE: --rename-domain of d.test to new.test, killed after its N-th run of postmap, or after the N-th change of
# a file by that system call.
killed() {
  case $1 in
    postmap:*)
      replace_postmap "/usr/sbin/postmap.real \"\$@\" || exit; [ \$call != ${1#*:} ] || kill -9 \$PPID"
      with "" mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=new.test
      restore_postmap
      ;;
    *) with "" strace -o /dev/null -P "${1#*:*:}" -e "inject=${1%%:*}:signal=KILL:when=$(cut -d: -f2 <<<"$1")" \
      mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=new.test ;;
  esac
  [ "$status" = 137 ] || { echo "$1: status $status"; return 1; }
}

@test "a rename that was killed is named, and then finished or taken back, whichever is told" {
  local where way
  add_handler info@d.test other
  postmap -r -i hash:$TABLES/virtual <<'END'
@d.test info@d.test
hand@new.test me@elsewhere.test
friend@other.test x@new.test, info@d.test
END
  postmap -r -i hash:$TABLES/vmailbox <<<'x@d.test.uk d.test.uk/x/Maildir/'
  state >/tmp/whole
  keep whole
  with "" mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=new.test
  same renamed "0 " "$status $err"
  # A path that only begins like the old name is restored by hand: the filter takes it along.
  state >/tmp/after
  for where in postmap:{3..7} renameat2:1:$MAIL_ROOT/d.test unlink:1:$AUTH_DB-journal unlink:1:$HANDLERS_DB-journal; do
    for way in finish undo; do
      restore whole
      killed $where
      if ! state | diff -q - /tmp/whole >/dev/null; then
        with "" mxrepair --check
        same "$where: --check" 1 $status
      fi
      with "" mxrepair --fix --$way-rename=d.test:new.test
      same "$where: --$way-rename" "0 " "$status $(grep -v 'The rebuild .* was interrupted' <<<"$err")"
      same "$where: $way" "$(cat /tmp/$([ $way = undo ] && echo whole || echo after))" "$(state)"
    done
  done
  local command="mxadmin --rename-mailname --domain-name=d.test --old-mailname=info --new-mailname=chef"
  restore whole
  ZCP_PASSWORD=secret with "$SAMPLE" $command
  state >/tmp/after
  restore whole
  ZCP_PASSWORD=secret with "$SAMPLE" strace -o /dev/null -P $AUTH_DB-journal -e inject=unlink:signal=KILL:when=1 $command
  same "killed" 137 $status
  with "" mxrepair --fix --finish-rename=info@d.test:chef@d.test
  same "a mailname" "0 $(cat /tmp/after)" "$status$err $(state)"
  with "" mxrepair --fix --undo-rename=e.test:f.test
  same "no such domains" "1 mxrepair: neither e.test nor f.test has storage: no rename was cut short here" "$status $err"
}
