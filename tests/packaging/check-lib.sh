# Sourced by the checks that run inside a tree, from the folder in which they lie; sh, not bash.

# wait_until SECONDS COMMAND...: until the command succeeds.
wait_until() {
    left=$(($1 * 5))
    shift
    until "$@" >/dev/null 2>&1; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || return 1
        sleep 0.2
    done
}

# web_answers PATH [ADDRESS]: velantrix-web answers a request for it with status 200. With bash,
# which every tree has.
web_answers() {
    timeout 5 bash -c 'exec 3<>"/dev/tcp/$2/59080"
        printf "GET %s HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n\r\n" "$1" "$2" >&3
        head -n 1 <&3' answers "$1" "${2:-127.0.0.1}" 2>/dev/null | grep -q "^HTTP/1.1 200"
}

# play_into_nothing [PREFIX...]: starts a sound server at $XDG_RUNTIME_DIR/native whose only sink
# makes no sound, in the background, with PREFIX before the command. Its output goes to
# pulseaudio.log.
play_into_nothing() {
    "$@" pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=1 \
        -L "module-native-protocol-unix socket=$XDG_RUNTIME_DIR/native auth-anonymous=1" \
        -L "module-null-sink sink_name=out rate=48000 channels=2" >pulseaudio.log 2>&1 &
}
