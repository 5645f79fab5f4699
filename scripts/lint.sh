#!/usr/bin/env bash
# Checks the layout of the sources with clang-format and the contracts in the public headers, and looks for faults
# with clang-tidy.
#
#   scripts/lint.sh           the whole tree
#   scripts/lint.sh --format  the layout and the contracts only
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh
vll_need_packages clang-format clang-tidy cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev

mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
clang-format --dry-run -Werror "${files[@]}"
echo "clang-format: ${#files[@]} files clean"
scripts/contracts.sh
[ "${1:-}" = --format ] && exit 0

# One compilation database with everything in it.
cmake --preset dev -B build/lint -DVLL_BUILD_BENCH=ON >/dev/null
mapfile -t sources < <(git ls-files 'src/*.cpp' 'src/*.c' 'examples/*.cpp' 'examples/*.c' 'tools/*.cpp' 'bench/*.cpp' \
    'tests/*.cpp' 'tests/*.c' ':!tests/fuzz' ':!tests/target')
printf '%s\n' "${sources[@]}" | xargs -P "$(nproc)" -n 2 clang-tidy -p build/lint --quiet 2>/dev/null
echo "clang-tidy: ${#sources[@]} files clean"
