#!/bin/sh
# Runs a gateway beside a real syslog daemon, and reads its own lines back as event-log records. In a mount namespace of
# its own, where /dev, /var/log and what is written to them are private:
#
#   unshare --mount [--map-root-user] scripts/lib/log_demo.sh PROGRAMS-DIRECTORY WORK-DIRECTORY
set -eu
programs=$1 work=$2

mkdir "$work/dev"
mount -t tmpfs dev "$work/dev"
for node in null zero full random urandom; do
    : >"$work/dev/$node"
    mount --bind "/dev/$node" "$work/dev/$node"
done
mkdir "$work/dev/shm"
mount --move "$work/dev" /dev
mount -t tmpfs shm /dev/shm
mount -t tmpfs log /var/log

# Waits for a condition, up to 20 seconds.
wait_until() {
    tries=400
    until "$@"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || return 1
        sleep 0.05
    done
}

busybox syslogd -n -O /var/log/vservices &
syslogd=$!
gateway=
trap 'kill $syslogd $gateway 2>/dev/null || :' EXIT
wait_until test -S /dev/log

"$programs/examples/gateway/gateway" --port-file "$work/port3" >"$work/gateway3" 2>&1 </dev/null &
gateway=$!
wait_until test -s "$work/port3"
timeout 60 "$programs/examples/gateway/demo_client" talk "$(cat "$work/port3")" logged 25 >/dev/null
kill -TERM $gateway
wait $gateway
gateway=

# What it said is what the log holds.
sed 's/^gateway: //; /lines answered/q' "$work/gateway3" >"$work/said"
read_back() {
    "$programs/tools/vll-eventlog" --json >"$work/records"
    sed -n 's/.*"type":"information","source":"gateway".*"text":"\(.*\)"}$/\1/p' "$work/records" | cmp -s - "$work/said"
}
if ! wait_until read_back; then
    diff "$work/said" "$work/records" || :
    exit 1
fi
"$programs/tools/vll-eventlog"
