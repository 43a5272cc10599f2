#!/usr/bin/env bash
# Holds the policies, the sample configuration, the table of doc/configuration.md and the keys in the sources
# together. Argument: the top directory of the sources.
set -euo pipefail
export LC_ALL=C
cd "$1"
table=doc/configuration.md
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# Prints "KIND PATH VALUE FILE", parted by tabs, for each element without another one in it. KIND is "value",
# or "example" inside a comment. A step with attributes is written name@value, as the command looks it up.
elements() {
    awk '
    function leave(value) {
        if (was_open) print (comment ? "example" : "value") "\t" path "\t" value "\t" FILENAME
        if (was_open && remarked) print "remark\t" path "\t\t" FILENAME
        sub(/\/[^\/]*$/, "", path)
        was_open = 0
    }
    function tag(text,  name) {
        name = text
        sub(/[ \/].*/, "", name)
        if (match(text, /="[^"]*"/)) name = name "@" substr(text, RSTART + 2, RLENGTH - 3)
        path = path "/" name
        if (!comment && seen[path]++) print "twice\t" path "\t\t" FILENAME
        was_open = 1
        remarked = 0
        if (text ~ /\/$/) leave("")
    }
    { all = all $0 "\n" }
    END {
        while ((at = index(all, "<")) || index(all, "-->")) {
            end = index(all, "-->")
            if (comment && end && (!at || end < at)) { comment = 0; all = substr(all, end + 3); continue }
            before = substr(all, 1, at - 1)
            all = substr(all, at)
            if (all ~ /^<!--/) { comment = 1; remarked = 1; all = substr(all, 5); continue }
            close_at = index(all, ">")
            inner = substr(all, 2, close_at - 2)
            all = substr(all, close_at + 1)
            if (inner ~ /^\?/) continue
            if (inner ~ /^\//) leave(before); else tag(inner)
        }
    }' "$1"
}

# The rows of the table: "KEY DEFAULT POLICY READ", parted by tabs. A default is in backquotes, or none.
rows() {
    awk -F ' *[|] *' -v OFS='\t' '/^\| `\/root\// {
        key = $2; gsub(/`/, "", key)
        value = $6 == "`\"\"`" ? "``" : $6
        print key, value, $7, $9
    }' "$table"
}

# expect_same WHAT FILE FILE: two sorted lists, each line of which must be in both.
expect_same() {
    diff "$2" "$3" >"$folder/difference" && return
    fail "$1"
    sed -n 's/^</  only in the first:  /p; s/^>/  only in the second: /p' "$folder/difference"
}

# Turns keys with %s and %d into expressions that match the paths they stand for.
patterns() {
    sed -e 's/%s/[^\/@]*/g' -e 's/%d/[0-9]*/g'
}

for policy in etc/policy/*.pol; do
    xmllint --noout --nonet "$policy" || fail "$policy is not well-formed"
    elements "$policy"
done >"$folder/elements"
rows >"$folder/rows"
(($(wc -l <"$folder/rows") > 50)) || fail "the table of $table was not found"
! cut -f1 "$folder/rows" | sort | uniq -d | grep . || fail "keys that stand twice in the table"
! awk -F'\t' '$4 != "yes" && $4 != "not read yet"' "$folder/rows" | grep . || fail "unknown mark in the column Read"
! grep -P '^(twice|remark)\t' "$folder/elements" ||
    fail "an element hides one behind it (twice), or a comment hides a value (remark)"
# An element whose value starts or ends with white space, or goes over lines: the file has no such line.
! awk -F'\t' 'NF != 4 || $3 != "" && $3 ~ /^[ ]|[ ]$/' "$folder/elements" | grep . ||
    fail "a value with white space around it"

# Policies and table: keys with a default, and where each stands. One of a pattern is told by the pattern.
awk -F'\t' '$1 ~ /%/ { print $1 }' "$folder/rows" | patterns | sed 's/.*/^[a-z]*\t&\t/' >"$folder/of_patterns"
grep -v -f "$folder/of_patterns" "$folder/elements" >"$folder/plain"
awk -F'\t' '$1 == "value" { print $2 "\t" $3 "\t" $4 }' "$folder/plain" |
    sed -E 's,etc/policy/([a-z]+)[.]pol$,\1,' | sort >"$folder/in_policies"
awk -F'\t' '$1 !~ /%/ && $2 != "none" { gsub(/`/, "", $2); print $1 "\t" $2 "\t" $3 }' "$folder/rows" |
    sort >"$folder/in_table"
expect_same "keys, defaults and policies: etc/policy (first), $table (second)" \
    "$folder/in_policies" "$folder/in_table"

# The rest are those of patterns, and examples in comments, of which a default is the value.
{
    grep '^example' "$folder/plain"
    grep -f "$folder/of_patterns" "$folder/elements"
} | awk -F'\t' '{ print $2 "\t" $3 "\t" $4 }' >"$folder/examples"
awk -F'\t' '$1 ~ /%/ || $2 == "none"' "$folder/rows" >"$folder/without_value"
: >"$folder/matched"
while IFS=$'\t' read -r key default policy _; do
    grep -P "^$(patterns <<<"$key")\t.*\tetc/policy/$policy[.]pol\$" "$folder/examples" >"$folder/found" ||
        fail "$key has no example in etc/policy/$policy.pol"
    if [[ $default != none ]] && ! cut -f2 "$folder/found" | grep -qxF -- "${default//\`/}"; then
        fail "the example of $key in etc/policy/$policy.pol does not show the default $default"
    fi
    cat "$folder/found" >>"$folder/matched"
done <"$folder/without_value"
expect_same "examples in etc/policy (first), keys without a default and patterns in $table (second)" \
    <(sort "$folder/examples") <(sort "$folder/matched")

cut -f1 "$folder/rows" | patterns >"$folder/patterns"

# The configurations: nothing in force, and examples of keys that exist.
for file in etc/zyn.conf etc/zyn.conf.sample; do
    xmllint --noout --nonet "$file" || fail "$file is not well-formed"
    elements "$file" >"$folder/sample"
    ! grep -P '^value\t(?!/root\t)' "$folder/sample" || fail "$file overrides something"
    ! sed -n 's/^example\t\([^\t]*\).*/\1/p' "$folder/sample" | grep -vxf "$folder/patterns" ||
        fail "$file shows what is no key"
done
grep -q '^example' "$folder/sample" || fail "the sample shows nothing"

# Sources and table: the keys that are read. One key is only named in a message.
message_only=/root/rexec/path
grep -rh --include='*.cpp' --include='*.h' '"/root/' src | sed 's,//.*,,' | grep -o '"/root/[^"]*"' |
    tr -d '"' | sort -u >"$folder/in_sources"
# Elements that are told by an attribute are listed by the path in front of it.
awk -F'\t' '$4 == "yes" && $1 ~ /@%s/ { sub(/@%s.*/, "", $1); print $1 }' "$folder/rows" | sort -u >"$folder/listed"
! comm -13 "$folder/in_sources" "$folder/listed" | grep . || fail "the elements of these keys are not listed by src"
sed -i -f <(sed 's/.*/\\,^&$,d/' "$folder/listed") "$folder/in_sources"
grep -qx "$message_only" "$folder/in_sources" || fail "$message_only is in no message any more"
sed -i "\\,^$message_only\$,d" "$folder/in_sources"
awk -F'\t' '$4 == "yes" { print $1 }' "$folder/rows" | sort >"$folder/read"
expect_same "keys that are read: src (first), $table (second)" "$folder/in_sources" "$folder/read"
awk -F'\t' '$4 != "yes" { print $1 }' "$folder/rows" | sort | comm -12 - "$folder/in_sources" >"$folder/marked"
[[ ! -s $folder/marked ]] || fail "marked as not read yet, but read by src: $(tr '\n' ' ' <"$folder/marked")"

# Sources and table: the defaults of the client's table of settings.
grep -rhE --include='*.cpp' '^ *\{"/root/.*\},$' src |
    sed -E 's/^ *\{"([^"]*)", .*, "?([^" ]*)"?\},$/\1\t\2/' | grep -v '^/root/all/path' | sort >"$folder/built_in"
(($(wc -l <"$folder/built_in") >= 10)) || fail "the defaults in the sources were not found"
cut -f1,2 "$folder/in_table" | grep -Ff <(cut -f1 "$folder/built_in" | sed 's/$/\t/') >"$folder/told" || true
expect_same "defaults: src (first), $table (second)" "$folder/built_in" "$folder/told"

# The message catalogues: known keys, levels and destinations, no number twice, nothing that is cut or refused.
for catalogue in etc/messages/*.msg.us; do
    ! awk -F ' *= *' '/^$|^;/ { next }
        { text = $0; gsub(/%%/, "", text) }
        length > 543 || !/^(ID|LVL|SEND|MSG) *= [^ ]/ || text ~ /%[^sd]/ { print; next }
        $1 == "ID" && ($2 !~ /^[0-9]+$/ || seen[$2]++) { print }
        $1 == "LVL" && $2 !~ /^(INFO|WARN|ERROR)$/ { print }
        $1 == "SEND" && (", " $2) !~ /^(, (syslog|alert|mail|trap|altexec|pubsub|uptime))+$/ { print }' "$catalogue" |
        grep . || fail "lines of $catalogue that make no sense"
done

((failures == 0))
