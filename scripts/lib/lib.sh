# Shared by the scripts. Sourced by bash; sets `repo` and strict mode.
#
# Variables that the user may set:
#   VELANTRIX_SKIP_SETUP=1   install nothing
#   JOBS=N                   parallel jobs (default: the number of cores)

set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
jobs=${JOBS:-$(nproc)}

# A private PulseAudio, where the package cannot be installed; see unpack_sound_server.
sound_server=$repo/build-sound-server
PATH=$sound_server/bin:$PATH

# Debian's and Ubuntu's names, by what they are for.
packages_build=(
    build-essential cmake ninja-build pkg-config libenet-dev qtbase5-dev qtbase5-dev-tools
    portaudio19-dev libopus-dev libcurl4-openssl-dev libsndfile1-dev libspeexdsp-dev libcli11-dev
    libboost-dev libssl-dev nlohmann-json3-dev libqrencode-dev libogg-dev libmp3lame-dev libshout-dev
    libasound2-plugins librsvg2-bin
)
packages_demo=(pulseaudio pulseaudio-utils libasound2-plugins iproute2 python3)
packages_test=(
    libgtest-dev libgmock-dev xvfb xauth xdotool openbox imagemagick dbus at-spi2-core
    gir1.2-atspi-2.0 python3-gi libglib2.0-bin x11-utils weston qtwayland5 desktop-file-utils
    appstream mandoc zsh systemd valgrind python3-pytest python3-pyte
    curl ffmpeg icecast2 mpv vlc-bin vlc-plugin-base openssl python3-selenium
    python3-websockets zbar-tools
)
packages_qt6=(qt6-base-dev qt6-wayland)
packages_check=(clang clang-tidy clang-format cppcheck libgtest-dev)
packages_analysis=("${packages_check[@]}" iwyu)
packages_bench=(
    libbenchmark-dev iproute2 pulseaudio pulseaudio-utils python3 python3-matplotlib valgrind icecast2
    snapclient snapserver
)
# Ubuntu's browsers are snaps, which tests cannot control.
if ! grep -qsx 'ID=ubuntu' /etc/os-release; then
    packages_test+=(chromium chromium-driver firefox-esr)
    packages_bench+=(chromium chromium-driver python3-selenium)
fi
# For bench/peers; on Debian only.
packages_peers=(
    snapserver snapclient pulseaudio pulseaudio-utils netcat-openbsd gstreamer1.0-plugins-base
    gstreamer1.0-plugins-good trx pipewire pipewire-bin pipewire-pulse libpipewire-0.3-modules
    wireplumber dbus-daemon libasound2-plugins iproute2 python3
)
packages_coverage=(gcovr)
packages_package=(dpkg-dev lintian file)
packages_trees=(debootstrap iproute2 python3)

say() {
    printf '%s\n' "$*"
}

# Ends the script with a message.
fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# Restarts the script, with its arguments "$@", without address randomisation where the system
# allows that: the sanitizers' memory maps do not fit every layout.
steady_addresses() {
    if [ -z "${VELANTRIX_STEADY_ADDRESSES:-}" ] && setarch -R true 2>/dev/null; then
        VELANTRIX_STEADY_ADDRESSES=1 exec setarch -R "$0" "$@"
    fi
}

is_debian() {
    [ -r /etc/os-release ] || return 1
    local family
    family=$(. /etc/os-release && printf ' %s %s ' "${ID:-}" "${ID_LIKE:-}")
    case $family in *' debian '* | *' ubuntu '*) ;; *) return 1 ;; esac
    command -v apt-get >/dev/null
}

# Prints the packages of the groups in "$@" that are not installed.
missing_packages() {
    local group name list=()
    for group in "$@"; do
        declare -n members="packages_$group"
        list+=("${members[@]}")
    done
    for name in "${list[@]}"; do
        if [ "$name" = pulseaudio ] && [ -x "$sound_server/bin/pulseaudio" ]; then
            continue
        fi
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" != installed ]; then
            printf '%s\n' "$name"
        fi
    done | sort -u
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo -- "$@"
    else
        fail "installing packages needs root: run scripts/setup as root, or install sudo"
    fi
}

print_other_systems() {
    cat <<'NAMES'
This system is neither Debian nor Ubuntu, so nothing was installed. The packages are called:

Fedora:  sudo dnf install gcc-c++ cmake ninja-build pkgconf-pkg-config enet-devel qt5-qtbase-devel \
             portaudio-devel opus-devel libcurl-devel libsndfile-devel speexdsp-devel cli11-devel \
             boost-devel openssl-devel json-devel qrencode-devel libogg-devel lame-devel libshout-devel \
             alsa-plugins-pulseaudio librsvg2-tools
         for the demo:    pulseaudio pulseaudio-utils iproute python3
         for the tests:   gtest-devel gmock-devel xorg-x11-server-Xvfb xorg-x11-xauth xdotool \
             openbox ImageMagick dbus-daemon at-spi2-core python3-gobject xprop weston qt5-qtwayland \
             desktop-file-utils appstream mandoc zsh systemd valgrind python3-pytest python3-pyte \
             curl ffmpeg icecast mpv vlc chromium chromedriver python3-selenium zbar \
             python3-websockets (and Firefox ESR as firefox-esr)
         for the checks:  clang clang-tools-extra cppcheck
         for benchmarks:  google-benchmark-devel python3-matplotlib valgrind pulseaudio pulseaudio-utils \
             snapcast

Arch:    sudo pacman -S base-devel cmake ninja pkgconf enet qt5-base portaudio opus curl libsndfile \
             speexdsp cli11 boost openssl nlohmann-json qrencode libogg lame libshout alsa-plugins \
             librsvg
         for the demo:    pulseaudio iproute2 python
         for the tests:   gtest xorg-server-xvfb xorg-xauth xdotool imagemagick dbus at-spi2-core \
             openbox python-gobject xorg-xprop weston qt5-wayland desktop-file-utils appstream \
             mandoc zsh valgrind python-pytest python-pyte curl ffmpeg icecast mpv vlc chromium \
             python-selenium python-websockets zbar (and Firefox ESR as firefox-esr)
         for the checks:  clang cppcheck
         for benchmarks:  benchmark python-matplotlib valgrind pulseaudio

Qt 6 does as well: qt6-qtbase-devel and qt6-qtwayland, or qt6-base and qt6-wayland.

Install them, then continue with the README.
NAMES
}

install_packages() {
    # --no-remove: remove none of the user's packages.
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
        --no-remove "$@" ||
        fail "apt-get could not install $* (nothing was removed for them)"
}

# Unpacks PulseAudio into a build folder, for the private sound server only.
unpack_sound_server() {
    local needs
    mapfile -t needs < <(LC_ALL=C apt-cache depends --no-recommends --no-suggests --no-conflicts \
        --no-breaks --no-replaces --no-enhances pulseaudio | sed -n 's/^  Depends: \([^<]*\)$/\1/p')
    install_packages "${needs[@]}"
    rm -rf "$sound_server"
    mkdir -p "$sound_server/bin"
    (cd "$sound_server" && apt-get download -q pulseaudio && dpkg -x pulseaudio_*.deb root) ||
        fail "PulseAudio could not be downloaded into $sound_server"
    local modules libraries
    modules=$(echo "$sound_server"/root/usr/lib/pulse-*/modules)
    libraries=$(dirname "$(find "$sound_server/root" -name 'libpulsecore-*.so')")
    cat >"$sound_server/bin/pulseaudio" <<WRAPPER
#!/bin/sh
LD_LIBRARY_PATH="$libraries:$modules" exec "$sound_server/root/usr/bin/pulseaudio" -p "$modules" "\$@"
WRAPPER
    chmod +x "$sound_server/bin/pulseaudio"
}

# Installs the missing packages of the groups in "$@".
ensure_packages() {
    if [ "${VELANTRIX_SKIP_SETUP:-0}" = 1 ]; then
        return
    fi
    if ! is_debian; then
        print_other_systems
        fail "packages are installed automatically on Debian and Ubuntu only; see the names above"
    fi
    local missing
    mapfile -t missing < <(missing_packages "$@")
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    say "Installing: ${missing[*]}"
    as_root apt-get update -q || fail "apt-get update failed: is this machine on the network?"
    if [[ " ${missing[*]} " == *' pulseaudio '* ]] &&
        ! apt-get install -q -s --no-install-recommends --no-remove pulseaudio >/dev/null 2>&1; then
        say "This system's own sound conflicts with the package pulseaudio: unpacking it for private use."
        unpack_sound_server
        local name others=()
        for name in "${missing[@]}"; do
            [ "$name" = pulseaudio ] || others+=("$name")
        done
        missing=("${others[@]}")
    fi
    if [ ${#missing[@]} -gt 0 ]; then
        install_packages "${missing[@]}"
    fi
}

# On Debian clang's sanitizers are a separate package with its version in the name.
ensure_clang_runtime() {
    local runtime
    runtime=libclang-rt-$(clang -dumpversion | cut -d. -f1)-dev
    if apt-cache show "$runtime" >/dev/null 2>&1; then
        packages_runtime=("$runtime")
        ensure_packages runtime
    fi
}

# Sets `private_network` to the command that starts a program in a private network; empty where the
# system does not allow that.
find_private_network() {
    private_network=()
    if unshare -n true 2>/dev/null; then
        private_network=(unshare -n)
    elif unshare -rn true 2>/dev/null; then
        private_network=(unshare -rn)
    fi
}

# Builds preset $1 into build-$1; further arguments go to cmake's configuration. Builds only the
# targets in the array build_targets, unless it is empty.
build_targets=()
build_preset() {
    local preset=$1 folder="$repo/build-$1"
    shift
    if [ -e "$folder" ] && [ ! -w "$folder" ] || [ ! -e "$folder" ] && [ ! -w "$repo" ]; then
        fail "no right to write to $folder: remove it, or run as its owner"
    fi
    # A build folder that was moved is useless.
    if [ -f "$folder/CMakeCache.txt" ] &&
        ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$repo" "$folder/CMakeCache.txt"; then
        rm -rf "$folder"
    fi
    local launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    (
        cd "$repo"
        cmake --preset "$preset" "${launcher[@]}" "$@" >"$repo/build-$preset.log" 2>&1 || {
            cat "$repo/build-$preset.log" >&2
            exit 1
        }
        rm -f "$repo/build-$preset.log"
        cmake --build "$folder" --parallel "$jobs" ${build_targets:+--target "${build_targets[@]}"}
    ) || fail "the build in $folder failed; see the compiler's output above"
}

# Builds for tests that are started by hand, and tells them where the programs are.
build_for_tests() {
    local build=$repo/build-dev
    ensure_packages build demo test
    build_preset dev
    export VELANTRIX_SERVER=$build/VelantrixServer VELANTRIX_LISTEN=$build/velantrix-listen
    export VELANTRIX_WEB=$build/velantrix-web VELANTRIX_FAKES=$build/tests/support
    export VELANTRIX_CAPTURE=$build/libpaced_capture.so PYTHONDONTWRITEBYTECODE=1
}
