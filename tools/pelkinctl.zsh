#compdef pelkinctl
# zsh completion for pelkinctl(1)

local -a levels=(emerg alert crit err warning notice info debug)
local -a common=('(- *)'{-h,--help}'[print help]' {-q,--quiet}'[say nothing]')
local -a sending=('--timeout[how long to wait]:seconds' '--socket[request socket]:file:_files')
local -a options

if ((CURRENT == 2)); then
    compadd -- get post log probe wait status workers top level ignore reauth fbauth check-follow \
        --help --version
    return
fi
case $words[2] in
get | post)
    options=('--data[query or body]:text, @FILE or -' '--parallel[so many at once]:number'
        '--file[file for the answer]:file:_files' '--analyse[have the daemon analyse the answer]'
        '--msg-id[message id]:id:(0x15000001 0x15000002 0x15000004)' '--mac[station]:address'
        $sending '*:URL') ;;
log)
    options=("--level[least important level]:level:($levels)" '--grep[regular expression]:regex'
        '--json[print JSON]' '--for[end after this time]:seconds' '--count[print the number only]') ;;
probe | wait | status)
    options=('--timeout[how long to wait]:seconds' '--socket[monitor socket]:file:_files'
        '--json[print JSON]') ;;
workers) options=('--json[print JSON]') ;;
top)
    options=('--interval[time between views]:seconds' '--for[end after this time]:seconds'
        '--json[print JSON]') ;;
level) options=("1:level:($levels)") ;;
ignore)
    options=('--verification[drop requests]:switch:(on off)' '--result[ignore answers]:switch:(on off)') ;;
reauth)
    options=('--secret[shared secret]:text' '--tag[number of the report]:number'
        '*--station[station]:station' '--stations[file of stations]:file:_files'
        '--as-kivren[show what is sent to the station manager]' $sending '1:URL') ;;
fbauth)
    options=('--mac[station]:address' '--data[query or body]:text, @FILE or -' '--post[send a POST]'
        '--as-kivren[show what is sent to the station manager]' $sending '1:URL') ;;
check-follow)
    options=('--mac[client]:address' '--openid[user]:id' '--appid[account]:id' '--secret[secret]:text'
        '--delay[minutes until the check]:minutes' '--file[file of clients]:file:_files' $sending) ;;
esac
shift words
((CURRENT--))
_arguments -s : $common $options
