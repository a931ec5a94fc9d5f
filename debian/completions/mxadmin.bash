# Bash completion of mxadmin: commands, and the options of each.

_mxadmin() {
    local cur prev words cword split
    _init_completion -s -n = || return

    local wait='--wait-stdin'
    local data="--domain-aliases= --mail-addresses= $wait"
    local name='--domain-name= --mailname='
    local action='--set-bounce --phrase= --set-catchall --email= --set-reject'
    local disabled='--mail-domain-disabled -D'
    local -A options=(
        [--add-mailname]="$name --disk-quota= --default-domain-quota= $wait"
        [--remove-mailname]="$name $data"
        [--rename-mailname]="--domain-name= --old-mailname= --new-mailname= $disabled $data"
        [--add-mailbox]="$name $disabled $data"
        [--remove-mailbox]="$name $data"
        [--set-password]="$name $disabled $data"
        [--add-alias]="$name --alias= $data"
        [--remove-alias]="$name --alias= $data"
        [--add-domain]="--domain-name= --disk-quota= $wait"
        [--remove-domain]="--domain-name= $data"
        [--rename-domain]='--old-domain-name= --new-domain-name='
        [--turn-on-domain]="--domain-name= $action $data"
        [--turn-off-domain]="--domain-name= $data"
        [--add-domain-alias]="--domain-name= --domain-alias-name= $action $data"
        [--del-domain-alias]="--domain-name= --domain-alias-name= $data"
        [--rename-domain-alias]="--domain-name= --old-domain-alias-name= --new-domain-alias-name= $action $data"
        [--get-mailbox-size]="--in-blocks $name"
        [--set-mailbox-disk-quota]="$name --disk-quota= --default-domain-quota= $wait"
        [--set-domain-disk-quota]="--domain-name= --disk-quota= $data"
    )

    if ((cword == 1)); then
        COMPREPLY=($(compgen -W "${!options[*]} -h --help --help-commands --help-legacy --help-stdin --version" -- "$cur"))
    elif [[ -n ${options[${words[1]}]-} && $cur == -* ]]; then
        COMPREPLY=($(compgen -W "${options[${words[1]}]} --help -h" -- "$cur"))
        [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
    fi
} &&
    complete -F _mxadmin mxadmin
