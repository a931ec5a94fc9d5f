# Servers on loopback, for use inside the sandbox only: what starts them overwrites their configuration.

if [ ! -e /run/mxadmin-sandbox ]; then
  echo "This overwrites the configuration of mail servers. Run it in scripts/sandbox." >&2
  exit 1
fi

# The configuration that the package installs, or will.
EXAMPLES=/usr/share/doc/mxadmin/examples
[ -d $EXAMPLES ] || EXAMPLES=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../debian/examples" && pwd -P)

# free_port FIRST: a TCP port on loopback that nobody listens on.
free_port() {
  local port
  for port in $(seq "$1" $(($1 + 100))); do
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      echo "$port"
      return
    fi
  done
  return 1
}

# wait_for_server NAME PORT LOG: until it answers (30 s); else shows its log and fails.
wait_for_server() {
  local _
  for _ in $(seq 300); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$2") 2>/dev/null; then return; fi
    sleep 0.1
  done
  echo "$1 did not start" >&2
  cat "$3" >&2
  return 1
}
