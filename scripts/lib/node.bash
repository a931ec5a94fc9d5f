# A mail node of Postfix and Dovecot on the shipped configuration, for use inside the sandbox only. It trusts no client,
# so that mail to a domain that is not its own is refused.

. "$(dirname "${BASH_SOURCE[0]}")/postfix.bash"
. "$(dirname "${BASH_SOURCE[0]}")/dovecot.bash"

start_node() {
  mxrepair --init >/dev/null
  start_postfix 192.0.2.1/32
  start_dovecot "$EXAMPLES"
  export SMTP_PORT
}

stop_node() {
  stop_dovecot
  stop_postfix
}
