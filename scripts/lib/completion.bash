# What an interactive bash or zsh offers for an unfinished line, on a terminal of its own; both load the completions from
# where packages install them.

# offers SHELL LINE WORD: whether it offers the word after the line and a tab (60 s).
offers() {
  timeout 60 zsh -f /dev/stdin "$@" <<'END' || { echo "$1 does not offer $3" >&2; return 1; }
zmodload zsh/zpty
case $1 in
  bash) zpty shell bash --noprofile --norc -i; start='. /usr/share/bash-completion/bash_completion; bind "set show-all-if-ambiguous on"' ;;
  zsh) zpty shell zsh -f; start='autoload -U compinit; compinit -D; bindkey "^I" list-choices' ;;
esac
zpty -w shell "$start; echo LOA\"\"DED"
zpty -r shell seen '*LOADED*'
zpty -n -w shell "$2"$'\t'
zpty -r shell seen "*$3*"
END
  echo "$1, $2: offers $3"
}
