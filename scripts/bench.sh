#!/usr/bin/env bash
# Measures every operation beside the raw system calls that it cannot do without, and prints one table. Rows
# over their bound are marked, and make the exit status 1.
#
#   scripts/bench.sh [--json] [--filter TEXT]
#
# --json prints one array of objects instead; --filter takes the rows whose operation contains TEXT.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
. scripts/lib/packages.sh

json=no filter=
while [ $# -gt 0 ]; do
    case "$1" in
        --json) json=yes ;;
        --filter) filter=${2?--filter takes a text}; shift ;;
        -h | --help) sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) echo "bench.sh: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done

vll_need_packages cmake ninja-build g++ pkg-config libbenchmark-dev || exit 1
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset release && cmake --build --preset release; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    exit 1
fi

status=0 first=yes
options=(--part)
if [ "$json" = yes ]; then
    options+=(--json)
    echo "["
else
    printf '%-60s %12s %12s %7s %7s\n' operation "ours ns" "raw ns" ratio bound
fi
for binary in build/release/bench/*_bench; do
    if [ "$json" = yes ]; then
        # A comma goes between the rows of two topics that have any.
        rows=$("$binary" "${options[@]}" --filter "$filter") || status=1
        [ -n "$rows" ] || continue
        [ "$first" = yes ] || echo ","
        printf '%s' "$rows"
        first=no
    else
        "$binary" "${options[@]}" --filter "$filter" || status=1
    fi
done
[ "$json" = yes ] && printf '\n]\n'
exit $status
