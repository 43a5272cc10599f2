# complete.zsh COMPLETIONS: for each line of standard input, the words that zsh offers behind it, between the line and
# an empty one. The shell that completes is an interactive one on a pseudo-terminal.
zmodload zsh/zpty
folder=$(mktemp -d)
trap 'zpty -d z 2>/dev/null; rm -rf $folder' EXIT
mkfifo $folder/offered
cat >$folder/rc <<RC
PROMPT= fpath=($1/zsh \$fpath)
autoload -Uz compinit
compinit -D -u
bindkey '^I' complete-word
bindkey '^U' kill-whole-line
exec 9>$folder/offered
compadd() {
    if (( \${argv[(I)-[OAD]*]} )); then
        builtin compadd "\$@"
        return
    fi
    local -a offered
    builtin compadd -A offered "\$@"
    (( \$#offered )) && print -rlu9 -- \$offered
}
finish() { print -u9 -- '<end>'; }
rearm() { compprefuncs=(rearm) comppostfuncs=(finish); }
rearm
print -u9 '<end>'
RC
export TERM=dumb COLUMNS=500
zpty z zsh -f -i
zpty -w z "source $folder/rc"
exec 8<$folder/offered
take() {
    local word
    while read -r -t 30 -u8 word && [[ $word != '<end>' ]]; do print -r -- $word; done
    while zpty -r -t z word; do :; done
}
take
while IFS= read -r line; do
    print -r -- $line
    zpty -n -w z $'\x15'$line$'\t'
    take
    print
done
