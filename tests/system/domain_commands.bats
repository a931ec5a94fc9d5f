# The nine domain commands from the outside: what each changes in all stores of the sample domain, and that it changes
# nothing else (the neighbourhood of look-alikes and subdomains above all).
load helpers

setup() {
  reset_stores
  make_sample
  remember
}

@test "--add-domain writes its records, clears those of a former alias of that name, and sets default quotas" {
  postmap -r -i hash:$TABLES/virtual <<<$'odd@other.test a@b.test,new@new.test\t ,c@d.other'
  remember
  install -D /bin/sleep /usr/lib/postfix/trivial-rewrite
  env --default-signal=INT /usr/lib/postfix/trivial-rewrite 60 3>&- &
  with "$(document new.test "" "")" mxadmin --add-domain --domain-name=New.Test
  [ $status = 0 ]
  status=0; wait $! || status=$?
  [ $status = 130 ] # the address resolver was told
  same "new domain, odd separators put right" "$(sorted <<<"$(standard + new.test)
-virtual: odd@other.test a@b.test,new@new.test  ,c@d.other
+virtual: odd@other.test a@b.test, c@d.other
+virtual_domains: new.test new.test/
+storage: d 750 popuser:popuser new.test")" "$(changes)"
  remember
  mx --add-domain --domain-name=d.test --disk-quota=4096
  same "same domain again, with a quota" "$(sorted <<<"-virtual: info@d.test info@d.test
-virtual: bob@d.test bob@d.test
-virtual: sales@d.test info@d.test
-virtual: help@d.test info@d.test
$(seen_through - a1.test; seen_through - a2.test)
-virtual: news@a1.test news@d.test
-virtual: news@a2.test news@d.test
-virtual: fan@other.test info@d.test, x@other.test, y@sub.d.test
+virtual: fan@other.test x@other.test, y@sub.d.test
-storage: d.test/info/Maildir/maildirsize: 0S,0C~           0           0~
+storage: d.test/info/Maildir/maildirsize: $((4096 - $(stat -c %s $MAIL_ROOT/d.test/info/@attachments)))S,0C~           0           0~")" "$(changes)"
}

@test "every process of the resolver is told of a changed domain alias, none before it had time for an answer" {
  local resolver=/usr/lib/postfix/sbin/trivial-rewrite started sleepers n change
  install -D /bin/sleep $resolver.new && mv $resolver.new $resolver
  for change in "mxadmin --del-domain-alias --domain-name=d.test --domain-alias-name=a1.test" "mxrepair --sync --wait-stdin"; do
    started=${EPOCHREALTIME/.} sleepers=
    for n in 1 2; do
      env --default-signal=INT $resolver 60 3>&- &
      sleepers+=" $!"
    done
    with "$SAMPLE" $change
    [ $status = 0 ]
    for n in $sleepers; do
      status=0; wait $n || status=$?
      [ $status = 130 ]
    done
    [ $((${EPOCHREALTIME/.} - started)) -ge 500000 ]
  done
}

@test "--remove-domain removes the domain everywhere, leaves bounce records and neighbours" {
  mx --turn-on-domain --domain-name=d.test --set-bounce --phrase=gone
  add_handler d.test whole
  remember
  mx --remove-domain --domain-name=d.test
  same "removed" "$(sorted <<<"$(standard - d.test)
-virtual_domains: d.test d.test/
$(seen_through - a1.test; seen_through - a2.test; seen_through - d.test)
-virtual: news@a1.test news@d.test
-virtual: news@a2.test news@d.test
-virtual: fan@other.test info@d.test, x@other.test, y@sub.d.test
+virtual: fan@other.test x@other.test, y@sub.d.test
-vmailbox: info@d.test d.test/info/Maildir/
-vmailbox: bob@d.test d.test/bob/Maildir/
$(for d in d.test a1.test a2.test; do for n in info sales help; do echo "-auth: $n@$d encrypted 00"; done; done)
-handlers: d.test whole 1
-handlers: info@d.test spam 1
$(grep '^storage:' /tmp/before | sed 's/^/-/')")" "$(changes)"
  [ ! -e $MAIL_ROOT/d.test ]
  mx --add-domain --domain-name=d.test
  table virtual_domains | grep -q '^d.test'
}

@test "--turn-off-domain takes the aliases down, then the domain; --turn-on-domain brings all back" {
  add_handler d.test whole
  remember
  cp /tmp/before /tmp/at-first
  mx --turn-off-domain --domain-name=d.test
  same "off" "$(sorted <<<"$(standard - d.test; standard - a1.test; standard - a2.test)
-virtual_domains: d.test d.test/
$(for a in a1.test a2.test; do seen_through - $a; printf -- '-virtual: %s 1\n-virtual: news@%s news@d.test\n-handlers: info@%s spam 1\n' $a $a $a; done)
$(for n in info sales help; do printf -- '-auth: %s@d.test encrypted 00\n+auth: %s@d.test encrypted 01\n' $n $n; done)
$(for d in a1.test a2.test; do for n in info sales help; do echo "-auth: $n@$d encrypted 00"; done; done)
-handlers: d.test whole 1
+handlers: d.test whole 0
$(for a in a1.test a2.test; do printf -- '-keys: d 755 root:root %s\n-keys: f 440 root:popuser %s/default\n' $a $a; done)")" "$(changes)"
  mx --turn-on-domain --domain-name=d.test --set-reject
  cp /tmp/at-first /tmp/before
  same "on again" "" "$(changes)"
  with "$(document d.test)" mxadmin --turn-on-domain --domain-name=d.test
  [ $status = 1 ]
  [[ $err == *'Action for notexisting mail names is not specified (--set-bounce/--set-catchall/--set-reject)'*'mandatory option "--set-bounce" or "--set-catchall" or "--set-reject" is not specified'* ]]
  same "without an action" "" "$(changes)"
}

@test "--add-domain-alias gives the alias every name, list, key, handler and password, and an answer to unknown recipients" {
  mx --add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-bounce --phrase=$'no\nsuch user' --set-reject
  common=$(standard + n.test; seen_through + n.test; for n in info sales help; do echo "+auth: $n@n.test encrypted 00"; done)
  common+=$'\n+virtual: n.test 1\n+virtual: news@n.test news@d.test\n+handlers: info@n.test spam 1\n+keys: d 755 root:root n.test\n+keys: f 440 root:popuser n.test/default'
  same "bounce" "$(sorted <<<"$common
+aliases: _kavro_bounce_n.test \"|/usr/lib/kavro-9.0/bouncemessage no\\\\\\ such\\\\\\ user\"
+virtual: @n.test _kavro_bounce_n.test@localhost.localdomain")" "$(changes)"
  [ "$(password_of sales n.test)" = secret ]
  mx --del-domain-alias --domain-name=d.test --domain-alias-name=n.test
  same "removed but for the bounce command" "+aliases: _kavro_bounce_n.test \"|/usr/lib/kavro-9.0/bouncemessage no\\\\\\ such\\\\\\ user\"" "$(changes)"
  remember
  with "$SAMPLE" env ASAN_OPTIONS=detect_leaks=0 strace -qq -y -o /tmp/calls -e trace=fsync,rename \
    mxadmin --add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-catchall --email=any@münchen.test
  same "the key reaches the disk before its name" "0 fsync rename" "$status $(grep $KEYS /tmp/calls | sed 's/(.*//' | xargs)"
  same "catch-all" "$(sorted <<<"$common
+virtual: @n.test any@xn--mnchen-3ya.test")" "$(changes)"
  with "$SAMPLE" mxadmin --add-domain-alias --domain-name=d.test --domain-alias-name=m.test --set-catchall
  [ $status = 1 ] && [[ $err == *'mandatory option "--email" is not specified'* ]]
}

@test "--rename-domain-alias moves what the alias has" {
  add_handler a2.test whole
  add_handler x@y.test a2.test
  remember
  mx --rename-domain-alias --domain-name=d.test --old-domain-alias-name=a2.test --new-domain-alias-name=n.test --set-catchall --email=bob@d.test
  same "renamed" "$(sorted <<<"$(standard - a2.test; standard + n.test; seen_through - a2.test; seen_through + n.test)
-virtual: a2.test 1
+virtual: n.test 1
-virtual: news@a2.test news@d.test
+virtual: news@n.test news@d.test
+virtual: @n.test bob@d.test
$(for n in info sales help; do printf -- '-auth: %s@a2.test encrypted 00\n+auth: %s@n.test encrypted 00\n' $n $n; done)
+handlers: info@n.test spam 1
-handlers: a2.test whole 1
-handlers: x@y.test a2.test 1
$(printf -- '%skeys: d 755 root:root %s\n' - a2.test + n.test; printf -- '%skeys: f 440 root:popuser %s/default\n' - a2.test + n.test)")" "$(changes)"
}

@test "what cannot be copied or removed stays where it was, and a warning tells" {
  touch $KEYS/n.test
  with "$SAMPLE" mxadmin --rename-domain-alias --domain-name=d.test --old-domain-alias-name=a2.test --new-domain-alias-name=n.test --set-reject
  [[ $status == 0 && $err == *"WARNING: cannot create domainkey for n.test" && -f $KEYS/a2.test/default ]]
  with "$SAMPLE" setpriv --bounding-set=-chown mxadmin --add-domain --domain-name=new.test
  [[ $status == 1 && $err == *"chown: Operation not permitted"* && ! -e $MAIL_ROOT/new.test ]]
  with "$SAMPLE" setpriv --bounding-set=-chown mxadmin --add-mailname --domain-name=d.test --mailname=new
  [[ $status == 1 && $err == *"chown: Operation not permitted"* && ! -e $MAIL_ROOT/d.test/new ]]
  mv $MAIL_ROOT/d.test/bob /tmp/bob.elsewhere
  ln -s /tmp/bob.elsewhere $MAIL_ROOT/d.test/bob
  with "$SAMPLE" mxadmin --remove-mailname --domain-name=d.test --mailname=bob
  [ "$status $err" = '0 WARNING: unable to remove all mail of bob@d.test: it was a link to "/tmp/bob.elsewhere"' ]
  mount -t tmpfs none $MAIL_ROOT/d.test/info/Maildir/cur
  with "$SAMPLE" mxadmin --remove-domain --domain-name=d.test
  umount $MAIL_ROOT/d.test.KavroSaved.*/info/Maildir/cur
  [ "$status $err" = "0 WARNING: unable to remove all mail of d.test: boost::filesystem::remove_all: Device or resource busy: \"$(echo $MAIL_ROOT/d.test.KavroSaved.*)\"" ]
}

@test "--rename-domain renames records, storage, users and handlers, and tells the plug-ins" {
  # The plug-in notes its call and whether SIGPIPE and SIGXFSZ have their default actions; it fails once told to.
  printf '#include <signal.h>\n#include <stdio.h>\n#include <unistd.h>\nint rename_domain(const char *a, const char *b) {
    FILE *f = fopen("/tmp/plugin", "a"); fprintf(f, "%%s %%s %%d\\n", a, b, !signal(SIGPIPE, SIG_DFL) && !signal(SIGXFSZ, SIG_DFL)); fclose(f);
    printf("plug-in "); return access("/tmp/fail", F_OK) == 0; }' | gcc -shared -fPIC -x c -o $PLUGINS/one.so -
  cp $PLUGINS/one.so $PLUGINS/two.so
  gcc -shared -fPIC -x c -o $PLUGINS/none.so /dev/null
  mkdir $PLUGINS/directory
  rm -f /tmp/plugin
  with "" mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=New.test
  same "what it says" "0 plug-in plug-in " "$status $out$err"
  same "renamed" "$(sed -E '/^keys/!s/(^|[ @])d\.test/\1new.test/g' /tmp/before | sort)" "$(state | sort)"
  same "plug-in calls" $'d.test new.test 1\nd.test new.test 1' "$(cat /tmp/plugin)"
  table virtual | grep -qx $'fan@other.test\tinfo@new.test, x@other.test, y@sub.d.test'
  table vmailbox | grep -qx $'info@new.test\tnew.test/info/Maildir/'
  touch /tmp/fail
  echo "no library" >$PLUGINS/text
  with "" mxadmin --rename-domain --old-domain-name=new.test --new-domain-name=d.test
  rm /tmp/fail
  [[ $status == 1 && $err == *"plugin '$PLUGINS/"*".so' failed with status '1'"* ]]
  same "calls until one fails" 3 "$(wc -l </tmp/plugin)"
  with "" mxadmin --rename-domain --old-domain-name=new.test --new-domain-name=d.test
  [[ $status == 0 && $err == "cannop load '$PLUGINS/text' plugin: "* ]]
}

@test "--rename-domain onto a domain that exists, of one that does not, and onto itself, changes nothing" {
  with "$(document empty.test)" mxadmin --add-domain --domain-name=empty.test
  add_handler info@empty.test spam
  remember
  local pair
  for pair in "d.test empty.test" "missing.test d.test" "d.test d.test" "missing.test missing2.test"; do
    with "" mxadmin --rename-domain --old-domain-name=${pair% *} --new-domain-name=${pair#* }
    [ $status = 1 ]
    [[ $err == "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::rename: "* ]] || { echo "$err"; false; }
    [ "$err" = "$out" ]
    same "$pair" "" "$(changes)"
  done
}

@test "a domain renamed to the host's own name, and back, trades places with the host's records" {
  postmap -r -i hash:$TABLES/virtual <<<'sandbox.mail.test 1'
  for name in postmaster mailer-daemon root anonymous drweb kluser; do echo "$name@sandbox.mail.test $name@localhost.localdomain"; done |
    postmap -r -i hash:$TABLES/virtual
  remember
  with "" mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=Sandbox.MAIL.test
  [ "$status$err" = 0 ]
  same "records named for the host" 'info@sandbox.mail.test' "$(table virtual | grep -oE '^(info@)?sandbox.mail.test')"
  with "" mxadmin --rename-domain --old-domain-name=sandbox.mail.test --new-domain-name=d.test
  [ "$status$err" = 0 ]
  same "there and back" "" "$(changes)"
  postmap -d drweb@a1.test hash:$TABLES/virtual # of the host's it must not stay either
  remember
  mx --rename-domain-alias --domain-name=d.test --old-domain-alias-name=a1.test --new-domain-alias-name=Sandbox.MAIL.test --set-reject
  same "an alias of the host's name" "$(grep '^virtual: .*a1\.test' /tmp/before | sed 's/a1\.test/sandbox.mail.test/' | sort)" \
    "$(state | grep '^virtual: .*sandbox' | sort)"
  mx --rename-domain-alias --domain-name=d.test --old-domain-alias-name=sandbox.mail.test --new-domain-alias-name=a1.test --set-reject
  same "the alias back" "" "$(changes | grep -v handlers)"
  sed -i.was 's/sandbox.mail.test//' /etc/hosts
  with "" mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=e.test
  same "an unknown host" "0 WARNING: this host's name is not known: a rename from or to it leaves the host's own records alone" "$status $out"
  [[ $err == *"Canonname is not correct fqdn"*"It is impossible to detect the FQDN of the host."*"Please make sure"* ]]
  with "" mxrepair --fix --undo-rename=d.test:e.test
  mv /etc/hosts.was /etc/hosts
  [[ $status = 1 && $err == *"mxrepair: this host's name is not known"* && -e $MAIL_ROOT/e.test ]]
}

@test "--set-domain-disk-quota writes the default to mailboxes without a quota of their own" {
  store=$(stat -c %s $MAIL_ROOT/d.test/info/@attachments)
  mx --set-domain-disk-quota --domain-name=d.test --disk-quota=100000
  same "100000" "-storage: d.test/info/Maildir/maildirsize: 0S,0C~           0           0~
+storage: d.test/info/Maildir/maildirsize: $((100000 - store))S,0C~           0           0~" "$(changes)"
  mx --set-domain-disk-quota --domain-name=d.test --disk-quota=-5
  same "unlimited" "" "$(changes)"
  with "$(document other.test "" info)" mxadmin --set-domain-disk-quota --domain-name=d.test --disk-quota=1
  [[ $status = 1 && $err == *"unable to store domain quota"* ]]
  rm -r $MAIL_ROOT/d.test/info/Maildir
  with "$SAMPLE" mxadmin --set-domain-disk-quota --domain-name=d.test --disk-quota=1
  [ $status = 1 ] && [[ $err == *"Unable to set default mbox quota for domain 'd.test' (processing 'info')"* ]]
}
