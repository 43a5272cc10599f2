#!/usr/bin/env bash
# The manuals against what they tell of: sources, tables, help texts, and the real command before a rehearsal server.
# Arguments: the top directory of the sources, zynrexec, zynrehearse, zynrexec with failing calls, and, where it is
# built, zynconfig.
set -euo pipefail
export LC_ALL=C
sources=$1 rexec=$2 rehearse=$3 shortage=$4 zynconfig=${5-}
pages=$sources/doc/man
data=$sources/tests/data
code=$sources/src/linux/server/command/rexec/src
folder=$(mktemp -d)
started=()
failures=0
cleanup() {
    ((${#started[@]} == 0)) || kill "${started[@]}" 2>/dev/null || true
    wait 2>/dev/null
    rm -rf "$folder"
}
trap cleanup EXIT
cd "$folder"

command -v mandoc >/dev/null || {
    echo "skipped: mandoc is not installed"
    exit 77
}

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}
# expect_same WHAT FILE FILE: the same lines, of which there are some, in any order.
expect_same() {
    sort -u "$2" >one
    sort -u "$3" >other
    [[ -s one && -s other ]] || fail "$1: nothing was found"
    diff one other >difference || {
        fail "$1"
        sed -n 's/^</  only in the first:  /p; s/^>/  only in the second: /p' difference
    }
}
# blocks PAGE: its literal blocks as a reader copies them, behind each a line with a form feed.
blocks() {
    sed -n '/^[.]Bd -literal/,/^[.]Ed/ { s/^[.]Ed/\f/; /^[.]Bd/d; p }' "$pages/$1" |
        sed 's/\\(aq/'\''/g; s/\\(ha/^/g; s/\\(ti/~/g; s/\\(ga/`/g; s/\\-/-/g; s/\\&//g; s/\\e/\\/g'
}
# block PAGE TEXT: the one that has a line which begins with this text.
block() {
    blocks "$1" | awk -v text="$2" '
        $0 == "\f" { if (found) printf "%s", held; held = ""; found = 0; next }
        { held = held $0 "\n" }
        index($0, text) == 1 { found = 1 }'
}
# start NAME OPTION...: a rehearsal server, with port and journal in files of that name.
start() {
    (cd "$sources" && exec "$rehearse" --port-file "$folder/$1.port" "${@:2}") >"$1.journal" &
    started+=($!)
    while [[ ! -s $1.port ]]; do kill -0 $!; done
}

echo "-- each page by itself"
for page in "$pages"/*; do
    mandoc -Tlint -W warning "$page" >lint 2>&1 && [[ ! -s lint ]] || fail "mandoc: $(<lint)"
    # Renderers make typographic characters of these, and who copies a line gets something else.
    ! awk '/^[.]Bd -literal/ { inside = 1; next } /^[.]Ed/ { inside = 0 }
        inside { gsub(/\\(e|\(aq|\(ha|\(ti|\(ga|-|&)/, "") } inside && /['\''`^~\\-]/' "$page" | grep . ||
        fail "${page##*/}: characters of a literal block that are not escaped"
    while read -r name section; do
        [[ -e $pages/$name.$section || $name == awk ]] || fail "${page##*/}: there is no $name($section)"
    done < <(sed -n 's/^[.]Xr \([^ ]*\) \([0-9]\).*/\1 \2/p' "$page")
done

echo "-- options"
# page_options PAGE: the items of its lists.
page_options() {
    grep '^[.]It Fl' "$pages/$1" | grep -oE 'Fl -?[a-z][a-z-]*' | sed 's/Fl /-/'
}
# help_options: those that begin a line of the help on standard input.
help_options() {
    sed -nE 's/^  (-[^ ]*).*/\1/p' | tr , '\n'
}
no_stray_options() {
    grep -oE 'Fl -?[a-z][a-z-]*' "$pages/$1" | sed 's/Fl /-/' >mentioned
    ! sort -u mentioned | comm -23 - <(sort -u told) | grep . || fail "$1 mentions what is no option"
}
"$rexec" --help >usage
page_options zynrexec.8 >told
expect_same "options of zynrexec: page (first), table of the command line (second)" told \
    <(sed -nE 's/^ +\{"(--?[a-z]+)", take_.*/\1/p' "$code/rexec/option.cpp")
expect_same "options of zynrexec: page (first), usage and --help (second)" told \
    <(grep -oE '[ {|[]--?[a-z]+' usage | sed 's/^.//' && echo --help)
no_stray_options zynrexec.8
diff <(block zynrexec-results.7 "Usage: ") usage || fail "the usage text in zynrexec-results.7"
"$rehearse" --help >help
page_options zynrehearse.8 >told
expect_same "options of zynrehearse: page (first), --help (second)" told <(help_options <help)
no_stray_options zynrehearse.8
expect_same "faults: page (first), --help (second)" \
    <(sed -n 's/ Ns Op : Ns Ar N/[:N]/; s/ : Ns Ar N/:N/; s/^[.]It Cm //p' "$pages/zynrehearse.8") \
    <(sed -nE '/^Faults/,/^$/s/^  ([^ ]+) .*/\1/p' help)
expect_same "attributes of the cluster file: page (first), reader (second)" \
    <(sed -nE 's/^[.](It )?Li "?<([^>]*)>.*/\2/p' "$pages/zynrehearse.8" | sed 's/^[a-z]*//' | tr ' ' '\n' | grep .) \
    <(grep -ohE '(take|text|required|number|integer|word|flag|list)\("[a-z-]+"' "$sources/tools/rehearsal/cluster_file.cpp" |
        sed 's/.*("//; s/"//')
if [[ -n $zynconfig ]]; then
    "$zynconfig" --help >help
    page_options zynconfig.8 >told
    expect_same "subcommands of zynconfig: page (first), --help (second)" \
        <(sed -n 's/^[.]It Cm \([a-z]*\).*/\1/p' "$pages/zynconfig.8") \
        <(sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p' help)
    for subcommand in $(sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p' help); do
        "$zynconfig" "$subcommand" --help
    done >>help
    expect_same "options of zynconfig: page (first), --help (second)" told <(help_options <help)
    no_stray_options zynconfig.8
else
    echo "zynconfig is not part of this build: its page is held against nothing"
fi

echo "-- keys and environment"
# The rows of the table as the items of the page.
awk -F ' *[|] *' '
    function sentence(text) { return toupper(substr(text, 1, 1)) substr(text, 2) "." }
    /^\| `\/root\// {
        gsub(/`/, "")
        gsub(/[.] /, ".\n")
        print ".It Pa " $2
        print sentence($3 ($4 == "" ? "" : ", " $4) ($5 == "" ? "" : ": " $5))
        print $6 == "none" ? "No default." : "Default " $6 "."
        print "Policy " $7 "."
        print sentence("read by " $8 ($9 == "yes" ? "" : ", " $9))
        sub(/^none/, "no effect", $10)
        print sentence($10)
    }' "$sources/doc/configuration.md" >rows
(($(grep -c '^[.]It' rows) > 50)) || fail "the table of keys was not found"
sed -n '/^[.]Sh KEYS/,/^[.]Sh EXAMPLES/p' "$pages/zyn.conf.5" | sed '1,/^[.]Ss Policy/d' |
    grep -v '^[.]\(Ss\|Bl\|El\|Sh\)' >items
diff <(fold -s -w 79 rows | sed 's/ $//') items || fail "keys: the table of configuration.md (<), zyn.conf.5 (>)"
blocks zyn.conf.5 | awk -v RS='\f\n' '/^</ { print >("example" ++n ".xml") }'
for example in example*.xml; do
    xmllint --noout "$example" || fail "an example of zyn.conf.5"
done
expect_same "environment: page (first), sources (second)" \
    <(sed -n 's/^[.]It Ev \(ZYN\)/\1/p' "$pages/zynrexec.8") <(grep -rhoE '"ZYN[A-Z]+_ENV_[A-Z]+"' "$code" | tr -d '"')

echo "-- texts of the sources"
# What may reach standard output: the texts of print(), and all of the report's but its traces.
statements() {
    sed 's,^ *//.*,,; s, // .*,,; /^#include/d' "$1" | tr '\n' ' ' |
        sed -E 's/"  +"//g; s/(REXEC_TRACE|rexeccllog)\([^;]*;//g'
}
texts_of() {
    grep -oE '"([^"\\]|\\.)*"' | sed -E 's/^"//; s/"$//; s/\\n/\n/g; s/\\t/ /g' | sed -E 's/%[a-z]/%/g; s/ +/ /g; s/^ //; s/ $//' |
        sed -E 's/^(preaction script)(\[.*\]),$/\1%,\n\2/' | grep '[A-Za-z?]' || true
}
for file in "$code"/rexec/*.cpp "$code/rexec.cpp"; do
    if [[ $file == */report.cpp ]]; then statements "$file"; else
        statements "$file" | grep -oE '\bprint\([^;]*;' || true
    fi | texts_of
done >in_sources
page_texts() {
    sed -nE "$1"' s/^[.]It Ql "(.*)"$/\1/p' "$pages/zynrexec-results.7" | sed -E 's/\\fI[^\\]*\\fP/%/g; s/\\&//g'
}
page_texts '' | sort >in_page
# A name, or one of several texts, stands for what is printed there.
expect_same "texts: sources (first), zynrexec-results.7 (second)" in_sources in_page
# Nothing else writes to the standard streams: the log library does it for who sets dbgprint, and nobody does.
! grep -rE '\b(std(out|err)|STD(OUT|ERR)_FILENO|cout|cerr|putchar|perror)\b|\b(puts|printf)\(' "$code" --include='*.cpp' |
    grep -v 'rexec/output[.]cpp:\|fd <= STDERR_FILENO\|/log/line[.]cpp:' | grep . ||
    fail "standard output may be written here, too"
! grep -rnE '\bdbgprint *=[^=]' "$code" | grep -v 'int32_t dbgprint = 0;' | grep . || fail "dbgprint is set here"

echo "-- texts of the command"
# One address for each status, and a monitor for each row that a cluster file can tell.
mapfile -t statuses < <(cut -d'|' -f1 "$data/result_lines.txt" | grep -v '^#' | sort -nu)
addresses=() faults=()
for i in "${!statuses[@]}"; do
    addresses+=("127.0.1.$((i + 1))")
    faults+=(--fault "${addresses[i]}=status:${statuses[i]}")
done
awk -F'|' -v OFS='"' '
    BEGIN { split("restart failover other script", type, " "); print "<cluster>" }
    /^[-0-9]/ {
        kind = $4 >= 0 && $4 <= 3 ? type[$4 + 1] : "other"
        print "<monitor name=", sprintf("m%02d", ++n), " category=", "C", " acttype=", kind, " action=", $5, " result=",
            $1, " active=", $1 == 35 ? "no" : "yes", " error=", $1 == 36 ? "yes" : "no",
            " clear-result=", n % 3 ? 0 : 29, ">" ($2 == 38 ? "" : sprintf("<preaction status=\"%d\" exitcode=\"%d\"/>",
            $2, $3)) "</monitor>"
        printf "  m%02d\t: %s\n", n, $6 >"expected_monitors"
    }
    END { print "<scripts><script name=\"ok\"/></scripts></cluster>" }' "$data/monitor_lines.txt" >cluster.xml
start texts -c "$folder/cluster.xml" -l "127.0.0.1,$(IFS=, && echo "${addresses[*]}")" "${faults[@]}"
send() {
    "$rexec" "$@" -p "$(<texts.port)"
}
for request in "--failover g" "--failover -r r" "--script s" "--notice m" "--notice -k C.K" "--clear m"; do
    # shellcheck disable=SC2086
    send $request -h "$(IFS=, && echo "${addresses[*]}"),127.0.2.1"
done >observed
send --script ok >>observed
send --notice -k C >monitors
diff expected_monitors <(sed 1d monitors) || fail "the lines of monitors"
send --clear -k C >>monitors
cat monitors >>observed
status=0
"$rexec" --notice >refused || status=$?
[[ $status == 1 ]] || fail "exit status $status of a wrong line"
diff refused <(echo "Invalid option." && cat usage) || fail "the output of a wrong line"
echo "Invalid option." >>observed
ZYN_TEST_FAIL=calloc:1 "$shortage" --script s >>observed || status=$?
[[ $status == 99 ]] || fail "exit status $status of a shortage"
# Every text of the page but the last section's is seen, and that section's are not.
(($(page_texts '/^[.]Sh TEXTS/,$d;' | wc -l) > 50)) || fail "the texts were not found"
as_expressions() {
    sed -E 's/[][().?|+*]/\\&/g; s/%/.*/g; s/^(.*) : clear/^  \1\t: clear/'
}
while IFS= read -r text; do
    grep -qE -- "$text" observed || fail "told of, but not seen: $text"
done < <(page_texts '/^[.]Sh TEXTS/,$d;' | as_expressions)
while IFS= read -r text; do
    ! grep -E -- "^$text *\$" observed || fail "seen, but told of as never printed: $text"
done < <(page_texts '1,/^[.]Sh TEXTS/d;' | as_expressions)

echo "-- grammar"
block zynrexec-results.7 "label=" >grammar
# shellcheck disable=SC1091
source ./grammar
kinds=(not_sent success refused tried unknown exitcode cleared skipped acted closing unused)
# kind_of_each FILE: for each line the kinds that it matches, a line for each, with its number in front.
kind_of_each() {
    local kind
    for kind in "${kinds[@]}"; do
        grep -nE -- "${!kind}" "$1" | sed "s/:.*/ $kind/" || true
    done | sort -n
}
[[ $(kind_of_each observed | cut -d' ' -f1) == "$(seq "$(wc -l <observed)")" ]] ||
    fail "lines of the command that are not of exactly one kind: $(kind_of_each observed | cut -d' ' -f1 | uniq -c |
        awk '$1 > 1 { print $2 }')"

# The verdict that a text stands under is the kind of its lines.
for verdict in Done=success Refused=refused Tried=tried Unknown=unknown; do
    page_texts "1,/^[.]Ss ${verdict%=*}\$/d; /^[.]S[sh]/,\$d;" | as_expressions |
        sed 's/.*/^[A-Z_]+ [^ ]+ : & *$/' | grep -Ef - observed >lines || true
    [[ -s lines && $(kind_of_each lines | cut -d' ' -f2 | sort -u) == "${verdict#*=}" ]] ||
        fail "${verdict%=*}: $(kind_of_each lines | cut -d' ' -f2 | sort | uniq -c | tr -s ' \n' ' ')"
done

# Lines as other tests want them, in front of them the kind that they are.
rows_of() {
    grep -v '^#' "$data/$1" | grep .
}
{
    rows_of result_lines.txt | awk -F'|' '
        BEGIN {
            split("0 1", list, " "); for (i in list) kind[list[i]] = "success"
            split("2 22 24 25 26 28 31", list, " "); for (i in list) kind[list[i]] = "refused"
            split("29 15 16", list, " "); for (i in list) kind[list[i]] = "tried"
        }
        { print ($1 in kind ? kind[$1] : "unknown") "|MRW_NOTICE 10.0.0.1 : " $5 }'
    rows_of monitor_lines.txt | awk -F'|' '{ print ($1 ~ /^(35|36|6)$/ ? "skipped" : "acted") "|  0123456\t: " $6 }'
    rows_of fault_lines.txt | cut -d'|' -f3 | sed 's/\\n$//' |
        awk '{ print (/^Connect/ ? "not_sent" : /Success/ ? "success" : /Failed|Busy/ ? "unknown" : "refused") "|" $0 }'
    rows_of nodes.txt | cut -d'|' -f5 | sed 's/\\n/\n/g' | grep . | sed 's/^/unused|/'
    rows_of closing_messages.txt | cut -d'|' -f2 | sed 's/\\n/\n/g' | grep . |
        awk '{ print (/^(Invalid option|Internal)/ ? "closing" : "unused") "|" $0 }'
    printf '%s\n' 'exitcode|  script exitcode=0' 'exitcode|  script exitcode=-1' \
        $'cleared|  m\t: clear[Success]' $'cleared|  m\t: clear[Failure]' $'cleared|  m\t: clear[Unknown]'
} >wanted
cut -d'|' -f2- wanted >wanted_lines
diff <(cut -d'|' -f1 wanted) <(kind_of_each wanted_lines | sed 's/^[0-9]* //') ||
    fail "the kinds of lines: wanted (<), by the expressions (>)"
cat >nonsense <<'LINES'

Success 
Failed.
NOTICE a : Success 
GRP_FAILOVER a : Success failed in execute. 
GRP_FAILOVER a : Failed. 
GRP_FAILOVER a : 
EXEC_SCRIPT  : Success 
EXEC_SCRIPT a,b : Success 
Connect a b: Failed 
Connect a : Success 
script exitcode=0
  script exitcode=0 
  m : clear[Success]
  m	: clear[Success]Restart[Success]
  m	: Restart
  m	: Stop[Success]
  m	: preaction script[Success], Restart[Success]
  m	: preaction script[Executed(exitcode=)], Restart[Success]
  m	: preaction script[Timeout], invalid config
LINES
[[ -z $(kind_of_each nonsense) ]] || fail "nonsense that the expressions take: $(kind_of_each nonsense)"
# Each line with one character changed, with one more and with one less. Only a name may be changed.
awk -v OFS='\t' '
    function free_part(line,  host) {
        if (line ~ /^  /) return line ~ /\t/ ? substr(line, 3, index(line, "\t") - 3) : ""
        if (line !~ / : |^Connect/) return ""
        split(line, word, " ")
        host = word[2]
        sub(/:$/, "", host)
        if (line ~ /^Connect [^ ]+ : Failed/) host = host " " # what is left is the line of a server that was not sent to
        return match(line, /\(.*\)/) ? host substr(line, RSTART + 1, RLENGTH - 2) : host
    }
    {
        print NR, free_part($0) >"free"
        for (i = 1; i <= length($0); i++) {
            print substr($0, 1, i - 1) "#" substr($0, i + 1) >"mutants"
            print NR, substr($0, i, 1) >"changed"
        }
        print $0 "x" >"mutants"; print NR, "(one more)" >"changed"
        print substr($0, 1, length($0) - 1) >"mutants"; print NR, "(one less)" >"changed"
        print substr($0, 2) >"mutants"; print NR, "(first gone)" >"changed"
    }' wanted_lines
(($(wc -l <mutants) > 2000)) || fail "too few changed lines"
kind_of_each mutants | cut -d' ' -f1 | sort -nu >accepted
awk -F'\t' -v OFS='\t' '
    FILENAME == "accepted" { accepted[$1] = 1; next }
    FILENAME == "changed" { if (FNR in accepted) left[$1] = left[$1] substr($0, length($1) + 2); next }
    { print $1, left[$1] }' accepted changed free >left
diff free left || fail "what may be changed in a line: names (<), by the expressions (>)"

echo "-- recipes"
block zynrexec-results.7 "failed_ones() {" >recipes
block zynrexec-results.7 "retry_these() {" >>recipes
# shellcheck disable=SC1091
source ./recipes
# In front of each line what is printed of it: + or nothing.
cat >run <<'RUN'
 GRP_FAILOVER 10.0.0.1 : Success 
+GRP_FAILOVER 10.0.0.2 : Group(g) is offline. 
 EXEC_SCRIPT 10.0.0.3 : Success 
   script exitcode=0
+EXEC_SCRIPT 10.0.0.4 : Success 
+EXEC_SCRIPT 10.0.0.5 : Success 
+  script exitcode=10
+Connect 10.0.0.6: Failed 
+MRW_NOTICE 10.0.0.7 : Success 
   a	: preaction script[Executed(exitcode=0)], Failover[Success]
+  b	: preaction script[Executed(exitcode=1)], Failover[Success]
+  c	: preaction script[Timeout], Restart[Success]
   d	: I/O Fencing[Success]
+  e	: Restart[Doing]
+  : Restart[Success]	: already error status, do not action
+MRW_CLEAR 10.0.0.8 : Failed.
 MRW_CLEAR 10.0.0.9 : Success 
   a	: clear[Success]
+MRW_CLEAR 10.0.0.10 : Success 
+  clear[Success]	: clear[Failure]
+  b	: clear[Unknown]
+MRW_CLEAR 10.0.0.11 : Success 
RUN
sed 's/^.//' run | failed_ones >failed
diff <(sed -n 's/^+//p' run) failed || fail "only the failed ones"

# What was asked, the run, the exit status, and what is printed.
while IFS='|' read -r asked run status printed; do
    got=0
    # shellcheck disable=SC2059
    output=$(printf "$run" | retry_these "$asked") || got=$?
    [[ $got == "$status" && $output == "$printed" ]] || fail "retry of \"$run\": $got, \"$output\""
done <<'ROWS'
a,b|Connect a: Failed \nEXEC_SCRIPT b : Success \n  script exitcode=0\n|0|a
a,b|Connect b: Failed \nConnect a: Failed \n|0|a,b
a,a|Connect a: Failed \nConnect a: Failed \n|0|a
::1,b|MRW_CLEAR b : Busy.\nConnect ::1: Failed \n|0|::1
a,b|Connect a: Failed \nMRW_NOTICE b : Failed.\n|0|a
a,b|Connect a: Failed \nGRP_FAILOVER b : Success \n|1|
a,b|Connect a: Failed \nGRP_FAILOVER b : Failed.\n|1|
a,b|Connect a: Failed \nGRP_FAILOVER b : Group(g) is offline. \n|1|
a,a|Connect a: Failed \nEXEC_SCRIPT a : Failed.\n|1|
a|EXEC_SCRIPT a : Failed.\n|1|
a,b|Connect a: Failed \n|2|
a,a|Connect a: Failed \n|2|
a,b|Connect a: Failed \nEXEC_SCRIPT b : |2|
a,b|Connect a: Failed \nConnect b: Fail|2|
a,b|Connect a: Failed \nConnect c: Failed \n|2|
a||2|
a|Invalid option.\n\nUsage: Group Failover\n|2|
ROWS

# Before servers with every kind of fault: what is to be repeated is what no server got.
faulty=(127.0.0.2=refuse 127.0.0.3=busy 127.0.0.4=check-close-before 127.0.0.5=check-reset-header 127.0.0.6=close-before
    127.0.0.7=reset-body 127.0.0.8=wrong-code 127.0.0.9=status:9 127.0.0.10=status:27 127.0.0.11=check-status:28
    127.0.0.12=check-wrong-magic 127.0.0.13=huge-size 127.0.0.14=close-after)
asked=127.0.0.1$(printf ',%s' "${faulty[@]%%=*}")
start faulty -c "$folder/cluster.xml" -l "$asked" "${faulty[@]/#/--fault=}"
"$rexec" --script ok -h "$asked" -p "$(<faulty.port)" >run
retry_these "$asked" <run | tr , '\n' | sort >repeated
# A server tells of an exchange when it is over, which may be after the client has gone.
kill "${started[-1]}"
wait "${started[-1]}" || true
sed -n 's/^[^ ]* \([^ ]*\) <- .*: script script=.*/\1/p' faulty.journal | sort -u >reached
expect_same "to be repeated and reached (first), all (second)" <(cat repeated reached) <(tr , '\n' <<<"$asked")
! comm -12 repeated reached | grep . || fail "to be repeated, but reached"

echo "-- examples"
# run_examples PAGE SERVER: the commands behind "$ " and what they print, in one shell, without blanks at line ends.
run_examples() {
    local port line tree=$folder/tree
    port=$(<"$2.port")
    zynrexec() {
        "$rexec" "$@" -p "$port"
    }
    zynconfig() {
        "$zynconfig" "${@//"/tmp/tree"/"$tree"}" | sed "s,$tree,/tmp/tree,"
    }
    mkdir "$1"
    cd "$1"
    blocks "$1" | awk -v RS='\f\n' '/^\$ / { printf "%s", $0 }' >examples
    while IFS= read -r line <&3; do
        [[ $line == '$ '* ]] || continue
        echo "$line"
        eval "${line#'$ '}" >output
        sed 's/ *$//' output | sort # servers stand in the order in which they answer
    done 3<examples >got
    awk '/^\$ / { close("sort"); print; fflush(); next } { print | "sort" }' examples >wanted
    diff wanted got
}
# start_example PAGE NAME: the server that the page starts, on a port of its own.
start_example() {
    local line
    line=$(block "$1" "zynrehearse -c " | sed 's/\\$//' | tr -d '\n')
    [[ $line == "zynrehearse "* ]] || fail "$1 starts no server"
    # shellcheck disable=SC2046
    start "$2" $(sed 's/^zynrehearse//; s/-p 29002/-p 0/' <<<"$line")
}
# Several wait for a silent server: all at the same time.
running=()
for page in zynrexec.8 zynrehearse.8 zynrexec-results.7; do
    start_example "${page/-results.7/.8}" "example-$page"
    (run_examples "$page" "example-$page") >"$page.difference" 2>&1 &
    running+=($!)
done
for page in zynrexec.8 zynrehearse.8 zynrexec-results.7; do
    wait "${running[0]}" || fail "examples of $page: $(<"$page.difference")"
    running=("${running[@]:1}")
    [[ -s $page/wanted ]] || fail "$page has no examples"
done
told=$(block zynrehearse.8 "... notice" | sed 's/^[.]* //')
grep -qF " 127.0.0.3 <- " example-zynrehearse.8.journal && grep -F "127.0.0.3" example-zynrehearse.8.journal | grep -qF "$told" ||
    fail "the journal of zynrehearse.8: $told"
if [[ -n $zynconfig ]]; then
    "$rehearse" --install-tree "$folder/tree" >/dev/null
    "$zynconfig" --root "$folder/tree" check >/dev/null || fail "a check of a fresh tree: exit status $?"
    cp example1.xml tree/etc/zyn.conf
    (run_examples zynconfig.8 texts) >difference || fail "examples of zynconfig.8: $(<difference)"
    [[ -s zynconfig.8/wanted ]] || fail "zynconfig.8 has no examples"
    echo '<root>' >tree/etc/zyn.conf
    status=0
    "$zynconfig" --root "$folder/tree" check >/dev/null || status=$?
    [[ $status == 2 ]] || fail "a check of a malformed file: exit status $status"
fi

((failures == 0))
