# Logins: mxcheckpassword by itself, and behind Dovecot, Courier and PAM on the configuration that the package ships.
load helpers
project=$BATS_TEST_DIRNAME/../..
. "$project/scripts/lib/dovecot.bash"
. "$project/scripts/lib/courier.bash"

setup_file() {
  mxrepair --init >/dev/null
  start_dovecot "$project/debian/examples" 3>&-
}
teardown_file() { stop_dovecot; }

setup() {
  reset_stores
  make_sample
  install -o popuser -m 0600 /dev/stdin $MAIL_ROOT/d.test/info/Maildir/new/1.first <<<$'Subject: the first\n'
}

# check LOGIN PASSWORD [VARIABLE=VALUE...]: what the program after a good login is told, and the status.
check() {
  local status=0
  printf '%s\0%s\0now\0' "$1" "$2" | env "${@:3}" mxcheckpassword \
    sh -c 'echo "$USER $HOME $userdb_mail $userdb_uid:$userdb_gid $EXTRA $AUTHORIZED $password"' 3<&0 || status=$?
  echo "$status"
}
INFO="info@d.test $MAIL_ROOT/d.test/info maildir:$MAIL_ROOT/d.test/info/Maildir $(id -u popuser):$(id -g popuser)"
INFO="$INFO userdb_uid userdb_gid userdb_mail"
accepted() { same "answer to $1" "$INFO  "$'\n0' "$(check "$@")"; }
refused() { same "answer to $1" "${3:-1}" "$(check "$1" "$2")"; }

imap() { curl -sS -u "$1:$2" "imap://127.0.0.1:${3:-$IMAP_PORT}/INBOX;MAILINDEX=1" 2>&1 | tr -d '\r'; }
reads() { same "message for $1" "Subject: the first" "$(imap "$@")"; }
# denied LOGIN PASSWORD [PORT]; unavailable LOGIN PASSWORD: what the server says to the client.
said() { curl -sSv -u "$1:$2" "imap://127.0.0.1:${3:-$IMAP_PORT}/" 2>&1 | tr -d '\r' |
  sed -n -E 's/^< (A002|\*) (NO|BYE) ([^.]*).*/\3/p'; }
denied() { same "answer to $1" "${4:-[AUTHENTICATIONFAILED] Authentication failed}" "$(said "$@")"; }
unavailable() { denied "$1" "$2" "${3:-}" "${4:-[UNAVAILABLE] Temporary authentication failure}"; }

@test "every address of a mailname reads its one mailbox" {
  local address
  for address in info@d.test Sales@D.test info@a1.test help@a2.test; do
    reads $address secret
  done
  same "POP3" "Subject: the first" "$(curl -sS -u sales@a2.test:secret pop3://127.0.0.1:$POP3_PORT/1 | tr -d '\r')"
  same "homes" $'d.test/bob\nd.test/info' "$(cd $MAIL_ROOT && printf '%s\n' */*)"
}

@test "disabled, removed and homeless users are refused" {
  mx --turn-off-domain --domain-name=d.test
  denied info@d.test secret
  denied sales@a1.test secret
  mx --turn-on-domain --domain-name=d.test --set-reject
  accepted sales@a1.test secret
  sql $AUTH_DB "UPDATE users SET status = 1 WHERE name = 'sales'"
  refused sales@d.test secret
  accepted help@d.test secret
  sql $AUTH_DB "UPDATE users SET status = 1 WHERE name = 'info'"
  refused help@d.test secret
  sql $AUTH_DB "UPDATE users SET status = 0"
  # An address that goes to two others has no mailbox of its own; one that goes to itself and another has.
  postmap -r -i hash:$TABLES/virtual <<<'help@d.test info@d.test, bob@d.test'
  postmap -r -i hash:$TABLES/virtual <<<'info@d.test bob@d.test, info@d.test'
  refused help@d.test secret
  accepted info@d.test secret
  postmap -r -i hash:$TABLES/vmailbox <<<'info@d.test ../etc/Maildir/'
  refused info@d.test secret 111
  mx --remove-mailname --domain-name=d.test --mailname=info
  denied info@d.test secret
  denied sales@d.test secret
  same "user of a removed mailname" 1 "$(sql $AUTH_DB "INSERT INTO users (dom_id, name, cmusaslsecretPLAIN)
    SELECT id, 'gone', 'secret' FROM domains WHERE name = 'd.test'; SELECT changes()")"
  refused gone@d.test secret
}

@test "hashes are checked by crypt(3) and are no password; other values are the password itself" {
  local hash value
  hash=$(openssl passwd -6 -salt abc 'hashed secret')
  ZCP_CRYPTED_PASSWORD=$hash mx --set-password --domain-name=d.test --mailname=info
  accepted sales@a2.test 'hashed secret'
  [[ $(check info@d.test '' AUTHORIZED=1 CREDENTIALS_LOOKUP=1) == *" 2 {CRYPT}$hash"$'\n0' ]]
  for value in "$hash" secret 'hashed secre' ''; do refused info@d.test "$value"; done
  for value in '$' '$9$abc$def' '$AES-256-CBC$x$y'; do
    sql $AUTH_DB "UPDATE users SET cmusaslsecretPLAIN = '$value'"
    refused info@d.test "$value"
  done
  sql $AUTH_DB "UPDATE users SET cmusaslsecretPLAIN = 'as it is'"
  accepted info@d.test 'as it is'
  for value in 'as it i' 'as it is ' 'As it is'; do refused info@d.test "$value"; done
  for value in "''" NULL; do
    sql $AUTH_DB "UPDATE users SET cmusaslsecretPLAIN = $value"
    refused info@d.test secret
    refused info@d.test ''
  done
}

@test "refusals look the same from outside: the same look-ups for unknown, wrong and disabled users" {
  local login
  sql $AUTH_DB "UPDATE domains SET status = 1 WHERE name = 'a1.test'"
  replace_postmap 'real "$@"'
  for login in info@d.test nobody@d.test nobody@nowhere.test info@a1.test bob@d.test; do
    : >/tmp/postmap-calls
    refused $login wrong
    same "postmap runs for $login" 2 "$(wc -l </tmp/postmap-calls)"
  done
}

@test "stores that cannot be read are a temporary failure, for unknown users too" {
  local file login
  for file in passwd_db_key passwd.db virtual.db vmailbox.db; do
    mv $TABLES/$file /tmp/
    for login in info@d.test nobody@d.test; do refused $login secret 111; done
    mv /tmp/$file $TABLES/
  done
  head -c 32 /dev/urandom >$TABLES/passwd_db_key
  unavailable info@d.test secret
}

@test "Dovecot may ask without a password; deliveries need a mailbox only" {
  same "credentials" "$INFO password 2 {PLAIN}secret"$'\n0' "$(check help@a1.test '' AUTHORIZED=1 CREDENTIALS_LOOKUP=1)"
  same "user" "$INFO 2 "$'\n0' "$(check info@d.test '' AUTHORIZED=1 SERVICE=imap)"
  same "user without password" 3 "$(check bob@d.test '' AUTHORIZED=1 SERVICE=imap)"
  same "unknown user" 3 "$(check nobody@d.test '' AUTHORIZED=1 SERVICE=lda)"
  printf 'Subject: by lda\n\n' | setpriv --reuid popuser --regid popuser --clear-groups \
    /usr/lib/dovecot/dovecot-lda -d bob@a2.test
  grep -q 'Subject: by lda' $MAIL_ROOT/d.test/bob/Maildir/new/*
  same "quota" "STORAGE 5120" "$(doveadm -f tab quota get -u bob@d.test | awk '$3 == "STORAGE" { print $3, $5 }')"
}

@test "input that is missing, unfinished, too long or no address is refused" {
  local status=0 login
  mxcheckpassword true 3<&- 2>/dev/null || status=$?
  same "without descriptor 3" 2 $status
  status=0
  printf 'info@d.test\0secret' | mxcheckpassword true 3<&0 2>/dev/null || status=$?
  same "without an end" 2 $status
  for login in info @d.test info@ info@d.test@d.test 'info@d.test ' $'info@d.test\nbob@d.test' "$(printf 'a%.0s' {1..320})@d.test"; do
    refused "$login" secret
  done
  refused info@d.test "$(printf 'a%.0s' {1..5000})"
  # While it waits for one: what may leave no core cannot be looked into by its own user either.
  setpriv --reuid popuser --regid popuser --clear-groups \
    sh -c 'sleep 1 | mxcheckpassword true 3<&0 & sleep 0.3; cat /proc/$!/environ' 2>&1 | grep -q 'Permission denied'
}

@test "Courier learns of all accounts, and of trouble" {
  ZCP_PASSWORD=x mx --set-password --domain-name=d.test --mailname=bob
  sql $AUTH_DB "UPDATE users SET status = 1 WHERE name = 'bob'"
  start_courier 3>&-
  same "accounts, but for one that is disabled" $'info@d.test\t'"$(id -u popuser)	$(id -g popuser)	$MAIL_ROOT/d.test/info	$MAIL_ROOT/d.test/info/Maildir" \
    "$(authenumerate)"
  rm $TABLES/passwd_db_key
  unavailable info@d.test secret "$COURIER_PORT" 'Temporary problem, please try again later'
  stop_courier
}

@test "PAM accepts the password on standard input, and aliases unless told otherwise" {
  install -m 0644 "$project/debian/examples/pam/mxadmin" /etc/pam.d/mxadmin
  pam() { # pam STATUS LOGIN PASSWORD
    local status=0
    pamtester mxadmin "$2" authenticate acct_mgmt <<<"$3" >/dev/null 2>&1 || status=$?
    same "status for $2" "$1" $status
  }
  pam 0 info@d.test secret
  pam 0 sales@a1.test secret
  pam 1 info@d.test wrong
  same "no such account" "pamtester: System error" "$(pamtester mxadmin nobody@d.test acct_mgmt 2>&1)"
  sed -i 's/--pam$/& --no-aliases/' /etc/pam.d/mxadmin
  pam 0 info@d.test secret
  pam 1 sales@d.test secret
  printf 'secret\0' | PAM_TYPE=auth PAM_USER=info@d.test mxcheckpassword --pam # as some versions of the module end it
}
