#!/usr/bin/env bash
# Checks the contract of every exported operation and variable in the public headers.
#
#   scripts/contracts.sh                  all headers, and that they declare every name of src/vwincompat.map
#   scripts/contracts.sh HEADER...        these headers only
#   scripts/contracts.sh --examples DIR   also writes each header's examples to DIR/<header>.c, to be compiled
#
# A contract is the doc comment directly before the declaration. An operation needs, in this order, one @param for
# each parameter, @return unless it is void, @error, @cancel and @thread; a variable needs @thread, which says what
# guards it. A header that declares anything needs a file comment with an example between @code{.c} and @endcode:
# whole functions, which follow on #include <vwincompat.h>. Prints what is missing as file:line and then fails.
set -euo pipefail
cd "$(dirname "$0")/.."

examples=
if [ "${1:-}" = --examples ]; then
    examples=$(mkdir -p "${2:?--examples takes a directory}" && cd "$2" && pwd)
    shift 2
fi
map=
if [ $# -eq 0 ]; then
    map=src/vwincompat.map
    set -- include/vwincompat.h include/vwincompat/*.h
fi

# shellcheck disable=SC2016  # the program is awk's, which expands its own fields
checker='
function complain(line, text) {
    printf "%s:%d: %s\n", FILENAME, line, text
    ++faults
}

function trim(text) {
    gsub(/[ \t]+/, " ", text)
    sub(/^ /, "", text)
    sub(/ $/, "", text)
    return text
}

# Reads a doc comment, a line at a time.

function beginComment() {
    in_comment = 1
    is_file_comment = in_code = tags = 0
    comment_text = ""
}

function beginTag(text) {
    match(text, /^@[a-z]+/)
    ++tags
    tag_kind[tags] = substr(text, 2, RLENGTH - 1)
    tag_text[tags] = substr(text, RLENGTH + 1)
    tag_line[tags] = FNR
}

function readCommentLine(text, ends) {
    ends = text ~ /\*\//
    sub(/^[ \t]*\/\*\*/, "", text)
    sub(/\*\/.*/, "", text)
    sub(/^[ \t]*\* ?/, "", text)
    if (text ~ /^ *@endcode/) {
        in_code = 0
    } else if (in_code) {
        example_lines[++example_length] = text
    } else if (text ~ /^ *@code/) {
        in_code = 1
        if (is_file_comment && text ~ /@code[{]\.c[}]/ && !example_line) {
            example_line = FNR
        }
        example_lines[++example_length] = "#line " (FNR + 1) " \"" FILENAME "\""
    } else if (text ~ /^ *@file/) {
        is_file_comment = 1
    } else if (text ~ /^ *@(param|return|error|cancel|thread|since) /) {
        sub(/^ */, "", text)
        beginTag(text)
    } else if (text ~ /^ *@/ && text !~ /^ *@p /) {
        complain(FNR, "unknown tag:" text)
    } else if (tags) {
        tag_text[tags] = tag_text[tags] " " text
    } else {
        comment_text = comment_text " " text
    }
    if (ends) {
        in_comment = 0
        comment_end = FNR
    }
}

# Takes a declaration apart: name, what stands before it, parameters.

function parseParameters(text, depth, i, c, part) {
    parameters = 0
    part = ""
    for (i = 1; i <= length(text); ++i) {
        c = substr(text, i, 1)
        depth += (c == "(") - (c == ")")
        if (depth < 0) {
            break
        }
        if (c == "," && depth == 0) {
            parameter[++parameters] = parameterName(part)
            part = ""
        } else {
            part = part c
        }
    }
    part = trim(part)
    if (part != "void" && part != "") {
        parameter[++parameters] = parameterName(part)
    }
}

function parameterName(text) {
    text = trim(text)
    if (match(text, /\(\*[A-Za-z_0-9]+\)/)) {
        return substr(text, RSTART + 2, RLENGTH - 3)
    }
    sub(/ *\[.*/, "", text)
    sub(/.*[^A-Za-z_0-9.]/, "", text)
    return text
}

function parseDeclaration(text, head) {
    sub(/.*VLL_API /, "", text)
    head = text
    is_function = sub(/\(.*/, "", head)
    sub(/ *[\[;].*/, "", head)
    head = trim(head)
    name = type = head
    sub(/.*[ *]/, "", name)
    type = trim(substr(head, 1, length(head) - length(name)))
    parameters = 0
    if (is_function) {
        sub(/^[^(]*\(/, "", text)
        parseParameters(text)
    }
}

# Compares the doc comment with the declaration.

function checkDeclaration(line) {
    declared[name] = 1
    ++declarations
    if (comment_end != line - 1 || is_file_comment) {
        complain(line, name ": no doc comment directly before it")
        return
    }
    if (trim(comment_text) == "") {
        complain(line, name ": nothing says what it is for")
    }
    countTags()
    checkOrder()
    if (is_function) {
        ++operations
        checkParameters(line)
        checkOperation(line)
    } else {
        ++variables
    }
    if (!count["thread"]) {
        complain(line, name ": no @thread" (is_function ? "" : ", which says what guards it"))
    }
}

function countTags(i) {
    split("", count)
    for (i = 1; i <= tags; ++i) {
        ++count[tag_kind[i]]
        tag_text[i] = trim(tag_text[i])
        if (tag_text[i] == "") {
            complain(tag_line[i], name ": @" tag_kind[i] " says nothing")
        }
        if (tag_kind[i] !~ /^(param|error)$/ && count[tag_kind[i]] == 2) {
            complain(tag_line[i], name ": a second @" tag_kind[i])
        }
    }
}

function checkOrder(i, order) {
    order = "param return error cancel thread since"
    for (i = 2; i <= tags; ++i) {
        if (index(order, tag_kind[i]) < index(order, tag_kind[i - 1])) {
            complain(tag_line[i], name ": @" tag_kind[i] " stands after @" tag_kind[i - 1])
        }
    }
}

function checkParameters(line, i, found, word, rest) {
    found = 0
    for (i = 1; i <= tags; ++i) {
        if (tag_kind[i] != "param") {
            continue
        }
        word = rest = tag_text[i]
        sub(/ .*/, "", word)
        sub(/^[^ ]* ?/, "", rest)
        ++found
        if (found > parameters || word != parameter[found]) {
            complain(tag_line[i], name ": @param " word " where " \
                (found > parameters ? "no parameter is left" : parameter[found] " is expected"))
            return
        }
        if (rest == "") {
            complain(tag_line[i], name ": @param " word " says nothing")
        }
    }
    while (++found <= parameters) {
        complain(line, name ": no @param " parameter[found])
    }
}

function checkOperation(line, i) {
    if (type == "void" && count["return"]) {
        complain(line, name ": @return although it is void")
    }
    if (type != "void" && !count["return"]) {
        complain(line, name ": no @return")
    }
    if (!count["error"]) {
        complain(line, name ": no @error")
    }
    if (!count["cancel"]) {
        complain(line, name ": no @cancel")
    }
    for (i = 1; i <= tags; ++i) {
        if (tag_kind[i] == "error") {
            checkError(i)
        } else if (tag_kind[i] == "cancel" && tag_text[i] !~ /^(Not a|A) cancellation point/) {
            complain(tag_line[i], name ": @cancel begins neither with \"Not a\" nor \"A cancellation point\"")
        }
    }
}

function checkError(i, numbers, cause) {
    numbers = cause = tag_text[i]
    if (!match(numbers, /^(none|others|E[A-Z0-9]+(, E[A-Z0-9]+)*) /)) {
        complain(tag_line[i], name ": @error needs error numbers, none or others, and a cause")
    } else if (numbers ~ /^none / && count["error"] > 1) {
        complain(tag_line[i], name ": @error none beside another @error")
    }
}

function endFile(i, path) {
    if (declarations && !example_line) {
        printf "%s:1: no example between @code{.c} and @endcode in the file comment\n", previous_file
        ++faults
    }
    if (in_comment || collecting) {
        printf "%s: ends inside a %s\n", previous_file, in_comment ? "comment" : "declaration"
        ++faults
    }
    if (examples != "" && example_line) {
        path = previous_file
        sub(/.*\//, "", path)
        sub(/\.h$/, ".c", path)
        print "#include <vwincompat.h>" > (examples "/" path)
        for (i = 1; i <= example_length; ++i) {
            print example_lines[i] > (examples "/" path)
        }
        close(examples "/" path)
    }
    declarations = example_line = example_length = in_comment = collecting = 0
    comment_end = -1
}

FNR == 1 {
    if (previous_file != "") {
        endFile()
    }
    previous_file = FILENAME
}

length($0) > 110 { complain(FNR, "over 110 columns") }

!in_comment && /^\/\*\*/ { beginComment() }

in_comment {
    readCommentLine($0)
    next
}

/^(extern )?VLL_API / {
    collecting = 1
    declaration = ""
    declaration_line = FNR
}

collecting {
    declaration = declaration " " $0
    if (/;/) {
        collecting = 0
        parseDeclaration(declaration)
        checkDeclaration(declaration_line)
    }
    next
}

/^[^#\/].*VLL_API / { complain(FNR, "a declaration that this script cannot read") }

END {
    if (previous_file != "") {
        endFile()
    }
    for (i = split(exported, names, " "); i > 0; --i) {
        if (!(names[i] in declared)) {
            print map ": " names[i] " is exported and no header declares it"
            ++faults
        }
    }
    if (operations + variables == 0) {
        print "no declaration found"
        ++faults
    }
    if (faults) {
        printf "%d operations, %d variables: %d faults in their contracts\n", operations, variables, faults
        exit 1
    }
    printf "%d operations, %d variables: contracts complete\n", operations, variables
}
'

exported=
if [ -n "$map" ]; then
    exported=$(sed -n -e 's,/\*.*\*/,,' -e '/global:/,/local:/s/^ *\([A-Za-z_0-9]*\);.*/\1/p' "$map" | tr '\n' ' ')
fi

if [ -z "$examples" ]; then
    exec awk -v examples= -v exported="$exported" -v map="$map" "$checker" "$@"
fi
# An example that did not change keeps its file, so that nothing is compiled again.
fresh=$(mktemp -d)
trap 'rm -rf "$fresh"' EXIT
status=0
awk -v examples="$fresh" -v exported="$exported" -v map="$map" "$checker" "$@" || status=$?
for file in "$fresh"/*.c; do
    [ -e "$file" ] || continue
    cmp -s "$file" "$examples/${file##*/}" || cp "$file" "$examples/"
done
exit "$status"
