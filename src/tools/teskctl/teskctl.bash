# bash completion for teskctl

# The ports that exist by number and by name, and "all"; behind a comma the list goes on, and behind a
# number and a dash the range.
_teskctl_ports()
{
    local cur=$1 before='' words
    [[ $cur == *,* ]] && before=${cur%"${cur##*,}"}
    [[ ${cur#"$before"} == +([0-9])-* ]] && before=${cur%"${cur##*-}"}
    words=$(timeout 1 teskctl --timeout 0.5 ports --numbers --names 2>/dev/null)
    [[ -n $before ]] || words+=' all'
    mapfile -t COMPREPLY < <(compgen -P "$before" -W "$words" -- "${cur#"$before"}")
}

_teskctl()
{
    local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local commands='capabilities doctor forecast history module modules ping pm ports sfp status top trend watch why'
    local options='--json --timeout --wait --help' command='' word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ " $commands help " == *" $word "* ]] && { command=$word; break; }
    done
    case $previous in
    --timeout | --prometheus | --exporter | --days | --for | --count | --interval | -c | -i) return ;;
    --facts | --facts-out | --other-end) compopt -o default; return ;;
    --sfp | --status) [[ $command == watch ]] && { _teskctl_ports "$cur"; return; } ;;
    esac
    case $command in
    doctor) options+=' --prometheus' ;;
    forecast | modules) options+=' --exporter' ;;
    trend) [[ $cur == -* ]] || { _teskctl_ports "$cur"; return; }; options+=' --exporter --days --csv' ;;
    why) [[ $cur == -* ]] || { _teskctl_ports "$cur"; return; }; options+=' --facts --facts-out --other-end --last' ;;
    '') options+=" --version help $commands" ;;
    help) options=$commands ;;
    history) [[ $cur == -* ]] || options='status sfp actions' ;;
    module) [[ $cur == -* ]] || { _teskctl_ports "$cur"; return; }; options+=' --watch --for' ;;
    ping) options+=' --count --interval' ;;
    pm | sfp | status) [[ $cur == -* ]] || { _teskctl_ports "$cur"; return; } ;;
    ports) [[ $cur == -* ]] || { _teskctl_ports "$cur"; return; }; options+=' --status --numbers --names' ;;
    top) [[ $cur == -* ]] || { _teskctl_ports "$cur"; return; }; options+=' --interval --for' ;;
    watch) options+=' --sfp --status --for --count --no-falls' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

complete -F _teskctl teskctl
