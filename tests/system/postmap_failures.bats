# --add-domain and --add-mailname where postmap, a table, the disk or the mail user fails them: what is reported, what
# stays, and that the same command succeeds afterwards.
load helpers

DOC=$(document d.test a.test info)
DOMAIN="--add-domain --domain-name=d.test"
MAILNAME="--add-mailname --domain-name=d.test --mailname=info"
TABLE_ERROR="Fatal error: kavro::mail::postfix::PostfixConfigurationError"
NO_TEXT="Fatal error: std::__ios_failure(basic_ios::clear: iostream error)"

setup() { reset_stores; }
teardown() {
  restore_postmap
  for mounted in $TABLES $MAIL_ROOT; do ! mountpoint -q $mounted || umount $mounted; done
}
run() { with "$DOC" timeout 60 mxadmin "$@"; }

# failing WHAT REPORT CHANGES COMMAND...: it fails so, with these changes beside the storage.
failing() {
  run "${@:4}"
  restore_postmap
  same "$1" "1|$2|$2|$3" "$status|$err|$out|$(changes | grep -v '^+storage: ')"
}

# fail CALL COMMANDS: what the stand-in does instead of that run.
fail() { replace_postmap "[ \$call != $1 ] || { $2; exit 1; }; real \"\$@\""; }
# lose CALL COMMAND: what the run before it does to the program.
lose() {
  replace_postmap "[ \$call != $(($1 - 1)) ] || $2 \$0; real \"\$@\""
  [ $1 != 1 ] || $2 /usr/sbin/postmap
}

# A domain whose name an older record has, so that the table is rebuilt; a mailname in a domain.
prepare() {
  restore "$command" && return
  reset_stores
  if [ "$command" = "$DOMAIN" ]; then postmap -i hash:$TABLES/virtual <<<'old@d.test x@x.test'; else run $DOMAIN; fi
  keep "$command"
}

@test "each way of postmap to fail, at each of its runs, is reported; what was made stays; the next try succeeds" {
  for command in "$DOMAIN" "$MAILNAME"; do
    prepare
    remember
    run $command
    state >/tmp/complete
    while IFS='|' read -r form how report <&3; do
      for call in 1 2 3 4 5; do
        case $command$call in
          *info[345]) continue ;;
          *info2) changed="+vmailbox: info@d.test d.test/info/Maildir/" ;;
          *test3) changed="-virtual: old@d.test x@x.test" ;;
          *test4) changed=$({ echo "-virtual: old@d.test x@x.test" && standard + d.test; } | sorted) ;;
          *test5) changed+=$'\n'"+virtual_domains: d.test d.test/" ;;
          *) changed= ;;
        esac
        prepare
        $form $call "$how"
        failing "$command, run $call, $how" "${report/injected/$'injected\n'}" "$changed" $command
        same storage "$(grep '^storage:' /tmp/complete)" "$(storage | sed 's/^/storage: /' | sort)"
        run $command
        same "the next try" "0 $(cat /tmp/complete)" "$status$err $(state)"
      done
    done 3<<END
fail|echo postmap: fatal: injected >&2|$TABLE_ERROR(postmap: fatal: injected)
fail|cat >/dev/null|$TABLE_ERROR(unknown error)
fail|kill -KILL \$\$|$TABLE_ERROR(unknown error)
fail|exec <&-|$TABLE_ERROR(unknown error)
lose|rm|Fatal error: kavro::SystemError(execv: No such file or directory: No such file or directory)
lose|chmod 0644|Fatal error: kavro::SystemError(execv: Permission denied: Permission denied)
END
  done
}

@test "a damaged table, a directory in the text source's place, a missing mail user: nothing is touched" {
  run $DOMAIN
  remember
  mkdir $TABLES/virtual
  failing "in the way" "$NO_TEXT" "+left over: virtual" $DOMAIN
  rmdir $TABLES/virtual
  cp -p /etc/passwd /tmp/passwd
  for command in "$DOMAIN" "$MAILNAME"; do
    sed -i '/^popuser:/d' /etc/passwd
    run $command
    cp -p /tmp/passwd /etc/passwd
    [[ $status == 1 && $err == "Fatal error: kavro::SystemError(user popusernot found: "* ]]
    same "without popuser" "" "$(changes)"
  done
  echo "no hash map" >$TABLES/virtual.db
  for command in "$DOMAIN" "$MAILNAME"; do
    run $command
    [[ $status == 1 && $err == "$TABLE_ERROR(postmap: fatal: open database $TABLES/virtual"* ]]
    same "damaged table" "no hash map" "$(cat $TABLES/virtual.db; leftovers)"
  done
}

# on_small_disk DIR PAGES: moves DIR to a file system with room for so many pages more.
on_small_disk() {
  cp -a "$1/." "/tmp/aside${1//\//-}"
  mount -t tmpfs -o size=$((4 * ($(du -s --block-size=4096 "$1" | cut -f 1) + $2)))k tmpfs "$1"
  cp -a "/tmp/aside${1//\//-}/." "$1"
}

@test "a full disk leaves tables and quota file whole" {
  seq -f 'name%g@other.test target@other.test' 5000 | postmap -r -i hash:$TABLES/virtual
  run $DOMAIN
  run $MAILNAME
  remember
  on_small_disk $TABLES 10
  failing "text source" "$NO_TEXT" "" $DOMAIN
  on_small_disk $MAIL_ROOT 5
  head -c 1M /dev/zero >$MAIL_ROOT/filler 2>/dev/null || true
  run --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=5000
  [[ $status == 1 && $err == *"unable to write data to file"*"No space left on device"*"unable to store mbox quota"* ]]
  rm $MAIL_ROOT/filler
  same "quota file" "" "$(changes)"
}

@test "a map that postmap makes anew, over one that it cannot read, is no success" {
  run $DOMAIN
  replace_postmap "[ \$call != 2 ] || { echo 'BDB0134 read' >&2; rm $TABLES/virtual.db; }; real \"\$@\""
  run $MAILNAME
  same anew "1 $TABLE_ERROR(BDB0134 read"$'\n)' "$status $err"
}
