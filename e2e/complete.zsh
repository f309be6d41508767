# zsh -f complete.zsh ROOT FILE TEXT <LINES: types each line and Tab into a real interactive
# zsh whose completion system finds its functions as it does for its user, in the default
# $fpath, but taken under ROOT first (a staged install; folders of the default $fpath that
# hold a devupdate or devsim completion are left out, so that only ROOT's can be found). It
# prints for each line the line, the line after Tab and what was offered (bytewise sorted,
# each once), "|" between them. compadd is wrapped to record every match as it is added. FILE
# exists while a line holding TEXT is completed, and only then.
zmodload zsh/zpty
zpty -b z zsh -f -i
LC_ALL=C  # here only, for the sorting: the interactive zsh keeps the caller's locale
zpty -w z "PS1= PROMPT_EOL_MARK=; root=${(q)1}"
zpty -w z 'own=(); for d in $fpath; do [[ -e $d/_devupdate || -e $d/_devsim ]] || own+=($d); done'
zpty -w z 'fpath=(${fpath/#\//$root/} $own); autoload -Uz compinit; compinit -u -D'
zpty -w z 'unsetopt beep auto_list auto_menu list_ambiguous; bindkey "^I" complete-word; typeset -ga offered'
zpty -w z 'compadd() { local -a seen; (( ${@[(I)-[OAD]*]} )) || builtin compadd -O seen "$@"; offered+=($seen); builtin compadd "$@" }'
# The markers are written as escapes so that the echo of this definition does not match.
zpty -w z 'report() { print -r -- $'"'"'\x02'"'"'"${(pj:\x01:)offered}|$BUFFER"$'"'"'\x03'"'"'; offered=() BUFFER= }'
zpty -w z 'zle -N report; bindkey "^X" report'
while IFS= read -r line; do
  if [[ $line == *$3* ]]; then : >$2; else rm -f $2; fi
  zpty -n -w z "$line"$'\t\x18'
  zpty -r -m z out $'*\x02*\x03*' || exit 1
  out=${${out##*$'\x02'}%%$'\x03'*}
  offered=(${(ps:\x01:)out%|*})
  print -r -- "$line|${out##*|}|${(j:|:)${(@ou)offered}}"
done
zpty -d z
