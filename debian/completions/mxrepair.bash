# Bash completion of mxrepair.

_mxrepair() {
    local cur prev words cword
    _init_completion || return
    ((cword == 1)) && COMPREPLY=($(compgen -W '--init --help --version' -- "$cur"))
} &&
    complete -F _mxrepair mxrepair
