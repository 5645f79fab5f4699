#!/usr/bin/env bash
# Builds the fuzzers with clang and runs each, in parallel. The last line reads "N passed, N failed".
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]   60 seconds for each target; all targets
#
# What they find to go on from stays in build/fuzz/corpus, an input that made one fail in build/fuzz/failures:
# run the target with its path to see the failure again.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
. scripts/lib/packages.sh

case "${1:-}" in
    -h | --help) sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
seconds=${1:-60}
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: not a number of seconds: $seconds" >&2; exit 2; }
shift

vll_need_packages clang cmake ninja-build pkg-config || { echo "0 passed, 1 failed"; exit 1; }
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset fuzz && cmake --build --preset fuzz; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "0 passed, 1 failed"
    exit 1
fi

targets=("$@")
if [ ${#targets[@]} = 0 ]; then
    for file in build/fuzz/tests/fuzz/*_fuzz; do targets+=("${file##*/}"); done
fi

# Runs one target. Its name and result go to standard output in one piece.
run() {
    local name=$1 seconds=$2 work=build/fuzz output status
    mkdir -p "$work/corpus/$name" "$work/failures"
    local inputs=("$work/corpus/$name")
    if [ -d "tests/fuzz/seeds/$name" ]; then inputs+=("tests/fuzz/seeds/$name"); fi
    output=$("$work/tests/fuzz/$name" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=1024 -print_final_stats=1 \
        -artifact_prefix="$work/failures/$name-" "${inputs[@]}" 2>&1)
    status=$?
    if [ $status = 0 ]; then
        printf 'ok      %s: %s runs\n' "$name" "$(sed -n 's/^stat::number_of_executed_units: *//p' <<<"$output")"
    else
        printf 'FAILED  %s\n%s\n' "$name" "$(tail -n 40 <<<"$output" | sed 's/^/    /')"
    fi
}
export -f run

printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I{} bash -c 'run "$@"' run {} "$seconds" | tee "$log"
passed=$(grep -c '^ok ' "$log")
echo "$passed passed, $((${#targets[@]} - passed)) failed"
[ "$passed" = ${#targets[@]} ]
