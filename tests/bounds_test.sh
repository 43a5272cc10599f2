#!/usr/bin/env bash
# bounds_test.sh SOURCE_DIR ZYNREHEARSE ZYNREXEC ZYNREXEC_INSTALLED INSTALL_DIR [SANITIZERS]: the tables of
# doc/bounds.md against the defaults of doc/configuration.md, and against runs to 1, 100 and 1,000 targets.
set -euo pipefail
export LC_ALL=C
source_dir=$1 rehearse=$2 rexec=$3 installed=$4 install_dir=$5 sanitizers=${6-}
# What the caller left open would be counted.
for fd in $(ls /proc/$$/fd); do
    ((fd <= 2 || fd == 255)) || eval "exec $fd>&-"
done
page=$source_dir/doc/bounds.md script=$(realpath "$0")
failures=0
# A sanitizer has memory, and may have a thread, of its own; and huge pages may make a stack 2 MiB.
own_threads=0 memory_is_ours=1
[[ $sanitizers != thread ]] || own_threads=1
if [[ -n $sanitizers ]] || grep -qs '\[always\]' /sys/kernel/mm/transparent_hugepage/enabled; then
    memory_is_ours=0
    [[ ${7-} == inside ]] || echo "not checked: resident memory, which a sanitizer or huge pages change"
fi
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}
now() { echo $((${EPOCHREALTIME/./} / 1000)); }

# rows HEADING: the rows of the table below a heading, their cells parted by "|", without code marks and
# blanks at their ends.
rows() {
    awk -v heading="## $1" '
        /^## / { found = $0 == heading; head = 0 }
        found && /^\|/ && ++head > 2 { gsub(/`/, ""); gsub(/ *\| */, "|"); print substr($0, 2, length($0) - 2) }
    ' "$page" | grep . || { echo "no table \"$1\" in $page" >&2 && kill $$; }
}

# evaluate NAME=VALUE...: every setting and term of the page as a variable, with these settings.
evaluate() {
    local name key value expression
    while IFS='|' read -r name key value _; do
        declare -g "$name=${value:-0}"
    done < <(rows Settings)
    for value in "$@"; do
        declare -g "$value"
    done
    while IFS='|' read -r name expression _; do
        declare -g "$name=$((expression))"
    done < <(rows "Wall time")
}

# watch PID: its largest number of threads and of descriptors, sampled, and the peak of its memory in KiB.
watch='my ($threads, $descriptors, $memory) = (0, 0, 0);
while (open my $status, "<", "/proc/$ARGV[0]/status") {
    my $text = join "", <$status>;
    $text =~ /^VmHWM:\s+(\d+)/m or last;
    $memory = $1;
    $text =~ /^Threads:\s+(\d+)/m && $1 > $threads and $threads = $1;
    opendir my $fds, "/proc/$ARGV[0]/fd" or last;
    my $count = grep !/^\./, readdir $fds;
    $descriptors = $count if $count > $descriptors;
    select undef, undef, undef, 0.05;
}
print "$threads $descriptors $memory\n"'

# go NAME DESCRIPTORS WORD...: runs the words in the folder NAME, with so many descriptors at most; what came of
# it is in NAME.out and NAME.seen.
go() {
    local begun exit=0
    begun=$(now)
    (cd "$1" && ulimit -n "$2" && ZYN_TEST_CALLS=$PWD/calls exec "${@:3}") >"$1.out" 2>&1 &
    perl -e "$watch" $! >"$1.peak"
    wait $! || exit=$?
    echo "$exit $(($(now) - begun)) $(<"$1.peak")" >"$1.seen"
}

# lay_out NAME: an installation in the folder NAME with the settings that are in force.
lay_out() {
    mkdir -p "$1/bin" "$1/tmp" "$1/etc/policy"
    cp "$source_dir"/etc/policy/*.pol "$1/etc/policy"
    sed -i "s|@INSTALL_DIR@|$PWD/$1|" "$1/etc/policy/all.pol"
    ln -s "$PWD/$1/lib/libzynxml.so.1.0.0" "$1/libzynxml.so.1.0"
    cat >"$1/etc/zyn.conf" <<XML
<root><rexec><maxconnum>$maxconnum</maxconnum><cmdto>$cmdto</cmdto><usedns>$usedns</usedns><communication>
<connect><retry>$retry</retry><timeout>$conntimeout</timeout></connect>
<response><timeout>$restimeout</timeout></response></communication></rexec></root>
XML
}

between() { # NAME WHAT LEAST MOST VALUE
    (($5 >= $3 && $5 <= $4)) || fail "$1: $2 $5, not between $3 and $4"
}

# hold NAME TARGETS LEAST MOST THREADS: what was seen of a run, whose lines are in NAME.wanted.
hold() {
    local exit ms threads descriptors memory
    read -r exit ms threads descriptors memory <"$1.seen"
    [[ $exit == 0 ]] || fail "$1: exit status $exit"
    diff <(sort "$1.wanted") <(sed 's/ $//' "$1.out" | sort) >"$1.diff" || fail "$1: other lines" "$(head "$1.diff")"
    between "$1" milliseconds "$3" "$4" "$ms"
    local what base each value
    while IFS='|' read -r what base each _; do
        case $what in
        threads) between "$1" threads "$5" $((base + each * $2 + own_threads)) "$threads" ;;
        descriptors) between "$1" descriptors 3 $((base + each * $2)) "$descriptors" ;;
        memory) ((!memory_is_ours)) || between "$1" KiB 1000 $((base + each * $2)) "$memory" ;;
        esac
    done < <(rows "Threads, descriptors, memory")
    echo "$1: $ms ms of $3 to $4, $threads threads, $descriptors descriptors, $memory KiB"
}

# Name servers and the wait between attempts: inside a network and a file system of its own.
if [[ ${7-} == inside ]]; then
    mount --bind "$8/resolver" /etc
    mount -t tmpfs none "/$(cut -d/ -f2 <<<"$install_dir")"
    mkdir -p "$install_dir/etc"
    cp -r "$8/name/etc/policy" "$install_dir/etc"
    cd "$8"
    perl -MSocket -e '
        socket my $any, AF_INET, SOCK_DGRAM, 0;
        my $up = pack "a16s", "lo", 0x41;
        ioctl $any, 0x8914, $up or die "lo: $!"; # SIOCSIFFLAGS
        my @silent;
        for (1 .. 3) {
            socket $silent[$_], AF_INET, SOCK_DGRAM, 0;
            bind $silent[$_], pack_sockaddr_in 53, inet_aton "127.0.0.$_" or die "name server: $!";
        }
        close STDOUT;
        sleep' & # until it is ended
    trap 'kill '$! EXIT
    while [[ $(wc -l </proc/net/udp) -lt 4 ]]; do kill -0 $!; done
    go bare "$9" "$rexec" --failover g -p 9 &
    bare=$!
    # The thread sanitizer cannot follow a cancel out of the resolver, and ends the program.
    [[ $sanitizers == thread ]] || go name "$9" "$installed" --failover g -p 9 -h silent.example
    wait $bare
    exit
fi

top=$(mktemp -d)
started=()
trap '((${#started[@]} == 0)) || kill "${started[@]}" 2>/dev/null || true; rm -rf "$top"' EXIT
cd "$top"

# The defaults.
while IFS='|' read -r name key default _; do
    [[ $key != /* ]] || grep -qF "| \`$key\` | integer |" "$source_dir/doc/configuration.md" || fail "no key $key"
    [[ $key != /* ]] || awk -F' *[|] *' -v key="\`$key\`" -v value="\`$default\`" \
        '$2 == key && $6 == value { found = 1 } END { exit !found }' "$source_dir/doc/configuration.md" ||
        fail "$key: another default than $default"
done < <(rows Settings)

# Targets of every kind of the page in turn, those of the last one in between.
sizes=(100 1000)
[[ -z $sanitizers ]] || sizes=(100)
most=${sizes[-1]}
mapfile -t kinds < <(rows "What one target takes")
listen=() faults=() queues=() addresses=() lines=()
for ((i = 0; i < most; ++i)); do
    IFS='|' read -r _ fault takes line <<<"${kinds[i % 10 < ${#kinds[@]} ? i % 10 : ${#kinds[@]} - 1]}"
    address=127.66.$((i / 250)).$((i % 250 + 1))
    addresses[i]=$address
    lines[i]=${line/ A/ $address}
    if [[ $fault == full-queue ]]; then
        queues+=("$address")
        continue
    fi
    listen+=("$address")
    for one in $fault; do
        faults+=(-f "$address=$one")
    done
done
echo '<cluster><group name="g"/></cluster>' >cluster.xml
"$rehearse" -q -c cluster.xml --port-file port "${faults[@]}" -l "$(IFS=, && echo "${listen[*]}")" >/dev/null &
started+=($!)
while [[ ! -s port ]]; do kill -0 $!; done
port=$(<port)
# Listeners that accept nothing: what comes once their queue is full gets no answer. And an event daemon that
# does not read; each record comes from another socket, because one alone may be limited before.
mkdir -p stuck/tmp stuck/bin
perl -MSocket -MFcntl -e '
    my ($daemon, $port, @addresses) = @ARGV;
    my @kept;
    for (@addresses) {
        my $to = pack_sockaddr_in $port, inet_aton $_;
        socket my $listener, AF_INET, SOCK_STREAM, 0;
        bind $listener, $to and listen $listener, 0 or die "$_: $!";
        push @kept, $listener;
        for (1 .. 3) {
            socket my $queued, AF_INET, SOCK_STREAM, 0;
            fcntl $queued, F_SETFL, O_NONBLOCK;
            connect $queued, $to;
            push @kept, $queued;
        }
    }
    socket my $reader, AF_UNIX, SOCK_DGRAM, 0;
    bind $reader, pack_sockaddr_un $daemon or die "$daemon: $!";
    for (;;) {
        socket my $sender, AF_UNIX, SOCK_DGRAM, 0;
        send $sender, "?", MSG_DONTWAIT, pack_sockaddr_un $daemon or last;
    }
    open my $ready, ">", "ready";
    close STDOUT;
    sleep' stuck/tmp/sockevent "$port" "${queues[@]}" &
started+=($!)
while [[ ! -e ready ]]; do kill -0 $!; done

descriptors=$(rows "Threads, descriptors, memory" | awk -F'|' '$1 == "descriptors" { print $2, $3 }')
limit() { echo $((${descriptors% *} + ${descriptors#* } * $1)); }
list() { (IFS=, && echo "${addresses[*]:0:$1}"); }
command=("$installed" --failover g -p "$port" -h)
waited=()

# One target of each kind alone; and one that does not take the connection, tried twice by its address.
evaluate conntimeout=3 restimeout=6 cmdto=5
for ((i = 0; i < ${#kinds[@]}; ++i)); do
    lay_out "one$i"
    echo "${lines[i]}" >"one$i.wanted"
    go "one$i" "$(limit 1)" "${command[@]}" "${addresses[i]}" &
    waited+=($!)
done
evaluate conntimeout=3 usedns=0 retry=1
lay_out twice
echo "Connect ${queues[0]}: Failed" >twice.wanted
go twice "$(limit 1)" "${command[@]}" "${queues[0]}" &
waited+=($!)

# All kinds at once, beside the daemon that does not read.
together=(conntimeout=3 restimeout=5 cmdto=7 stuck=1)
for size in "${sizes[@]}"; do
    evaluate "${together[@]}" "maxconnum=$size"
    lay_out "all$size"
    sed -i "s|$PWD/all$size|$PWD/stuck|" "all$size/etc/policy/all.pol"
    printf '%s\n' "${lines[@]:0:size}" >"all$size.wanted"
    go "all$size" "$(limit "$size")" "${command[@]}" "$(list "$size")" -o "$PWD/all$size.log" &
    waited+=($!)
done

# In a network of its own.
evaluate conntimeout=3
lay_out name
mkdir bare resolver
printf 'nameserver 127.0.0.%d\n' 1 2 3 >resolver/resolv.conf
echo 'options timeout:1 attempts:5' >>resolver/resolv.conf
echo 'hosts: files dns' >resolver/nsswitch.conf
as_root=(--user --map-root-user)
((EUID != 0)) || as_root=()
own=(unshare "${as_root[@]}" --mount --net)
link=$(compgen -G '/usr/lib*/libzynxml.so.1.0' || true)
hidden=/$(cut -d/ -f2 <<<"$install_dir")/
if [[ -z $link && $source_dir/ != "$hidden"* && $rexec != "$hidden"* ]] && "${own[@]}" true 2>/dev/null; then
    "${own[@]}" bash "$script" "$1" "$2" "$3" "$4" "$5" "$sanitizers" inside "$PWD" "$(limit 3)" &
    waited+=($!)
    echo "Connect silent.example: Failed" >name.wanted
    echo "Connect 127.0.0.1: Failed" >bare.wanted
else
    echo "not checked: name servers and the wait between attempts; there is no namespace here, or it would not help"
fi

# What the start waits for: the command of these trees counts its sleeps and does not sleep.
n=0
while IFS='|' read -r broken missing failed _; do
    evaluate "failed=$failed"
    tree=start$((n++))
    lay_out "$tree"
    for file in $broken; do
        echo '<root>' >"$tree/$file"
    done
    [[ -z $missing ]] || rm -r "${tree:?}/$missing"
    go "$tree" "$(limit 1)" "${command[@]}" 127.66.9.9
    sleeps=$(cat "$tree/calls" 2>/dev/null | grep -c sleep || true)
    ((sleeps * 1000 == start)) || fail "$broken malformed, ${missing:-nothing} missing: $sleeps s, not $start ms"
    [[ $(<"$tree.out") == "Connect 127.66.9.9: Failed " ]] || [[ $broken == *trnsv* && ! -s $tree.out ]] ||
        fail "$broken malformed, ${missing:-nothing} missing: $(<"$tree.out")"
done < <(rows Start)

for one in "${waited[@]}"; do
    wait "$one" || fail "a run ended with $?"
done
# takes EXPRESSION SETTING...: the least and the most that a run takes whose target takes so long.
takes() {
    local least
    evaluate "${@:2}" tick=0
    least=$(($1))
    evaluate "${@:2}" tick=20
    echo "$least $(($1 + driver + daemon + work))"
}
for ((i = 0; i < ${#kinds[@]}; ++i)); do
    IFS='|' read -r _ _ expression _ <<<"${kinds[i]}"
    hold "one$i" 1 $(takes "$expression" conntimeout=3 restimeout=6 cmdto=5) 1
done
hold twice 1 $(takes connect conntimeout=3 usedns=0 retry=1) 2
for size in "${sizes[@]}"; do
    read -r least _ < <(takes "request + farewell" "${together[@]}")
    evaluate "${together[@]}" targets="$size"
    hold "all$size" "$size" "$least" "$run" $((1 + size / 10 * 3 * 3))
done
if [[ -s bare.seen ]]; then
    [[ $sanitizers == thread ]] || hold name 3 $(takes "connect / 2" conntimeout=3) 2
    hold bare 1 $(takes start failed=2) 1
fi
((failures == 0))
