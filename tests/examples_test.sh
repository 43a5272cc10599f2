#!/usr/bin/env bash
# examples_test.sh SOURCES: the worked examples of doc/protocol.md, without their remarks, against the files of
# bytes that other tests read.
set -euo pipefail
export LC_ALL=C

# One line an example, sorted by name: their order is free.
one_a_line() {
    sed 's/ *#.*//; /^$/d' | sed ':more; N; s/\n   //; t more; P; D' | sort
}
examples=$(sed -n '/^```/,/^```/p' "$1/doc/protocol.md" | sed -n '/^[a-z-]*: [0-9a-f][0-9a-f] /,/^$\|^```/p' |
    sed '/^```/d' | one_a_line)
(($(wc -l <<<"$examples") > 20))
diff <(echo "$examples") <(cat "$1/tests/data/packets.txt" "$1/tests/data/records.txt" | one_a_line)
