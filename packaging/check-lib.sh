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

# play_into_nothing [PREFIX...]: starts a sound server at $XDG_RUNTIME_DIR/native whose only sink
# makes no sound, in the background; PREFIX are words before the command. Its words go to
# pulseaudio.log.
play_into_nothing() {
    "$@" pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=1 \
        -L "module-native-protocol-unix socket=$XDG_RUNTIME_DIR/native auth-anonymous=1" \
        -L "module-null-sink sink_name=out rate=48000 channels=2" >pulseaudio.log 2>&1 &
}
