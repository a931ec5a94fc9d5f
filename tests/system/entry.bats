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
  local word
  for word in --help -h; do
    with "" mxadmin $word extra words
    answers $word 0 "$SHORT" ""
  done
  with "" mxadmin
  answers "no command" 1 "" "Error: no command specified"$'\n'"$SHORT"
  for word in --Add-Domain --add-dom --remove-domain-alias "" --add-domain=x; do
    with "$DOC" mxadmin "$word" --domain-name=d.test
    answers "$word" 1 "" "Error: invalid command $word"$'\n'"$SHORT"
  done
}

@test "command list and legacy help tell the same commands, and each command answers --help in its own name" {
  local rows command text
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
    answers "$options" 1 "$message"$'\n'"$usage" "$message"
  done <<'END'
--domain-name=d.test --bogus|unrecognised option '--bogus'
--domain=d.test|unrecognised option '--domain=d.test'
stray|mandatory option "--domain-name" is not specified
--domain-name=d.test --disk-quota=5x|the argument ('5x') for option '--disk-quota' is invalid
--domain-name=d.test --domain-name=e.test|option '--domain-name' cannot be specified more than once
END
  while IFS='|' read -r options message; do
    with "$DOC" mxadmin --add-mailname $options
    answers "$options" 1 "Fatal error: std::runtime_error($message has incorrect format.)" "$out"
  done <<'END'
--domain-name=d_.test --mailname=info|d_.test - domain
--domain-name=d.test --mailname=../Info|../info - local part of mailname
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
exec "$@" >&- 2>&-
for i in {1..2000}; do exec {x}</dev/null; done; exec "$@"
umask 000; exec "$@"
mkdir /tmp/gone; cd /tmp/gone; rmdir /tmp/gone; exec "$@"'

both_commands() { # both_commands START: a domain, then a mailname with a quota
  for command in "--add-domain" "--add-mailname --mailname=info --disk-quota=9999 --wait-stdin"; do
    with "$DOC" timeout 60 bash -c "$1" _ mxadmin $command --domain-name=d.test
    answers "$1" 0 "" ""
  done
}

@test "whatever state it is started in, a command works and makes files with their own modes" {
  outcome() { state; find $TABLES /var/lock/files -printf '%y %m %u:%g %p\n' | sort -k 4; }
  both_commands 'exec "$@"'
  usual=$(outcome)
  while read -r start <&4; do
    reset_stores
    both_commands "$start"
    same "$start" "$usual" "$(outcome)"
  done 4<<<"$STARTS"
}

@test "without its standard descriptors a command never writes a message into a store" {
  both_commands 'exec "$@"'
  remember
  for close in '<&-' '>&-' '2>&-' '>&- 2>&-' '<&- >&- 2>&-'; do
    for command in "--add-domain" "--add-mailname --mailname=info --disk-quota=9999"; do
      replace_postmap 'case $call in 2) echo "postmap: fatal: injected" >&2; exit 1 ;; esac; real "$@"'
      with "$DOC" timeout 60 bash -c "exec \"\$@\" $close" _ mxadmin $command --domain-name=d.test
      restore_postmap
      [ $status = 1 ]
      same "$command $close" "" "$(changes; find /var/lock/files -type f -size +0)"
    done
  done
}
