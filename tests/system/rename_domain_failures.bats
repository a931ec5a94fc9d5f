# --rename-domain with a failure injected at each of its steps, and in each undo. Renames to and from the host's own
# name have steps of their own; the host's name is in mixed case.
load helpers

HOST=sandbox.mail.test
setup() { sed -i "s/$HOST/Sandbox.Mail.Test/" /etc/hosts; }
teardown() { restore_postmap && sed -i "s/Sandbox.Mail.Test/$HOST/" /etc/hosts; }
host_records() { standard "$1" $HOST && echo "$1virtual: $HOST 1"; } # host_records SIGN

# prepare OLD: the sample domain by that name, and others whose records name the new name; the host has its records,
# one of them changed, unless the domain took its name.
prepare() {
  ! restore "$1" || { cp "$BATS_RUN_TMPDIR/$1.state" /tmp/before && return; }
  reset_stores
  make_sample
  { host_records "" | sed 's/^virtual: //'; echo "root@$HOST admin@other.test"; } | postmap -r -i hash:$TABLES/virtual
  [ "$1" = d.test ] || with "" mxadmin --rename-domain --old-domain-name=d.test "--new-domain-name=$1"
  postmap -r -i hash:$TABLES/virtual <<<"friend@other.test x@new.test, info@$1, x@$HOST"
  postmap -r -i hash:$TABLES/vmailbox <<END
info@new.test.uk new.test.uk/info/Maildir/
info@$1.uk $1.uk/info/Maildir/
END
  remember
  cp /tmp/before "$BATS_RUN_TMPDIR/$1.state"
  keep "$1"
}

# rename OLD/NEW [CALL...]: the calls of postmap with these numbers fail.
rename() {
  replace_postmap "case ' ${*:2} ' in *\" \$call \"*) echo 'postmap: fatal: injected' >&2; exit 1 ;; esac; real \"\$@\""
  with "" mxadmin --rename-domain "--old-domain-name=${1%/*}" "--new-domain-name=${1#*/}"
  restore_postmap
  err=$(sed 's/^mxadmin\[[0-9]*\]/log/' <<<"$err")
}

# renamed PREFIX OLD/NEW: the changes of the remembered state by a rename, of lines with that prefix.
renamed() {
  local old=${2%/*} lines
  lines=$(grep -E "^($1)" /tmp/before)
  diff <(echo "$lines") <(sed -E "s/ ${old//./\\.}/ ${2#*/}/g; s/@${old//./\\.}([ ,]|\$)/@${2#*/}\1/g" <<<"$lines") |
    sed -n 's/^< /-/p; s/^> /+/p' | sorted
}

# failed WHAT PRINTED CHANGES: status 1, the text on standard error, what of it is not logged on standard output too.
failed() {
  same "standard error, $1" "1 $2" "$status $err"
  same "standard output, $1" "$(sed -E '/^(log:|child |plugin .* failed)/d; s/^plugin .* directory//' <<<"$2")" "$out"
  same "state, $1" "$3" "$(changes)"
}
FATAL="Fatal error: kavro::mail::postfix::Postfix"
refused() { # refused OLD/NEW REASON
  local error=boost::filesystem::filesystem_error
  echo "Fatal error: $error(boost::filesystem::rename: $2: \"$MAIL_ROOT/${1%/*}\", \"$MAIL_ROOT/${1#*/}\")"
}
CRITICAL="$(critical 'Postfix Virtual Domains Database')"$'\n'
NOT_BACK=$'log: Unable to properly restore Postfix Virtual Domains Database used by Kavro\n'
AUTH="log: Unable to execute the mail domain authorization name change query: "
AUTH+="UPDATE domains SET name=LOWER(?) WHERE name=LOWER(?)"
AUTH_FATAL="${FATAL}AuthenticationDBError(unable to update domain name in mail authentication database)"
PLUGIN="plugin '$PLUGINS/p.so' failed with status '1'"$'\n'
SERVICES_FATAL="${FATAL}Error(unable to rename some of services)"
HANDLERS_FATAL="${FATAL}Error(Unable to move domain handlers)"

# break_store DB EVENT: every such statement fails from now on.
break_store() { sql "$1" "CREATE TRIGGER broken BEFORE $2 BEGIN SELECT RAISE(FAIL, 'injected'); END"; }
break_auth() { break_store $AUTH_DB "UPDATE ON domains"; }
plugin() { # plugin BODY
  echo "int system(); void abort(); int rename_domain() { $1; }" | gcc -w -shared -fPIC -x c -o $PLUGINS/p.so -
}

# after BREAKING OLD/NEW CALLS PRINTED [LINES]: a rename with a side store broken so and these calls of postmap failing;
# the state is as before but for these lines.
after() {
  prepare "${2%/*}"
  eval "$1"
  rename $2 $3
  failed "$*" "$4" "${5:-}"
}

@test "a failing postmap run of any step leaves every store as it was" {
  local row call class
  for row in "d.test/new.test 7" "d.test/$HOST 9" "$HOST/new.test 9"; do
    prepare "${row%/*}"
    for ((call = 1; call <= ${row#* }; call++)); do
      rename ${row% *} $call
      class=Configuration
      [[ $call != 1 && "$row$call" != d.test/$HOST*[23] ]] || class=Database
      failed "$row call $call" "$FATAL${class}Error(postmap: fatal: injected"$'\n)' ""
    done
  done
}

@test "a refused rename of the storage leaves every store as it was; an undo that fails is told, and fails alone" {
  local pair what calls call changed
  while read -r pair what calls <&4; do
    for call in $calls; do
      prepare "${pair%/*}"
      mkdir -p "$MAIL_ROOT/${pair#*/}"
      remember
      rename $pair ${call//,/ }
      case $what in
        host) changed=$(host_records - | sed "s/root@$HOST .*/root@$HOST admin@other.test/" | sorted) ;;
        marker) changed="+virtual: $HOST 1" ;;
        *) changed=$(renamed "$what" $pair) ;;
      esac
      failed "$pair call $call" \
        "$(for _ in ${call//[0,]/ }; do printf %s "$CRITICAL"; done; refused $pair "File exists")" "$changed"
    done
  done 4<<END
d.test/new.test vmailbox: 8 9
d.test/new.test virtual: 10 11
d.test/new.test virtual_domains: 12 13
d.test/new.test v 8,10,12
d.test/$HOST none 0
d.test/$HOST host 16
$HOST/new.test none 0 11
$HOST/new.test marker 10
END
}

@test "onto a live domain of the host's own name, and repeated from it, every store stays as it was" {
  prepare $HOST
  echo "root@$HOST bob@$HOST" | postmap -r -i hash:$TABLES/virtual
  with "$(document d.test)" mxadmin --add-domain --domain-name=d.test
  remember
  rename d.test/$HOST
  failed "onto a live domain" "$(refused d.test/$HOST "File exists")" ""
  rename $HOST/new.test
  [ "$status$err" = 0 ]
  remember
  rename $HOST/new.test
  failed "repeated" "$(refused $HOST/new.test "No such file or directory")" ""
}

@test "a failing side store takes everything back; services that were told before it stay told" {
  local pair
  for pair in d.test/new.test d.test/$HOST $HOST/new.test; do
    after break_auth $pair "" "$AUTH: injected"$'\n'"$AUTH_FATAL"
  done
  pair=d.test/new.test
  after 'sql $AUTH_DB "INSERT INTO domains (name) VALUES ('"'new.test'"')"; remember' $pair "" \
    "$AUTH: UNIQUE constraint failed: domains.name"$'\n'"$AUTH_FATAL"
  after 'plugin "return 3"' $pair "" "$PLUGIN$SERVICES_FATAL"
  after 'plugin "return 3"; sql $AUTH_DB "UPDATE domains SET name = '"'new.test' WHERE name='d.test'"'"; remember' \
    $pair "" "$PLUGIN$SERVICES_FATAL"
  after 'plugin "abort()"' $pair "" $'child killed by signal: 6\n'"$PLUGIN$SERVICES_FATAL"
  after "rmdir $PLUGINS" $pair "" "plugin directory '$PLUGINS' not exists or not directory$SERVICES_FATAL"
  after 'break_store $HANDLERS_DB "INSERT ON handlers"' $pair "" \
    $'log: Unable to execute insert record into handlers database: injected
log: Unable to add records into handlers database\n'"$HANDLERS_FATAL"
  after 'break_store $HANDLERS_DB "DELETE ON handlers"' $pair "" \
    $'log: Unable to execute delete record from handlers database: injected\n'"$HANDLERS_FATAL"
}

@test "parts of the way back that fail after the storage moved are one line of the log; the others are done" {
  local call pair=d.test/new.test
  after "plugin 'return system(\"mkdir $MAIL_ROOT/d.test\") + 3'" $pair "" "$PLUGIN$NOT_BACK$SERVICES_FATAL" \
    "$(sorted <<<"$(renamed storage: $pair)"$'\n+storage: d 755 root:root d.test')"
  for call in 8 9 10 11 12 13 "8 10"; do
    after break_auth $pair "$call" "$AUTH: injected"$'\n'"$NOT_BACK$AUTH_FATAL" \
      "$(renamed "$(case $call in 8*10) echo vmailbox:\|virtual: ;; [89]) echo vmailbox: ;; 1[01]) echo virtual: ;;
        *) echo virtual_domains: ;; esac)" $pair)"
  done
}

@test "onto a domain alias, and an alias onto itself or another one, is refused before anything is done" {
  local pair
  prepare d.test
  for pair in d.test/a1.test d.test/A1.test; do
    rename $pair
    failed $pair "${FATAL}Error(domain d.test cannot be renamed to a1.test: that name is a domain alias)" ""
    same "one run" "-q - hash:$TABLES/virtual" "$(cat /tmp/postmap-calls)"
  done
  for pair in "a1.test A1.TEST it is the same name" "a1.test a2.test both are domain aliases"; do
    set -- $pair
    with "$SAMPLE" mxadmin --rename-domain-alias --domain-name=d.test --old-domain-alias-name=$1 \
      --new-domain-alias-name=$2 --set-reject
    failed "$pair" "${FATAL}Error(domain alias a1.test cannot be renamed to ${2,,}: ${*:3})" ""
  done
  # A rename that was interrupted after the table can be given again.
  postmap -d a1.test hash:$TABLES/virtual
  mx --rename-domain-alias --domain-name=d.test --old-domain-alias-name=a1.test --new-domain-alias-name=a2.test \
    --set-reject
}

@test "two renames onto one live name at once leave every store as it was" {
  local round
  prepare d.test
  for name in e.test new.test; do with "$(document $name)" mxadmin --add-domain --domain-name=$name; done
  remember
  for round in 1 2 3; do
    mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=new.test 2>/dev/null >&2 &
    with "" mxadmin --rename-domain --old-domain-name=e.test --new-domain-name=new.test
    [ $status = 1 ]
    wait
    same "round $round" "" "$(changes)"
  done
}
