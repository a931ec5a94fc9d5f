# Where a command learns about the whole domain: the document on standard input, and the lists of the command line.
load helpers

UNREADABLE="Fatal error: std::runtime_error(Failed to read and parse session mail data from STDIN. See mail log for details.)"
LISTS='"dom_aliases":[],"maillists":[]'
REST="\"name\":\"d.test\",$LISTS"

setup() {
  reset_stores
  remember
}

@test "a malformed document is refused with the place of the fault, at every level, and nothing is touched" {
  local message text before command="--add-domain --domain-name=d.test"
  while IFS='|' read -r message text <&3; do
    before=${text%%^*}
    text="$before${text#*^}"
    for command in "--add-domain --domain-name=d.test" "--add-mailname --domain-name=d.test --mailname=info --disk-quota=1 --wait-stdin"; do
      with "$text" mxadmin $command
      same "$text" "1 mxadmin[N]: Session mail DB info parsing error: $message Error occured at offset ${#before}, character '${text:${#before}:1}'. 
$UNREADABLE" "$status $(sed 's/\[[0-9]*\]:/[N]:/' <<<"$err" | sed "s/'\\\\x0a'/''/")"
      same "standard output" "$UNREADABLE" "$out"
    done
  done 3<<END
JSON object is expected.|^[]
Some required fields are missing from the JSON object. Check that input JSON document conforms to schema.|{}^
Some required fields are missing from the JSON object. Check that input JSON document conforms to schema.|{"other":{"domain":{}}}^
JSON name separator (':') is expected inside an object.|{"domain"^{}}
JSON object is expected.|{"domain":^[]}
Custom JSON value constraint failed: Domain name is not valid.|{"domain":{"name":"-d.test"^,"mails":[],$LISTS}}
Custom JSON value constraint failed: Domain alias is not valid.|{"domain":{"name":"d.test","dom_aliases":["a.test","../x"^]}}
Custom JSON value constraint failed: Maillist is not valid.|{"domain":{"maillists":["a/b"^]}}
Custom JSON value constraint failed: Domain quota value is out of bounds.|{"domain":{"mbox_quota":-2^}}
Custom JSON value constraint failed: Domain quota unit value is invalid.|{"domain":{"mbox_quota_unit":"mb"^}}
Some required fields are missing from the JSON object. Check that input JSON document conforms to schema.|{"domain":{"name":"d.test","dom_aliases":[],"mails":[]}^}
JSON object is expected.|{"domain":{$REST,"mails":[^"info"]}}
Some required fields are missing from the JSON object. Check that input JSON document conforms to schema.|{"domain":{$REST,"mails":[{"name":"info"}^]}}
Custom JSON value constraint failed: Mailname is not valid.|{"domain":{$REST,"mails":[{"name":"a/../b"^,"aliases":[]}]}}
Custom JSON value constraint failed: Mail alias is not valid.|{"domain":{$REST,"mails":[{"name":"info","aliases":["ok",""^]}]}}
Invalid or unsupported number format. Check that there are no floating point numbers.|{"domain":{$REST,"mails":[{"mbox_quota":1^.5}]}}
JSON value separator (',') or end of object is expected.|{"domain":{$REST,"mails":[{"mbox_quota":0^8}]}}
String is expected.|{"domain":{$REST,"mails":[{"name":^null}]}}
Invalid or unsupported Unicode character or escape sequence found in string. UTF8 encoded characters and '\u' escape sequences are not supported.|{"domain":{"name":"d^\u0041"}}
JSON value separator (',') or end of array is expected.|{"domain":{"dom_aliases":["a.test" ^"b.test"]}}
JSON array is expected.|{"domain":{"mails":^null}}
Any value is expected, but was not found.|{"domain":{"other":[1,]^}}
END
  same stores "" "$(changes)"
}

@test "a document cut off anywhere is refused; the rest after its end does not matter" {
  local whole length
  whole=$(document d.test a.test info:sales)
  for ((length = 0; length < ${#whole}; length += 7)); do
    with "${whole:0:length}" mxadmin --add-domain --domain-name=d.test
    [ $status = 1 ]
  done
  same stores "" "$(changes)"
  with "$whole]trailing" mxadmin --add-domain --domain-name=d.test
  [ $status = 0 ]
}

@test "case, units, octal numbers, unknown keys and repeated keys are read as the format has them" {
  local document='{"x":[{"y":1.5e3}],"domain":{"name":"D.Test","dom_aliases":["a.test"],"dom_aliases":["B.Test"],"maillists":["News"],
    "comment":null,"mbox_quota":010,"mbox_quota_unit":"MB","mails":[{"name":"Info","aliases":["Sales"]},{"name":"zero","mbox_quota":0,
    "mbox_quota_unit":"GB","aliases":[]}]},"domain2":1}'
  with "$document" mxadmin --add-mailname --domain-name=d.test --mailname=info
  with "$document" mxadmin --add-mailname --domain-name=d.test --mailname=zero --disk-quota=0 --wait-stdin
  remember
  with "$document" mxadmin --add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-reject
  same "lower case, but for the list" "$(sorted <<<"$(standard + n.test)
+virtual: n.test 1
+virtual: info@n.test info@d.test
+virtual: sales@n.test info@d.test
+virtual: zero@n.test zero@d.test
+virtual: news@n.test News@d.test")" "$(changes)"
  limit() { head -n 1 $MAIL_ROOT/d.test/$1/Maildir/maildirsize; }
  local attachments
  attachments=$(stat -c %s $MAIL_ROOT/d.test/info/@attachments)
  same "default quota" "$((8 * 1024 * 1024 - attachments))S,0C" "$(limit info)"
  with "$document" mxadmin --set-domain-disk-quota --domain-name=d.test --disk-quota=70000
  same "own and default quota" "1S,0C $((70000 - attachments))S,0C" "$(limit zero) $(limit info)"
  with "${document/010/9223372036854775808}" mxadmin --add-domain --domain-name=d.test
  [[ $status == 1 && $err == *"Number value is out of range for expected type. Error occured at offset "*", character '9'. Also system error occured: Numerical result out of range (34)."* ]]
}

@test "a command that waits for its document says what it waits for" {
  { until grep -q abort /tmp/out; do sleep 0.05; done; document d.test; } |
    timeout 60 mxadmin --add-domain --domain-name=d.test >/tmp/out 2>/tmp/err
  same prompt 'This command requires additional data to be passed via STDIN in JSON format.
To get help on expected input data format call this utility with --help-stdin option.
Type ^D (send EOF) to abort.' "$(cat /tmp/out /tmp/err)"
  table virtual_domains | grep -q d.test
}

@test "lists on the command line stand in for a document, as they are written, and give way to one that is asked for" {
  local alias="--add-alias --domain-name=d.test --mailname=info --alias=x" separators=$'A1.Test,\ta2.test'
  with "no document" mxadmin $alias "--domain-aliases=$separators" "--mail-addresses=info,old;bob"
  [ "$status$err" = 0 ]
  same "three aliases" "+virtual: x@ info@d.test
+virtual: x@a1.test info@d.test
+virtual: x@a2.test info@d.test
+virtual: x@d.test info@d.test" "$(changes)"
  reset_stores
  with "$(document d.test b.test)" mxadmin $alias --domain-aliases=a1.test --wait-stdin
  [ "$status$err" = 0 ]
  same "the document's alias" "+virtual: x@b.test info@d.test
+virtual: x@d.test info@d.test" "$(changes)"
}

@test "a listed name that would lead out of the domain's storage is refused" {
  local name
  with "$(document e.test "" info)" mxadmin --add-mailname --domain-name=e.test --mailname=info
  remember
  for name in ../e.test/info . .. ""; do
    with "" mxadmin --set-domain-disk-quota --domain-name=d.test --disk-quota=5000 "--mail-addresses=$name,x"
    [[ $status == 1 && $err == *"unable to store domain quota"* ]]
  done
  same stores "" "$(changes)"
}
