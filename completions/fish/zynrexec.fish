# Completion of zynrexec for fish. Names come from files of this host, by zynconfig: nothing is resolved, and no
# server is asked.

function __zynrexec_names
    set -l tool (command -s zynconfig; or echo /opt/orvane/velatrix/bin/zynconfig)
    test -x "$tool"; and $tool names $argv[1] 2>/dev/null
end

# The part of a comma-separated list that is complete stays in front.
function __zynrexec_addresses
    set -l head (string match -r '.*,' -- (commandline -ct))
    for name in (__zynrexec_names address)
        printf '%s\n' "$head$name"
    end
end

# Whether one of the words stands on the line, in letters of either case.
function __zynrexec_has
    for word in (string lower -- (commandline -opc))
        contains -- $word $argv; and return 0
    end
    return 1
end

# Whether the word in front of the one that is completed is this one.
function __zynrexec_behind
    set -l words (commandline -opc)
    test (string lower -- $words[-1]) = $argv[1]
end

set -l requests --failover --script --notice --clear
complete -c zynrexec -f
complete -c zynrexec -n "not __zynrexec_has $requests" -l failover -d 'fail a group over to another server'
complete -c zynrexec -n "not __zynrexec_has $requests" -l script -d 'run a script'
complete -c zynrexec -n "not __zynrexec_has $requests" -l notice -d 'treat a monitored resource as failed'
complete -c zynrexec -n "not __zynrexec_has $requests" -l clear -d 'end the error state of a monitor'
complete -c zynrexec -n "not __zynrexec_has $requests" -l help -d 'print the usage text'
complete -c zynrexec -n "not __zynrexec_has -h" -s h -d 'servers, parted by commas'
complete -c zynrexec -n "not __zynrexec_has -r -k --script --notice --clear" -s r -d 'resource of the group'
complete -c zynrexec -n "not __zynrexec_has -k -r --script --failover" -s k -d 'monitors of a category, or of CATEGORY.KEYWORD'
complete -c zynrexec -n "not __zynrexec_has -p" -s p -d 'port of every server'
complete -c zynrexec -n "not __zynrexec_has -w" -s w -d 'command time-out in seconds'
complete -c zynrexec -n "not __zynrexec_has -o" -s o -d 'user log'
complete -c zynrexec -n '__zynrexec_behind --failover' -a '(__zynrexec_names group)'
complete -c zynrexec -n '__zynrexec_behind --script' -a '(__zynrexec_names script)'
complete -c zynrexec -n '__zynrexec_behind --notice; or __zynrexec_behind --clear' -a '(__zynrexec_names monitor)'
complete -c zynrexec -n '__zynrexec_behind -h' -a '(__zynrexec_addresses)'
complete -c zynrexec -n '__zynrexec_behind -r' -a '(__zynrexec_names resource)'
complete -c zynrexec -n '__zynrexec_behind -k' -a '(__zynrexec_names category)'
complete -c zynrexec -n '__zynrexec_behind -o' -F
