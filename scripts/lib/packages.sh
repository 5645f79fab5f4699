# Sourced by the scripts: the Debian packages that they stand on.

# vll_need_packages PACKAGE...: installs those that are missing, as root; otherwise says which, and fails. Says
# nothing when all are there.
vll_need_packages() {
    local package log missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null; then
        echo "These Debian packages are missing; install them, or run this as root: ${missing[*]}" >&2
        return 1
    fi
    log=$(mktemp) || return 1
    if ! vll_apt_install "${missing[@]}" >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        echo "Could not install: ${missing[*]}" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

# A fresh machine has no package lists yet, and old lists may name files that are gone.
vll_apt_install() {
    export DEBIAN_FRONTEND=noninteractive
    apt-get install -y --no-install-recommends "$@" ||
        { apt-get update && apt-get install -y --no-install-recommends "$@"; }
}
