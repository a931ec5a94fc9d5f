# A refused change of either database, under every command that makes it: which stores it leaves changed.
load helpers
declare -gA DATABASES=([domains]=$AUTH_DB [users]=$AUTH_DB [handlers]=$HANDLERS_DB)

@test "a database that fails ends the command or is warned of, and what had its turn before stays done" {
  while IFS='|' read -r table event expected stores report command; do
    reset_stores
    make_sample
    add_handler d.test whole
    sql ${DATABASES[$table]} "CREATE TRIGGER refuse BEFORE $event ON $table BEGIN SELECT RAISE(FAIL, 'injected'); END"
    remember
    ZCP_PASSWORD=x with "$SAMPLE" mxadmin --$command --domain-name=d.test
    same "$event $table: $command" "$expected|$stores" "$status|$(changes | cut -d : -f 1 | LC_ALL=C sort -u | xargs)"
    [[ $err == *"$report"* ]] || { echo "$err"; false; }
  done <<'END'
domains|DELETE|1||Unable to remove auth record for domain d.test|remove-domain
domains|UPDATE|1|-auth -handlers -keys -virtual|Unable to disable auth records for domain d.test|turn-off-domain
domains|UPDATE|1||Unable to enable auth records for domain d.test|turn-on-domain --set-reject
users|DELETE|1||Unable to remove mailname info@d.test|remove-mailname --mailname=info
users|DELETE|1|-virtual|Unable to remove mailname sales@d.test|remove-alias --mailname=info --alias=sales
users|DELETE|1|+storage -storage|Unable to remove mailname info@d.test|remove-mailbox --mailname=info
users|DELETE|1|-handlers -keys -virtual|Unable to remove domain a2.test from auth database|del-domain-alias --domain-alias-name=a2.test
users|DELETE|1|+auth +handlers +keys +virtual -keys -virtual|Unable to remove domain a2.test|rename-domain-alias --old-domain-alias-name=a2.test --new-domain-alias-name=n.test --set-reject
users|INSERT|1|+auth +handlers +keys +virtual|Unable to clone auth record for sales@d.test|add-domain-alias --domain-alias-name=n.test --set-reject
users|INSERT|1|+virtual|injected|add-alias --mailname=info --alias=neu
users|INSERT|1|+storage -storage|Unable to set password for mailname bob@d.test|add-mailbox --mailname=bob
users|INSERT|1||Unable to set password for mailname info@d.test|set-password --mailname=info
users|UPDATE|255||injected|rename-mailname --old-mailname=info --new-mailname=chef
handlers|DELETE|255|+auth -auth -storage -virtual -vmailbox|injected|remove-mailname --mailname=info
handlers|INSERT|255||injected|rename-mailname --old-mailname=info --new-mailname=chef
handlers|INSERT|1|+auth +virtual|Unable to clone mail handlers for neu@d.test|add-alias --mailname=info --alias=neu
handlers|INSERT|0|+auth +keys +virtual|WARNING: unable to clone all mail handlers for n.test|add-domain-alias --domain-alias-name=n.test --set-reject
handlers|DELETE|0|-auth -keys -virtual|WARNING: unable to properly remove mail handlers for a2.test|del-domain-alias --domain-alias-name=a2.test
handlers|INSERT|0|+auth +keys +virtual -auth -keys -virtual|WARNING: unable to properly re-assign mail handlers from a2.test to n.test|rename-domain-alias --old-domain-alias-name=a2.test --new-domain-alias-name=n.test --set-reject
handlers|DELETE|0|+virtual -auth -storage -virtual -virtual_domains -vmailbox|WARNING: unable to properly remove all mail handlers for d.test|remove-domain
END
}
