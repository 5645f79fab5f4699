#!/usr/bin/env bash
# Prints which share of the library's lines the tests run, by folder; with --files, by file.
#
#   scripts/coverage.sh [--files] [--filter RE]    RE: only tests whose name matches
#
# The build goes to build/coverage. What a killed process ran is not counted.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

files=no filter=
while [ $# -gt 0 ]; do
    case "$1" in
        --files) files=yes ;;
        --filter) filter=${2:?--filter takes an expression}; shift ;;
        -h | --help) sed -n '2,6s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) echo "coverage.sh: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
vll_need_packages cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev

objects=build/coverage/src/CMakeFiles/vwincompat_objects.dir
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset coverage && cmake --build --preset coverage; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    exit 1
fi
find build/coverage -name '*.gcda' -delete
status=0
ctest --test-dir build/coverage --no-tests=error -j "$(nproc)" ${filter:+-R "$filter"} >"$log" 2>&1 || status=$?
[ $status = 0 ] || { tail -n 20 "$log" >&2; echo "Some tests failed; the figures are what ran all the same." >&2; }

# One line for each source: its lines that ran, and all that have code.
sources() {
    local note
    find "$objects" -name '*.gcno' | while read -r note; do
        gcov --no-output --object-directory "${note%.gcno}.gcda" "$note" 2>/dev/null
    done | awk -v root="$PWD/" -F"'" '
        /^File / { file = $2; sub("^" root, "", file) }
        /^Lines executed:/ && file ~ /^src\/.*\.(c|cpp)$/ {
            split($0, part, /[:% ]+/)  # Lines executed:PERCENT% of COUNT
            printf "%s %d %d\n", file, part[3] * part[5] / 100 + 0.5, part[5]
        }
        { if (!/^File /) file = "" }'
}

sources | awk -v files="$files" '
    {
        name = $1
        if (files != "yes") sub(/\/[^\/]*$/, "", name)
        ran[name] += $2; lines[name] += $3; all_ran += $2; all += $3
    }
    END {
        for (name in lines)
            printf "%-44s %6d of %6d lines %6.1f%%\n", name, ran[name], lines[name], 100 * ran[name] / lines[name] | "sort"
        close("sort")
        if (!all) exit 1
        printf "%-44s %6d of %6d lines %6.1f%%\n", "all", all_ran, all, 100 * all_ran / all
    }'
exit $status
