# A running Courier-IMAP on the configuration that the package ships, for use inside the sandbox only; IMAP on loopback.

. "$(dirname "${BASH_SOURCE[0]}")/loopback.bash"

start_courier() {
  COURIER_PORT=$(free_port 21543)
  [ -e /usr/sbin/mxcheckpassword ] || install "$(command -v mxcheckpassword)" /usr/sbin/mxcheckpassword
  install -m 0755 "$EXAMPLES/courier/authProg" /etc/courier/authProg
  install -m 0660 -g courier "$EXAMPLES/courier/authdaemonrc" /etc/courier/authdaemonrc
  sed -i "s/^ADDRESS=.*/ADDRESS=127.0.0.1/; s/^PORT=.*/PORT=$COURIER_PORT/" /etc/courier/imapd
  mkdir -p /run/courier/authdaemon
  authdaemond start
  imapd start
  # Ready once it can tell that there is no such account.
  local answer _
  for _ in $(seq 300); do
    answer=$(authtest nobody@nowhere.invalid 2>&1) || true
    case $answer in *"Operation not permitted"*) return ;; esac
    sleep 0.1
  done
  echo "Courier's authentication daemon does not answer: $answer" >&2
  return 1
}

stop_courier() {
  imapd stop
  authdaemond stop
}
