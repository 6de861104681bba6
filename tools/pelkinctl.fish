# fish completion for pelkinctl(1)

set -l levels emerg alert crit err warning notice info debug
set -l commands get post log probe wait status workers top level ignore reauth fbauth check-follow
complete -c pelkinctl -f
complete -c pelkinctl -n __fish_use_subcommand -a "$commands"
complete -c pelkinctl -n __fish_use_subcommand -l version
complete -c pelkinctl -s h -l help
complete -c pelkinctl -n "not __fish_use_subcommand" -s q -l quiet
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -l analyse
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -x -l data
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -x -l parallel
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -x -l mac
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -x -l timeout
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -r -F -l file
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -r -F -l socket
complete -c pelkinctl -n "__fish_seen_subcommand_from get post" -x -l msg-id -a "0x15000001 0x15000002 0x15000004"
complete -c pelkinctl -n "__fish_seen_subcommand_from log" -l json
complete -c pelkinctl -n "__fish_seen_subcommand_from log" -l count
complete -c pelkinctl -n "__fish_seen_subcommand_from log" -x -l grep
complete -c pelkinctl -n "__fish_seen_subcommand_from log" -x -l for
complete -c pelkinctl -n "__fish_seen_subcommand_from log" -x -l level -a "$levels"
complete -c pelkinctl -n "__fish_seen_subcommand_from probe wait status" -l json
complete -c pelkinctl -n "__fish_seen_subcommand_from probe wait status" -x -l timeout
complete -c pelkinctl -n "__fish_seen_subcommand_from probe wait status" -r -F -l socket
complete -c pelkinctl -n "__fish_seen_subcommand_from workers" -l json
complete -c pelkinctl -n "__fish_seen_subcommand_from top" -l json
complete -c pelkinctl -n "__fish_seen_subcommand_from top" -x -l interval
complete -c pelkinctl -n "__fish_seen_subcommand_from top" -x -l for
complete -c pelkinctl -n "__fish_seen_subcommand_from level" -a "$levels"
complete -c pelkinctl -n "__fish_seen_subcommand_from ignore" -x -l verification -a "on off"
complete -c pelkinctl -n "__fish_seen_subcommand_from ignore" -x -l result -a "on off"
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -l as-kivren
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -x -l secret
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -x -l tag
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -x -l station
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -x -l timeout
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -r -F -l stations
complete -c pelkinctl -n "__fish_seen_subcommand_from reauth" -r -F -l socket
complete -c pelkinctl -n "__fish_seen_subcommand_from fbauth" -l as-kivren
complete -c pelkinctl -n "__fish_seen_subcommand_from fbauth" -l post
complete -c pelkinctl -n "__fish_seen_subcommand_from fbauth" -x -l mac
complete -c pelkinctl -n "__fish_seen_subcommand_from fbauth" -x -l data
complete -c pelkinctl -n "__fish_seen_subcommand_from fbauth" -x -l timeout
complete -c pelkinctl -n "__fish_seen_subcommand_from fbauth" -r -F -l socket
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -x -l mac
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -x -l openid
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -x -l appid
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -x -l secret
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -x -l delay
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -x -l timeout
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -r -F -l file
complete -c pelkinctl -n "__fish_seen_subcommand_from check-follow" -r -F -l socket
