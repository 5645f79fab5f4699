#!/bin/bash
# Makes the armhf sysroot in the cache, unless it is there already, and prints its path.
# usage: sysroot.sh [--cache DIR]
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
suite=bookworm
# What is built against, and what the machine runs: kernel, shell, tools, zone files.
packages=(libc6-dev libstdc++-12-dev libcrypt-dev libgtest-dev libgmock-dev
          linux-image-armmp busybox-static dash coreutils tzdata)

cache=${XDG_CACHE_HOME:-$HOME/.cache}/vwincompat
if [ "${1:-}" = --cache ]; then
    cache=$2
fi
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)

# The machine's own sources: the mirror that serves it serves the target as well.
own_sources() { # KEYDIR
    local files=() file
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
        if [ -r "$file" ]; then files+=("$file"); fi
    done
    if [ ${#files[@]} -gt 0 ]; then
        awk -v suite="$suite" -v keydir="$1" -f "$here/apt_sources.awk" "${files[@]}"
    fi
}

work=$cache/.sysroot.$$
make_sysroot() {
    rm -rf "$cache"/.sysroot.*
    mkdir -p "$work/root"
    trap 'rm -rf "$work"' EXIT
    own_sources "$work" >"$work/sources"
    if ! [ -s "$work/sources" ]; then
        echo "sysroot.sh: no apt source on this machine offers $suite main" >&2
        return 1
    fi
    # How this machine reaches its mirror (proxy, certificates, dates) holds for the target's packages too.
    apt-config dump | grep -E '^Acquire::(http|https|Check-Valid-Until|Check-Date|Retries)\b' >"$work/apt.conf" || true
    # Nothing of the target is run, so anybody may unpack it.
    local mode=chrootless
    if [ "$(id -u)" = 0 ]; then mode=root; fi
    if ! mmdebstrap --mode="$mode" --variant=extract --architectures=armhf --format=tar --aptopt="$work/apt.conf" \
            --include="$(IFS=,; echo "${packages[*]}")" "$suite" "$work/root.tar" "$work/sources" >"$work/log" 2>&1; then
        cat "$work/log" >&2
        return 1
    fi
    tar -x -f "$work/root.tar" -C "$work/root" --no-same-owner --exclude='./dev/*' \
        --exclude='./usr/share/doc' --exclude='./usr/share/man' --exclude='./usr/share/locale'
    mv -T "$work/root" "$sysroot"
}

# A changed list, or a change in how the sysroot is made, makes a new one; what nobody uses any more goes.
key=$({ declare -p suite packages; declare -f own_sources make_sysroot; } | sha256sum | cut -c1-12)
sysroot=$cache/sysroot-armhf-$key

exec 9>"$cache/lock"
flock 9
if ! [ -d "$sysroot" ]; then
    echo "making the armhf sysroot in $cache" >&2
    find "$cache" -maxdepth 1 -name 'sysroot-armhf-*' -mtime +14 -exec rm -rf {} +
    make_sysroot
fi
touch "$sysroot"
echo "$sysroot"
