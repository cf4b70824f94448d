#!/bin/sh
# Runs inside a tree, as an ordinary user without display or sound card: a private sound server with
# a null sink plays a tone, VelantrixServer streams the sink's monitor, velantrix-listen finds it
# through multicast and records it to ~/heard.wav; velantrix-web does, too, and its stream is
# recorded to ~/heard-web.wav. Usage: stream-check.sh SECONDS [EMULATOR]. The programs run under
# EMULATOR if it is given.
set -eu
. "$(dirname "$0")/check-lib.sh"
seconds=$1
emulator=${2:-}
cd "$HOME"

die() {
    echo "stream-check: $1" >&2
    cat "$2" >&2
    exit 1
}

captures() {
    grep -q "Audio capture running" server.log
}

captures_or_has_ended() {
    captures || ! kill -0 "$server"
}

play_into_nothing
wait_until 10 pactl info || die "the sound server does not answer" pulseaudio.log
pactl set-default-source out.monitor
paplay tone.wav &

printf 'pcm.!default { type pulse }\nctl.!default { type pulse }\n' >.asoundrc
VELANTRIX_SERVER_SAMPLE_RATE=48000 $emulator /usr/bin/VelantrixServer -nogui >server.log 2>&1 &
server=$!
wait_until 30 captures_or_has_ended || true
captures || die "the server does not capture" server.log

$emulator /usr/bin/velantrix-listen --once --no-play --seconds "$seconds" --record heard.wav

$emulator /usr/bin/velantrix-web >web.log 2>&1 &
web=$!
wait_until 30 web_answers /status || die "the page does not answer" web.log
timeout "$((seconds + 2))" bash -c '
    exec 3<>/dev/tcp/127.0.0.1/59080
    printf "GET /stream.wav HTTP/1.0\r\n\r\n" >&3
    cat <&3' | LC_ALL=C sed '1,/^\r$/d' >heard-web.wav
kill -TERM "$web"
wait "$web" || die "velantrix-web ended with status $?" web.log
sleep 5   # The version check, 8 s after the start, writes the user's settings.

kill -TERM "$server"
wait "$server"   # Status 0, or the script fails here.
