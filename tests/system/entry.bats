# What surrounds a command: help, usage errors, reports of bad options, and whatever state the caller left the process in.
load helpers

SHORT="Usage: mxadmin <COMMAND> <COMMAND OPTIONS...>
	 for a complete list of commands use \`\`mxadmin --help-commands''
	 for help on syntax for a particular command use \`\`mxadmin <COMMAND> --help''
	 for legacy complete help use \`\`mxadmin --help-legacy''"
DOC=$(document d.test "" info)

setup() { reset_stores; }
teardown() { restore_postmap; }

# answers WHAT STATUS OUT ERR: how the last command ended.
answers() { same "$1" "$2|$3|$4" "$status|$out|$err"; }

@test "global help is printed on standard output, a usage error with the short usage on standard error" {
  with "" mxadmin --help extra words
  answers --help 0 "$SHORT" ""
  with "" mxadmin -h
  answers -h 0 "$SHORT" ""
  version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$BATS_TEST_DIRNAME/../../debian/changelog")
  for program in mxadmin mxrepair; do
    with "" $program --version
    answers --version 0 "$program $version" ""
  done
  with "" mxadmin
  answers "no command" 1 "" "Error: no command specified"$'\n'"$SHORT"
  for word in --Add-Domain --add-dom --remove-domain-alias "" --add-domain=x; do
    with "$DOC" mxadmin "$word" --domain-name=d.test
    answers "$word" 1 "" "Error: invalid command $word"$'\n'"$SHORT"
  done
}

@test "command list and legacy help tell the same commands, and each command answers --help in its own name" {
  with "" mxadmin --help-legacy
  same "first and last rows" 'Usage: mxadmin [OPTIONS]... 
  --add-mailname --domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]
        adds mailname to the mail domain. Optionally sets the mailbox quota
  -h, --help 
        displays mxadmin usage summary and exit' "$(sed -n '1,3p' <<<"$out"; tail -n 2 <<<"$out")"
  rows=$(sed 1d <<<"$out" | sed -E 'N; s/^  (-h, --help|--[a-z-]+) .*\n {8}/\1\t/')
  with "" mxadmin --help-commands
  answers list 0 $'Mxadmin commands:\n'"$(while IFS=$'\t' read -r command text; do printf '%-26s%s\n' "$command" "$text"; done <<<"$rows")" ""
  rows=$(grep -v help <<<"$rows")
  [ "$(wc -l <<<"$rows")" = 19 ]
  while IFS=$'\t' read -r command text; do
    with "" mxadmin $command stray --help
    [[ $status$err == 0 && $out == [a-z]*$'\n'"Usage: $command "*$'\n'"Allowed options to ${out%%$'\n'*}:"$'\n'* ]]
  done <<<"$rows"
  with "" mxadmin --help-stdin
  same "data on standard input" $'0|\t [--default-domain-quota=<quota>]\n\n\t\t"name": "string",\n}' "$status$err|$(sed -n '4,5p; 14p; $p' <<<"$out")"
}

# manual COMMAND: the options that the manual page gives it, "mail-data" and "action" taken apart.
manual() {
  awk -v command="$1" '
    /^\.Ss/ { base = /mailnames and mailboxes/ ? "-domain-name -mailname" : "-domain-name" }
    /^\.It Xo/ { item = $0; while ((getline line) > 0 && line != ".Xc") item = item " " line; $0 = item }
    $0 ~ "^\\.It (Xo )?Fl " substr(command, 2) "( |$)" {
      sub("Fl " substr(command, 2), "")
      if (/-old-domain-name/) base = ""
      if (/-old-mailname/) base = "-domain-name"
      if (/Ar mail-data/) base = base " -domain-aliases -mail-addresses -wait-stdin"
      else if (command ~ /--add-|--set-/) base = base " -wait-stdin"
      if (/Ar action/) base = base " -set-bounce -phrase -set-catchall -email -set-reject"
      if (/Fl D/) base = base " -mail-domain-disabled"
      while (match($0, /Fl -[a-z-]+/)) { base = base " " substr($0, RSTART + 3, RLENGTH - 3); $0 = substr($0, RSTART + RLENGTH) }
      gsub(/-[a-z-]+/, "-&", base)
      print base " --help"
      exit
    }' "$BATS_TEST_DIRNAME/../../docs/mxadmin.8"
}

@test "the manual page and the completion give each command the options of its help" {
  _init_completion() { words=(mxadmin "$command" --) cword=2 cur=--; }
  compopt() { :; }
  . "$BATS_TEST_DIRNAME"/../../debian/completions/mxadmin.bash
  for command in $(mxadmin --help-commands | grep -oE '^--[a-z-]+' | grep -v help); do
    options=$(mxadmin $command --help | sed -nE 's/^  (-. \[ )?(--[a-z-]+).*/\2/p' | sort)
    same "$command in the manual" "$options" "$(manual $command | tr ' ' '\n' | sed '/^$/d' | sort)"
    _mxadmin || true
    same "$command completed" "$options" "$(printf '%s\n' "${COMPREPLY[@]%=}" | sort)"
  done
  same "lint of the manual pages" "" \
    "$(mandoc -T lint "$BATS_TEST_DIRNAME"/../../docs/*.8 | grep -vE 'not found: Xr mx(admin|repair|deliver|checkpassword) 8')"
}

@test "each program's completion is loaded by its name in a bash and a zsh" {
  cd "$BATS_TEST_DIRNAME/../.." && . scripts/lib/completion.bash
  install -m 0644 debian/completions/_* /usr/share/zsh/vendor-completions
  for shell in bash zsh; do
    while read -r program line word; do
      install -m 0644 debian/completions/$program.bash /usr/share/bash-completion/completions/$program
      offers $shell "$program $line" $word
    done <<<$'mxadmin --add-dom --add-domain-alias\nmxrepair -- --restore\nmxcheckpassword -- --authpipe\nmxdeliver -- --recipient'
  done
}

@test "bad options are told on both streams with the command's usage, bad names as fatal errors; nothing is touched" {
  local usage='add a domain
Usage: --add-domain --domain-name=<domain> [--disk-quota=quota] [--wait-stdin]
Allowed options to add a domain:
  --domain-name arg     domain name (mandatory)
  --disk-quota arg      disk quota
  --wait-stdin          wait for additional mail data from STDIN
  -h [ --help ]         displays this help message'
  remember
  while IFS='|' read -r options message; do
    with "$DOC" mxadmin --add-domain $options
    answers "$options" 1 "$message"$'\n'"$usage" "$message"
  done <<'END'
--domain-name=d.test --bogus|unrecognised option '--bogus'
--domain=d.test|unrecognised option '--domain=d.test'
stray|mandatory option "--domain-name" is not specified
--domain-name=d.test --disk-quota=5x|the argument ('5x') for option '--disk-quota' is invalid
--domain-name=d.test --domain-name=e.test|option '--domain-name' cannot be specified more than once
END
  for names in "d.test ../Info ../info - local part of mailname" "d_.test info d_.test - domain"; do
    read -r domain name message <<<"$names"
    message="Fatal error: std::runtime_error($message has incorrect format.)"
    with "$DOC" mxadmin --add-mailname --domain-name=$domain --mailname=$name
    answers "bad name" 1 "$message" "$message"
  done
  same stores "" "$(changes)"
}

@test "text that cannot be written is a failure" {
  with "$DOC" mxadmin --add-mailname --domain-name=d.test --mailname=info
  for command in "--help-commands" "--add-domain --help" "--get-mailbox-size --domain-name=d.test --mailname=info"; do
    err=$(! mxadmin $command 2>&1 >/dev/full)
    same "$command" "Unable to write the output: No space left on device" "$err"
  done
  same closed "Unable to write the output: Bad file descriptor" "$(! mxadmin --help-commands 2>&1 >&-)"
  same "reader gone" "Unable to write the output: Broken pipe" \
    "$(exec 3> >(:); wait $!; ! env --default-signal=PIPE mxadmin --help-commands 2>&1 >&3)"
}

# What callers do to a process before it starts; "$@" is the command.
STARTS='exec env --ignore-signal=CHLD "$@"
exec env --block-signal=CHLD "$@"
exec env --ignore-signal=PIPE "$@"
exec "$@" >&- 2>&-
for i in {1..2000}; do exec {x}</dev/null; done; exec "$@"
umask 000; exec "$@"
umask 077; exec "$@"
mkdir /tmp/gone; cd /tmp/gone; rmdir /tmp/gone; exec "$@"'

# commands START: commands with children of each kind, on a domain that is there afterwards.
commands() {
  echo 'int rename_domain(const char *o, const char *n) { return 0; }' | gcc -shared -fPIC -x c -o $PLUGINS/p.so -
  for command in "add-domain --domain-name=d.test" \
    "add-mailname --domain-name=d.test --mailname=info --disk-quota=9999 --wait-stdin" \
    "rename-domain --old-domain-name=d.test --new-domain-name=n.test" \
    "rename-domain --old-domain-name=n.test --new-domain-name=d.test"; do
    with "$DOC" timeout 60 bash -c "cd /; $1" _ mxadmin --$command
    answers "$1 $command" 0 "" ""
  done
}

@test "whatever state it is started in, a command works, and its files and children have what they always have" {
  outcome() { # outcome START
    rm -f /tmp/child
    replace_postmap '{ umask; pwd; grep -E "^Sig(Blk|Ign)" /proc/self/status; } >>/tmp/child; real "$@"'
    commands "$1" >&2
    restore_postmap
    state
    find $TABLES /var/lock/files -printf '%y %m %u:%g %p\n' | sort -k 4
    sort -u /tmp/child
  }
  outcome 'exec "$@"' >/tmp/usual
  while read -r start <&4; do
    reset_stores
    outcome "$start" >/tmp/outcome
    same "$start" "$(cat /tmp/usual)" "$(cat /tmp/outcome)"
  done 4<<<"$STARTS"
}

@test "without its standard descriptors a command never writes a message into a store" {
  commands 'exec "$@"'
  remember
  for close in '<&-' '>&-' '2>&-' '>&- 2>&-' '<&- >&- 2>&-'; do
    # Reported while the text source is open.
    replace_postmap '[ "$1" != -s ] || echo malformed; real "$@"'
    for command in "--add-domain" "--add-mailname --mailname=info --disk-quota=9999"; do
      with "$DOC" timeout 60 bash -c "exec \"\$@\" $close" _ mxadmin $command --domain-name=d.test
    done
    restore_postmap
    same "$close" "0 " "$status $(changes; find /var/lock/files -type f -size +0)"
  done
}

@test "signals that end a program wait for the end of a change and its report; a limit of file sizes is an error" {
  with "$DOC" mxadmin --add-domain --domain-name=d.test
  state >/tmp/complete
  while read -r number start <&3; do
    reset_stores
    remember
    replace_postmap "[ \$call != 2 ] || kill -$number \$PPID; real \"\$@\""
    with "$DOC" $start mxadmin --add-domain --domain-name=d.test
    restore_postmap
    same "signal $number" "$([ "$start" ] && echo 0 || echo $((128 + number)))  $(cat /tmp/complete)" "$status $err $(state)"
  done 3<<<$'1\n2\n15\n1 env --ignore-signal=HUP'
  remember
  replace_postmap '[ $call != 3 ] || { kill $PPID; exit 1; }; real "$@"'
  with "" mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=n.test
  restore_postmap
  same "failed meanwhile" 143 "$status$(changes)"
  [[ $err == "Fatal error"* ]]
  seq 3000 | sed 's/.*/u&@o.test u&@o.test/' | postmap -r -i hash:$TABLES/virtual
  remember
  with "" bash -c 'ulimit -f 40; exec "$@"' _ mxadmin --rename-domain --old-domain-name=d.test --new-domain-name=n.test
  same limit 1 "$status$(changes)"
  [[ $err == "Fatal error"* ]]
}

@test "while the document is awaited signals act at once, and no core would be dumped with the password" {
  install -m 0755 "$(command -v mxadmin)" /tmp/mxadmin
  for signal in 1 2 15; do
    mkfifo /tmp/never$signal
    : >/tmp/out
    setpriv --reuid popuser --regid popuser --clear-groups env --default-signal=INT ZCP_PASSWORD=secret \
      /tmp/mxadmin --set-password --domain-name=d.test --mailname=info <>/tmp/never$signal >/tmp/out 2>/tmp/err &
    until grep -q abort /tmp/out; do sleep 0.05; done
    # The kernel gives the entries of a process that may be dumped to its user.
    owner=$(stat -c %U /proc/$!/environ)
    kill -$signal $!
    status=0
    wait $! || status=$?
    same "signal $signal" "root $((128 + signal))" "$owner $status"
  done
}

@test "a command that changed something is one line of the system log, and of nothing else" {
  reset_stores
  python3 -c 'import socket, sys
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.bind("/dev/log")
while True: print(log.recv(9000).decode(), file=open("/tmp/syslog", "a"), flush=True)' &
  local listener=$!
  until [ -S /dev/log ]; do sleep 0.05; done
  with "$SAMPLE" mxadmin --add-domain --domain-name=D.test --wait-stdin
  [ "$status$err$out" = 0 ]
  ZCP_PASSWORD=verysecret with "$SAMPLE" mxadmin --set-password --domain-name d.test --mailname=info --mail-addresses=x
  with "" mxadmin --rename-domain --old-domain-name=no.test --new-domain-name=new.test
  with "$SAMPLE" mxadmin --add-alias --domain-name=d.test --mailname=info --alias ab
  with "" mxadmin --get-mailbox-size --domain-name=d.test --mailname=info
  mxadmin --add-alias --help >/dev/null
  logger the end
  until grep -q 'the end' /tmp/syslog; do sleep 0.05; done
  kill $listener
  rm /dev/log
  same "log" "<22> mxadmin: --add-domain --domain-name=D.test status=0 ms
<22> mxadmin: --set-password --domain-name=d.test --mailname=info status=0 ms
<22> mxadmin: --rename-domain --old-domain-name=no.test --new-domain-name=new.test status=1 ms
<22> mxadmin: --add-alias --domain-name=d.test --mailname=info --alias=ab status=0 ms" \
    "$(sed -nE 's/^(<[0-9]+>).*(mxadmin)\[[0-9]+\](: --.* ms)=[0-9]+.?$/\1 \2\3/p' /tmp/syslog)"
  ! grep -q verysecret /tmp/syslog
}
