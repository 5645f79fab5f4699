#!/bin/bash
# Tests the harness itself: build directories whose programs are shell scripts that pass, fail, die, hang or bring the
# machine down, each with the closing line that run.sh must end with. Takes two to three minutes.
# usage: selftest.sh [--cache DIR]
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
mkdir -p "$build/tests"
bad=0

# program NAME: a program for the next run, its text on standard input.
program() {
    { echo '#!/bin/sh'; cat; } >"$build/tests/$1"
    chmod +x "$build/tests/$1"
}

# expect STATUS LINE [TEXT]: runs what was set up; LINE is the closing line, TEXT must be in the output.
expect() {
    local status=0 output
    output=$("$here/run.sh" --no-build --build-dir "$build" "${options[@]}" 2>&1) || status=$?
    if [ "$status" -eq "$1" ] && [ "$(tail -n 1 <<<"$output")" = "$2" ] && grep -q -F "${3:-}" <<<"$output"; then
        echo "ok      $what"
    else
        printf 'FAILED  %s: status %d, wanted %d, "%s" and "%s"\n%s\n' "$what" "$status" "$1" "$2" "${3:-}" "$output"
        bad=$((bad + 1))
    fi
    rm -f "$build"/tests/*
}

options=("$@")

what="passing and skipped tests, in the machine that was promised"
program plain_test <<<'exit 0'
program good_test <<'TEXT'
echo '[==========] Running 3 tests from 1 test suite.'
printf '[ RUN      ] a.b\nunfinished line [       OK ] a.b (1 ms)\n'
for path in /dev/ttyACM0 /dev/ttyGS0 /dev/rtc0 /dev/pts/ptmx /usr/share/zoneinfo/Europe/Berlin /etc/localtime; do
    [ -e $path ] || { echo "no $path"; exit 1; }
done
[ "$VLL_TARGET" = 1 ] && ping -c 1 127.0.0.1 && [ "$(uname -m)" = armv7l ] || exit 1
echo '[       OK ] a.c (2 ms)'
printf 'x.cpp:1: Skipped\nno such device\n\n[  SKIPPED ] a.d (0 ms)\n'
TEXT
expect 0 "4 passed, 0 failed" "skipped a.d: no such device"

what="a failed test, and a program that stops early with status 0"
program fails_test <<'TEXT'
echo '[==========] Running 2 tests from 1 test suite.'
printf '[       OK ] a.b (1 ms)\nExpected: this\n[  FAILED  ] a.c, where GetParam() = 2 (1 ms)\n[  FAILED  ] a.c\n'
exit 1
TEXT
program early_test <<'TEXT'
echo '[==========] Running 2 tests from 1 test suite.'
echo '[       OK ] a.b (1 ms)'
TEXT
expect 1 "3 passed, 2 failed" "Expected: this"

what="a crash, a hang and a program without tests, after which the harness goes on"
program crash_test <<<'kill -SEGV $$'
program hang_test <<<'echo before; sleep 1000'
program none_test <<<"echo '[==========] Running 0 tests from 0 test suites.'"
program plain_test <<<'exit 0'
options=("$@" --limit 5)
expect 1 "2 passed, 3 failed" "no end after 5 s"
options=("$@")

what="a fault in the tear-down of a program whose tests pass"
program down_test <<'TEXT'
printf '[==========] Running 1 test from 1 test suite.\n[       OK ] a.b (1 ms)\n'
exit 3
TEXT
expect 1 "2 passed, 1 failed" "status 3, though no test failed"

what="a kernel panic"
program panic_test <<<'echo c >/proc/sysrq-trigger; sleep 100'
expect 1 "0 passed, 2 failed" "Kernel panic"

what="a machine that switches itself off too early"
program off_test <<<'poweroff -f'
expect 1 "0 passed, 2 failed" "without its closing marker"

what="a machine that hangs"
program stop_test <<'TEXT'
kill -STOP $PPID
sleep 1000
TEXT
options=("$@" --time-limit 25)
expect 1 "0 passed, 2 failed" "did not end within 25 s"
options=("$@")

what="a power switch that does nothing"
program plain_test <<<'exit 0'
program target_poweroff <<<'echo nothing'
expect 1 "1 passed, 2 failed" "did not switch the machine off"

what="a power switch that works"
program plain_test <<<'exit 0'
program target_poweroff <<<'exec poweroff -f'
expect 0 "2 passed, 0 failed"

what="a program that must have the machine for itself"
program time_test <<<'mkdir /tmp/alone && sleep 2 && rmdir /tmp/alone'
program a_test <<<'mkdir /tmp/alone && sleep 2 && rmdir /tmp/alone'
expect 0 "3 passed, 0 failed"

what="nothing to run"
expect 1 "0 passed, 1 failed" "no program to run"

[ "$bad" -eq 0 ]
