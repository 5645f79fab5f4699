#!/usr/bin/env bash
# Checks the sources without running them: clang-format, shellcheck, the layers (src/LAYERS), the contracts of the
# headers, and clang-tidy.
#
#   scripts/lint.sh           everything
#   scripts/lint.sh --format  only what needs no build: all but clang-tidy and the calls between the layers
# shellcheck disable=SC2317  # the checks are called by their names
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

build=yes
case "${1:-}" in
    '') ;;
    --format) build=no ;;
    -h | --help) sed -n '2,6s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "lint.sh: unknown option $1" >&2; exit 2 ;;
esac
vll_need_packages clang-format shellcheck
if [ "$build" = yes ]; then
    vll_need_packages clang-tidy cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev
fi

# Every check runs, so that one run shows all that there is to settle.
failed=0
check() { # NAME COMMAND...
    local name=$1
    shift
    "$@" || { echo "FAILED: $name" >&2; failed=1; }
}

check_format() {
    mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
    clang-format --dry-run -Werror "${files[@]}" && echo "clang-format: ${#files[@]} files clean"
}

# Scripts are known by their first line, or as files that others source.
check_shell() {
    mapfile -t scripts < <(git grep -lE '^#!.*\b(ba|da)?sh$')
    shellcheck --external-sources "${scripts[@]}" &&
        shellcheck --shell=bash scripts/lib/packages.sh && shellcheck --shell=dash tests/target/programs/wait_until &&
        echo "shellcheck: $((${#scripts[@]} + 2)) files clean"
}

# Prints what clang-tidy finds in a file, without its count of what it left out.
tidy() {
    local output
    output=$(clang-tidy -p build/lint --quiet "$1" 2>&1) && return
    grep -vE '^[0-9]+ warnings?( and [0-9]+ errors?)? generated\.$' <<<"$output"
    return 1
}
export -f tidy

check_tidy() {
    mapfile -t sources < <(git ls-files 'src/*.cpp' 'src/*.c' 'examples/*.cpp' 'examples/*.c' 'tools/*.c' 'bench/*.cpp' \
        'tests/*.cpp' 'tests/*.c' ':!tests/fuzz' ':!tests/target' ':!tests/abi/install')
    printf '%s\n' "${sources[@]}" | xargs -P "$(nproc)" -I{} bash -c 'tidy "$@"' tidy {} &&
        echo "clang-tidy: ${#sources[@]} files clean"
}

# One compilation database with everything in it, and the library's object files.
make_build() {
    local log
    log=$(mktemp)
    if ! { cmake --preset dev -B build/lint -DVLL_BUILD_BENCH=ON && cmake --build build/lint --target vwincompat; } \
        >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

check clang-format check_format
check shellcheck check_shell
check contracts scripts/contracts.sh
if [ "$build" = yes ]; then
    make_build
    check layers scripts/layers.sh build/lint
    check clang-tidy check_tidy
else
    check layers scripts/layers.sh
fi
exit $failed
