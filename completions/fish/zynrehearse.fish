# Completion of zynrehearse for fish. Addresses come from files of this host, by zynconfig: nothing is resolved.

function __zynrehearse_addresses
    set -l tool (command -s zynconfig; or echo /opt/orvane/velatrix/bin/zynconfig)
    set -l head (string match -r '.*,' -- (commandline -ct))
    test -x "$tool"; or return
    for name in ($tool names address 2>/dev/null)
        printf '%s\n' "$head$name"
    end
end

# ADDRESS=FAULT
function __zynrehearse_faults
    set -l head (string match -r '.*=' -- (commandline -ct))
    if test -z "$head"
        __zynrehearse_addresses | string replace -r '$' '='
        return
    end
    set -l faults refuse silent silent-request late: drip: close-before close-header close-after-header \
        close-body close-after reset-before reset-header reset-after-header reset-body reset-after wrong-magic \
        unterminated-magic wrong-code oversized huge-size short-body lie-inner lie-monnum: negative-monnum \
        unterminated busy status:
    printf '%s\n' "$head"$faults
end

complete -c zynrehearse -f
complete -c zynrehearse -s h -l help -d 'print help'
complete -c zynrehearse -s l -l listen -d 'addresses to listen on' -x -a '(__zynrehearse_addresses)'
complete -c zynrehearse -s p -l port -d 'port of every address' -x
complete -c zynrehearse -l port-file -d 'write the ports into this file' -r -F
complete -c zynrehearse -s c -l cluster -d 'the pretended cluster' -r -F
complete -c zynrehearse -s f -l fault -d 'let a server show a fault' -x -a '(__zynrehearse_faults)'
complete -c zynrehearse -l script -d 'really run the scripts'
complete -c zynrehearse -l dump -d 'write the bytes of packets into this folder' -x -a '(__fish_complete_directories)'
complete -c zynrehearse -s m -l measure -d 'measure requests into performance logs'
complete -c zynrehearse -s q -l quiet -d 'print no line for each exchange'
complete -c zynrehearse -l install-tree -d 'lay out an installation in this folder' -x -a '(__fish_complete_directories)'
complete -c zynrehearse -s e -l events -d 'play the event daemon for this tree' -x -a '(__fish_complete_directories)'
complete -c zynrehearse -l event-port -d 'take records at this UDP port' -x
complete -c zynrehearse -l event-queue -d 'take records from the message queue'
complete -c zynrehearse -l set-level -d 'set the log level of a module type' -x -a 'rexec='
complete -c zynrehearse -l collect -d 'play the metrics collector at this UDP port' -x
