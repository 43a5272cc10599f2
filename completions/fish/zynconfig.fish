# Completion of zynconfig for fish. Names come from zynconfig itself, which reads files of this host only.

function __zynconfig_names
    set -l tool (command -s zynconfig; or echo /opt/orvane/velatrix/bin/zynconfig)
    test -x "$tool"; and $tool names $argv[1] 2>/dev/null
end

set -l subcommands get list check keys names
complete -c zynconfig -f
complete -c zynconfig -s h -l help -d 'print help'
complete -c zynconfig -l root -d 'look at the installation in this directory' -x -a '(__fish_complete_directories)'
complete -c zynconfig -n "__fish_seen_subcommand_from get" -s b -l bare -d 'print what the module works with, and nothing else'
complete -c zynconfig -n "not __fish_seen_subcommand_from $subcommands" -a get -d 'what is known of one key'
complete -c zynconfig -n "not __fish_seen_subcommand_from $subcommands" -a list -d 'every key with the value in force'
complete -c zynconfig -n "not __fish_seen_subcommand_from $subcommands" -a check -d 'what is wrong with the configuration'
complete -c zynconfig -n "not __fish_seen_subcommand_from $subcommands" -a keys -d 'the table of keys'
complete -c zynconfig -n "not __fish_seen_subcommand_from $subcommands" -a names -d 'names to complete words with'
complete -c zynconfig -n "__fish_seen_subcommand_from get" -a '(__zynconfig_names key)'
complete -c zynconfig -n "__fish_seen_subcommand_from list" -a '(__zynconfig_names module)'
complete -c zynconfig -n "__fish_seen_subcommand_from names" -a 'address group resource monitor category script key module'
