# bash completion for VelantrixServer

_VelantrixServer() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD - 1]}
    local addresses

    case $prev in
        -p)
            return
            ;;
        -b)
            addresses=$(ip -o -4 address show 2>/dev/null |
                awk '{ sub("/.*", "", $4); if ($4 !~ /^127\./) print $4 }')
            mapfile -t COMPREPLY < <(compgen -W "$addresses" -- "$cur")
            return
            ;;
        -platform)
            mapfile -t COMPREPLY < <(compgen -W "xcb wayland offscreen" -- "$cur")
            return
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "-nogui -verbose -p -b -platform" -- "$cur")
}

complete -F _VelantrixServer VelantrixServer
