# A running Dovecot on the configuration that the package ships, for use inside the sandbox only; sourced by tests and
# the demo. IMAP and POP3 on loopback only.

DOVECOT_LOG=/var/log/mxadmin-dovecot.log
. "$(dirname "${BASH_SOURCE[0]}")/loopback.bash"

start_dovecot() {
  local examples=$1
  IMAP_PORT=$(free_port 21143)
  POP3_PORT=$(free_port 21343)
  export IMAP_PORT POP3_PORT
  [ -e /usr/sbin/mxcheckpassword ] || install "$(command -v mxcheckpassword)" /usr/sbin/mxcheckpassword
  install -m 0644 "$examples/dovecot/dovecot.conf" /etc/dovecot/dovecot.conf
  # What a node would set too, besides ports: failed logins of one address are else answered ever later.
  # The sanitizers of a test build reserve more address space than any limit allows.
  cat >/etc/dovecot/local.conf <<END
default_vsz_limit = 0
listen = 127.0.0.1
log_path = $DOVECOT_LOG
auth_failure_delay = 0
service anvil {
  unix_listener anvil-auth-penalty {
    mode = 0
  }
}
service imap-login {
  inet_listener imap {
    port = $IMAP_PORT
  }
  inet_listener imaps {
    port = 0
  }
}
service pop3-login {
  inet_listener pop3 {
    port = $POP3_PORT
  }
  inet_listener pop3s {
    port = 0
  }
}
service lmtp {
  unix_listener lmtp {
    mode = 0600
  }
}
END
  install -m 0666 /dev/null $DOVECOT_LOG
  mkdir -p /run/dovecot
  dovecot
  wait_for_server Dovecot $IMAP_PORT $DOVECOT_LOG
}

stop_dovecot() { doveadm stop; }
