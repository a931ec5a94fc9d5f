# The ten mailname and mailbox commands from the outside, in a domain with two domain aliases and a mailname with two
# mail aliases: what each changes in all stores, and that it changes nothing else.
load helpers

setup() {
  reset_stores
  make_sample
  remember
  attachments=$(stat -c %s $MAIL_ROOT/d.test/info/@attachments)
}

mx() {
  with "$SAMPLE" mxadmin "$@" --domain-name=d.test
  [ "$status $out$err" = "0 " ] || { echo "status $status: $out$err"; return 1; }
}
everywhere() { # everywhere SIGN STORE NAME REST: the same line for the domain and both of its aliases
  local domain
  for domain in d.test a1.test a2.test; do printf '%s%s: %s@%s %s\n' "$1" "$2" "$3" $domain "$4"; done
}
users() { local name; for name in info sales help; do everywhere "$1" auth $name "encrypted 00"; done; }
empty_domains() { printf '+auth: (domain) %s 0\n' d.test a1.test a2.test; }
new_home() { # new_home NAME LIMIT: the storage of a new mailname
  local entry
  for entry in "" /@attachments /Maildir /Maildir/{tmp,new,cur} /Maildir/.Spam /Maildir/.Spam/{tmp,new,cur}; do
    echo "+storage: d 700 popuser:popuser d.test/$1$entry"
  done
  echo "+storage: f 600 popuser:popuser d.test/$1/.qmail
+storage: f 644 popuser:popuser d.test/$1/Maildir/maildirsize
+storage: d.test/$1/.qmail: | true~
+storage: d.test/$1/Maildir/maildirsize: $2S,0C~           0           0~"
}

@test "--add-mailname makes storage, delivery file, quota, and a record under each alias" {
  mx --add-mailname --mailname=Neu --disk-quota=90000 --wait-stdin
  same "with a quota" "$(sorted <<<"$(new_home neu $((90000 - attachments)); everywhere + virtual neu neu@d.test)
+vmailbox: neu@d.test d.test/neu/Maildir/")" "$(changes)"
  remember
  with "" mxadmin --add-mailname --domain-name=d.test --mailname=zwei --default-domain-quota=70000
  same "with the domain's default, from the command line alone" "$(sorted <<<"$(new_home zwei $((70000 - attachments)))
+vmailbox: zwei@d.test d.test/zwei/Maildir/
+virtual: zwei@d.test zwei@d.test")" "$(changes)"
}

@test "--remove-mailname removes users, records, storage and handlers, but not the mail aliases' records" {
  mx --remove-mailname --mailname=info
  same "removed" "$(sorted <<<"$(users -; empty_domains; everywhere - virtual info info@d.test)
-vmailbox: info@d.test d.test/info/Maildir/
-handlers: info@d.test spam 1
$(grep '^storage:.*d\.test/info' /tmp/before | sed 's/^/-/')")" "$(changes)"
}

@test "--rename-mailname moves records, storage and handlers; the user with a password, else users are removed" {
  renamed=$(sed -E '/^(vmailbox|storage|handlers)/s|d\.test/info|d.test/chef|g; /^(vmailbox|virtual|handlers)/s/([ ,])info@d\.test/\1chef@d.test/g' /tmp/before)
  ZCP_PASSWORD=any mx --rename-mailname --old-mailname=info --new-mailname=chef
  same "with a password" "$(sed 's/^auth: info@d.test/auth: chef@d.test/' <<<"$renamed" | sort)" "$(state | sort)"
  [ "$(password_of chef d.test)" = secret ]
  mx --rename-mailname --old-mailname=chef --new-mailname=info
  same "and back without one" "$(users - | grep info@d.test)" "$(changes | grep -v 'info@a[12]')"
}

@test "--add-mailbox and --remove-mailbox switch delivery and users on and off, under each alias" {
  ZCP_CRYPTED_PASSWORD='$1$ab$hash' mx --add-mailbox --mailname=bob -D
  lda='| /usr/lib/dovecot/dovecot-lda -d "$DELIVERED_TO"'
  same "added" "$(sorted <<<"$(everywhere + auth bob 'as-is:$1$ab$hash 00')
-storage: d.test/bob/.qmail: | true~
+storage: d.test/bob/.qmail: | true~$lda~")" "$(changes)"
  mx --remove-mailbox --mailname=bob
  same "and removed" "" "$(changes)"
  mx --remove-mailbox --mailname=info
  same "one with aliases removed" "$(sorted <<<"$(users -; empty_domains)
-storage: d.test/info/.qmail: | true~$lda~
+storage: d.test/info/.qmail: | true~")" "$(changes)"
  ZCP_PASSWORD=x with "$(document off.test)" mxadmin --set-password --domain-name=off.test --mailname=late -D
  [ "$(auth_users | grep off.test)" = "late@off.test encrypted 01" ]
}

@test "--set-password reaches the mailname and its mail aliases in every domain; none removes them" {
  ZCP_PASSWORD='n3w "§ec' ZCP_CRYPTED_PASSWORD=unused mx --set-password --mailname=info
  same "the same users" "" "$(changes)"
  for name in info sales help; do
    for domain in d.test a1.test a2.test; do [ "$(password_of $name $domain)" = 'n3w "§ec' ]; done
  done
  [ "$(sql $AUTH_DB 'SELECT count(DISTINCT userPassword) FROM users')" = 9 ]
  ZCP_PASSWORD= mx --set-password --mailname=info
  same "without a password" "$(sorted <<<"$(users -; empty_domains)")" "$(changes)"
}

@test "--add-alias and --remove-alias carry records, users and handlers; a failure under one alias does not stop the rest" {
  mx --add-alias --mailname=info --alias=Neu
  same "added" "$(sorted <<<"$(everywhere + virtual neu info@d.test; everywhere + auth neu "encrypted 00"; everywhere + handlers neu "spam 1")")" "$(changes)"
  [ "$(password_of neu a2.test)" = secret ]
  mx --remove-alias --mailname=info --alias=neu
  same "removed, but for the handlers under the domain aliases" "$(everywhere + handlers neu "spam 1" | grep -v d.test | sorted)" "$(changes)"
  sql $HANDLERS_DB "DELETE FROM handlers WHERE address LIKE 'neu@%'"
  sql $AUTH_DB "CREATE TRIGGER fail BEFORE INSERT ON users WHEN NEW.dom_id = (SELECT id FROM domains WHERE name = 'a1.test')
    BEGIN SELECT RAISE(ABORT, 'injected'); END"
  with "$SAMPLE" mxadmin --add-alias --domain-name=d.test --mailname=info --alias=neu
  [[ $status == 1 && $err == *"Unable to clone auth record for neu@a1.test"* ]]
  same "but for one user" "$(sorted <<<"$(everywhere + virtual neu info@d.test; everywhere + auth neu "encrypted 00" | grep -v a1.test; everywhere + handlers neu "spam 1")")" "$(changes)"
}

@test "--get-mailbox-size counts mail and attachments; --set-mailbox-disk-quota takes the attachments off" {
  with "" mxadmin --get-mailbox-size --domain-name=d.test --mailname=info
  [ "$status $out" = "0 $attachments" ]
  rm $MAIL_ROOT/d.test/info/Maildir/maildirsize
  printf 12345 >$MAIL_ROOT/d.test/info/Maildir/new/1.plain
  : >"$MAIL_ROOT/d.test/info/Maildir/cur/2.x,S=2048:2,S"
  mkdir -p $MAIL_ROOT/d.test/info/Maildir/.Trash/cur
  echo junk >$MAIL_ROOT/d.test/info/Maildir/.Trash/cur/3
  head -c 5000 /dev/zero >$MAIL_ROOT/d.test/info/@attachments/a
  attachments=$(($(stat -c %s $MAIL_ROOT/d.test/info/@attachments) + 5000))
  with "" mxadmin --get-mailbox-size --domain-name=D.Test --mailname=INFO
  [ "$status $out$err" = "0 $((attachments + 2053))" ]
  with "" mxadmin --get-mailbox-size --domain-name=d.test --mailname=info --in-blocks
  blocks=$(stat -c %b $MAIL_ROOT/d.test/info/@attachments $MAIL_ROOT/d.test/info/@attachments/a | paste -sd +)
  [ "$status $out$err" = "0 $((512 * (blocks) + 2053))" ]
  mxadmin --get-mailbox-size --domain-name=d.test --mailname=info | tail -c 1 | od -An -c | grep -q '[0-9]' # no line end
  mx --set-mailbox-disk-quota --mailname=info --disk-quota=50000
  [ "$(cat $MAIL_ROOT/d.test/info/Maildir/maildirsize)" = "$((50000 - attachments))S,0C
        2053           2" ]
  with "$SAMPLE" mxadmin --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=100
  [[ $status == 0 && $err == *'WARNING: @attachments directory is big enough to disable delivery!'* ]]
  [ "$(head -n 1 $MAIL_ROOT/d.test/info/Maildir/maildirsize)" = 1S,0C ]
  mx --set-mailbox-disk-quota --mailname=info --disk-quota=-1 --default-domain-quota=70000
  [ "$(head -n 1 $MAIL_ROOT/d.test/info/Maildir/maildirsize)" = $((70000 - attachments))S,0C ]
}
