#!/bin/sh
# Calls mxadmin as a panel does: the session document on standard input, a password through the environment only.
#   mxadmin-call.sh DOCUMENT COMMAND [OPTION...]                  DOCUMENT: a file, or - for none
#   mxadmin-call.sh DOCUMENT --with-password COMMAND [OPTION...]  reads the password's line from standard input
# Through sudo when it is not root. sudo strips ZCP_PASSWORD, and --set-password without one removes the logins, so a
# sudoers(5) file needs:  Defaults!/usr/sbin/mxadmin env_keep += "ZCP_PASSWORD ZCP_CRYPTED_PASSWORD"
# Status: mxadmin's own. 0 done; anything else: see integration.md for what is left and what to call next.
set -eu
[ $# -ge 2 ] || { sed -n '2,4s/^# *//p' "$0" >&2; exit 64; }
document=$1
shift
[ "$document" != - ] || document=/dev/null

unset ZCP_PASSWORD ZCP_CRYPTED_PASSWORD
case $1 in
  --with-password)
    shift
    IFS= read -r ZCP_PASSWORD || [ -n "$ZCP_PASSWORD" ] || { echo "mxadmin-call.sh: no password given" >&2; exit 64; }
    [ -n "$ZCP_PASSWORD" ] || { echo "mxadmin-call.sh: an empty password would remove the logins" >&2; exit 64; }
    export ZCP_PASSWORD
    ;;
  --set-password)
    echo "mxadmin-call.sh: --set-password without --with-password would remove the logins" >&2
    exit 64
    ;;
esac

mxadmin=${MXADMIN:-/usr/sbin/mxadmin}
if [ "$(id -u)" = 0 ]; then
  exec "$mxadmin" "$@" <"$document"
elif [ -n "${ZCP_PASSWORD:-}" ] && ! sudo -n -l 2>/dev/null | grep -q 'env_keep.*ZCP_PASSWORD'; then
  echo "mxadmin-call.sh: sudo would strip ZCP_PASSWORD; see the env_keep line in this file" >&2
  exit 77
else
  exec sudo -n "$mxadmin" "$@" <"$document"
fi
