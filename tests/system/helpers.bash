# Shared by the system tests: fresh stores for each test, the state of all stores as one text, stand-ins for postmap.
# bats runs these as root on the real fixed paths, so they refuse to start anywhere but in scripts/sandbox.

TABLES=/var/spool/postfix/kavro
MAIL_ROOT=/var/qmail/mailnames
AUTH_DB=$TABLES/passwd.db
HANDLERS_DB=/var/lib/kavro/mail/handlers/handlers.db
PLUGINS=/usr/lib/kavro-9.0/domain_rename
KEYS=/etc/domainkeys

if [ ! -e /run/mxadmin-sandbox ]; then
  echo "These tests change system files. Run them as: scripts/sandbox bats tests/system" >&2
  exit 1
fi

# keep NAME: a copy of all stores. restore NAME: makes the stores what they were then; fails when there is no such copy.
STORE_PATHS="$TABLES $MAIL_ROOT /var/lib/kavro $PLUGINS"
keep() { tar -cPf "${BATS_RUN_TMPDIR:-/tmp}/$1" $STORE_PATHS $(ls -d $KEYS 2>/dev/null); }
restore() {
  [ -e "${BATS_RUN_TMPDIR:-/tmp}/$1" ] || return
  rm -rf $STORE_PATHS $KEYS
  tar -xpPf "${BATS_RUN_TMPDIR:-/tmp}/$1"
}

# Empty stores, as a new mail server has them.
reset_stores() {
  restore_postmap
  rm -rf $STORE_PATHS $KEYS /var/lock/files/*
  mkdir -p "$PLUGINS" /etc/zcp
  printf 'KAVRO_MAILNAMES_D %s\n' "$MAIL_ROOT" >/etc/zcp/zcp.conf
  unset ZCP_PASSWORD ZCP_CRYPTED_PASSWORD
  restore empty || { mxrepair --init >/dev/null && keep empty; }
}

# table NAME: its records, sorted.
table() { postmap -s "hash:$TABLES/$1" | sort; }

# sql DB STATEMENT: waits for a busy database instead of failing.
sql() { sqlite3 -cmd '.timeout 10000' "$@"; }

# Users as name@domain, how the password is stored, user and domain status (1: disabled), then domains without users.
auth_users() {
  sql $AUTH_DB "SELECT u.name || '@' || d.name || ' ' || CASE
      WHEN u.userPassword LIKE '\$AES-256-CBC:PKCS\$%' AND u.cmusaslsecretPLAIN IS NULL THEN 'encrypted'
      WHEN u.userPassword IS NULL AND u.cmusaslsecretPLAIN IS NOT NULL THEN 'as-is:' || u.cmusaslsecretPLAIN
      WHEN u.userPassword IS NULL THEN 'none' ELSE 'odd:' || u.userPassword END
      || ' ' || u.status || d.status FROM users u JOIN domains d ON d.id = u.dom_id
    UNION SELECT '(domain) ' || name || ' ' || status FROM domains
      WHERE id NOT IN (SELECT dom_id FROM users) ORDER BY 1"
}

# password_of MAILNAME DOMAIN: the stored password, decrypted with the key file by other means than mxadmin's.
password_of() {
  local iv cipher
  IFS='$' read -r _ _ iv cipher < <(sql $AUTH_DB "SELECT userPassword FROM users u JOIN domains d ON d.id = dom_id
    WHERE u.name='$1' AND d.name='$2'")
  openssl enc -d -aes-256-cbc -A -a -K "$(od -An -v -tx1 $TABLES/passwd_db_key | tr -d ' \n')" \
    -iv "$(base64 -d <<<"$iv" | od -An -v -tx1 | tr -d ' \n')" <<<"$cipher"
}

handlers() { sql $HANDLERS_DB "SELECT address || ' ' || name || ' ' || enabled FROM handlers ORDER BY address, name"; }

# add_handler ADDRESS NAME
add_handler() {
  sql $HANDLERS_DB "INSERT INTO handlers (queue, type, enabled, priority, name, address, executable, context)
    VALUES (5, 5, 1, 10, '$2', '$1', '/bin/true', 'none')"
}

# The storage tree: type, mode, owner, path; then the texts of delivery files and quota headers.
storage() {
  local file lines IFS=
  find "$MAIL_ROOT" -mindepth 1 -printf '%y %m %u:%g %P\n'
  for file in "$MAIL_ROOT"/*/*/{.qmail,Maildir/maildirsize}; do
    [ -f "$file" ] || continue
    mapfile -n 5 lines <"$file"
    lines="${lines[*]}"
    printf '%s: %s\n' "${file#"$MAIL_ROOT"/}" "${lines//$'\n'/\~}"
    lines=()
  done
}

# All stores in one text, a sorted line each, with the store's name in front.
state() (
  set +e
  trap - DEBUG # bats has one for each command
  store() { printf '\f%s: \n' "$1"; }
  {
    for name in virtual_domains vmailbox virtual aliases; do store $name && postmap -s hash:$TABLES/$name; done
    store auth && auth_users
    store handlers && handlers
    store storage && storage
    store keys && find $KEYS -mindepth 1 -printf '%y %m %u:%g %P\n'
    store 'left over' && leftovers
  } | awk '/^\f/ { store = substr($0, 2); next } { gsub("\t", " "); print store $0 }' | sort
)

# remember; ...; same "what" "$expected" "$(changes)": all that differs from the remembered state, gone lines with "-",
# new ones with "+", and nothing else.
remember() { state >/tmp/before; }
changes() { diff /tmp/before <(state) | sed -n 's/^< /-/p; s/^> /+/p' | sort -k 1.2; }

# Files that no finished command may leave behind.
leftovers() {
  find $TABLES -mindepth 1 ! -name '*.db' ! -name passwd_db_key -printf '%P\n'
  find "$MAIL_ROOT" \( -name '*.tmp' -o -name '*maildirsize' ! -name maildirsize \) -printf '%P\n'
}

# same WHAT EXPECTED ACTUAL: equality with a readable difference.
same() {
  [ "$2" = "$3" ] && return
  printf '%s differs (- expected, + found):\n' "$1"
  diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") | sed -n 's/^</-/p; s/^>/+/p'
  return 1
}

# document DOMAIN [ALIASES [MAILS [LISTS]]]: a session document. ALIASES and LISTS are words; MAILS are words like
# info:sales,help (a mailname with its aliases) or info=5MB:sales (with a quota).
document() {
  local word name aliases quota unit separator=
  quoted() { local w s=; for w in $1; do printf '%s"%s"' "$s" "$w"; s=', '; done; }
  printf '{ "domain": { "name": "%s", "dom_aliases": [ %s ], "maillists": [ %s ], "mails": [ ' \
    "$1" "$(quoted "${2:-}")" "$(quoted "${4:-}")"
  for word in ${3:-}; do
    name=${word%%:*}
    aliases=
    case $word in *:*) aliases=${word#*:} ;; esac
    quota=-1
    unit=B
    case $name in *=*)
      quota=${name#*=}
      name=${name%%=*}
      unit=${quota##*[0-9]}
      quota=${quota%"$unit"}
      ;;
    esac
    printf '%s{ "name": "%s", "mbox_quota": %s, "mbox_quota_unit": "%s", "aliases": [ %s ] }' \
      "$separator" "$name" "$quota" "${unit:-B}" "$(quoted "${aliases//,/ }")"
    separator=', '
  done
  printf ' ] } }'
}

# with DOCUMENT COMMAND...: runs the command with the document on standard input; status, output and errors land in
# $status, $out and $err.
with() {
  local input=$1
  shift
  status=0
  "$@" <<<"$input" >/tmp/out 2>/tmp/err || status=$?
  out=$(</tmp/out)
  err=$(</tmp/err)
}

# mx COMMAND...: runs it on the sample's session document and expects silent success.
mx() {
  with "$SAMPLE" mxadmin "$@"
  [ "$status $out$err" = "0 " ] || { echo "status $status: $out$err"; return 1; }
}

# A stand-in for postmap: the text of a shell script in which "real" calls the real one. A counter of calls is kept in
# /tmp/postmap-calls, so that a script can fail the n-th: [ "$call" = 3 ] && exit 1.
replace_postmap() {
  [ -e /usr/sbin/postmap.real ] || cp -p /usr/sbin/postmap /usr/sbin/postmap.real
  : >/tmp/postmap-calls
  rm -f /usr/sbin/postmap
  cat >/usr/sbin/postmap <<EOF
#!/bin/sh
real() { exec /usr/sbin/postmap.real "\$@"; }
echo "\$*" >>/tmp/postmap-calls
call=\$(wc -l </tmp/postmap-calls)
$1
EOF
  chmod 0755 /usr/sbin/postmap
}

restore_postmap() {
  [ ! -e /usr/sbin/postmap.real ] || mv -f /usr/sbin/postmap.real /usr/sbin/postmap
}

# What is printed when an undo fails: critical TABLE
critical() {
  printf 'CRITICAL ERROR: Unable to properly restore %s used by Kavro.\n' "$1"
  printf 'Mail system may be not usable at the moment and it cannot be repaired automatically.\n'
  printf 'Constact Norvalent support to resolve this issue.\n'
}

# Lines of the state, each with a sign in front: "+" or "-".
standard() { # the six standard addresses of a domain: standard SIGN DOMAIN
  local name
  for name in postmaster mailer-daemon root anonymous drweb kluser; do
    printf '%svirtual: %s@%s %s@localhost.localdomain\n' "$1" "$name" "$2" "$name"
  done
}
seen_through() { # mailnames of the sample domain through an alias: seen_through SIGN ALIAS [DOMAIN]
  local name
  for name in info sales help; do printf '%svirtual: %s@%s info@%s\n' "$1" "$name" "$2" "${3:-d.test}"; done
  printf '%svirtual: bob@%s bob@%s\n' "$1" "$2" "${3:-d.test}"
}
sorted() { sort -k 1.2; }

# The sample: domain d.test with domain aliases a1.test and a2.test, mailname info (mailbox, mail aliases sales and
# help), mailname bob, list "news"; handlers; a signing key; and a neighbourhood that no command may touch.
SAMPLE=$(document d.test "a1.test a2.test" "info:sales,help bob=5MB" news)
make_sample() {
  local alias
  ! restore sample || return 0
  with "$SAMPLE" mxadmin --add-domain --domain-name=d.test
  with "$SAMPLE" mxadmin --add-mailname --domain-name=d.test --mailname=info
  with "$SAMPLE" mxadmin --add-mailname --domain-name=d.test --mailname=bob --disk-quota=5242880 --wait-stdin
  for alias in sales help; do
    with "$SAMPLE" mxadmin --add-alias --domain-name=d.test --mailname=info --alias=$alias
  done
  ZCP_PASSWORD=secret with "$SAMPLE" mxadmin --add-mailbox --domain-name=d.test --mailname=info
  ZCP_PASSWORD=secret with "$SAMPLE" mxadmin --set-password --domain-name=d.test --mailname=info
  add_handler info@d.test spam
  add_handler info@xd.test spam
  install -D -m 0440 -g popuser /etc/hostname $KEYS/d.test/default
  for alias in a1.test a2.test; do
    with "$SAMPLE" mxadmin --add-domain-alias --domain-name=d.test --domain-alias-name=$alias --set-reject
  done
  make_neighbours
  keep sample
}

# Records of others, which name the sample or look like it.
make_neighbours() {
  postmap -r -i hash:$TABLES/virtual <<'END'
fan@other.test info@d.test, x@other.test, y@sub.d.test
x@xd.test x@xd.test
x@sub.d.test x@sub.d.test
END
  postmap -r -i hash:$TABLES/vmailbox <<<'x@xd.test xd.test/x/Maildir/'
}
