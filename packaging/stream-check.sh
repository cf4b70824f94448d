#!/bin/sh
# Runs inside a tree, as an ordinary user without display or sound card: a private sound server
# with a null sink plays a tone, VelantrixServer streams the sink's monitor, velantrix-listen
# finds it through multicast and records it to ~/heard.wav.
# Usage: stream-check.sh SECONDS [EMULATOR]. Both programs run under EMULATOR if it is given.
set -eu
seconds=$1
emulator=${2:-}
cd "$HOME"

pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=1 \
    -L "module-native-protocol-unix socket=$XDG_RUNTIME_DIR/native auth-anonymous=1" \
    -L "module-null-sink sink_name=out rate=48000 channels=2" >pulseaudio.log 2>&1 &
tries=0
until pactl info >/dev/null 2>&1; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || {
        echo "stream-check: the sound server does not answer" >&2
        cat pulseaudio.log >&2
        exit 1
    }
    sleep 0.1
done
pactl set-default-source out.monitor
paplay tone.wav &

printf 'pcm.!default { type pulse }\nctl.!default { type pulse }\n' >.asoundrc
VELANTRIX_SERVER_SAMPLE_RATE=48000 $emulator /usr/bin/VelantrixServer -nogui >server.log 2>&1 &
server=$!
tries=0
until grep -q "Audio capture running" server.log; do
    tries=$((tries + 1))
    [ "$tries" -lt 300 ] && kill -0 "$server" 2>/dev/null || {
        echo "stream-check: the server does not capture" >&2
        cat server.log >&2
        exit 1
    }
    sleep 0.1
done

$emulator /usr/bin/velantrix-listen --once --no-play --seconds "$seconds" --record heard.wav
sleep 5   # The version check, 8 s after the start, writes the user's settings.

kill -TERM "$server"
wait "$server"   # Status 0, or the script fails here.
