#!/usr/bin/env bash
# drills_test.sh BIN INSTALL_DIR SOURCES [PAGE...]: plays the pages of doc/drills, or those that are named, side by
# side, each in a drill room of its own: every command of their console blocks has to print what the page says, with
# the exit status and within the time that it says. doc/drills/README.md tells how a page is built.
# Without drill rooms the pages that need none are played outside, on a port that is free.
set -euo pipefail
export LC_ALL=C
self=$(cd "$(dirname "$0")" && pwd)/${0##*/}
bin=$1 install_dir=$2 sources=$3
shift 3
slack_ms=${ZYN_DRILL_SLACK_MS:-5000} # for a busy machine, over the time that a page states

# ---- one page ----

failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# mask: what differs from run to run, as doc/drills/README.md lists it.
mask() {
    sed -E 's#\b([0-9]{4}|[0-9]{2})/[0-9]{2}/[0-9]{2} #DATE #g
            s#\b[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\b#TIME#g
            s#\[[0-9]+:[0-9a-f ]+\]( *[a-z]*:)?[0-9]{5}#[IDS]\1LINE#
            s# <- ([0-9.]+) [0-9]+:# <- \1 PORT:#
            s#0x[0-9a-f]{8,16}\b#ADDRESS#g; s#sock=[0-9]+#sock=N#
            s# +$##'
}

# by_server: the lines of each server stay together, the servers stand in any order.
by_server() {
    awk '{ printf "%s%s", NR == 1 ? "" : /^  / ? "\001" : "\n", $0 } END { if (NR) print "" }' | sort | tr '\001' '\n'
}

# compare: whether $folder/out is what the page says.
compare() {
    local order=cat
    [[ $command != 'zynrexec '* ]] || order=by_server
    printf '%s' "$wanted" | mask | $order >"$folder/page" && mask <"$folder/out" | $order >"$folder/masked" &&
        diff "$folder/page" "$folder/masked" >"$folder/diff" && [[ -z $wanted || -s $folder/page ]]
}

now_ms() {
    echo "${EPOCHREALTIME/./}" | sed 's/...$//'
}

# milliseconds SECONDS: of a number such as 4 or 0.1.
milliseconds() {
    awk -v s="$1" 'BEGIN { printf "%d", s * 1000 }'
}

# A command in the background has started once it waits for something.
await_started() {
    local i
    for ((i = 0; i < 500; i++)); do
        [[ $(sed -n 's/^State:\t\(.\).*/\1/p' "/proc/$1/status" 2>/dev/null) == R ]] || return 0
        sleep 0.01
    done
}

run_once() {
    local begin
    status=0
    begin=$(now_ms)
    set +eu +o pipefail # as an operator's shell
    eval "$command" >"$folder/out" 2>&1 </dev/null
    status=$?
    set -eu -o pipefail
    spent=$(($(now_ms) - begin))
}

# play_command: $command, whose output is $wanted and whose exit status and time are $closing.
play_command() {
    local form='^# exit status ([0-9]+)(, from ([0-9.]+) to ([0-9.]+) s)?( \(.*\))?$' tries=1 i
    local status=0 spent=0 expected=0 least= most=
    if [[ $closing =~ $form ]]; then
        expected=${BASH_REMATCH[1]} least=${BASH_REMATCH[3]} most=${BASH_REMATCH[4]}
    elif [[ -n $closing ]]; then
        fail "no line of this form: $closing"
    fi
    [[ $command != 'zynrexec '* || $command == *'&' || -n $least ]] || fail "exit status and time are not told"
    # What another process writes into a file comes when it comes.
    [[ ! $command =~ ^(cat|grep|tail|sed)\  ]] || tries=100
    for ((i = 0; i < tries; i++)); do
        run_once
        if compare && ((status == expected)); then
            break
        fi
        ((tries == 1)) || sleep 0.05
    done
    echo "\$ $command"
    cat "$folder/out"
    echo "# exit status $status, after $spent ms"
    [[ $command != *'&' ]] || await_started $!
    compare || {
        fail "another output (the page <, the command >):"
        cat "$folder/diff"
    }
    ((status == expected)) || fail "exit status $status, the page says $expected"
    ((tries > 1)) && return
    # Waits are counted in ticks of 10 ms, so that one may end a little early.
    ((spent + 50 >= $(milliseconds "${least:-0}"))) || fail "after $spent ms, the page says from $least s"
    ((spent <= $(milliseconds "${most:-5}") + slack_ms)) || fail "after $spent ms, the page says up to $most s"
}

# play_page PAGE: in the current directory.
play_page() {
    local line command='' wanted='' closing='' inside=no commands=0
    folder=$(mktemp -d)
    finish_command() {
        [[ -z $command ]] || play_command
        command='' wanted='' closing=''
    }
    while IFS= read -r line; do
        line=${line//\/opt\/orvane\/velatrix/$install_dir}
        case $inside,$line in
        no,'```console') inside=yes ;;
        yes,'```')
            finish_command
            inside=no
            ;;
        yes,'$ '*)
            finish_command
            command=${line#\$ }
            commands=$((commands + 1))
            ;;
        yes,'# exit status '*) closing=$line ;;
        yes,*)
            [[ -n $command && -z $closing ]] || fail "an output without a command: $line"
            wanted+=$line$'\n'
            ;;
        esac
    done <"$1"
    [[ $inside == no ]] || fail "a block that does not end"
    ((commands > 0)) || fail "no command in the page"
    [[ -z $(jobs -pr) ]] || {
        fail "still runs at the end"
        { kill -KILL $(jobs -pr) && wait; } 2>/dev/null
    }
    rm -rf "$folder"
    ((failures == 0))
}

# Outside of a drill room the port 29002 may be taken: the first server takes a free one, and so do all the others
# and the command.
play_outside() {
    outside=$(mktemp -d)
    trap 'kill -KILL $(jobs -pr) 2>/dev/null || true; rm -rf "$outside"' EXIT
    cp -r "$sources/tools/rehearsal/cluster.xml" "$sources/tools/rehearsal/scripts" "$outside"
    cd "$outside"
    zynrehearse() {
        local port=0
        [[ ! -s $outside/port ]] || port=$(<"$outside/port")
        exec "$bin/zynrehearse" "${@/#29002/$port}" --port-file "$outside/port"
    }
    zynrexec() {
        local port=1 # nobody listens there
        while [[ -n $(jobs -p) && ! -s $outside/port ]]; do sleep 0.01; done
        [[ ! -s $outside/port ]] || port=$(<"$outside/port")
        [[ " $* " == *' -p '* ]] || set -- "$@" -p 29002
        "$bin/zynrexec" "${@/#29002/$port}"
    }
    eval "$(declare -f mask | sed '1s/mask/mask_rest/')"
    mask() {
        mask_rest | sed "s/\<$(cat "$outside/port" 2>/dev/null || echo 29002)\>/29002/g"
    }
    play_page "$1"
}

# needs_room PAGE: whether it leads out of loopback or to an installation.
needs_room() {
    grep -qE '^\$.*(/opt/|192\.0\.2\.)' "$1"
}

case ${1-} in
--play)
    play_page "$2"
    exit
    ;;
--play-outside)
    play_outside "$2"
    exit
    ;;
esac

# ---- all pages ----

pages=("$@")
((${#pages[@]} > 0)) || pages=("$sources"/doc/drills/*.md)
report=$(mktemp -d)
trap 'rm -rf "$report"' EXIT
drill_room=("$sources/scripts/drill_room" "$bin" "$install_dir")
mode=--play
reason=$("${drill_room[@]}" true 2>&1) || {
    echo "$reason: pages are played outside, those that need a room are left out"
    mode=--play-outside drill_room=()
}

played=()
for page in "${pages[@]}"; do
    [[ -e $page ]] || page=$sources/doc/drills/${page%.md}.md
    name=$(basename "$page" .md)
    if [[ $mode == --play-outside ]] && needs_room "$page"; then
        echo "skipped: $name"
        continue
    fi
    TMPDIR=$report timeout -k 1 50 "${drill_room[@]}" bash "$self" "$bin" "$install_dir" "$sources" "$mode" "$page" \
        >"$report/$name" 2>&1 &
    played+=("$name $!")
done
((${#played[@]} > 0)) || exit 77

wrong=0
for one in "${played[@]}"; do
    read -r name process <<<"$one"
    echo "-- $name"
    wait "$process" || {
        wrong=$((wrong + 1))
        echo "FAILED: the page $name" >>"$report/$name"
    }
    cat "$report/$name"
done
echo "${#played[@]} pages played, $wrong of them wrong"

# ---- what holds for all pages, and for this test ----

# headings_of FILE: its headings as the ends of links to them.
headings_of() {
    sed -nE 's/^#+ //p' "$1" | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}
# console_blocks FILE: the commands in it, and what they print.
console_blocks() {
    sed -n '/^```console$/,/^```$/ { /^```/d; p }' "$1"
}

if (($# == 0)); then
    headings='What you see,What it means,What it does not prove,What to check next,Drill it,How it ends,'
    for page in "$sources"/doc/drills/*.md; do
        name=$(basename "$page")
        if [[ $name != README.md ]]; then
            [[ $(sed -n 's/^## //p' "$page" | tr '\n' ,) == "$headings" ]] ||
                fail "$name: other headings than $headings"
            grep -q "]($name)" "$sources/doc/drills/README.md" || fail "$name is not in the index"
        fi
    done
    for page in "$sources"/README.md "$sources"/doc/*.md "$sources"/doc/drills/*.md; do
        while read -r link; do
            file=$page
            [[ $link == "#"* ]] || file=$(dirname "$page")/${link%%#*}
            [[ -e $file ]] || fail "$page: $link leads nowhere"
            [[ $link != *"#"* ]] || headings_of "$file" | grep -qxF "${link#*#}" || fail "$page: no heading for $link"
        done < <(grep -oE '\]\([^)]+\)' "$page" | sed 's/^](//; s/)$//')
    done
    # What the README shows of the first drill is how its page begins.
    shown=$(console_blocks "$sources/README.md")
    [[ -n $shown && $(console_blocks "$sources/doc/drills/first-failover.md") == "$shown"$'\n'* ]] ||
        fail "README.md does not show the beginning of first-failover.md"
    # A page that is wrong in every way has to be found wrong in every way, and in no other.
    status=0
    ZYN_DRILL_SLACK_MS=0 bash "$self" "$bin" "$install_dir" "$sources" --play "$sources/tests/data/wrong_drill.md" \
        >"$report/wrong" || status=$?
    ((status != 0)) || fail "the page with mistakes is played without one"
    sed -n '/^FAILED/{s/[0-9]* ms/MS/; p}' "$report/wrong" |
        diff <(sed -n 's/^- FAILED/FAILED/p' "$sources/tests/data/wrong_drill.md") - || fail "other mistakes"
fi
((wrong == 0 && failures == 0))
