# --add-domain and --add-mailname where postmap, a table, the disk or the mail user fails them: what is reported, what
# stays, and that the same command succeeds afterwards.
load helpers

DOC=$(document d.test a.test info)
DOMAIN="--add-domain --domain-name=d.test"
MAILNAME="--add-mailname --domain-name=d.test --mailname=info"

setup() { reset_stores; }
teardown() {
  restore_postmap
  grep -q '^popuser:' /etc/passwd || cat /tmp/popuser >>/etc/passwd
  local mounted
  for mounted in $TABLES/virtual.db $TABLES $MAIL_ROOT; do ! mountpoint -q $mounted || umount $mounted; done
}

fatal() { printf 'Fatal error: %s(%s)' "$1" "$2"; }
NO_TEXT="Fatal error: std::__ios_failure(basic_ios::clear: iostream error)"
FAILED=kavro::mail::postfix::PostfixConfigurationError

# failing WHAT REPORT CHANGES COMMAND...: it fails so, and leaves these tables and nothing half-written.
failing() {
  local what=$1 report=$2 changed=$3
  shift 3
  with "$DOC" timeout 60 mxadmin "$@"
  restore_postmap
  same "$what" "1 $report" "$status $err"
  same "$what, standard output" "$report" "$out"
  same "tables, $what" "$changed" "$(changes | grep -v '^+storage: ')"
}

# form|report; FORM fails the n-th call.
FORMS="fail 'echo postmap: fatal: injected >&2; exit 1'|$(fatal $FAILED 'postmap: fatal: injected')
fail 'cat >/dev/null; exit 1'|$(fatal $FAILED 'unknown error')
fail 'kill -KILL \$\$'|$(fatal $FAILED 'unknown error')
fail 'exec <&-; exit 1'|$(fatal $FAILED 'unknown error')
gone 'mv \$0 \$0.away'|$(fatal kavro::SystemError 'execv: No such file or directory: No such file or directory')
gone 'chmod 0644 \$0'|$(fatal kavro::SystemError 'execv: Permission denied: Permission denied')"
fail() { replace_postmap "[ \$call != $call ] || { $1; }; real \"\$@\""; }
gone() { # the call before removes the program that the n-th needs
  replace_postmap "[ \$call != $((call - 1)) ] || $1; real \"\$@\""
  [ $call != 1 ] || (set -- "$1" /usr/sbin/postmap; eval "${1//\$0/\$2}")
}

@test "each way of postmap to fail, at each of its runs, is reported; what was made stays; the next try succeeds" {
  local form report command call changed
  for command in "$DOMAIN" "$MAILNAME"; do
    reset_stores
    [ "$command" = "$DOMAIN" ] || with "$DOC" mxadmin $DOMAIN
    remember
    with "$DOC" mxadmin $command
    state >/tmp/complete
    while IFS='|' read -r form report <&3; do
      case $report in *injected*) report="${report%)}"$'\n)' ;; esac
      for call in 1 2 3 4 5; do
        case $command$call in
          *info[345]) continue ;;
          *info2) changed="+vmailbox: info@d.test d.test/info/Maildir/" ;;
          *test4) changed=$(standard + d.test | sorted) ;;
          *test5) changed=$(sorted <<<"$(standard + d.test)
+virtual_domains: d.test d.test/") ;;
          *) changed= ;;
        esac
        reset_stores
        [ "$command" = "$DOMAIN" ] || with "$DOC" mxadmin $DOMAIN
        eval "$form"
        failing "$command, run $call, $form" "$report" "$changed" $command
        same "storage" "$(grep '^storage:' /tmp/complete)" "$(state | grep '^storage:')"
        with "$DOC" mxadmin $command
        [ "$status$err" = 0 ]
        same "state after the next try" "$(cat /tmp/complete)" "$(state)"
      done
    done 3<<<"$FORMS"
  done
}

@test "a table that postmap cannot read or write, and a text source that cannot be made, are reported" {
  echo 'x@other.test y@other.test' | postmap -r -i hash:$TABLES/virtual
  with "$DOC" mxadmin $DOMAIN
  remember
  mount --bind $TABLES/virtual.db $TABLES/virtual.db
  mount -o remount,bind,ro $TABLES/virtual.db
  failing "read-only" "$(fatal $FAILED "postmap: fatal: open $TABLES/virtual.db: Read-only file system
")" "" $DOMAIN
  umount $TABLES/virtual.db
  mkdir $TABLES/virtual
  failing "in the way" "$NO_TEXT" "+left over: virtual" $DOMAIN
  rmdir $TABLES/virtual
  cp $TABLES/virtual.db /tmp/virtual.db
  echo "no hash map" >$TABLES/virtual.db
  for command in "$DOMAIN" "$MAILNAME"; do
    with "$DOC" timeout 60 mxadmin $command
    [[ $status == 1 && $err == "Fatal error: $FAILED(postmap: fatal: "*virtual* ]]
    same "damaged table" "no hash map" "$(cat $TABLES/virtual.db)"
  done
  [ -z "$(leftovers)" ]
}

@test "a missing mail user stops a command before it touches anything" {
  with "$DOC" mxadmin $DOMAIN
  remember
  grep '^popuser:' /etc/passwd >/tmp/popuser
  for command in "$DOMAIN" "$MAILNAME"; do
    sed -i '/^popuser:/d' /etc/passwd
    with "$DOC" timeout 60 mxadmin $command
    cat /tmp/popuser >>/etc/passwd
    [[ $status == 1 && $err == "Fatal error: kavro::SystemError(user popusernot found: "* ]]
    same "$command" "" "$(changes)"
  done
}

# on_small_disk DIR PAGES: moves DIR to a file system with room for so many pages more.
on_small_disk() {
  cp -a "$1" /tmp/aside
  mount -t tmpfs -o size=$((4 * ($(du -s --block-size=4096 /tmp/aside | cut -f 1) + $2)))k tmpfs "$1"
  cp -a /tmp/aside/. "$1"
  rm -r /tmp/aside
}

@test "a full disk leaves tables, delivery file and quota file whole" {
  seq -f 'name%g@other.test target@other.test' 5000 | postmap -r -i hash:$TABLES/virtual
  with "$DOC" mxadmin $DOMAIN
  with "$DOC" mxadmin $MAILNAME
  remember
  on_small_disk $TABLES 10
  failing "text source" "$NO_TEXT" "" $DOMAIN
  on_small_disk $MAIL_ROOT 5
  head -c 1M /dev/zero >$MAIL_ROOT/filler 2>/dev/null || true
  with "$DOC" mxadmin --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=5000
  [[ $status == 1 && $err == *"unable to write data to file"*"No space left on device"*"unable to store mbox quota"* ]]
  rm $MAIL_ROOT/filler
  same "quota file" "" "$(changes)"
}
