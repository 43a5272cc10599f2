# complete.bash COMPLETIONS: for each line of standard input, the words that bash would offer behind it, between the
# line and an empty one.
for file in "$1"/bash/*; do source "$file"; done
while IFS= read -r line; do
    echo "$line"
    COMP_LINE=$line COMP_POINT=${#line} COMP_WORDS=() COMP_CWORD=0
    read -ra COMP_WORDS <<<"$line"
    [[ $line != *' ' ]] || COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    function=$(complete -p "${COMP_WORDS[0]}" | grep -o -- '-F [^ ]*')
    COMPREPLY=()
    ${function#-F } "${COMP_WORDS[0]}" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
    # Readline leaves alone what stands in front of the word as it parts the line: at these signs, too.
    head=
    [[ $COMP_WORDBREAKS != *:* || ${COMP_WORDS[-1]} != *[:=]* ]] || head=${COMP_WORDS[-1]%"${COMP_WORDS[-1]##*[:=]}"}
    ((${#COMPREPLY[@]} == 0)) || printf "%s\n" "${COMPREPLY[@]/#/"$head"}"
    echo
done
