# bash completion for teskctl

_teskctl()
{
    local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local commands='capabilities history ping pm sfp status top watch'
    local options='--json --timeout --help' command='' word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ " $commands " == *" $word "* ]] && { command=$word; break; }
    done
    case $previous in
    --timeout | --for | --count | --interval | --sfp | --status | -c | -i) return ;;
    esac
    case $command in
    '') options+=" --version $commands" ;;
    history) [[ $cur == -* ]] || options='status sfp actions' ;;
    ping) options+=' --count --interval' ;;
    top) options+=' --interval --for' ;;
    watch) options+=' --sfp --status --for --count' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

complete -F _teskctl teskctl
