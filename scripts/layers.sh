#!/bin/sh
# Checks the sources against src/LAYERS and prints one line for each fault.
#
#   scripts/layers.sh              the includes, who owns each public header, the list of locks
#   scripts/layers.sh BUILD_DIR    also the calls between the object files of that build, as nm shows them
#
# No include and no call goes to a folder above; within a folder neither makes a circle of files. A use of another
# file's variable counts as a call. NM names the nm to use.
set -eu
cd "$(dirname "$0")/.."

case "${1:-}" in
    -h | --help) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
facts=$(mktemp)
trap 'rm -f "$facts"' EXIT

# Every fact is one line; its first word says of what kind it is.
{
    sed 's/#.*//' src/LAYERS
    find src include -name '*.[ch]' -o -name '*.cpp' | sed 's/^/file /'
    find src include \( -name '*.[ch]' -o -name '*.cpp' \) -exec awk '
        /^[ \t]*#[ \t]*include[ \t]*["<]/ { sub(/^[^"<]*/, ""); print "include", FILENAME, $1 }
        /^(static )?pthread_mutex_t [A-Za-z_0-9]+( =|;|\{)/ {
            sub(/^static /, ""); sub(/[;{]/, " "); print "mutex", FILENAME, $2
        }' {} +
} >"$facts"
if [ $# -gt 0 ]; then
    echo "calls" >>"$facts"
    for target in vwincompat_objects vwincompat; do
        # An object whose source is gone is left over from an older build.
        (cd "$1/src/CMakeFiles/$target.dir" && find . -name '*.o' -exec "${NM:-nm}" -A -C {} +)
    done | sed -n 's/^\.\/\([^:]*\)\.o:[0-9a-fA-F ]* \([A-Za-z]\) /symbol src\/\1 \2 /p' >>"$facts"
fi

awk '
function fault(text) { print text; faults++ }

# The layer of a file: 1 is the lowest. 0 when it has none.
function rank(file,    part) {
    if (file == table || file in top) return layers + 1
    if (file in owner) return owner[file]
    split(file, part, "/")
    return part[1] == "src" && part[3] != "" ? layer[part[2]] + 0 : 0
}

# Where an include leads to, or "" for the headers of the system.
function resolve(text,    name) {
    name = substr(text, 2, length(text) - 2)
    if (("src/" name) in is_file) return "src/" name
    if (("include/" name) in is_file) return "include/" name
    return substr(text, 1, 1) == "\"" ? text : ""
}

function include(from, text,    to) {
    to = resolve(text)
    if (to == "") return
    text = substr(text, 2, length(text) - 2)
    if (!(to in is_file)) fault(from ": includes " text ", which is no path from src/ or include/")
    else if (from == "include/vwincompat.h") return
    else if (!rank(to)) fault(from ": includes " text ", which no layer owns")
    else if (rank(to) > rank(from)) fault(from ": includes " text ", which is above it")
    else edge("includes", from, to, "")
}

# Only edges between two files of one folder can make a circle.
function edge(kind, from, to, detail,    key) {
    if (rank(from) != rank(to) || from == to) return
    key = kind SUBSEP from SUBSEP to
    if (!(key in edges)) {
        edges[key] = detail
        reach[key]
        member[kind, rank(from)] = member[kind, rank(from)] " " from " " to
    } else {
        edges[key] = edges[key] ", " detail
    }
}

function call(from, to, symbol,    plain) {
    plain = symbol
    sub(/\(.*/, "", plain)
    if (to == table && plain == table_function) return
    if (rank(to) > rank(from)) fault(from ": uses " plain " of " to ", which is above it")
    else edge("calls", from, to, plain)
}

# Reports the circles among the files of one layer. Two files are in one circle when each reaches the other.
function circles(kind, level,    n, i, j, k, names, list, seen, done, text) {
    n = split(member[kind, level], list, " ")
    j = 0
    for (i = 1; i <= n; i++) if (!seen[list[i]]++) names[++j] = list[i]
    n = j
    for (k = 1; k <= n; k++) for (i = 1; i <= n; i++) if ((kind, names[i], names[k]) in reach)
        for (j = 1; j <= n; j++) if ((kind, names[k], names[j]) in reach) reach[kind, names[i], names[j]]
    for (i = 1; i <= n; i++) {
        if (done[i] || !((kind, names[i], names[i]) in reach)) continue
        text = ""
        for (j = 1; j <= n; j++) {
            if (!((kind, names[i], names[j]) in reach) || !((kind, names[j], names[i]) in reach)) continue
            done[j] = 1
            for (k = 1; k <= n; k++)
                if ((kind, names[j], names[k]) in edges && (kind, names[k], names[i]) in reach)
                    text = text "\n    " names[j] " " kind " " names[k] \
                        (kind == "calls" ? ": " edges[kind, names[j], names[k]] : "")
        }
        fault("src/" folder[level] ": a circle of files:" text)
    }
}

$1 == "layer" {
    layer[$2] = ++layers
    folder[layers] = $2
    for (i = 3; i <= NF; i++) {
        if (("include/vwincompat/" $i) in owner) fault("src/LAYERS: two folders own " $i)
        owner["include/vwincompat/" $i] = layers
    }
}
$1 == "table" {
    if (table != "") fault("src/LAYERS: more than one table")
    table = "src/" $2; table_function = $3
}
$1 == "top" { top["src/" $2] }
$1 == "lock" { lock[$2]++; locks++ }
$1 == "file" { is_file[$2] }
$1 == "mutex" {
    mutex[$3]
    if (!($3 in lock)) fault($2 ": the lock " $3 " has no place in the order of src/LAYERS")
}
$1 == "include" { inc_from[++incs] = $2; inc_text[incs] = $3 }
$1 == "calls" { want_calls = 1 }
$1 == "symbol" && $2 in is_file {
    name = $0
    sub(/^[^ ]+ [^ ]+ [^ ]+ /, "", name)
    has_object[$2]
    if ($3 == "U") { use_from[++uses] = $2; use_name[uses] = name }
    else if ($3 ~ /[A-Z]/ && ($3 !~ /[VW]/ || !(name in defined))) defined[name] = $2
}

END {
    if (!layers) fault("src/LAYERS: names no layer")
    for (file in is_file) {
        if (!rank(file) && file != "include/vwincompat.h") fault(file ": belongs to no layer")
        if (want_calls && file ~ /^src\/.*\.(c|cpp)$/ && !(file in has_object)) fault(file ": has no object file in the build")
    }
    for (file in top) if (!(file in is_file)) fault("src/LAYERS: there is no " file)
    for (file in owner) if (!(file in is_file)) fault("src/LAYERS: there is no " file)
    for (name in lock) {
        if (!(name in mutex)) fault("src/LAYERS: there is no lock " name)
        if (lock[name] > 1) fault("src/LAYERS: names the lock " name " twice")
    }
    for (i = 1; i <= incs; i++) include(inc_from[i], inc_text[i])
    for (i = 1; i <= uses; i++)
        if (use_name[i] in defined) call(use_from[i], defined[use_name[i]], use_name[i])
    for (i = 1; i <= layers; i++) {
        circles("includes", i)
        circles("calls", i)
    }
    if (faults) { print "layers: " faults " faults"; exit 1 }
    print "layers: " layers " layers, " incs " includes, " uses + 0 " uses of symbols, " locks " locks: clean"
}' "$facts"
