# bash completion for velantrix-web

_velantrix_web() {
    local cur prev words cword split
    if declare -F _init_completion >/dev/null; then
        _init_completion -s || return
    else
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
    fi

    case $prev in
        --password-file | --certificate | --key)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --listen | --title | --host-name | --max-listeners | --icecast)
            return
            ;;
    esac

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--listen --title --password-file --certificate --key
            --host-name --max-listeners --icecast --version --help" -- "$cur")
    elif declare -F _known_hosts_real >/dev/null; then
        _known_hosts_real -- "$cur"
    fi
}

complete -F _velantrix_web velantrix-web
