# Bash completion of mxdeliver.

_mxdeliver() {
    local cur prev words cword split
    _init_completion -s -n = || return
    COMPREPLY=($(compgen -W '--sender= --recipient= --help -h --version' -- "$cur"))
    [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
} &&
    complete -F _mxdeliver mxdeliver
