# bash completion for teskboard
_teskboard()
{
    local commands='show ports insert remove ready not-ready link set fail heal event wait play'
    local operations='init shutdown waitevent freeevent getportstatus subsport unsubsport subslink
        unsubslink getlinkstatus getmoduleinfo getmodstatus getmodulediag'
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' words i
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ " $commands " == *" ${COMP_WORDS[i]} "* ]] && command=${COMP_WORDS[i]} && break
    done
    case $before in
        --socket) mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
        --module) words='lc lc-own rj45 other non-sfp unreadable' ;;
        --speed) words='1.2 2.5 4.9 9.8 10.1 10' ;;
        --subscribed | --unsubscribed) words='port link' ;;
        --calls | fail | heal) words=$operations ;;
        event) words='port-status link-status shutdown' ;;
        play) mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
        *)
            case $command in
                '') words="$commands --help --version --socket --timeout --json" ;;
                insert) words='--module --vendor --pn --rev --sn --date --rdh --rdh-ext --not-ready' ;;
                link) words='up down stopped --speed --again' ;;
                set)
                    words=$(teskboard set --help | awk '/^Keys/ {k = 1; next} /^Thresholds/ {k = 0} k && /^ / {sub(/\.N$/, ".", $1); print $1 ($1 ~ /\.$/ ? "" : "=")}')
                    [[ $word == *=* ]] || compopt -o nospace
                    if [[ ${COMP_WORDS[COMP_CWORD - 1]} == = || $word == = ]]; then
                        local key=${COMP_WORDS[COMP_CWORD - 2]}
                        [[ $word == = ]] && key=${COMP_WORDS[COMP_CWORD - 1]} && word=''
                        words=$(teskboard set --help | awk -v key="$key" '$1 == key {
                            $1 = ""; gsub(/ or |, /, " "); print }')
                    else
                        words+=' --again'
                    fi
                    ;;
                ready | not-ready) words='--again' ;;
                fail) words='invalid nomem nodev notavail unsupported busy shutdown internal --port --count' ;;
                event) words='--port --id --value --speed' ;;
                wait) words='--subscribed --unsubscribed --calls --count --idle --timeout' ;;
                *) words='--json --timeout' ;;
            esac
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _teskboard teskboard
