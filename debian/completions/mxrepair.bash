# Bash completion of mxrepair: modes, and the options of each.

_mxrepair() {
    local cur prev words cword split
    _init_completion -s -n = || return

    local -A options=(
        [--init]=
        [--check]='--domain= --json --wait-stdin'
        [--fix]='--domain= --json --finish-rename= --undo-rename='
        [--sync]='--wait-stdin'
        [--list]='--domain= --json'
        [--show=]='--json'
        [--backup=]=
        [--restore=]=
    )

    if [[ ${split-} == true && $prev == --@(backup|restore) ]]; then
        _filedir -d
    elif ((cword == 1)); then
        COMPREPLY=($(compgen -W "${!options[*]} --help --version" -- "$cur"))
        [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
    elif [[ -n ${options[${words[1]}]-} && $cur == -* ]]; then
        COMPREPLY=($(compgen -W "${options[${words[1]}]}" -- "$cur"))
        [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
    fi
} &&
    complete -F _mxrepair mxrepair
