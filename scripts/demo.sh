#!/usr/bin/env bash
# Builds the library and runs its main job on real input: the gateway of examples/gateway, a Win32-style daemon,
# under many TCP clients at once. Prints what was sent and answered, and a summary. The exit status is 1
# when an answer is wrong or missing, or when the gateway does not stop cleanly in time.
#
#   scripts/demo.sh [--preset NAME] [--under COMMAND]
#
# --preset takes another build than "release" (asan, tsan), --under runs the gateway under a tool such as valgrind.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
. scripts/lib/packages.sh

preset=release under=()
while [ $# -gt 0 ]; do
    case "$1" in
        --preset) preset=${2?--preset takes a name}; shift ;;
        --under) read -ra under <<<"${2?--under takes a command}"; shift ;;
        -h | --help) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) echo "demo.sh: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
max_clients=14 # places in the gateway; the clients below take 12 at once
flood=10000

vll_need_packages busybox cmake ninja-build g++ pkg-config || exit 1
work=$(mktemp -d)
gateway=
finish() {
    if [ -n "$gateway" ]; then kill -KILL "$gateway" 2>/dev/null; fi
    rm -rf "$work"
}
trap finish EXIT

echo "== building"
if ! { cmake --preset "$preset" -DVLL_BUILD_TESTS=OFF -DVLL_BUILD_BENCH=OFF -B "build/demo-$preset" &&
       cmake --build "build/demo-$preset"; } >"$work/build" 2>&1; then
    tail -n 60 "$work/build" >&2
    exit 1
fi
programs=build/demo-$preset/examples/gateway

# Waits for a condition, up to 20 seconds.
wait_until() {
    local deadline=$((SECONDS + 20))
    until "$@"; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.05
    done
}
gateway_ended() { ! kill -0 "$gateway" 2>/dev/null; }
port_written() { [ -s "$work/port" ] || gateway_ended; }

echo "== its settings, written with vll-profile"
profile=$work/gateway.ini
tool=build/demo-$preset/tools/vll-profile
if ! { "$tool" set "$profile" gateway clients $max_clients && "$tool" set "$profile" gateway workers 3 &&
       [ "$("$tool" get "$profile" gateway clients)" = $max_clients ] && "$tool" show "$profile"; }; then
    echo "the settings were not written" >&2
    exit 1
fi

echo "== the gateway starts"
"${under[@]}" "$programs/gateway" --profile "$profile" --port-file "$work/port" --log "$work/log" >"$work/gateway" 2>&1 &
gateway=$!
if ! wait_until port_written || [ ! -s "$work/port" ]; then
    cat "$work/gateway" >&2
    echo "the gateway did not start" >&2
    exit 1
fi
port=$(cat "$work/port")
echo "it listens on 127.0.0.1:$port"

echo "== twelve clients at once: eight talk, three leave in mid-line, one floods $flood lines"
failures=0 names=() pids=() lines=0
client() {
    local kind=$1 name=$2 count=$3
    timeout 60 "$programs/demo_client" "$kind" "$port" "$name" "$count" >"$work/$name" 2>&1 &
    pids+=($!) names+=("$name")
    lines=$((lines + count))
}
client talk flood $flood
for i in 1 2 3 4 5 6 7 8; do client talk "client$i" $((i * 25)); done
for i in 1 2 3; do client cut "cut$i" $((i * 10)); done
for i in "${!pids[@]}"; do
    if ! wait "${pids[$i]}"; then
        echo "FAILED: ${names[$i]}"
        failures=$((failures + 1))
    fi
    cat "$work/${names[$i]}"
done

echo "== a crowd takes all $max_clients places, one more is refused"
crowd() {
    timeout 60 "$programs/demo_client" crowd "$port" crowd $max_clients >"$work/crowd" 2>&1
}
if ! wait_until crowd; then
    echo "FAILED: crowd"
    failures=$((failures + 1))
fi
grep -v -E 'sent |answered' "$work/crowd"

echo "== the gateway is asked to stop"
kill -TERM "$gateway"
if wait_until gateway_ended; then
    wait "$gateway"
    status=$?
else
    status="none in time"
    kill -KILL "$gateway"
fi
gateway=
cat "$work/gateway"
[ "$status" = 0 ] || failures=$((failures + 1))
answered=$(sed -n 's/^gateway: .* \([0-9]*\) lines answered.*/\1/p' "$work/gateway")
# The log got, in the background, all that was printed from its start to its stop.
if ! grep -q ' lines answered' "$work/log" || ! grep -q '^listening on' "$work/log"; then
    echo "FAILED: the log"
    failures=$((failures + 1))
fi
cut=$(sed -n 's/^gateway: .* \([0-9]*\) cut in mid-line.*/\1/p' "$work/gateway")

echo "== a gateway with a console runs a program for a client, and quits when told to"
mkfifo "$work/console"
"${under[@]}" "$programs/gateway" --port-file "$work/port2" --commands <>"$work/console" >"$work/gateway2" 2>&1 &
gateway=$!
port2_written() { [ -s "$work/port2" ] || gateway_ended; }
wait_until port2_written
if exec 3<>"/dev/tcp/127.0.0.1/$(cat "$work/port2")"; then
    printf '!sleep 0.2\nand a line\n' >&3
    timeout 20 head -n 2 <&3 | tee "$work/command"
    exec 3>&-
fi
if ! { grep -q '^1 process [0-9]* has ended$' "$work/command" && grep -q '^2 AND A LINE$' "$work/command"; }; then
    echo "FAILED: !sleep"
    failures=$((failures + 1))
fi
echo quit >"$work/console"
if wait_until gateway_ended && wait "$gateway"; then
    gateway=
else
    echo "FAILED: quit"
    failures=$((failures + 1))
fi
cat "$work/gateway2"

echo "== a gateway logs to a syslog daemon, and vll-eventlog reads its lines back"
namespace=(unshare --mount)
[ "$(id -u)" = 0 ] || namespace+=(--map-root-user)
if ! "${namespace[@]}" scripts/lib/log_demo.sh "build/demo-$preset" "$work"; then
    echo "FAILED: event log"
    failures=$((failures + 1))
fi

echo "== summary"
echo "${#pids[@]} clients sent $lines lines; the gateway answered ${answered:-none} with those of the crowd and saw ${cut:-none} cut"
[ "${answered:-0}" -ge $((lines + max_clients)) ] || failures=$((failures + 1))
[ "${cut:-0}" = 3 ] || failures=$((failures + 1))
echo "gateway exit status: $status"
echo "$failures failures"
[ $failures = 0 ]
