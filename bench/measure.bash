# How bench/run measures: stores that are put back before every measured run, sequences of commands for A (mxadmin) and
# B (bare tools), rows of the table. A sequence is the text that bench/compare reads.
# shellcheck shell=bash disable=SC2086,SC2154

work=/tmp/bench
restore=$work/restore
STORES=("$TABLES" "$MAIL_ROOT" "${HANDLERS_DB%/*}")
missed=0
RUNS=31

# Empty stores on file systems of their own: what they lie on inside the sandbox is an overlay, whose price for every
# file is not that of a mail server. The lock and key directories are empty and stay where they are.
prepare_stores() {
  local store
  mkdir -p $work
  reset_stores
  for store in "${STORES[@]}"; do place_store "$store" $work/stores; done
  cat >$restore <<END
#!/bin/sh
for store in ${STORES[*]}; do
  find \$store -mindepth 1 -delete
  cp -a $work/saved/\$1\$store/. \$store
done
END
  chmod +x $restore
  save empty
}

# place_store STORE PLACE: moves a store to a directory of another file system, under its old path.
place_store() {
  mkdir -p "$2$1"
  find "$2$1" -mindepth 1 -delete
  cp -a "$1/." "$2$1"
  mount --bind "$2$1" "$1"
}

# save STATE: what "$restore STATE" puts back.
save() {
  local store
  for store in "${STORES[@]}"; do
    rm -rf "$work/saved/$1$store"
    mkdir -p "$work/saved/$1$store"
    cp -a "$store/." "$work/saved/$1$store"
  done
}

# postmap_runs STATE MXADMIN-ARGUMENT...: runs the command once from that state, with the document in $work/document,
# and prints the sequence of postmap runs that it made, started bare, each with the input that it got. A dump goes into
# the text source of its table, from which the rebuild after it takes its records.
postmap_runs() {
  local inputs arguments status call=0 table
  $restore "$1"
  shift
  inputs=$(mktemp -d $work/inputs.XXXX)
  replace_postmap "cat >$inputs/\$call
/usr/sbin/postmap.real \"\$@\" <$inputs/\$call
status=\$?
echo \$status >$inputs/\$call.status
exit \$status"
  mxadmin "$@" <$work/document >&2
  restore_postmap
  while read -r arguments; do
    call=$((call + 1))
    status=$(cat "$inputs/$call.status")
    table=${arguments##*hash:}
    [ "$status" = 0 ] || printf '! '
    printf '/usr/sbin/postmap %s <%s' "$arguments" "$inputs/$call"
    case $arguments in -s\ *) printf ' >%s' "$table" ;; esac
    printf '\n'
  done </tmp/postmap-calls
}

# sqlite_runs DATABASE STATEMENT...: one start of the sqlite3 program for all of them; reads more on standard input.
sqlite_runs() {
  local script
  script=$(mktemp $work/sql.XXXX)
  printf '%s;\n' "${@:2}" >"$script"
  printf 'sqlite3 %s <%s >/dev/null\n' "$1" "$script"
}

# mxadmin_run ARGUMENT...: the sequence of one command with the document in $work/document.
mxadmin_run() { printf '%s mxadmin %s <%s\n' "${ENVIRONMENT:-}" "$*" $work/document; }

line() { printf '%-46s %-34s %11s %11s %8s %7s %4s  %s\n' "$@"; }
heading() { line what against mxadmin bare ratio limit runs ""; }

# row WHAT AGAINST FIGURE BARE RATIO LIMIT RUNS: prints it, counts it when the ratio is above the limit.
row() {
  local verdict=ok
  if awk "BEGIN { exit !($5 > $6) }"; then
    verdict=MISSED
    missed=$((missed + 1))
  fi
  line "$@" $verdict
}

# compare_rows WHAT AGAINST LIMIT PREPARATION A B: A and B are sequences. Leaves the figures in $figure, $bare, $ratio.
compare_rows() {
  measure "$4" "$5" "$6"
  row "$1" "$2" "$figure" "$bare" "$ratio" "$3" "$RUNS"
}
measure() {
  printf '%s\n' "$2" >$work/a
  printf '%s\n' "$3" >$work/b
  read -r figure bare ratio < <(compare "$RUNS" "$1" $work/a "$1" $work/b) && [ -n "$ratio" ]
}

# memory_row WHAT LIMIT-IN-MIB PREPARATION SEQUENCE: the program's own peak, without its children. Leaves $mib.
memory_row() {
  printf '%s\n' "$4" >$work/a
  mib=$(compare memory "$3" $work/a | awk '{ printf "%.1f", $1 / 1024 }')
  row "$1" "(peak memory, MiB)" "$mib" - "$mib" "$2" 1
}

# large_document DOMAIN "DOMAIN-ALIAS..." MAILS ALIASES-EACH: a session document of numbered mailnames m1, m2, ... with
# mail aliases m1a1, m1a2, ...
large_document() {
  awk -v domain="$1" -v dom_aliases="$2" -v mails="$3" -v each="$4" 'BEGIN {
    printf "{ \"domain\": { \"name\": \"%s\", \"dom_aliases\": [", domain
    count = split(dom_aliases, list, " ")
    for (i = 1; i <= count; ++i) printf "%s \"%s\"", (i > 1 ? "," : ""), list[i]
    printf " ], \"maillists\": [ ], \"mails\": ["
    for (i = 1; i <= mails; ++i) {
      printf "%s\n{ \"name\": \"m%d\", \"mbox_quota\": -1, \"mbox_quota_unit\": \"B\", \"aliases\": [", (i > 1 ? "," : ""), i
      for (j = 1; j <= each; ++j) printf "%s \"m%da%d\"", (j > 1 ? "," : ""), i, j
      printf " ] }"
    }
    print " ] } }"
  }'
}
