# Bash completion of mxcheckpassword: an option, or the program that it runs.

_mxcheckpassword() {
    local cur prev words cword
    _init_completion || return
    if ((cword == 1)) && [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W '--authpipe --pam --help -h --version' -- "$cur"))
    elif ((cword == 1)); then
        compopt -o filenames
        COMPREPLY=($(compgen -c -f -- "$cur"))
    elif ((cword == 2)) && [[ $prev == --pam ]]; then
        COMPREPLY=($(compgen -W '--no-aliases' -- "$cur"))
    fi
} &&
    complete -F _mxcheckpassword mxcheckpassword
