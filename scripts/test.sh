#!/usr/bin/env bash
# Builds and runs all tests and prints one closing line "N passed, N failed".
#
#   scripts/test.sh               plain, AddressSanitizer + UBSan, ThreadSanitizer, fuzzers, the emulated ARM target
#   scripts/test.sh --quick       the plain build only
#   scripts/test.sh --no-target   everything but the emulated target
#   scripts/test.sh --clang       everything, and the build with clang as well
#   scripts/test.sh --filter RE   only tests whose name matches (native builds)
#
# Builds go to build/<preset>. FUZZ_SECONDS (60) is the time that each fuzzer gets.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
. scripts/lib/packages.sh

presets=(dev asan tsan)
target=yes fuzz=yes filter=
while [ $# -gt 0 ]; do
    case "$1" in
        --quick) presets=(dev) target=no fuzz=no ;;
        --no-target) target=no ;;
        --clang) presets+=(clang) ;;
        --filter) filter=${2:?--filter takes an expression} fuzz=no target=no; shift ;;
        -h | --help) sed -n '2,11s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) echo "test.sh: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done

vll_need_packages cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev || exit 1
if [[ " ${presets[*]} " == *" clang "* ]]; then
    vll_need_packages clang libbenchmark-dev || exit 1
fi

passed=0 failed=0

# Adds a step's results.
count() {
    passed=$((passed + $1))
    failed=$((failed + $2))
}

# A step that has no tests of its own to count: one failure when it fails.
step() {
    local what=$1 log
    shift
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1; then
        echo "FAILED: $what"
        tail -n 60 "$log"
        count 0 1
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

attribute() { sed -n "/<testsuite /,/>/s/.*[[:space:]]$1=\"\([0-9]*\)\".*/\1/p" "$2" | head -n 1; }

run_native() {
    local preset=$1 results tests failures skipped
    echo "== $preset"
    step "configure $preset" cmake --preset "$preset" || return
    step "build $preset" cmake --build --preset "$preset" || return
    results=$(mktemp)
    ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j "$(nproc)" \
        ${filter:+-R "$filter"} --output-junit "$results" | grep -v -E '^ *(Start|[0-9]+/[0-9]+ Test .* Passed )'
    tests=$(attribute tests "$results")
    failures=$(attribute failures "$results")
    skipped=$(attribute skipped "$results")
    rm -f "$results"
    if [ -z "$tests" ] || [ "$tests" = 0 ]; then
        echo "FAILED: $preset ran no test"
        count 0 1
        return
    fi
    count $((tests - failures - skipped)) "$failures"
    echo "$preset: $((tests - failures - skipped)) passed, $failures failed, $skipped skipped"
}

# Runs a script whose last line is "N passed, N failed".
run_counted() {
    local what=$1 last
    shift
    echo "== $what"
    last=$("$@" | tee >(cat >&2) | tail -n 1)
    if [[ $last =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]]; then
        count "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"
    else
        echo "FAILED: $what did not finish"
        count 0 1
    fi
}

started=$SECONDS
for preset in "${presets[@]}"; do
    run_native "$preset"
done
if [ "$fuzz" = yes ] && [ -x scripts/fuzz.sh ]; then
    run_counted fuzzers scripts/fuzz.sh "${FUZZ_SECONDS:-60}"
fi
if [ "$target" = yes ]; then
    run_counted "32-bit ARM" tests/target/run.sh
fi

echo "$((SECONDS - started)) s"
echo "$passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
