#!/bin/sh
# Runs inside a tree as root, in a network namespace: the packaged server runs behind ufw and then
# behind firewalld, the packaged client looks for it from a second namespace at the other end of a
# veth pair. Closed, it must neither be found nor stream; opened with the installed profile, and
# with the commands of the documents, it must do both. Usage: firewall-check.sh
# (scripts/firewall-test makes the world that it needs)
set -eu
checks=$(dirname "$0")
. "$checks/check-lib.sh"
server_address=10.59.0.1
client_address=10.59.0.2
group=231.232.233.235
export XDG_RUNTIME_DIR=/run/sound PULSE_SERVER=unix:/run/sound/native

die() {
    echo "firewall-check: $*" >&2
    iptables-save >&2 || true
    nft list ruleset >&2 || true
    exit 1
}

as_user() {
    setpriv --reuid=1000 --regid=1000 --init-groups env HOME=/home/user "$@"
}

on_client() {
    nsenter --net=/run/netns/client "$@"
}

found() {
    on_client env HOME=/home/user setpriv --reuid=1000 --regid=1000 --init-groups \
        velantrix-listen --list 2>/dev/null | grep -q "$server_address"
}

page_opens() {
    on_client timeout 10 sh -c '. "$0/check-lib.sh"; web_answers / "$1"' "$checks" $server_address
}

streams() {
    on_client env HOME=/home/user setpriv --reuid=1000 --regid=1000 --init-groups timeout 20 \
        velantrix-listen $server_address --once --no-play --quiet --seconds 2 2>/dev/null
}

open() {
    found || die "$1: the server is not found"
    streams || die "$1: the server does not stream"
    echo "$1: found and streamed"
}

closed() {
    ! found || die "$1: the server is found"
    ! streams || die "$1: the server streams"
    echo "$1: neither found nor streamed"
}

network() {
    ip link set lo up
    ip netns add client
    ip link add cable type veth peer name cable netns client
    ip address add $server_address/24 dev cable
    ip link set cable up
    ip route replace $group/32 dev cable
    on_client ip link set lo up
    on_client ip address add $client_address/24 dev cable
    on_client ip link set cable up
    on_client ip route replace $group/32 dev cable
}

start_server() {
    cd /home/user
    play_into_nothing as_user
    wait_until 20 as_user pactl info || die "the sound server does not answer"
    as_user VelantrixServer -nogui >server.log 2>&1 &
    wait_until 30 grep -q "Audio capture running" server.log || die "the server does not capture"
    as_user velantrix-web >web.log 2>&1 &
    wait_until 30 web_answers / || die "the page does not answer: $(cat web.log)"
}

page_open() {
    page_opens || die "$1: the page does not open"
    echo "$1: the page opens"
}

page_closed() {
    ! page_opens || die "$1: the page opens"
    echo "$1: the page does not open"
}

try_ufw() {
    ufw app info "Velantrix Server"
    ufw --force enable >/dev/null
    closed "ufw on"
    page_closed "ufw on"
    ufw app info "Velantrix Web"
    ufw allow "Velantrix Web" >/dev/null
    page_open 'ufw allow "Velantrix Web"'
    closed 'ufw allow "Velantrix Web"'
    ufw delete allow "Velantrix Web" >/dev/null
    page_closed "ufw, the profile taken back"
    ufw allow 59080/tcp >/dev/null
    page_open "ufw allow 59080/tcp"
    ufw delete allow 59080/tcp >/dev/null
    ufw allow "Velantrix Server" >/dev/null
    open 'ufw allow "Velantrix Server"'
    page_closed 'ufw allow "Velantrix Server"'
    ufw delete allow "Velantrix Server" >/dev/null
    closed "ufw, the profile taken back"
    ufw allow 59010:59011/udp >/dev/null
    open "ufw allow 59010:59011/udp"
    ufw delete allow 59010:59011/udp >/dev/null
    for port in 59010 59011; do
        ufw allow from 10.59.0.0/24 to any port $port proto udp >/dev/null
    done
    open "ufw allow from 10.59.0.0/24"
    for port in 59010 59011; do
        ufw delete allow from 10.59.0.0/24 to any port $port proto udp >/dev/null
        ufw allow from 192.168.1.0/24 to any port $port proto udp >/dev/null
    done
    closed "ufw allow from 192.168.1.0/24, where the client is not"
    ufw --force reset >/dev/null
}

# The answer to a multicast query comes from another address than the query went to: the client's
# firewall does not recognise it as an answer.
try_client_firewall() {
    on_client ufw --force enable >/dev/null
    ! found || die "ufw on the client: the server is found"
    streams || die "ufw on the client: the server does not stream to one that names it"
    echo "ufw on the client: not found, but streamed when its address is given"
    on_client ufw allow proto udp from 10.59.0.0/24 port 59011 >/dev/null
    open "ufw allow proto udp from 10.59.0.0/24 port 59011, on the client"
    on_client ufw --force reset >/dev/null
}

try_firewalld() {
    firewall-offline-cmd --info-service=velantrix-server
    firewall-offline-cmd --info-service=velantrix-web
    mkdir -p /run/dbus
    dbus-daemon --system --fork
    firewalld --nofork >firewalld.log 2>&1 &
    wait_until 60 firewall-cmd --state || die "firewalld does not answer: $(cat firewalld.log)"
    closed "firewalld on"
    page_closed "firewalld on"
    firewall-cmd --quiet --permanent --add-service=velantrix-web
    firewall-cmd --quiet --reload
    page_open "firewall-cmd --permanent --add-service=velantrix-web"
    firewall-cmd --quiet --permanent --remove-service=velantrix-web
    firewall-cmd --quiet --permanent --add-service=velantrix-server
    firewall-cmd --quiet --reload
    page_closed "firewall-cmd --permanent --add-service=velantrix-server"
    open "firewall-cmd --permanent --add-service=velantrix-server"
    firewall-cmd --quiet --permanent --remove-service=velantrix-server
    firewall-cmd --quiet --reload
    closed "firewalld, the service taken back"
    firewall-cmd --quiet --permanent --add-port=59010-59011/udp
    firewall-cmd --quiet --reload
    open "firewall-cmd --permanent --add-port=59010-59011/udp"
    firewall-cmd --quiet --permanent --remove-port=59010-59011/udp
    firewall-cmd --quiet --permanent --zone=home --add-service=velantrix-server
    firewall-cmd --quiet --reload
    closed "firewall-cmd --zone=home, while the interface is in another zone"
    firewall-cmd --quiet --permanent --zone=home --change-interface=cable
    firewall-cmd --quiet --reload
    open "firewall-cmd --zone=home, with the interface in that zone"
}

network
start_server
open "no firewall"
try_ufw
try_client_firewall
try_firewalld
