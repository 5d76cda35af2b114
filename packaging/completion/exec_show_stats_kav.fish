# Completion for exec_show_stats_kav. It asks the running engine for its peers and connections.

function _exec_show_stats_kav_values
    set -l words (commandline -opc)
    sh -c '@VIEWER_VALUES@' sh $words[1] $argv[1]
end

# Words in any order, some with a value: KEYWORD:VALUE:DESCRIPTION. A word that was given is not offered again, and detail
# and nack exclude each other.
function _exec_show_stats_kav_free
    set -l words (commandline -opc)
    set -l before ''
    set -l given
    for word in $words[3..-1]
        if test -n "$before"
            set before ''
            continue
        end
        for entry in $argv
            set -l parts (string split -m 2 : -- $entry)
            if test "$parts[1]" = "$word"
                set -a given $word
                set before $parts[2]
            end
        end
    end
    switch "$before"
        case ''
            for entry in $argv
                set -l parts (string split -m 2 : -- $entry)
                if contains -- $parts[1] detail nack
                    contains -- detail $given; or contains -- nack $given; and continue
                end
                contains -- $parts[1] $given; or printf '%s\t%s\n' $parts[1] $parts[3]
            end
        case file
            __fish_complete_path (commandline -ct)
        case free
        case '*'
            _exec_show_stats_kav_values $before
    end
end

function _exec_show_stats_kav_is
    set -l words (commandline -opc)
    test "$words[2]" = "$argv[1]"
end

# Whether the command is the first argument and the word to complete has this number, counted from 2 for the command itself.
function _exec_show_stats_kav_at
    set -l words (commandline -opc)
    test (count $words) -eq (math $argv[1] - 1)
    and contains -- "$words[2]" $argv[2..-1]
end

complete -c exec_show_stats_kav -f
complete -c exec_show_stats_kav -n __fish_use_subcommand -a global-info -d 'the engine in short'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a global-detail -d 'everything about the engine'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a peer -d peers
complete -c exec_show_stats_kav -n __fish_use_subcommand -a conn -d 'connections, filtered by words in any order'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a connection -d 'connections, filtered by words at fixed places'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a nack -d 'the log of refused messages'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a top-app -d 'applications with most traffic'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a kav-bypass -d 'servers whose traffic bypasses the engine'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a config -d 'the configuration'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a brief-config -d 'the configuration in short'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a tech-support -d 'all reports together'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a save-file -d 'save all statistics in a file'
complete -c exec_show_stats_kav -n __fish_use_subcommand -a read-file -d 'report on a saved file'

complete -c exec_show_stats_kav -n '_exec_show_stats_kav_at 3 read-file save-file' -F
complete -c exec_show_stats_kav -n '_exec_show_stats_kav_at 3 kav-bypass' -a detail
complete -c exec_show_stats_kav -n '_exec_show_stats_kav_is peer' -k -a "(_exec_show_stats_kav_free \
    'mac-id:mac-id:of this MAC address' 'no:no:of this number' 'ctx-id:ctx-id:of this context' 'ip:ip:of this address' \
    'detail::all about each' 'nack::refused messages')"
complete -c exec_show_stats_kav -n '_exec_show_stats_kav_is conn' -k -a "(_exec_show_stats_kav_free \
    'client-ip:client-ip:of this client' 'client-port:client-port:of this port' 'server-ip:server-ip:to this server' \
    'server-port:server-port:to this port' 'id:conn-id:of this id' 'peer-no:no:with this peer' 'detail::all about each' \
    'nack::refused messages' 'active::open ones only' 'last::the newest only')"
complete -c exec_show_stats_kav -n '_exec_show_stats_kav_is top-app' -k -a "(_exec_show_stats_kav_free \
    'detail::each direction' 'top:free:at most this many' 'from-file:file:from a log file' 'peer:peer-id:with this peer')"

# A dash fills a place that is not wanted. Addresses and numbers are hexadecimal.
for place in '3 client-ip id -' '5 server-ip -' '7 client-port -' '9 server-port -' '11 detail nack -' '12 active -' \
        '13 last -' '14 peer-no'
    set -l words (string split ' ' $place)
    complete -c exec_show_stats_kav -n "_exec_show_stats_kav_at $words[1] connection" -a "$words[2..-1]"
end
