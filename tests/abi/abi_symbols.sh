#!/bin/sh
# What the shared library offers and needs: exactly the names of the version script, which are exactly those that the
# public headers declare; nothing but the C library at run time; its soname; that it stays loaded.
# Usage: abi_symbols.sh <library> <source directory> <soname>
set -eu
export LC_ALL=C
library=$1 source=$2 soname=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
fail() {
    echo "FAILED: $1" >&2
    status=1
}

# name@@version of each exported symbol, without the version's own
${NM:-nm} -D --defined-only "$library" | awk '$2 != "A" { print $3 }' | sort >"$work/versioned"
sed 's/@.*//' "$work/versioned" >"$work/exported"
if grep -v '@@VWINCOMPAT_1$' "$work/versioned"; then
    fail "exported without the version VWINCOMPAT_1"
fi

sed -e 's,/\*.*\*/,,' -n -e '/global:/,/local:/s/^ *\([A-Za-z_0-9]*\);.*/\1/p' "$source/src/vwincompat.map" |
    sort >"$work/listed"

# A declaration runs from VLL_API to its semicolon; the name stands before the first parenthesis, or last.
cat "$source"/include/vwincompat/*.h | grep -v '^#' | tr '\n' ' ' | sed 's,/\*,\n/*,g; s,\*/,*/\n,g' |
    sed '/^\/\*/d' | tr ';' '\n' | grep 'VLL_API' |
    sed -e 's/.*VLL_API//' -e 's/(.*//' -e 's/\[.*//' -e 's/ *$//' -e 's/.*[ *]//' | sort >"$work/declared"

diff "$work/listed" "$work/exported" >&2 || fail "the version script (<) and the library (>) differ"
diff "$work/declared" "$work/exported" >&2 || fail "the public headers (<) and the library (>) differ"
[ -s "$work/exported" ] || fail "nothing is exported"

needed=$(${READELF:-readelf} -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for name in $needed; do
    case $name in
    libc.so.* | libcrypt.so.* | libgcc_s.so.*) ;;
    ld-linux*.so.*)
        # On ARM the value that the stack protector compares stands in the C library's loader: nothing else of it is used.
        ${NM:-nm} -D --undefined-only "$library" | awk '
            $2 ~ /^__stack_chk_guard(@|$)/ { guard = 1 }
            $2 ~ /^(__tls_get_addr|_dl_|_r_debug|__libc_enable_secure)/ { other = 1 }
            END { exit !guard || other }' || fail "needs $name"
        ;;
    *) fail "needs $name" ;;
    esac
done
${READELF:-readelf} -d "$library" | grep -q "(FLAGS_1).* NODELETE" || fail "can be unloaded"
${READELF:-readelf} -d "$library" | grep -q "(SONAME).*\[$soname\]" || fail "the soname is not $soname"
exit $status
