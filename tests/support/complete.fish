# complete.fish COMPLETIONS: for each line of standard input, the words that fish offers behind it, between the line
# and an empty one.
for file in $argv[1]/fish/*
    source $file
end
while read -l line
    printf '%s\n' $line
    complete -C $line | string replace -r '\t.*' ''
    echo
end
