# What must not cost a table its records: rebuilds that fail or are killed, changes at once, and whatever else than a
# map stands under a map's name.
load helpers

MAP=$TABLES/virtual.db
LOCK=/var/lock/files/$(printf hash:$TABLES/virtual | md5sum | cut -d ' ' -f 1)
PUT_BACK="The rebuild of the lookup table hash:$TABLES/virtual was interrupted: it is put back as it was before"

setup() {
  reset_stores
  DOC=$(document d.test "" info:new)
  { seq -f 'name%g@other.test target@other.test' 3000 && echo "x@d.test x@other.test"; } | postmap -r -i hash:$TABLES/virtual
  chown postfix:mail $MAP
  chmod 0640 $MAP
  remember
}
teardown() {
  restore_postmap
  ! mountpoint -q $TABLES || umount $TABLES
}
run() { with "$DOC" timeout 60 mxadmin "$@" --domain-name=d.test; }
# on_rebuild SCRIPT: what stands in for the run that rebuilds "virtual". "half" leaves a map of what it got to.
on_rebuild() {
  replace_postmap "half() { head -n 100 $TABLES/virtual >/tmp/half; cat /tmp/half >$TABLES/virtual
      /usr/sbin/postmap.real hash:$TABLES/virtual; }
    [ \"\$*\" != hash:$TABLES/virtual ] || { $1; }; real \"\$@\""
}
changed() { changes | grep -v '^+storage: '; }
untouched() { same "$1" "|postfix:mail 640" "$(changed)|$(stat -c '%U:%G %a' $MAP)"; }
ADDED=$({ echo "-virtual: x@d.test x@other.test" && standard + d.test && echo "+virtual_domains: d.test d.test/"; } | sorted)

@test "a rebuild that fails, is killed, or reads half its text leaves the table as it was" {
  while IFS='|' read -r script report; do
    on_rebuild "$script"
    run --add-domain
    restore_postmap
    [[ $status == 1 && $err == *"PostfixConfigurationError($report)" ]] || same "$script" "$report" "$status $err"
    untouched "$script"
  done <<END
half; exit 1|unknown error
half; kill -9 \$\$|unknown error
head -c 5000 /etc/services >$MAP; exit 1|unknown error
half; exit 0|only 100 of 3000 records reached the table hash:$TABLES/virtual
END
  replace_postmap "[ \"\$call \$1\" != '1 -s' ] || { /usr/sbin/postmap.real \"\$@\" | head -n 100; exit 0; }; real \"\$@\""
  run --add-domain
  restore_postmap
  [[ $status == 1 && $err == *"(only 100 of 3001 records were read from the table hash:$TABLES/virtual)" ]]
  untouched "a dump cut short"
  run --add-domain
  same "the next try" "0|$ADDED" "$status$err|$(changed)"
}

@test "a rebuild without room for the copy changes nothing" {
  cp -a $TABLES/. /tmp/aside-tables
  mount -t tmpfs -o size=$((4 * ($(du -s --block-size=4096 $TABLES | cut -f 1) + 60)))k tmpfs $TABLES
  cp -a /tmp/aside-tables/. $TABLES
  run --add-domain
  [[ $status == 1 && $err == *"unable to copy the lookup table to '$MAP.before.new': No space left on device)" ]]
  untouched "full"
}

@test "a table that a killed command left half-made is put back by the next change, whatever that is, and by --init" {
  for next in "--add-alias --mailname=info --alias=new" "--remove-alias --mailname=info --alias=new" --add-domain init; do
    on_rebuild "half; kill -9 \$PPID; exit 0"
    run --add-domain
    restore_postmap
    [ $status = 137 ]
    [ "$(postmap -s hash:$TABLES/virtual | wc -l)" = 100 ]
    if [ $next = init ]; then mxrepair --init >/dev/null 2>/tmp/err; err=$(</tmp/err); else run $next; fi
    [[ $status$err == *"$PUT_BACK" ]]
    case $next in
      --add-alias*) same "$next" "+virtual: new@d.test info@d.test" "$(changed)" ;;
      --add-domain) same "$next" "$ADDED" "$(changed)"; setup ;;
      *) same "$next" "" "$(changed)" ;;
    esac
  done
}

@test "wherever command and postmap are killed, no record is lost" {
  for delay in 05 1 15 2 25 3 4; do
    with "$DOC" timeout -s KILL 0.$delay mxadmin --add-domain --domain-name=d.test
    run --add-domain
    same "killed after 0.$delay s" "0|$ADDED" "$status|$(changed)"
    setup
  done
}

@test "additions share the table's lock, removals and whole-table edits have it alone, until postmap has ended" {
  try="flock -n -s $LOCK echo shared; flock -n -x $LOCK echo alone"
  replace_postmap "case \"\$*\" in *virtual) echo \"\$1: \$($try)\" >>/tmp/locks;; esac; real \"\$@\""
  run --add-domain
  run --remove-alias --mailname=info --alias=new
  same "during" "$(printf '%s: %s\n' -s "" hash:$TABLES/virtual "" -r shared -r shared -d "")" "$(cat /tmp/locks)"
  replace_postmap "[ \$1 != -d ] || { kill -9 \$PPID; sleep 0.1; $try >/tmp/orphan; rm /tmp/waiting; }; real \"\$@\""
  touch /tmp/waiting
  run --remove-alias --mailname=info --alias=new
  while [ -e /tmp/waiting ]; do sleep 0.02; done
  same "after the command was killed" "137 " "$status $(cat /tmp/orphan)"
  rm $LOCK
  mkdir $LOCK
  restore_postmap
  run --add-alias --mailname=info --alias=new
  same "without a lock file" "0 mxadmin[*]: Unable to lock the lookup table hash:$TABLES/virtual: Is a directory" \
    "$status ${err/\[*\]/[*]}"
}

@test "a link, FIFO or directory in place of a map or its copy is refused at once, and nothing is touched" {
  cp -a $MAP /tmp/elsewhere.db
  for name in $MAP $MAP.before; do
    for form in "ln -s /tmp/elsewhere.db" mkfifo mkdir; do
      rm -rf $name
      $form $name
      for command in --add-domain "--add-alias --mailname=info --alias=new" "--remove-alias --mailname=info --alias=new"; do
        run $command
        [[ $status == 1 && $err == *"Error('$name' is not a regular file)" ]] || same "$form $name $command" "" "$status $err"
        [ $name = $MAP ] || cmp $MAP /tmp/elsewhere.db
      done
      rm -r $name
    done
    cp -a /tmp/elsewhere.db $MAP
  done
  untouched "links"
}
