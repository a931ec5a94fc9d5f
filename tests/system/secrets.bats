# A password stays out of core dumps, and of the command lines and environments of all processes. Each search is proven
# by what it must find.
load helpers

# Long ones, as memory that was given back keeps the end of a text; short ones live in other places.
PASSWORDS=('ZCP_PASSWORD=It is a long way to tipperary & the end of this text is looked for' 'ZCP_PASSWORD=Zq7!vwK2x'
  'ZCP_CRYPTED_PASSWORD=$6$saltsalt$qFmFH.bQmmtXzyBY0s9v7Oicd2z4XSIecDzlB5KiA2/jctKu9YterLp8wwnSq.qc.eoxq'
  'ZCP_CRYPTED_PASSWORD=$1$saltsalt$8d3JO0')

setup() {
  reset_stores
  make_sample
}
teardown() { restore_postmap; }

# cores VARIABLE=PASSWORD: --set-password in the debugger; a core is taken as its handler is entered, and as its caller
# returns, who forbids core dumps until then.
cores() {
  env "$1" gdb -q -batch -iex 'set startup-with-shell off' -iex 'set disable-randomization off' \
    -iex 'set use-coredump-filter off' -iex 'set dump-excluded-mappings on' \
    -ex 'break mxadmin_commands::setPassword(int, char**)' -ex run -ex 'gcore /tmp/core.entered' \
    -ex finish -ex finish -ex 'gcore /tmp/core.returned' -ex continue --args "$(command -v mxadmin)" \
    --set-password --domain-name=d.test --mailname=info <<<"$SAMPLE" >/tmp/gdb.out 2>&1
  grep -q 'Value returned is .* = 0' /tmp/gdb.out || { cat /tmp/gdb.out; return 1; }
}
# holds FILE TEXT: the text, or its end.
holds() { grep -qaF -- "${2:$((${#2} > 20 ? -20 : 0))}" "$1"; }

@test "no core holds the password when --set-password has come to its end" {
  ! ldd "$(command -v mxadmin)" | grep -q libasan || skip "an instrumented program is too large to dump"
  local password
  for password in "${PASSWORDS[@]}"; do
    cores "$password"
    holds /tmp/core.entered "${password#*=}"
    holds /tmp/core.returned --domain-name=d.test
    ! holds /tmp/core.returned "${password#*=}" || { echo "$password is in the core"; false; }
  done
}

@test "no process shows the password in its environment or its command line" {
  local password command
  replace_postmap '{ env; cat /proc/$$/cmdline /proc/$PPID/cmdline /proc/$PPID/environ; } >>/tmp/seen; real "$@"'
  for password in "${PASSWORDS[@]}"; do
    rm -f /tmp/seen
    for command in '--rename-mailname --old-mailname=info --new-mailname=chef' '--add-mailbox --mailname=chef' \
      '--rename-mailname --old-mailname=chef --new-mailname=info' '--add-mailname --mailname=info'; do
      with "$SAMPLE" env "$password" "ZCP_CRYPTED_PASSWORD=${password#*=}" PROOF=of-search \
        mxadmin $command --domain-name=d.test
      [ "$status$err" = 0 ]
    done
    [ "$(grep -ac of-search /tmp/seen)" -ge 16 ]
    holds /tmp/seen --new-mailname=chef
    ! holds /tmp/seen "${password#*=}" || { echo "$password was seen"; false; }
  done
}
