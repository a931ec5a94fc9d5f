# A whole node on the shipped configuration, with the build's programs or the installed package's: mail in by SMTP, out
# by IMAP and POP3, and what mxadmin's changes mean to senders and readers. Each answer is shown.
load helpers
lib=$BATS_TEST_DIRNAME/../../scripts/lib
. "$lib/node.bash"
. "$lib/courier.bash"

setup_file() { start_node 3>&-; }
teardown_file() { stop_node; }

setup() {
  reset_stores
  make_sample
  reload_postfix # the tables went away beneath it
}

shown() { echo "# $1: $2" >&3; }

# smtp TO [FROM]: a message with the subject "to TO"; what the server answered to its recipient.
smtp() {
  swaks --server "127.0.0.1:$SMTP_PORT" --helo localhost --from "${2:-sender@example.org}" --to "$1" \
    --header "Subject: to $1" 2>&1 | tr -d '\r' | sed -nE '/ RCPT TO:/{n;s/^<(-|\*\*) +//p}'
}
# answered TO ANSWER [FROM]: within two seconds the answer begins with these words.
answered() {
  local answer end=$((${EPOCHREALTIME/.} + 2000000))
  until answer=$(smtp "$1" "${3:-}"); [[ $answer == "$2"* ]]; do
    [ "${EPOCHREALTIME/.}" -lt $end ] || { same "answer to $1" "$2" "$answer"; return 1; }
  done
  shown "SMTP to $1" "$answer"
}
# reads LOGIN PASSWORD SUBJECT: the newest message by IMAP has that subject, as soon as it is delivered (30 s).
reads() {
  local _
  for _ in $(seq 150); do
    curl -sS -u "$1:$2" "imap://127.0.0.1:$port/INBOX;MAILINDEX=*" 2>&1 | tr -d '\r' >/tmp/newest
    if grep -q "^Subject: $3\$" /tmp/newest; then
      shown "IMAP as $1" "Subject: $3"
      return
    fi
    sleep 0.2
  done
  echo "$1 does not read \"$3\" but:"
  cat /tmp/newest
  tail -n 5 $POSTFIX_LOG
  return 1
}
# denied LOGIN PASSWORD
denied() {
  local answer
  answer=$(curl -sSv -u "$1:$2" "imap://127.0.0.1:$port/" 2>&1 | tr -d '\r' | sed -nE 's/^< [A-Z]+[0-9]+ (NO .*)/\1/p')
  case $answer in NO*[Ff]ailed*) ;; *) same "answer to $1" "NO ... failed" "$answer" || return 1 ;; esac
  shown "IMAP as $1" "$answer"
}
sends_and_reads() { answered "$1" "250 2.1.5 Ok" && reads "$2" "$3" "to $1"; }

# What a panel does with a domain, seen from outside; IMAP at the given port.
a_domains_life() {
  local text='Grüße: no "such" $name'
  port=$1
  sends_and_reads info@d.test info@d.test secret
  sends_and_reads sales@a1.test help@a2.test secret
  answered nobody@d.test "550 5.1.1"
  ZCP_PASSWORD=other mx --set-password --domain-name=d.test --mailname=info
  denied info@d.test secret
  reads sales@a2.test other "to sales@a1.test"

  mx --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=100
  answered sales@a2.test "552 5.2.2 <sales@a2.test>: Recipient address rejected: Mailbox is full"
  mx --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=100000
  mx --add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-bounce --phrase="$text"
  answered nobody@n.test "250 2.1.5 Ok" info@d.test
  reads info@d.test other "Undelivered Mail Returned to Sender"
  grep -F "$text" /tmp/newest
  grep -F 'Status: 5.1.1' /tmp/newest

  mx --turn-off-domain --domain-name=d.test
  answered info@d.test "454 4.7.1"
  answered info@a1.test "454 4.7.1"
  denied info@d.test other
  mx --turn-on-domain --domain-name=d.test --set-reject
  sends_and_reads help@d.test info@d.test other
  mx --rename-domain --old-domain-name=d.test --new-domain-name=new.test
  sends_and_reads info@new.test sales@new.test other
  answered info@d.test "454 4.7.1"
  denied info@d.test other
  SAMPLE=${SAMPLE/d.test/new.test} mx --remove-mailname --domain-name=new.test --mailname=info
  answered info@new.test "550 5.1.1"
  answered info@a1.test "550 5.1.1"
  denied info@new.test other
}

@test "a domain's life, read through Dovecot, by POP3 too" {
  answered sales@d.test "250 2.1.5 Ok"
  reads_by_pop3() { curl -sS -u help@a1.test:secret pop3://127.0.0.1:$POP3_PORT/1 | tr -d '\r' | grep '^Subject: '; }
  port=$IMAP_PORT reads info@d.test secret "to sales@d.test"
  same "POP3" "Subject: to sales@d.test" "$(reads_by_pop3)"
  shown "POP3 as help@a1.test" "$(reads_by_pop3)"
  a_domains_life "$IMAP_PORT"
}

@test "a domain's life, read through Courier" {
  command -v authdaemond >/dev/null || skip "Debian installs one IMAP server at a time"
  start_courier 3>&-
  a_domains_life "$COURIER_PORT"
  stop_courier
}
