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
  with "" mxadmin
  answers "no command" 1 "" "Error: no command specified
$SHORT"
  local word
  for word in --Add-Domain --add-dom --remove-domain-alias "" --add-domain=x; do
    with "$DOC" mxadmin "$word" --domain-name=d.test
    answers "$word" 1 "" "Error: invalid command $word
$SHORT"
  done
  same stores "" "$(storage)"
}

@test "the command list and the legacy help tell the same commands, and each command answers --help in its own name" {
  with "" mxadmin --help-legacy
  same "first rows" 'Usage: mxadmin [OPTIONS]... 
  --add-mailname --domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]
        adds mailname to the mail domain. Optionally sets the mailbox quota' "$(head -n 3 <<<"$out")"
  same "last rows" '  -h, --help 
        displays mxadmin usage summary and exit' "$(tail -n 2 <<<"$out")"
  local rows command count=0
  rows=$(sed 1d <<<"$out" | sed -E 'N; s/^  (-h, --help|--[a-z-]+) .*\n {8}/\1\t/')
  with "" mxadmin --help-commands
  answers list 0 "Mxadmin commands:
$(while IFS=$'\t' read -r command text; do printf '%-26s%s\n' "$command" "$text"; done <<<"$rows")" ""
  while IFS=$'\t' read -r command _; do
    case $command in *help*) continue ;; esac
    with "" mxadmin $command stray --help
    [[ $status$err == 0 && $out == [a-z]*$'\n'"Usage: $command "*$'\n'"Allowed options to ${out%%$'\n'*}:"$'\n'* ]]
    count=$((count + 1))
  done <<<"$rows"
  [ $count = 19 ]
  with "" mxadmin --help-stdin
  same "data on standard input" '	 [--default-domain-quota=<quota>]

Some commands' "$(sed -n '4,6s/ will.*//; 4,6p' <<<"$out")"
  same "schema" "$(printf '{\n\t"domain": {\n\t\t"name": "string",'; printf '\n\t]\n}' | sed 's/]/}/')" "$(sed -n '12,14p' <<<"$out"; tail -n 2 <<<"$out")"
}

@test "bad options are told on both streams with the command's usage, bad names as fatal errors; nothing is touched" {
  local usage='add a domain
Usage: --add-domain --domain-name=<domain> [--disk-quota=quota] [--wait-stdin]
Allowed options to add a domain:
  --domain-name arg     domain name (mandatory)
  --disk-quota arg      disk quota
  --wait-stdin          wait for additional mail data from STDIN
  -h [ --help ]         displays this help message' options message
  remember
  while IFS='|' read -r options message; do
    with "$DOC" mxadmin --add-domain $options
    answers "$options" 1 "$message
$usage" "$message"
  done <<'END'
--domain-name=d.test --bogus|unrecognised option '--bogus'
--domain=d.test|unrecognised option '--domain=d.test'
stray|mandatory option "--domain-name" is not specified
--domain-name=d.test --disk-quota=5x|the argument ('5x') for option '--disk-quota' is invalid
--domain-name=d.test --disk-quota|the required argument for option '--disk-quota' is missing
--domain-name=d.test --domain-name=e.test|option '--domain-name' cannot be specified more than once
END
  while IFS='|' read -r options message; do
    with "$DOC" mxadmin --add-mailname $options
    answers "$options" 1 "Fatal error: std::runtime_error($message has incorrect format.)" "$out"
  done <<'END'
--domain-name=D_.test --mailname=info|d_.test - domain
--domain-name=d.test --mailname=../Info|../info - local part of mailname
--domain-name=d.test --mailname=.|. - local part of mailname
END
  same stores "" "$(changes)"
}

@test "text that cannot be written is a failure" {
  with "$DOC" mxadmin --add-mailname --domain-name=d.test --mailname=info
  for command in "--help-commands" "--add-domain --help" "--get-mailbox-size --domain-name=d.test --mailname=info"; do
    status=0
    mxadmin $command >/dev/full 2>/tmp/err || status=$?
    same "$command" "1 Unable to write the output: No space left on device" "$status $(cat /tmp/err)"
  done
}

# What callers do to a process before it starts; "$@" is the command.
STARTS='exec env --ignore-signal=CHLD "$@"
exec env --block-signal=CHLD "$@"
exec env --ignore-signal=PIPE --block-signal=PIPE,TERM "$@"
exec "$@" >&- 2>&-
for i in {1..2000}; do exec {x}</dev/null; done; exec "$@"
umask 000; exec "$@"
umask 077; exec "$@"
mkdir /tmp/gone; cd /tmp/gone; rmdir /tmp/gone; exec "$@"'

both_commands() { # both_commands START: a domain, then a mailname with a quota
  with "$DOC" timeout 60 bash -c "$1" _ mxadmin --add-domain --domain-name=d.test
  answers "$1" 0 "" ""
  with "$DOC" timeout 60 bash -c "$1" _ mxadmin --add-mailname --domain-name=d.test --mailname=info --disk-quota=9999 --wait-stdin
  answers "$1" 0 "" ""
}

@test "whatever state it is started in, a command works and makes files with their own modes" {
  local start
  modes() { find $TABLES $MAIL_ROOT /var/lock/files -printf '%y %m %u:%g %p\n' | sort -k 4; }
  both_commands 'exec "$@"'
  state >/tmp/usual
  modes >/tmp/usual-modes
  while read -r start <&4; do
    reset_stores
    both_commands "$start"
    same "$start" "$(cat /tmp/usual)" "$(state)"
    same "modes, $start" "$(cat /tmp/usual-modes)" "$(modes)"
  done 4<<<"$STARTS"
}

@test "without its standard descriptors a command never writes a message into a store" {
  local close command
  remember
  for close in '<&-' '<&- >&-' '<&- 2>&-' '<&- >&- 2>&-'; do
    with "" timeout 60 bash -c "exec \"\$@\" $close" _ mxadmin --add-domain --domain-name=d.test
    [ $status = 1 ]
    same "no document, $close" "" "$(changes)"
  done
  both_commands 'exec "$@"'
  remember
  for close in '>&-' '2>&-' '>&- 2>&-' '<&- >&- 2>&-'; do
    for command in "--add-domain --domain-name=d.test" "--add-mailname --domain-name=d.test --mailname=info --disk-quota=9999"; do
      replace_postmap 'case $call in 2) echo "postmap: fatal: injected" >&2; exit 1 ;; esac; real "$@"'
      with "$DOC" timeout 60 bash -c "exec \"\$@\" $close" _ mxadmin $command
      restore_postmap
      [ $status = 1 ]
      same "$command $close" "" "$(changes)"
      same "lock files" "" "$(find /var/lock/files -type f -size +0)"
    done
  done
}
