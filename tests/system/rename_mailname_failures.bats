# --rename-mailname with a failure injected at each step that is undone, and in the undoing itself.
load helpers

setup() {
  reset_stores
  make_sample
  with "$SAMPLE" mxadmin --add-mailname --domain-name=d.test --mailname=live
  remember
}
teardown() { restore_postmap; }

rename() { ZCP_PASSWORD=x with "$SAMPLE" mxadmin --rename-mailname --domain-name=d.test --old-mailname=info "--new-mailname=$1"; }

@test "a failing table step puts the steps before it back" {
  local call
  for call in 1 2 3 4; do
    replace_postmap "[ \$call = $call ] && { echo 'postmap: fatal: injected' >&2; exit 1; }; real \"\$@\""
    rename chef
    restore_postmap
    same "report of call $call" "1 Fatal error: kavro::mail::postfix::PostfixConfigurationError(postmap: fatal: injected
)" "$status $err"
    [ "$out" = "$err" ]
    same "state after call $call" "" "$(changes)"
  done
}

@test "onto a live mailname, twice, and of a missing one: the storage refuses and both names are as they were" {
  local old
  for old in info info missing; do
    with "$SAMPLE" mxadmin --rename-mailname --domain-name=d.test --old-mailname=$old --new-mailname=live
    [[ $status == 1 && $err == "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::rename: "* ]]
    same "$old to live" "" "$(changes)"
  done
}

@test "a record written while the rename fails stays" {
  replace_postmap "[ \$call = 4 ] && { /usr/sbin/postmap.real \"\$@\"
    echo 'late@d.test info@d.test' | exec /usr/sbin/postmap.real -r -i hash:$TABLES/virtual; exit; }; real \"\$@\""
  rename live
  restore_postmap
  [ $status = 1 ]
  same "only the late record is new" "+virtual: late@d.test info@d.test" "$(changes)"
}

@test "an undo that fails says which table is damaged and lets the first error through" {
  local calls table
  for calls in "5 Aliases" "6 Aliases" "7 Mailboxes" "8 Mailboxes"; do
    table=${calls#* }
    replace_postmap "[ \$call = ${calls% *} ] && exit 1; real \"\$@\""
    rename live
    restore_postmap
    [ $status = 1 ]
    same "call ${calls% *}" "$(critical "Postfix Virtual $table Database")
Fatal error: boost::filesystem::filesystem_error(boost::filesystem::rename: " "${err%%Directory*}"
    case $table in
      Aliases) same "the mailboxes table is restored" "" "$(changes | grep vmailbox)" ;;
      Mailboxes) same "the aliases table is restored" "" "$(changes | grep virtual:)" ;;
    esac
    reset_stores
    setup
  done
}

@test "with a password, a failing side store takes everything back; without one, the rename stands and is told" {
  sql $AUTH_DB "INSERT INTO users (name, dom_id) SELECT 'chef', id FROM domains WHERE name = 'd.test'"
  remember
  rename chef
  same "onto a user of that name" "255 " "$status $(changes)"
  sql $AUTH_DB "DELETE FROM users WHERE name = 'chef'"
  sql $HANDLERS_DB "CREATE TRIGGER broken BEFORE DELETE ON handlers BEGIN SELECT RAISE(FAIL, 'injected'); END"
  remember
  rename chef
  same "handlers" "255 " "$status $(changes)"
  with "$SAMPLE" mxadmin --rename-mailname --domain-name=d.test --old-mailname=info --new-mailname=chef
  [[ $status == 255 && $err == *"WARNING: the mailname was renamed all the same; users or handlers are left of info@d.test"* ]]
  [ -d $MAIL_ROOT/d.test/chef ]
}
