#!/usr/bin/env bash
# Mutation testing: makes small faults in src/, one at a time, and prints those that no test notices.
#
#   scripts/mutate.sh [N]              N mutants at random (300) from a seed that is printed
#       --seed S                       the same mutants again
#       --folder NAME, --file PATH     only mutants of src/NAME, of one file
#       --mutant ID                    this one, by its printed name (src/sync/event.cpp:42:negate:1); may be repeated
#       --list                         prints the mutants and runs nothing
#       --jobs J                       as many at a time (one per processor)
#       --verbose                      prints the other mutants too, and what killed them
#       --at-least P                   exit status 1 when fewer than P percent were killed
#
# The operators are those of scripts/lib/mutants.py. Mutants that do not compile, or give the same object file, are
# replaced by others. Those that tests/mutants.equivalent names are left out. Each test program runs in namespaces of
# its own, where a fault can neither write to the machine's files nor reach its network, processes or clock. The
# last line reads "mutants=N killed=N survived=N percent=P seed=S".
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

case " $* " in
    *" -h "* | *" --help "*) sed -n '2,17s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
vll_need_packages python3 cmake ninja-build g++ lld binutils pkg-config libgtest-dev libgmock-dev iproute2 || exit 2
exec python3 -B scripts/lib/mutate.py "$@"
