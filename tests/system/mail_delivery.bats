# What the tables promise, by mail through a running Postfix: who gets it, and who is refused at RCPT.
load helpers
. "$BATS_TEST_DIRNAME/../../scripts/lib/node.bash"

setup_file() { start_node 3>&-; }
teardown_file() { stop_node; }

setup() {
  reset_stores
  make_sample
  printf './Maildir/\n' | tee $MAIL_ROOT/d.test/*/.qmail >/dev/null
  reload_postfix # the tables went away beneath it
}

# delivered TO HOME: one message to the address arrives in that home's Maildir, and in no other.
delivered() {
  rm -f $MAIL_ROOT/*/*/Maildir/new/*
  smtp_send sender@example.org "$1" "to $1" >/dev/null || { tail -n 5 $POSTFIX_LOG; return 1; }
  wait_for_mail "$MAIL_ROOT/$2/Maildir" "to $1" >/dev/null
  same "messages to $1" 1 "$(find $MAIL_ROOT -path '*/new/*' | wc -l)"
}

# refused TO ANSWER
refused() { same "answer to RCPT TO:<$1>" "$2" "$(smtp_send sender@example.org "$1" refused)"; }
unknown() { refused "$1" "550 5.1.1 <$1>: Recipient address rejected: User unknown in virtual $2 table"; }

@test "mailnames, mail aliases and lists get their mail, also under domain aliases; unknown recipients are refused" {
  postmap -r -i hash:$TABLES/virtual <<<'news@d.test bob@d.test'
  local domain
  for domain in d.test a1.test a2.test; do
    delivered info@$domain d.test/info
    delivered sales@$domain d.test/info
    delivered news@$domain d.test/bob
  done
  unknown nobody@d.test mailbox
  unknown nobody@a1.test alias
}

@test "mail reaches a mailname that a document made" {
  with "$(document s.test "" "eva:e")" mxrepair --sync --wait-stdin
  delivered e@s.test s.test/eva
  with "" mxrepair --check --domain=s.test
  same check "0 " "$status $out$err"
}

@test "the bounce program gets exactly the text of the bounce, line feeds as blanks" {
  local text
  printf '#!/bin/sh\n{ echo $#; printf "%%s|" "$@"; } >/tmp/bounce.new; mv /tmp/bounce.new /tmp/bounce\n' |
    install -m 0755 /dev/stdin /usr/lib/kavro-9.0/bouncemessage
  for text in '' '$(id)' '\' ' $1 "' \
    $'It\'s "gone" for $HOME, `id`;\n\n\\back\\\\slash\\n & (x) <y> | ~ * ? [z] {a,b} #!%^= +-é:end\\'; do
    mx --add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-bounce ${text:+"--phrase=$text"}
    rm -f /tmp/bounce
    smtp_send sender@example.org nobody@n.test bounced >/dev/null
    for _ in $(seq 300); do [ ! -e /tmp/bounce ] || break; sleep 0.1; done
    same "arguments for <$text>" "${text:+1}"$'\n'"${text//$'\n'/ }|" "$(sed 's/^0$//' /tmp/bounce)"
    mx --del-domain-alias --domain-name=d.test --domain-alias-name=n.test
  done
}

@test "the null sender gets no bounce" {
  install "$BATS_TEST_DIRNAME/../../src/mxdeliver/bouncemessage" /usr/lib/kavro-9.0/
  mx --add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-bounce --phrase='no such'
  : >$POSTFIX_LOG
  smtp_send '' nobody@n.test unanswered >/dev/null
  for _ in $(seq 300); do ! grep -q 'status=bounced.*no such' $POSTFIX_LOG || break; sleep 0.1; done
  grep 'status=bounced.*no such' $POSTFIX_LOG
  until [ "$(postqueue -p)" = 'Mail queue is empty' ]; do sleep 0.1; done
  ! grep "status=.*to=<.*@d.test>\|non-delivery notification" $POSTFIX_LOG
}

# within_two_seconds ANSWER ADDRESS COMMAND...: asks for the address before and while the command runs; two seconds
# after its end the answer begins with these words.
within_two_seconds() {
  local answer=$1 address=$2 end
  shift 2
  (while [ ! -e /tmp/enough ]; do smtp_send sender@example.org "$address" asked || true; done) >/dev/null 2>&1 3>&- &
  sleep 0.2
  mx "$@"
  end=$((${EPOCHREALTIME/.} + 2000000))
  until [[ $(smtp_send sender@example.org "$address" asked) == "$answer"* ]]; do
    [ "${EPOCHREALTIME/.}" -lt $end ] || {
      touch /tmp/enough
      wait $!
      tail -n 20 $POSTFIX_LOG
      return 1
    }
  done
  touch /tmp/enough
  wait $!
  rm /tmp/enough
}

@test "what a command changed holds within two seconds for clients that keep asking, many commands in a row too" {
  local n
  for n in 1 2 3 4; do
    within_two_seconds 250 info@n$n.test --add-domain-alias --domain-name=d.test --domain-alias-name=n$n.test --set-reject
    within_two_seconds 250 m$n@d.test --add-mailname --domain-name=d.test --mailname=m$n
    within_two_seconds 250 root@new$n.test --add-domain --domain-name=new$n.test
  done
  within_two_seconds 454 root@new1.test --turn-off-domain --domain-name=new1.test
  within_two_seconds 454 root@new2.test --remove-domain --domain-name=new2.test
  within_two_seconds 250 root@other.test --rename-domain --old-domain-name=new3.test --new-domain-name=other.test
  within_two_seconds 454 info@n1.test --del-domain-alias --domain-name=d.test --domain-alias-name=n1.test
  within_two_seconds 250 info@n5.test --rename-domain-alias --domain-name=d.test --old-domain-alias-name=n2.test \
    --new-domain-alias-name=n5.test --set-reject
  for n in $(seq 10); do mx --add-domain --domain-name=row$n.test; smtp_send s@d.test info@d.test asked >/dev/null; done
  ! grep throttling $POSTFIX_LOG
}
