#!/bin/sh
# Runs inside a tree as an ordinary user, whose service manager it starts: tests the packaged
# velantrix-server.service with the packaged velantrix-listen, and velantrix-web.service. The
# recordings are left in ~/heard-*.wav, the programs' lines in ~/server.log and ~/web.log. Usage:
# service-check.sh pulseaudio|pipewire  (scripts/service-test makes the world that it needs)
set -eu
. "$(dirname "$0")/check-lib.sh"
cd "$HOME"
unit=velantrix-server
web=velantrix-web
sound=$1   # Also the name of the sound server's own unit.

die() {
    echo "service-check: $*" >&2
    systemctl --user --no-pager status $unit $web $sound >&2 || true
    tail -n 30 manager.log server.log web.log >&2 || true
    exit 1
}

property() {
    systemctl --user show --value -p "$2" "$1"
}

started() {
    [ "$(grep -c "Audio capture running" server.log)" -ge "$1" ]
}

is_another() {
    pid=$(property "${2:-$unit}" MainPID)
    [ "$pid" != 0 ] && [ "$pid" != "$1" ]
}

# hardened UNIT: the filters of a running service are on.
hardened() {
    pid=$(property "$1" MainPID)
    grep -q '^NoNewPrivs:[[:space:]]*1$' "/proc/$pid/status" || die "$1: new privileges are possible"
    grep -q '^Seccomp:[[:space:]]*2$' "/proc/$pid/status" || die "$1: no system call filter"
}

# hear NAME: finds the server through multicast and records what it streams.
hear() {
    wait_until 30 pactl info || die "$1: the sound server does not answer"
    paplay tone.wav &
    player=$!
    velantrix-listen --once --no-play --seconds 5 --record "heard-$1.wav" >listen.log ||
        die "$1: velantrix-listen ended with status $?"
    kill $player 2>/dev/null || true
    wait $player 2>/dev/null || true
    lost=$(sed -n 's/^lost: //p' listen.log)
    echo "$1: $(sed -n 's/^server: //p' listen.log), lost packets: $lost"
}

# Each sound server as Debian's units start it, with a null sink and a silent microphone, which is
# the default input. Its start is slow, so that a server that does not wait would fail.
configure_pulseaudio() {
    mkdir -p .config/pulse
    cat >.config/pulse/default.pa <<END
load-module module-native-protocol-unix
load-module module-null-sink sink_name=out rate=48000 channels=2
load-module module-null-source source_name=microphone
set-default-source microphone
END
    printf 'default-sample-rate = 48000\nexit-idle-time = -1\n' >.config/pulse/daemon.conf
    units="pulseaudio.socket pulseaudio.service"
    monitor=PULSE_SOURCE=@DEFAULT_MONITOR@
}

configure_pipewire() {
    mkdir -p .config/pipewire/pipewire.conf.d
    cat >.config/pipewire/pipewire.conf.d/devices.conf <<END
context.objects = [
    { factory = adapter args = { factory.name = support.null-audio-sink node.name = out
        media.class = Audio/Sink audio.position = [ FL FR ] } }
    { factory = adapter args = { factory.name = support.null-audio-sink node.name = microphone
        media.class = Audio/Source/Virtual audio.position = [ FL FR ] } }
]
END
    units="pipewire.socket pipewire-pulse.socket pipewire.service pipewire-pulse.service
        wireplumber.service"
    monitor='"PIPEWIRE_ALSA={ stream.capture.sink=true }"'
}

configure_$sound
mkdir -p .config/systemd/user/$sound.service.d .config/systemd/user/$unit.service.d
printf '[Service]\nExecStartPre=/bin/sleep 2\n' >.config/systemd/user/$sound.service.d/slow.conf
# The file of `systemctl --user edit`, with the log in a file, as there is no journal here.
cat >.config/systemd/user/$unit.service.d/override.conf <<END
[Service]
Environment=$monitor
Environment=VELANTRIX_SERVER_SAMPLE_RATE=48000
StandardOutput=append:$HOME/server.log
StandardError=append:$HOME/server.log
END
: >server.log
: >web.log

/usr/lib/systemd/systemd --user >manager.log 2>&1 &
wait_until 60 systemctl --user list-units || die "the user's service manager does not answer"
# Mask the sockets: one would start the sound server.
systemctl --user stop $units
systemctl --user reset-failed

echo "-- enabled, it starts with the session, after the sound server, whatever display is left over"
systemctl --user set-environment DISPLAY=:77
systemctl --user enable --quiet $unit
systemctl --user start --no-block default.target $units
wait_until 30 started 1 || die "the server does not capture"
ready=$(property $sound ActiveEnterTimestampMonotonic)
server=$(property $unit ExecMainStartTimestampMonotonic)
[ "$ready" != 0 ] && [ "$server" -ge "$ready" ] ||
    die "started at $server us, the sound server at $ready us"
echo "the server was started $(((server - ready) / 1000)) ms after the sound server was ready"

echo "-- with the hardening on, it captures and uses multicast"
first=$(property $unit MainPID)
hardened $unit
hear start

echo "-- velantrix-web is off until it is enabled, starts after the server, serves, and comes back"
[ "$(property $web ActiveState)" = inactive ] || die "$web runs without being enabled"
systemctl --user enable --quiet --now $web
wait_until 30 web_answers / || die "the page does not answer"
hardened $web
[ "$(property $web ExecMainStartTimestampMonotonic)" -ge "$server" ] || die "started before the server"
timeout 5 bash -c 'exec 3<>/dev/tcp/127.0.0.1/59080
    printf "GET /stream.wav HTTP/1.0\r\n\r\n" >&3
    cat <&3' >heard-web.stream || true
[ "$(wc -c <heard-web.stream)" -gt 200000 ] || die "the page does not stream"
browsed=$(property $web MainPID)
kill -KILL "$browsed"
wait_until 30 is_another "$browsed" $web || die "$web is not restarted after SIGKILL"
wait_until 30 web_answers / || die "the restarted page does not answer"

echo "-- killed, it comes back"
kill -KILL "$first"
wait_until 30 is_another "$first" || die "not restarted after SIGKILL"
wait_until 30 started 2 || die "the restarted server does not capture"
[ "$(property $unit NRestarts)" = 1 ] || die "NRestarts is $(property $unit NRestarts)"
hear killed

echo "-- it follows a restarted sound server"
second=$(property $unit MainPID)
systemctl --user restart $sound.service
wait_until 30 is_another "$second" || die "not restarted with the sound server"
wait_until 30 started 3 || die "it does not capture from the new sound server"
hear sound-server

echo "-- and one that was killed and comes back by itself"
third=$(property $unit MainPID)
systemctl --user reset-failed
kill -KILL "$(property $sound MainPID)"
wait_until 30 is_another "$third" || die "not restarted after the sound server was killed"
wait_until 30 started 4 || die "it does not capture from the new sound server"
hear sound-server-killed

if [ "$sound" = pipewire ]; then
    echo "-- the part that serves PulseAudio's programs comes and goes without touching it"
    fourth=$(property $unit MainPID)
    systemctl --user restart pipewire-pulse.service || die "pipewire-pulse cannot be restarted"
    systemctl --user stop pipewire-pulse.service
    sleep 1
    [ "$(property $unit MainPID)" = "$fourth" ] || die "the server was stopped or restarted"
fi

echo "-- they stop cleanly"
systemctl --user stop $web $unit
for one in $web $unit; do
    [ "$(property $one Result) $(property $one ExecMainStatus)" = "success 0" ] ||
        die "$one stopped with $(property $one Result), status $(property $one ExecMainStatus)"
done

echo "-- velantrix-web with wrong options: one start, then it stays failed"
mkdir -p .config/systemd/user/$web.service.d
cat >.config/systemd/user/$web.service.d/override.conf <<END
[Service]
Environment="VELANTRIX_WEB_OPTIONS=--max-listeners none"
StandardError=append:$HOME/web.log
END
: >web.log
systemctl --user daemon-reload
systemctl --user start $web || true
wait_until 30 systemctl --user is-failed --quiet $web || die "$web does not give up"
[ "$(property $web ExecMainStatus) $(property $web NRestarts)" = "2 0" ] ||
    die "$web failed with status $(property $web ExecMainStatus)"

echo "-- status 255 (a busy port): five starts, then it stays failed"
systemctl --user reset-failed
VelantrixServer -nogui >other.log 2>&1 &
other=$!
wait_until 30 grep -q "Audio capture running" other.log || die "no server to be in the way"
systemctl --user start $unit
wait_until 90 systemctl --user is-failed --quiet $unit || die "it does not give up"
[ "$(property $unit ExecMainStatus)" = 255 ] ||
    die "failed with status $(property $unit ExecMainStatus)"
starts=$(grep -c "^Network port busy" server.log) || true
[ "$starts" = 5 ] || die "started $starts times"
kill $other
wait $other || die "the other server ended with status $?"
systemctl --user reset-failed
systemctl --user start $unit
wait_until 30 started 5 || die "it does not start after the port became free"
systemctl --user disable --quiet --now $unit
echo "-- all as it should be"
