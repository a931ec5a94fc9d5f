# A running Postfix on the panel's four tables, for use inside the sandbox only: the demo and the mail tests source this.
# Debian's package with the settings that ours ships; SMTP on loopback only.

POSTFIX_LOG=/var/log/mxadmin-postfix.log
TABLES=/var/spool/postfix/kavro
. "$(dirname "${BASH_SOURCE[0]}")/loopback.bash"

# configure_postfix [CLIENTS]: who may send to other domains; loopback unless told otherwise.
configure_postfix() {
  SMTP_PORT=$(free_port 20025)
  : >/etc/postfix/main.cf
  cp /usr/share/postfix/master.cf.dist /etc/postfix/master.cf
  sed -i -E "s/^smtp( +)inet /127.0.0.1:$SMTP_PORT\1inet /" /etc/postfix/master.cf
  grep '^[^#]' "$EXAMPLES/postfix/main.cf" | xargs -d '\n' postconf -e
  postconf -M -e "mxdeliver/unix = $(grep '^[^#]' "$EXAMPLES/postfix/master.cf")"
  postconf -e compatibility_level=3.6 maillog_file=$POSTFIX_LOG inet_interfaces=loopback-only inet_protocols=ipv4 \
    myhostname=sandbox.mail.test "mynetworks=${1:-127.0.0.0/8}" relayhost= \
    default_transport='error:mail stays on this machine' disable_dns_lookups=yes
  touch -d '1 minute ago' /etc/postfix/main.cf # Postfix's programs wait until it is 2 s old
  postalias /etc/aliases
  [ -e /usr/sbin/mxdeliver ] || install "$(command -v mxdeliver)" /usr/sbin/mxdeliver
  [ -e /usr/lib/kavro-9.0/bouncemessage ] ||
    install -D "$(dirname "${BASH_SOURCE[0]}")/../../src/mxdeliver/bouncemessage" /usr/lib/kavro-9.0/bouncemessage
}

start_postfix() {
  configure_postfix "$@"
  postfix start >/dev/null 2>&1
  wait_for_server Postfix "$SMTP_PORT" $POSTFIX_LOG
}

stop_postfix() { postfix stop >/dev/null 2>&1; }

# smtp_send FROM TO SUBJECT: one message by SMTP. Prints the server's answer to RCPT; fails when it is a refusal.
smtp_send() {
  local from=$1 to=$2 subject=$3 step answer rcpt=
  exec {smtp}<>"/dev/tcp/127.0.0.1/$SMTP_PORT" || return 1
  for step in "" "HELO localhost" "MAIL FROM:<$from>" "RCPT TO:<$to>" DATA \
    $'From: '"$from"$'\r\nTo: '"$to"$'\r\nSubject: '"$subject"$'\r\n\r\nA message to '"$to"$'.\r\n.' QUIT; do
    [ -z "$step" ] || printf '%s\r\n' "$step" >&"$smtp"
    while IFS= read -r -t 10 answer <&"$smtp"; do
      case $answer in ???-*) continue ;; *) break ;; esac
    done
    case $step in RCPT*) rcpt=${answer%$'\r'} ;; esac
    case ${answer:-} in
      [23]*) ;;
      *) break ;;
    esac
  done
  exec {smtp}>&-
  printf '%s\n' "$rcpt"
  case $rcpt in 2*) ;; *) return 1 ;; esac
}

# For stores that were replaced beneath it, which no daemon is told of: returns once those that knew the old ones ended.
reload_postfix() {
  local master process processes _
  read -r master </var/spool/postfix/pid/master.pid
  processes=$(pgrep --parent "$master")
  postfix reload >/dev/null 2>&1
  for process in $processes; do
    for _ in $(seq 200); do [ -e "/proc/$process" ] || break; sleep 0.05; done
  done
}

# wait_for_mail DIR SUBJECT: the path of the message with that subject in a Maildir, as soon as it is there (30 s).
wait_for_mail() {
  local file _
  for _ in $(seq 300); do
    for file in "$1"/new/*; do
      if [ -f "$file" ] && grep -q "^Subject: $2\$" "$file"; then
        printf '%s\n' "$file"
        return
      fi
    done
    sleep 0.1
  done
  echo "no message \"$2\" in $1" >&2
  tail -n 20 $POSTFIX_LOG >&2
  return 1
}
