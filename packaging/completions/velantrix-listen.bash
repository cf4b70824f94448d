# bash completion for velantrix-listen

_velantrix_listen() {
    local cur prev words cword split
    if declare -F _init_completion >/dev/null; then
        _init_completion -s || return
    else
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
    fi

    case $prev in
        --rate)
            mapfile -t COMPREPLY < <(compgen -W "raw 20 64 128 256" -- "$cur")
            return
            ;;
        --stats)
            [[ ${split:-false} == true ]] &&
                mapfile -t COMPREPLY < <(compgen -W "json" -- "$cur")
            [[ ${split:-false} == true ]] && return
            ;;
        --record)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --device)
            local name
            while IFS= read -r name; do
                [[ $name == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
            done < <(velantrix-listen --list-devices 2>/dev/null)
            return
            ;;
        --port | --name | --buffer | --delay | --offset | --seconds)
            return
            ;;
    esac

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--list --rate --best-effort --name --single --buffer
            --delay --offset --device --list-devices --record --stdout --no-play --seconds --stats --stats=json
            --quiet --port --once --version --help" -- "$cur")
    elif declare -F _known_hosts_real >/dev/null; then
        _known_hosts_real -- "$cur"
    fi
}

complete -F _velantrix_listen velantrix-listen
