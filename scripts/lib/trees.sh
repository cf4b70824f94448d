# Bare Debian trees for tests. Sourced by bash, after lib.sh.
#
# Commands in a tree run in new namespaces: they end with the command that started them, and change
# nothing of this machine. Variables that the user may set:
#   VELANTRIX_DEBIAN_MIRROR   where Debian's packages come from
#   VELANTRIX_KEEP_TREE=1     do not delete the tree at the end

debian_mirror=${VELANTRIX_DEBIAN_MIRROR:-http://deb.debian.org/debian}

# The releases of Debian that are tested, and package names that differ.
declare -A release_numbers=([bookworm]=12 [trixie]=13)
declare -A release_libcurl=([bookworm]=libcurl4 [trixie]=libcurl4t64)

# choose_releases [RELEASE...]: sets the array `releases`: these, or all.
choose_releases() {
    releases=("$@")
    [ $# -gt 0 ] || releases=(bookworm trixie)
    local name
    for name in "${releases[@]}"; do
        [ -n "${release_numbers[$name]:-}" ] || fail "the release is bookworm or trixie, not '$name'"
    done
}

# need_root "$@": restarts the script through sudo unless it runs as root.
need_root() {
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "this needs root, and there is no sudo"
        exec sudo --preserve-env=VELANTRIX_DEBIAN_MIRROR,VELANTRIX_KEEP_TREE,VELANTRIX_SKIP_SETUP,JOBS "$0" "$@"
    fi
}

# new_tree: makes a folder for a tree, sets `tree`, and deletes it when the script ends.
new_tree() {
    tree=$(mktemp -d /var/tmp/velantrix-tree.XXXXXX)
    chmod 755 "$tree"
    trap leave_tree EXIT
    trap 'exit 1' INT TERM
}

# leave_tree: deletes the tree now, for a script that makes another one.
leave_tree() {
    trap - EXIT
    if [ "${VELANTRIX_KEEP_TREE:-0}" = 1 ]; then
        say "The tree is kept: $tree"
    else
        rm -rf --one-file-system "$tree"
    fi
}

# tree_create FOLDER RELEASE: a minimal Debian with an ordinary user, 1000. A copy of the bare tree is
# kept for the next time in /var/cache/velantrix-trees (delete it when you like).
tree_create() {
    local cache=/var/cache/velantrix-trees/$2-$(dpkg --print-architecture)
    if [ ! -e "$cache/complete" ]; then
        rm -rf "$cache"
        mkdir -p "$cache"
        debootstrap --variant=minbase "$2" "$cache/tree" "$debian_mirror" \
            >"$cache/debootstrap.log" 2>&1 || {
            tail -n 20 "$cache/debootstrap.log" >&2
            fail "no Debian tree could be made; see debootstrap's output above"
        }
        touch "$cache/complete"
    fi
    cp -a "$cache/tree/." "$1/"
    cp /etc/resolv.conf "$1/etc/resolv.conf"
    # Every installed Debian has this file, the bare tree does not.
    printf '127.0.0.1\tlocalhost %s\n' "$(hostname)" >"$1/etc/hosts"
    # Nothing in the tree must survive a power cut.
    echo force-unsafe-io >"$1/etc/dpkg/dpkg.cfg.d/unsafe-io"
    # No package starts a service in the tree.
    printf '#!/bin/sh\nexit 101\n' >"$1/usr/sbin/policy-rc.d"
    chmod +x "$1/usr/sbin/policy-rc.d"
    tree_root "$1" useradd --uid 1000 --create-home --shell /bin/sh user
    tree_root "$1" apt-get -qq update
}

# Before a command in a tree: its environment, and its user.
root_words=(
    env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8
    HOME=/root DEBIAN_FRONTEND=noninteractive TERM=dumb
)
user_words=(
    chroot --userspec=1000:1000 / env -i PATH=/usr/local/bin:/usr/bin:/bin LC_ALL=C.UTF-8
    HOME=/home/user USER=user TERM=dumb XDG_RUNTIME_DIR=/run/sound
)

# tree_inside OPTIONS FOLDER COMMAND...: with the tree as its root, in new namespaces, also those of
# unshare's OPTIONS. A private network has only the loopback interface, with multicast. More than
# chroot, in which an ordinary user could not create namespaces.
tree_inside() {
    local options=$1
    shift
    unshare --mount --pid --fork --kill-child $options sh -e -c '
        case $0 in *--net*)
            ip link set lo up
            ip route add 231.232.233.235/32 dev lo ;;
        esac
        mount --bind "$1" "$1"
        cd "$1"
        shift
        mount -t proc proc proc
        mount -t sysfs sysfs sys
        mount --rbind /dev dev
        mount -t tmpfs -o mode=1777 tmpfs dev/shm
        mount -t tmpfs tmpfs run
        install -d -m 700 -o 1000 -g 1000 run/sound
        pivot_root . mnt
        cd /
        umount -l mnt
        exec "$@"' "$options" "$@"
}

# tree_root FOLDER COMMAND...: as root, with this machine's network (for apt).
tree_root() {
    local where=$1
    shift
    tree_inside "" "$where" "${root_words[@]}" "$@"
}

# tree_user FOLDER COMMAND...: as the tree's user, in a private network.
tree_user() {
    local where=$1
    shift
    tree_inside --net "$where" "${user_words[@]}" PULSE_SERVER=unix:/run/sound/native "$@"
}

# tree_install FOLDER PACKAGE...: apt-get install with little output.
tree_install() {
    local where=$1
    shift
    tree_root "$where" apt-get -y -q install "$@" >"$where/install.log" 2>&1 || {
        tail -n 30 "$where/install.log" >&2
        fail "packages could not be installed in the tree; see apt's output above"
    }
    rm -f "$where/install.log"
}

# tree_sources FOLDER PATH: our sources, at that path in the tree.
tree_sources() {
    mkdir "$1$2"
    (cd "$repo" && git ls-files -z --cached --others --exclude-standard |
        xargs -0 cp --parents -t "$1$2")
}

# tree_newcomer FOLDER RELEASE: a Debian whose user has our sources in ~/velantrix, and sudo.
tree_newcomer() {
    tree_create "$1" "$2"
    tree_install "$1" --no-install-recommends sudo
    echo 'user ALL=(ALL) NOPASSWD: ALL' >"$1/etc/sudoers.d/user"
    tree_sources "$1" /home/user/velantrix
    chown -R 1000:1000 "$1/home/user/velantrix"
}

# tree_login FOLDER COMMAND...: as that user in the sources, with this machine's network.
tree_login() {
    local where=$1
    shift
    tree_inside "" "$where" "${user_words[@]}" JOBS="$jobs" env -C /home/user/velantrix "$@"
}

# build_packages RELEASE: builds the packages in a tree of that release, and leaves them in
# build-package/RELEASE.
build_packages() {
    local built=$repo/build-package/$1
    say "== The packages for Debian ${release_numbers[$1]}"
    new_tree
    tree_newcomer "$tree" "$1"
    tree_login "$tree" scripts/package >"$tree/package.log" 2>&1 || {
        tail -n 30 "$tree/package.log" >&2
        fail "the packages could not be built in the tree; see the script's output above"
    }
    rm -rf "$built"
    mkdir -p "$built"
    cp "$tree"/home/user/velantrix/build-package/packages/*.deb "$built"
    leave_tree
}

# tree_packages FOLDER RELEASE: puts the built packages into the tree; prints their names for apt.
tree_packages() {
    mkdir -p "$1/home/packages"
    cp "$repo/build-package/$2"/*.deb "$1/home/packages"
    (cd "$1" && printf '/%s ' home/packages/*.deb)
}
