#!/bin/bash
# Builds everything for 32-bit ARM and runs every test in an emulated machine. README.md beside this file tells more.
set -euo pipefail

usage() {
    cat <<'TEXT'
usage: tests/target/run.sh [options]
  --build-dir DIR     build there (default: build/armhf)
  --filter REGEX      run only the programs whose name, as in tests/event_test, matches
  --cache DIR         keep the sysroot there (default: ~/.cache/vwincompat)
  --jobs N            programs that run at a time (default: 2)
  --limit SECONDS     for one program (default: 600)
  --time-limit SECONDS  for the whole machine (default: 1800)
  --no-build          run what the build directory has
  --shell             boot to a shell instead of running the tests
GTEST_* variables of the environment hold inside the machine as well. What the machine sent and what its console said
stays in target.results and target.console of the build directory.
TEXT
}

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
build=$source_dir/build/armhf filter=. jobs=2 limit=600 time_limit=1800 must_build=1 shell=
cache=${XDG_CACHE_HOME:-$HOME/.cache}/vwincompat
while [ $# -gt 0 ]; do
    case $1 in
    --build-dir) build=$2; shift ;;
    --filter) filter=$2; shift ;;
    --cache) cache=$2; shift ;;
    --jobs) jobs=$2; shift ;;
    --limit) limit=$2; shift ;;
    --time-limit) time_limit=$2; shift ;;
    --no-build) must_build= ;;
    --shell) shell=1 ;;
    --help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done

mkdir -p "$build"
build=$(cd "$build" && pwd)
work=$(mktemp -d)
machine=
clean_up() {
    if [ -n "$machine" ]; then kill "$machine" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# The last line of every run that gets past its arguments, also of one that cannot build or boot.
close() { # PASSED FAILED
    echo "$1 passed, $2 failed"
    [ "$1" -gt 0 ] && [ "$2" -eq 0 ]
}
give_up() { # TEXT
    echo "FAILED  $1"
    close 0 1
    exit 1
}

build_all() {
    # Nothing that an earlier sysroot answered may stay.
    if ! grep -q -F -x "VLL_SYSROOT:PATH=$sysroot" "$build/CMakeCache.txt" 2>/dev/null; then
        rm -rf "$build"/CMake{Cache.txt,Files}
    fi
    if ! (cd "$source_dir" && cmake --preset armhf -B "$build" -D VLL_SYSROOT:PATH="$sysroot" &&
              cmake --build "$build" --parallel "$(nproc)") >"$work/log" 2>&1; then
        cat "$work/log"
        return 1
    fi
    ninja -C "$build" -t cleandead >/dev/null # no test runs on after it has left the tree
}

# What runs: every *_test of tests/, and for every example the script of its name in programs/. Plain programs are
# those without the words that GoogleTest prints.
write_plan() {
    local file name
    mkdir -p "$work/plan"
    : >"$work/plan/together"
    : >"$work/plan/alone"
    plain=
    for file in "$build"/tests/*_test "$build"/examples/*; do
        name=${file#"$build"/}
        if ! [ -x "$file" ] || [ "$name" = examples/CMakeFiles ]; then continue; fi
        if [[ $name = examples/* ]]; then name=programs/${file##*/} file=$here/$name; fi
        if ! [[ $name =~ $filter ]]; then continue; fi
        if grep -v '^#' "$here/alone" | grep -q -E -f - <(echo "$name"); then
            echo "$name" >>"$work/plan/alone"
        else
            echo "$name" >>"$work/plan/together"
        fi
        if ! grep -q -s -F '[==========]' "$file"; then plain+=" $name"; fi
    done
    {
        echo "export VLL_JOBS=$jobs VLL_LIMIT=$limit"
        echo "VLL_SHELL=$shell"
        local variable
        for variable in ${!GTEST_@}; do printf 'export %s=%q\n' "$variable" "${!variable}"; done
    } >"$work/plan/environment"
}

make_machine() {
    local kernels=("$sysroot"/boot/vmlinuz-*)
    "$here/initramfs.sh" "$sysroot" "$build" "$work/plan" "$work/initramfs" || return 1
    qemu=(qemu-system-arm -M "virt,highmem=off" -cpu cortex-a15 -m 512 -smp 2 -net none -no-reboot
          -display none -monitor none -kernel "${kernels[0]}" -initrd "$work/initramfs"
          -append "console=ttyAMA0 quiet rdinit=/init panic=-1")
}

# Boots, prints the results while they come, and leaves how the machine ended in `status`.
run_machine() {
    : >"$build/target.results"
    : >"$build/target.console"
    timeout -k 5 "$time_limit" "${qemu[@]}" -serial "file:$build/target.console" \
        -chardev "file,id=results,path=$build/target.results" -device pci-serial,chardev=results \
        </dev/null &
    machine=$!
    tail -c +1 -s 0.2 -f --pid="$machine" "$build/target.results" |
        awk -v plain="$plain" -v filtered="${GTEST_FILTER:-}" -v summary="$work/summary" \
            -f "$here/report.awk"
    status=0
    wait "$machine" || status=$?
    machine=
}

# The machine's own end is a test: switched off by itself, after everything that it was to run.
judge_end() { # DONE
    if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
        echo "FAILED  the machine did not end within $time_limit s"
    elif [ "$status" -ne 0 ]; then
        echo "FAILED  qemu ended with status $status"
    elif [ "$1" -ne 1 ]; then
        echo "FAILED  the machine ended without its closing marker"
    elif ! grep -q 'reboot: Power down' "$build/target.console"; then
        echo "FAILED  the machine did not switch itself off"
    else
        echo "ok      the machine switched itself off"
        return 0
    fi
    return 1
}

# shellcheck source=scripts/lib/packages.sh
. "$source_dir/scripts/lib/packages.sh"
vll_need_packages qemu-system-arm mmdebstrap g++-12-arm-linux-gnueabihf cmake ninja-build cpio ||
    give_up "Debian packages are missing"

sysroot=$("$here/sysroot.sh" --cache "$cache") || give_up "the sysroot could not be made"
if [ -n "$must_build" ]; then
    build_all || give_up "the cross build"
fi
write_plan
make_machine || give_up "the system image could not be made"
if [ -n "$shell" ]; then
    "${qemu[@]}" -serial mon:stdio -chardev null,id=results -device pci-serial,chardev=results
    exit
fi
[ -n "$(cat "$work"/plan/{together,alone})" ] || give_up "no program to run"

run_machine
read -r passed failed complete <"$work/summary"
if judge_end "$complete"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
if [ "$failed" -gt 0 ]; then
    echo "The console said:"
    sed 's/^/    /' "$build/target.console"
fi
close "$passed" "$failed"
