# bash completion for pelkinctl(1)

_pelkinctl() {
    local cur prev words cword split
    _init_completion -s || return

    local commands="get post log probe wait status workers top level ignore reauth fbauth check-follow"
    local command='' i
    for ((i = 1; i < cword; i++)); do
        if [[ ${words[i]} != -* ]]; then
            command=${words[i]}
            break
        fi
    done

    case $prev in
    --file | --stations | --socket)
        _filedir
        return
        ;;
    --verification | --result)
        mapfile -t COMPREPLY < <(compgen -W "on off" -- "$cur")
        return
        ;;
    --level)
        mapfile -t COMPREPLY < <(compgen -W "emerg alert crit err warning notice info debug" -- "$cur")
        return
        ;;
    --msg-id)
        mapfile -t COMPREPLY < <(compgen -W "0x15000001 0x15000002 0x15000004" -- "$cur")
        return
        ;;
    --grep | --for | --interval | --parallel | --data | --mac | --timeout | --secret | --tag | --station | --openid | --appid | --delay)
        return
        ;;
    esac
    $split && return

    local options="--help --quiet"
    case $command in
    '') options="$commands --help --version" ;;
    get | post) options+=" --data --parallel --file --analyse --msg-id --mac --timeout --socket" ;;
    log) options+=" --level --grep --json --for --count" ;;
    probe | wait | status) options+=" --timeout --socket --json" ;;
    workers) options+=" --json" ;;
    top) options+=" --interval --for --json" ;;
    level) options+=" emerg alert crit err warning notice info debug" ;;
    ignore) options+=" --verification --result" ;;
    reauth) options+=" --secret --tag --station --stations --as-kivren --timeout --socket" ;;
    fbauth) options+=" --mac --data --post --as-kivren --timeout --socket" ;;
    check-follow) options+=" --mac --openid --appid --secret --delay --file --timeout --socket" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
} &&
    complete -F _pelkinctl pelkinctl
