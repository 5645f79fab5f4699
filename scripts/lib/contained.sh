#!/usr/bin/env bash
# Runs a program whose faults must not reach the machine, for mutate.py:
#
#   unshare --mount --pid --fork --kill-child --mount-proc --ipc --net --uts scripts/lib/contained.sh WRITABLE PROGRAM...
#
# It sees the file systems read-only but for a /tmp of its own and the directory WRITABLE ("-": none), reaches no
# network but a loopback of its own, and can neither set the clock nor reboot nor load modules. Its processes end with
# the first one, which sees them as a PID namespace of its own.
writable=$1
shift
if [ "$writable" != - ]; then
    mount --bind "$writable" "$writable" || exit 125
fi
mount -o remount,bind,ro / && mount -t tmpfs tmp /tmp && ip link set lo up || exit 125
ulimit -c 0
ulimit -v 8000000
ulimit -f 20000000 # blocks of 512 bytes: the tests make files of up to 8 GiB, all holes
exec setpriv --bounding-set=-sys_time,-sys_boot,-sys_module,-sys_rawio "$@"
