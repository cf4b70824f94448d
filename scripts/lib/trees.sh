# Bare Debian 12 trees to try things in. Sourced by bash, after lib.sh.
#
# What runs in a tree runs in namespaces of its own: it ends with the command that started it, and
# nothing of this machine is changed. Variable that the user may set:
#   VELANTRIX_DEBIAN_MIRROR   where Debian's packages come from
#   VELANTRIX_KEEP_TREE=1     do not delete the tree at the end

debian_mirror=${VELANTRIX_DEBIAN_MIRROR:-http://deb.debian.org/debian}

# need_root "$@": starts the script again through sudo unless it runs as root.
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

# leave_tree: deletes the tree at once, for a script that makes another one.
leave_tree() {
    trap - EXIT
    if [ "${VELANTRIX_KEEP_TREE:-0}" = 1 ]; then
        say "The tree is kept: $tree"
    else
        rm -rf --one-file-system "$tree"
    fi
}

# tree_create FOLDER: a minimal Debian 12. A copy of the bare tree is kept for the next time in
# /var/cache/velantrix-trees (delete it when you like).
tree_create() {
    local cache=/var/cache/velantrix-trees/bookworm-$(dpkg --print-architecture)
    if [ ! -e "$cache/complete" ]; then
        rm -rf "$cache"
        mkdir -p "$cache"
        debootstrap --variant=minbase bookworm "$cache/tree" "$debian_mirror" \
            >"$cache/debootstrap.log" 2>&1 || {
            tail -n 20 "$cache/debootstrap.log" >&2
            fail "no Debian tree could be made; debootstrap's words are above"
        }
        touch "$cache/complete"
    fi
    cp -a "$cache/tree/." "$1/"
    cp /etc/resolv.conf "$1/etc/resolv.conf"
    # Every installed Debian has this file, the bare tree does not.
    printf '127.0.0.1\tlocalhost\n' >"$1/etc/hosts"
    # Nothing in the tree has to survive a power cut.
    echo force-unsafe-io >"$1/etc/dpkg/dpkg.cfg.d/unsafe-io"
    # No package starts a service in the tree.
    printf '#!/bin/sh\nexit 101\n' >"$1/usr/sbin/policy-rc.d"
    chmod +x "$1/usr/sbin/policy-rc.d"
    tree_root "$1" apt-get -qq update
}

# tree_enter: what both ways into a tree do inside the new namespaces.
tree_enter='mount -t proc proc "$1/proc"
    mount --rbind /dev "$1/dev"
    mount -t tmpfs tmpfs "$1/run"
    install -d -m 700 -o 1000 -g 1000 "$1/run/sound"'

# tree_root FOLDER COMMAND...: as root, with this machine's network (for apt).
tree_root() {
    unshare --mount --pid --fork --kill-child sh -e -c "$tree_enter"'
        tree=$1; shift
        exec chroot "$tree" /usr/bin/env -i \
            PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            LC_ALL=C.UTF-8 HOME=/root DEBIAN_FRONTEND=noninteractive TERM=dumb "$@"' sh "$@"
}

# tree_install FOLDER PACKAGE...: apt-get install with little output.
tree_install() {
    local where=$1
    shift
    tree_root "$where" apt-get -y -q install "$@" >"$where/install.log" 2>&1 || {
        tail -n 30 "$where/install.log" >&2
        fail "packages could not be installed in the tree; apt's words are above"
    }
    rm -f "$where/install.log"
}

# tree_user FOLDER COMMAND...: as the tree's user 1000, in a network of its own that has the
# loopback interface only, multicast included.
tree_user() {
    unshare --mount --pid --net --fork --kill-child sh -e -c "$tree_enter"'
        ip link set lo up
        ip route add 231.232.233.235/32 dev lo
        tree=$1; shift
        exec chroot --userspec=1000:1000 "$tree" /usr/bin/env -i \
            PATH=/usr/local/bin:/usr/bin:/bin LC_ALL=C.UTF-8 HOME=/home/user TERM=dumb \
            XDG_RUNTIME_DIR=/run/sound PULSE_SERVER=unix:/run/sound/native "$@"' sh "$@"
}

# tree_add_user FOLDER: the user that tree_user becomes.
tree_add_user() {
    tree_root "$1" useradd --uid 1000 --create-home --shell /bin/sh user
}

# tree_install_built FOLDER OPTION...: installs the built packages, as apt does it for a file.
tree_install_built() {
    local where=$1
    shift
    mkdir -p "$where/home/packages"
    cp "$repo"/build-package/packages/*.deb "$where/home/packages"
    tree_install "$where" "$@" $(cd "$where" && printf '/%s ' home/packages/*.deb)
    rm -r "$where/home/packages"
}
