# bash completion for tesk-abi-check

_tesk_abi_check()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    compopt -o filenames
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--json --library --help --version' -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
    fi
}

complete -F _tesk_abi_check tesk-abi-check
