# mxdeliver by itself: what each line of .qmail does with a message, what is said of failures, and whose files are
# believed.
load helpers

HOME_DIR=$MAIL_ROOT/d.test/info
MAILDIR=$HOME_DIR/Maildir

setup_file() { install "$(command -v mxdeliver)" /usr/sbin/; }
teardown_file() { mv /usr/sbin/sendmail.real /usr/sbin/sendmail; }

setup() {
  reset_stores
  make_sample
  install -m 0644 /dev/null /tmp/sent
  chown popuser: /tmp/sent
  # Stands in for sendmail(1): notes the arguments, then the message.
  [ -e /usr/sbin/sendmail.real ] || mv /usr/sbin/sendmail /usr/sbin/sendmail.real
  printf '#!/bin/sh\n{ printf "<%%s>" "$@"; echo; cat; } >>/tmp/sent\n' | install -m 0755 /dev/stdin /usr/sbin/sendmail
}

# qmail LINE...: the delivery file.
qmail() { printf '%s\n' "$@" >$HOME_DIR/.qmail; }

# deliver [TEXT [SENDER]]: as Postfix does it, or as $user; status and what was said land in $status and $said. $trace
# begins the command line.
deliver() {
  status=0
  said=$(printf '%b' "${1:-Subject: one\n\nbody\n}" | setpriv --reuid=${user:-popuser} --regid=popuser --clear-groups \
    ${trace:-} /usr/sbin/mxdeliver --sender="${2-from@x.test}" --recipient=info@d.test 2>&1) || status=$?
}
# outcome STATUS TEXT
outcome() { same "status and text" "$1 $2" "$status $said"; }
arrived() { find $MAILDIR/new -type f | wc -l; }

@test "a Maildir line stores the message whole, with its fields, size, owner and mode, and counts it" {
  qmail '# a comment' '' './Maildir/ ' "$HOME_DIR/Maildir/.Spam/"
  trace="env ASAN_OPTIONS=detect_leaks=0 strace -qq -o /tmp/calls -e trace=fsync,linkat" deliver
  outcome 0 ""
  same "text, name, directory" "fsync linkat fsync fsync linkat fsync" "$(sed 's/(.*//' /tmp/calls | xargs)"
  local file
  file=$(echo $MAILDIR/new/*)
  same "message" $'Return-Path: <from@x.test>\nDelivered-To: info@d.test\nSubject: one\n\nbody' "$(cat "$file")"
  same "file" "600 popuser:popuser" "$(stat -c '%a %U:%G' "$file")"
  [[ $file == *",S=$(stat -c %s "$file")" ]]
  same "spam folder" 1 "$(find $MAILDIR/.Spam/new -type f | wc -l)"
  same "drafts" "" "$(find $MAIL_ROOT -path '*/tmp/*')"
  mx --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=5000
  deliver
  same "count" "$(printf '%12d%12d' "$(stat -c %s "$file")" 1)" "$(tail -n 1 $MAILDIR/maildirsize)"
  : >$HOME_DIR/.qmail
  deliver
  rm $HOME_DIR/.qmail
  deliver
  same "messages" 4 "$(arrived)"
}

@test "a message over the quota is refused before anything is done; an old count is made anew first" {
  mx --set-mailbox-disk-quota --domain-name=d.test --mailname=info --disk-quota=5000
  qmail '| touch ran' ./Maildir/
  deliver "Subject: big\n\n$(printf '%5000s' .)\n"
  outcome 69 "5.2.2 the mailbox is full"
  [[ ! -e $HOME_DIR/ran && "$(arrived)" = 0 ]]
  printf '%12d%12d\n' 4999 1 >>$MAILDIR/maildirsize
  deliver
  outcome 0 ""
  printf '%12d%12d\n' 4999 1 >>$MAILDIR/maildirsize
  yes "$(printf '%12d%12d' 0 0)" | head -n 300 >>$MAILDIR/maildirsize
  deliver
  outcome 0 ""
  [ "$(stat -c %s $MAILDIR/maildirsize)" -lt 200 ]
  printf '5000S\n%12d%12d\n' 4999 1 >$MAILDIR/maildirsize
  deliver
  outcome 69 "5.2.2 the mailbox is full"
  touch -d '1 hour ago' $MAILDIR/maildirsize
  deliver
  outcome 0 ""
}

@test "a program gets the message, its environment and its place; its status decides" {
  qmail '| { cat; echo "$DELIVERED_TO|$SENDER|$RECIPIENT|$USER|$HOST|$HOME|$(pwd)|$(umask)"; } >seen' '|exit 99' ./Maildir/
  deliver
  outcome 0 ""
  same "seen" "Return-Path: <from@x.test>
Delivered-To: info@d.test
Subject: one

body
info@d.test|from@x.test|info@d.test|info|d.test|$HOME_DIR|$HOME_DIR|0077" "$(cat $HOME_DIR/seen)"
  same "after a stop" 0 "$(arrived)"
  local case
  for case in "0:0:" "100:69:5.2.0 refused by exit 100 with status 100" "77:69:5.2.0 refused by exit 77 with status 77" \
    "67:67:5.2.0 refused by exit 67 with status 67" "111:75:4.3.0 exit 111 ended with status 111" \
    "1:75:4.3.0 exit 1 ended with status 1"; do
    qmail "| exit ${case%%:*}" '&a@x.test' ./Maildir/
    deliver
    outcome "$(cut -d: -f2 <<<"$case")" "$(cut -d: -f3- <<<"$case")"
  done
  same "messages after the lines that succeeded" 1 "$(arrived)"
  same "forwarded" 1 "$(grep -c '^<' /tmp/sent)"
  qmail '| kill -9 $$' ./Maildir/
  deliver
  [ $status = 75 ]
}

@test "addresses are served together, last, from the sender; a message that came back is refused" {
  qmail '&a@x.test' b@x.test '| cat >/dev/null'
  deliver "" ""
  deliver
  same "sent" "<-i><-f><<>><--><a@x.test><b@x.test>
<-i><-f><from@x.test><--><a@x.test><b@x.test>" "$(grep '^<' /tmp/sent)"
  grep -q '^Delivered-To: info@d.test$' /tmp/sent
  deliver "Received: x\nDELIVERED-TO:  Info@D.test \n\n"
  outcome 69 "5.4.6 mail loop: this message was delivered to info@d.test before"
  deliver "Subject: x\n\nDelivered-To: info@d.test\n"
  outcome 0 ""
}

@test "a line that cannot be obeyed keeps the message, and no other line is run" {
  local line
  for line in ./mbox ':x' '&' '&-oops' '&two words' ./absent/; do
    qmail '| touch ran' ./Maildir/ "$line"
    deliver
    [ $status = 75 ] || { echo "$line: $status"; return 1; }
  done
  [[ ! -e $HOME_DIR/ran && "$(arrived)" = 0 ]]
}

@test "only the mail user's own files count, no link on the way; never root" {
  refused() { deliver; [ $status = 75 ] && [[ $said == *"$1"* ]] || { echo "$status $said"; return 1; }; }
  qmail '| touch /tmp/ran'
  mv $HOME_DIR/.qmail $HOME_DIR/real
  ln -s real $HOME_DIR/.qmail
  refused 'cannot open .qmail'
  mv -f $HOME_DIR/real $HOME_DIR/.qmail
  chmod 0620 $HOME_DIR/.qmail
  refused 'others may write'
  chmod 0600 $HOME_DIR/.qmail
  chown root $HOME_DIR/.qmail
  refused 'Permission denied'
  chmod 0644 $HOME_DIR/.qmail
  refused "not the mail user's own"
  rm $HOME_DIR/.qmail
  mkfifo $HOME_DIR/.qmail
  chown popuser $HOME_DIR/.qmail
  refused "not the mail user's own"
  mv $HOME_DIR $MAIL_ROOT/d.test/other
  deliver
  outcome 67 "5.1.1 there is no mailname info@d.test"
  ln -s other $HOME_DIR
  refused 'cannot open info'
  [ ! -e /tmp/ran ]
  status=0
  said=$(mxdeliver --sender= --recipient=bob@d.test 2>&1 </dev/null) || status=$?
  outcome 75 "4.3.0 never run as root"
  user=nobody deliver
  outcome 75 "4.3.0 run by another user than popuser"
}
