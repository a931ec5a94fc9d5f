# The rows of the benchmark table, a function each. "small stores": one domain without domain aliases, as most are; it
# has a mailname with a mailbox, a mail alias and a password, and a mailname with nothing.
# The paths are ours and hold no blanks; RUNS and ENVIRONMENT are read in measure.bash.
# shellcheck shell=bash disable=SC2034,SC2086,SC2154

SELECT_ID="SELECT id FROM domains WHERE name=LOWER('%s')"
at_info=(--domain-name=d.test --mailname=info)

small_stores() {
  $restore empty
  document d.test "" "info:sales bob" >$work/document
  mxadmin --add-domain --domain-name=d.test <$work/document
  mxadmin --add-mailname --domain-name=d.test --mailname=bob <$work/document
  mxadmin --add-mailname "${at_info[@]}" <$work/document
  mxadmin --add-alias "${at_info[@]}" --alias=sales <$work/document
  ZCP_PASSWORD=secret mxadmin --add-mailbox "${at_info[@]}" <$work/document
  ZCP_PASSWORD=secret mxadmin --set-password "${at_info[@]}" <$work/document
  save small
}

# small_row LIMIT MXADMIN-ARGUMENT...: a command against its own postmap runs.
small_row() {
  small_stores
  compare_rows "$2, small stores" "its postmap runs" "$1" "$restore small" "$(mxadmin_run "${@:2}")" \
    "$(postmap_runs small "${@:2}")"
}

rows_add_mailname() {
  local command=(--add-mailname --domain-name=d.test --mailname=new)
  small_row 1.35 "${command[@]}"
  memory_row "--add-mailname, small stores" 12 "$restore small" "$(mxadmin_run "${command[@]}")"
}
rows_add_domain() {
  local command=(--add-domain --domain-name=new.test)
  small_row 1.35 "${command[@]}"
  memory_row "--add-domain, small stores" 12 "$restore small" "$(mxadmin_run "${command[@]}")"
}
rows_remove_mailname() { small_row 1.35 --remove-mailname "${at_info[@]}"; }
rows_rename_mailname() { small_row 1.35 --rename-mailname --domain-name=d.test --old-mailname=info --new-mailname=new; }
rows_add_alias() {
  local command=(--add-alias "${at_info[@]}" --alias=new)
  small_row 1.35 "${command[@]}"
  # Nothing does the rest of the work in the 35 % that the row above leaves: this is that run, and the alias's one row.
  echo "new d.test $(stored_value)" >$work/row
  compare_rows "--add-alias, small stores" "its postmap run, a C loop" 1.15 "$restore small" "$(mxadmin_run "${command[@]}")" \
    "$(postmap_runs small "${command[@]}")
auth_loop set $AUTH_DB <$work/row"
}
rows_remove_alias() { small_row 1.35 --remove-alias "${at_info[@]}" --alias=sales; }

# Commands without postmap runs: the sqlite3 program does the same statements in one start and on one connection.
# sqlite_row LIMIT WHAT "MORE BARE RUNS" "STATEMENT..." MXADMIN-ARGUMENT...
sqlite_row() {
  small_stores
  compare_rows "$5, small stores" "$2" "$1" "$restore small" "$(mxadmin_run "${@:5}")" \
    "$(sqlite_runs $AUTH_DB "$4")
$3"
}
# for_names "NAME..." "DOMAIN..." STATEMENT: per name and domain the domain's look-up, then the statement, in which
# NAME and ID stand for what was found.
for_names() {
  local name domain
  for name in $1; do
    for domain in $2; do
      # shellcheck disable=SC2059
      printf "$SELECT_ID;\n" "$domain"
      printf '%s;\n' "$3" | sed "s/NAME/LOWER('$name')/; s/ID/(SELECT id FROM domains WHERE name='$domain')/"
    done
  done
}
stored_value() { sql $AUTH_DB "SELECT userPassword FROM users LIMIT 1"; }
insert_user() { echo "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES (NAME, '$(stored_value)', 0, ID)"; }

rows_add_mailbox() {
  small_stores
  ENVIRONMENT=ZCP_PASSWORD=secret sqlite_row 1.35 "sqlite3, same statements" "" \
    "$(for_names info d.test "$(insert_user)")" --add-mailbox "${at_info[@]}"
}
rows_remove_mailbox() {
  sqlite_row 1.35 "sqlite3, same statements" "" \
    "$(for_names "info info sales" d.test "$DELETE_USER")" \
    --remove-mailbox "${at_info[@]}"
}
DELETE_USER="DELETE FROM users WHERE name=NAME AND dom_id=ID"
rows_set_password() {
  small_stores
  echo secret >$work/secret
  ENVIRONMENT=ZCP_PASSWORD=secret sqlite_row 0.6 "sqlite3, one openssl enc" \
    "openssl enc -aes-256-cbc -A -a -K $(printf '%064d' 1) -iv $(printf '%032d' 1) <$work/secret" \
    "$(for_names "info sales" d.test "$(insert_user)")" --set-password "${at_info[@]}"
}
# Neither runs nor statements: the start of the sqlite3 program alone.
rows_get_mailbox_size() { sqlite_row 1.35 "sqlite3, no statement" "" "" --get-mailbox-size "${at_info[@]}"; }
rows_set_mailbox_disk_quota() {
  sqlite_row 1.35 "sqlite3, no statement" "" "" --set-mailbox-disk-quota "${at_info[@]}" --disk-quota=1000000
}

# A domain with 20 domain aliases.
twenty_aliases() {
  $restore empty
  local aliases
  aliases=$(printf 'a%d.test ' {1..20})
  document d.test "$aliases" info:sales >$work/document
  mxadmin --add-domain --domain-name=d.test <$work/document
  mxadmin --add-mailname "${at_info[@]}" <$work/document
  ZCP_PASSWORD=secret mxadmin --add-mailbox "${at_info[@]}" <$work/document
  mxadmin --turn-on-domain --domain-name=d.test --set-reject <$work/document
}
rows_turn_off_domain() {
  local command=(--turn-off-domain --domain-name=d.test)
  twenty_aliases
  save on
  compare_rows "--turn-off-domain, 20 domain aliases" "its postmap runs" 1.25 "$restore on" \
    "$(mxadmin_run "${command[@]}")" "$(postmap_runs on "${command[@]}")"
}
rows_turn_on_domain() {
  local command=(--turn-on-domain --domain-name=d.test --set-reject)
  twenty_aliases
  mxadmin --turn-off-domain --domain-name=d.test <$work/document
  save off
  compare_rows "--turn-on-domain, 20 domain aliases" "its postmap runs" 1.25 "$restore off" \
    "$(mxadmin_run "${command[@]}")" "$(postmap_runs off "${command[@]}")"
}

# fill TABLE RECORDS: record I is made by the awk expression in $3.
fill() {
  awk "BEGIN { for (i = 1; i <= $2; ++i) print $3 }" >$TABLES/"$1"
  postmap hash:$TABLES/"$1"
  rm $TABLES/"$1"
}
VIRTUAL_RECORD='"name" i "@dom" i % 5000 ".example.com box" i "@dom" i % 5000 ".example.com"'

# rewrites TABLE...: dumps and rebuilds.
rewrites() {
  local table
  for table; do
    printf '/usr/sbin/postmap -s hash:%s >%s\n/usr/sbin/postmap hash:%s\n' {,,}$TABLES/"$table"
  done
}

rows_add_domain_million() {
  local RUNS=15 records command
  command=$(mxadmin_run --add-domain --domain-name=new.test)
  document new.test >$work/document
  for records in 10000 1000000; do
    $restore empty
    fill virtual $records "$VIRTUAL_RECORD"
    save filled
    memory_row "--add-domain, $records records" 16 "$restore filled" "$command"
  done
  compare_rows "--add-domain, 1000000 records of others" "one dump, one rebuild" 0.6 "$restore filled" "$command" \
    "$(rewrites virtual)"
  # Of a name that has records, which have to go: dump, copy, rebuild. The copy may cost a tenth of the rebuild.
  document dom1.example.com >$work/document
  compare_rows "--add-domain, 200 of 1000000 records its own" "one dump, one rebuild" 1.1 "$restore filled" \
    "$(mxadmin_run --add-domain --domain-name=dom1.example.com)" "$(rewrites virtual)"
  $restore empty
  save filled
}

# What guards the tables, beside the changes themselves: milliseconds on a small table, and the copy of a large one
# against its rebuild.
rows_table_guards() {
  local RUNS=101 what copied
  small_stores
  for what in copy lock; do
    figure=$(table_guards $what $TABLES/virtual $RUNS)
    row "$what of a small table" "(milliseconds)" "$figure" - "$figure" 0.3 $RUNS
  done
  $restore empty
  fill virtual 1000000 "$VIRTUAL_RECORD"
  save filled
  copied=$(table_guards copy $TABLES/virtual 15)
  RUNS=5
  postmap -s hash:$TABLES/virtual >$TABLES/virtual
  measure true "/usr/sbin/postmap hash:$TABLES/virtual" "/usr/sbin/postmap hash:$TABLES/virtual"
  row "copy of 1000000 records" "one rebuild" "$copied" "$bare" "$(awk "BEGIN { printf \"%.3f\", $copied / $bare }")" 0.1 15
  $restore empty
}

# The renamed domain owns 1,000 records of each table.
rows_rename_domain_million() {
  local RUNS=15 command
  command=$(mxadmin_run --rename-domain --old-domain-name=dom1.example.com --new-domain-name=new.test)
  $restore empty
  document dom1.example.com >$work/document
  fill virtual 1000000 "${VIRTUAL_RECORD//5000/1000}"
  fill vmailbox 500000 '"box" i "@dom" i % 500 ".example.com dom" i % 500 ".example.com/box" i "/Maildir/"'
  fill virtual_domains 1000 '"dom" i - 1 ".example.com dom" i - 1 ".example.com/"'
  mkdir $MAIL_ROOT/dom1.example.com
  save filled
  memory_row "--rename-domain, 1500000 records" 16 "$restore filled" "$command"
  compare_rows "--rename-domain, 1500000 records" "dumps and rebuilds of 3 tables" 1.05 "$restore filled" "$command" \
    "$(rewrites virtual_domains virtual vmailbox)"
  $restore empty
  save filled
}

# reading READER: two figures, seconds and KiB.
reading() { session_read "$1" $work/document 1; }
rows_session_million() {
  local mails=1000000 turn peak size
  local RUNS=15
  large_document d.test "" $mails 2 >$work/document
  size=$(stat -c %s $work/document)
  for ((turn = 0; turn < RUNS; ++turn)); do
    reading ours >>$work/ours
    reading rapidjson >>$work/theirs
  done
  median() { sort -n "$1" | awk '{ value[NR] = $1 } END { printf "%.3f", value[int((NR + 1) / 2)] * 1000 }'; }
  figure=$(median $work/ours)
  bare=$(median $work/theirs)
  row "session document of 1000000 mails" "RapidJSON, in situ" "$figure" "$bare" \
    "$(awk "BEGIN { printf \"%.3f\", $figure / $bare }")" 1.5 $RUNS
  peak=$(awk '$2 > peak { peak = $2 } END { print peak }' $work/ours)
  peak=$(awk "BEGIN { printf \"%.0f\", ($peak * 1024 - $size) / $mails }")
  row "  memory beyond the document" "(peak, bytes per mail)" "$peak" - "$peak" 200 $RUNS
  rm $work/document $work/ours $work/theirs
}

# maildir NAME-ENDING: 200,000 messages of mailname info, half of them in "new". With ",S=" names tell their sizes.
maildir() {
  local box=$MAIL_ROOT/d.test/info/Maildir
  find $box/new $box/cur -type f -delete
  (cd $box/new && awk -v ending="$1" 'BEGIN { for (i = 1; i <= 100000; ++i) print 1700000000 + i ".M" i "P77.mail" ending }' |
    xargs touch)
  (cd $box/cur && awk -v ending="$1" 'BEGIN { for (i = 1; i <= 100000; ++i) print 1600000000 + i ".M" i "P77.mail" ending ":2,S" }' |
    xargs touch)
}
rows_count_messages() {
  local RUNS=15 box=$MAIL_ROOT/d.test/info/Maildir format limit command
  small_stores
  # Without its quota file the mailbox has to be counted.
  for format in "''" %s; do
    if [ "$format" = %s ]; then
      limit=1.0
      maildir ""
    else
      limit=0.7
      maildir ,S=1234
    fi
    for command in --get-mailbox-size "--set-mailbox-disk-quota --disk-quota=1000000"; do
      compare_rows "${command% --*}, 200000 messages" "find -printf $format" $limit "rm -f $box/maildirsize" \
        "$(mxadmin_run "$command" "${at_info[@]}")" "find $box/new $box/cur -type f -printf $format"
    done
  done
  $restore empty
}

# A mailname with 100 mail aliases in a domain with 10 domain aliases: 1,111 rows.
rows_set_password_1111() {
  local RUNS=15 aliases domains place command
  aliases=$(printf 'alias%d,' {1..100})
  domains=$(printf 'a%d.test ' {1..10})
  document d.test "$domains" "info:${aliases%,}" >$work/document
  command=$(ENVIRONMENT=ZCP_PASSWORD=secret mxadmin_run --set-password "${at_info[@]}")
  $restore empty
  ZCP_PASSWORD=secret mxadmin --set-password "${at_info[@]}" <$work/document
  sql -separator ' ' $AUTH_DB "SELECT u.name, d.name, userPassword FROM users u JOIN domains d ON d.id = dom_id" >$work/rows
  save passwords
  for place in memory disk; do
    [ $place = memory ] || place_store $TABLES "$disk"
    compare_rows "--set-password, 1111 rows, $place" "a C loop, same statements" 1.15 \
      "$restore passwords; sync -f $TABLES" "$command" "auth_loop set $AUTH_DB <$work/rows"
  done
  umount $TABLES
}

# named_domain MAILS: a domain whose mailnames, each with one alias, have passwords; the names go to $work/names.
named_domain() {
  large_document d.test "n.test" "$1" 1 >"$work/document.$1"
  awk -v mails="$1" 'BEGIN { for (i = 1; i <= mails; ++i) print "m" i "a1\nm" i }' >"$work/names.$1"
  $restore empty
  { echo "BEGIN; INSERT INTO domains (name, status) VALUES ('d.test', 0);"
    sed "s|.*|INSERT INTO users (name, userPassword, status, dom_id) VALUES ('&', '$1', 0, 1);|" "$work/names.$1"
    echo "COMMIT;"; } | sql $AUTH_DB
  save "$1"
  ln -sf "document.$1" $work/document
}
rows_add_domain_alias() {
  local RUNS=15 mails command thousand runs
  command=(--add-domain-alias --domain-name=d.test --domain-alias-name=n.test --set-reject)
  for mails in 1000 5000 20000; do
    named_domain $mails
    # The second of its postmap runs writes the mailnames' records.
    runs=$(postmap_runs $mails "${command[@]}" | sed -n 2p)
    compare_rows "--add-domain-alias, $mails mailnames" "one postmap run, a C loop" 1.15 "$restore $mails" \
      "$(mxadmin_run "${command[@]}")" "$runs
auth_loop clone $AUTH_DB d.test n.test <$work/names.$mails"
    [ $mails != 1000 ] || thousand=$figure
  done
  row "  per mailname at 20000, against at 1000" "itself" "$(awk "BEGIN { printf \"%.4f\", $figure / 20000 }")" \
    "$(awk "BEGIN { printf \"%.4f\", $thousand / 1000 }")" "$(awk "BEGIN { printf \"%.3f\", $figure / $thousand / 20 }")" 1.15 "$RUNS"
}

# A node from its documents: 1,000 domains with 50 mailnames of two aliases each, into empty stores. The bare tools write
# the same records and make the same directories; the commands one by one are those of 20 domains, fifty times.
rows_sync_thousand() {
  local RUNS=3 sync="mxrepair --sync --wait-stdin <$work/document" bare= table start domain mail alias
  for domain in $(seq 1000); do large_document "dom$domain.test" "" 50 2; done >$work/document
  $restore empty
  mxrepair --sync --wait-stdin <$work/document >/dev/null
  for table in virtual_domains virtual vmailbox; do
    postmap -s hash:$TABLES/$table >$work/$table
    bare+="/usr/sbin/postmap -r -i hash:$TABLES/$table <$work/$table"$'\n'
  done
  find "$MAIL_ROOT" -mindepth 1 -type d | sort >$work/directories
  memory_row "--sync, 1000 domains, 50000 mailnames" 64 "$restore empty" "$sync"
  compare_rows "--sync, 1000 domains, 50000 mailnames" "3 postmap runs, mkdir of the tree" 1.5 "$restore empty" "$sync" \
    "${bare}xargs mkdir <$work/directories"
  $restore empty
  start=${EPOCHREALTIME/.}
  for domain in dom{1..20}.test; do
    large_document $domain "" 50 2 >$work/document
    mxadmin --add-domain --domain-name=$domain <$work/document
    for mail in m{1..50}; do
      mxadmin --add-mailname --domain-name=$domain --mailname=$mail <$work/document
      for alias in ${mail}a{1,2}; do
        mxadmin --add-alias --domain-name=$domain --mailname=$mail --alias=$alias <$work/document
      done
    done
  done
  bare=$(((${EPOCHREALTIME/.} - start) / 20))
  row "--sync, 1000 domains, 50000 mailnames" "3020 commands, 50 times" "$figure" "$bare" \
    "$(awk "BEGIN { printf \"%.4f\", $figure / $bare }")" 0.1 1
}
