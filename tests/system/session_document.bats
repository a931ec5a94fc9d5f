# Where a command learns about the whole domain: the document on standard input, and the lists of the command line.
load helpers

setup() { reset_stores; }

@test "a malformed document is refused with the place of the fault, at every level, and nothing is touched" {
  fatal="Fatal error: std::runtime_error(Failed to read and parse session mail data from STDIN. See mail log for details.)"
  remember
  while IFS='|' read -r message text; do # the fault is after "^"
    before=${text%%^*}
    text=$before${text#*^}
    for command in "--add-domain" "--add-mailname --mailname=info --disk-quota=1 --wait-stdin"; do
      with "$text" mxadmin $command --domain-name=d.test
      report="Session mail DB info parsing error: $message. Error occured at offset ${#before}, character '${text:${#before}:1}'. "
      same "$text" "1|mxadmin[N]: $report"$'\n'"$fatal|$fatal" "$status|$(sed -E 's/\[[0-9]+\]:/[N]:/; s/\\x0a//' <<<"$err")|$out"
    done
  done <<'END'
JSON object is expected|^[]
Some required fields are missing from the JSON object. Check that input JSON document conforms to schema|{"other":{"domain":{}}}^
JSON name separator (':') is expected inside an object|{"domain"^{}}
Custom JSON value constraint failed: Domain name is not valid|{"domain":{"name":"-d.test"^}}
Custom JSON value constraint failed: Domain alias is not valid|{"domain":{"dom_aliases":["a.test","../x"^]}}
Some required fields are missing from the JSON object. Check that input JSON document conforms to schema|{"domain":{"name":"d.test","dom_aliases":[],"mails":[]}^}
JSON object is expected|{"domain":{"mails":[^"info"]}}
Custom JSON value constraint failed: Mailname is not valid|{"domain":{"mails":[{"name":"a/../b"^}]}}
JSON value separator (',') or end of array is expected|{"domain":{"mails":[{"aliases":["a" ^"b"]}]}}
Invalid or unsupported number format. Check that there are no floating point numbers|{"domain":{"mails":[{"mbox_quota":1^.5}]}}
END
  same stores "" "$(changes)"
}

@test "a command that waits for its document says so" {
  { until grep -q abort /tmp/out; do sleep 0.05; done; document d.test; } |
    timeout 60 mxadmin --add-domain --domain-name=d.test >/tmp/out 2>/tmp/err
  same prompt 'This command requires additional data to be passed via STDIN in JSON format.
To get help on expected input data format call this utility with --help-stdin option.
Type ^D (send EOF) to abort.' "$(cat /tmp/out /tmp/err)"
  [ "$(table virtual_domains)" = $'d.test\td.test/' ]
  { sleep 0.3; document e.test; } | mxadmin --add-domain --domain-name=e.test --wait-stdin >/tmp/out 2>&1
  same "with --wait-stdin" "" "$(cat /tmp/out)"
}

@test "lists on the command line stand in for a document, as written, and give way to one that is asked for" {
  add="--add-alias --domain-name=d.test --mailname=info --alias=x"
  remember
  with "no document" mxadmin $add --domain-aliases=$'A1.Test,\ta2.test' "--mail-addresses=info,old;bob"
  same "the line's aliases" "0 $(printf '+virtual: x@%s info@d.test\n' a1.test a2.test d.test)" "$status$err $(changes)"
  reset_stores
  with "$(document d.test b.test)" mxadmin $add --domain-aliases=a1.test --wait-stdin
  same "the document's alias" "0 $(printf '+virtual: x@%s info@d.test\n' b.test d.test)" "$status$err $(changes)"
  with "$(document e.test "" info)" mxadmin --add-mailname --domain-name=e.test --mailname=info
  remember
  for name in ../e.test/info . ..; do
    with "" mxadmin --set-domain-disk-quota --domain-name=d.test --disk-quota=5000 "--mail-addresses=$name,x"
    [[ $status == 1 && $err == *"unable to store domain quota"* ]]
  done
  same "names that lead out of the domain's storage" "" "$(changes)"
}
