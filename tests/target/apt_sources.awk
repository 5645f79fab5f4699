# Prints, as one-line apt sources, what this machine's own sources offer of the main component of one suite.
# Input: *.list files (one-line format) and *.sources files (stanzas). Variables: suite; keydir, where keys that
# stand inside a stanza are written as files.

function has(list, word,    part, n, i) {
    n = split(list, part, /[ \t]+/)
    for (i = 1; i <= n; i++)
        if (part[i] == word) return 1
    return 0
}

function emit(options, uri,    line) {
    if (uri ~ /^cdrom:/) return
    line = "deb " (options == "" ? "" : "[" options "] ") uri " " suite " main"
    if (!(line in seen)) print line
    seen[line] = 1
}

function one_line(line,    options, part, n, i, kept) {
    sub(/#.*/, "", line)
    if (line !~ /^[ \t]*deb[ \t]/) return
    sub(/^[ \t]*deb[ \t]+/, "", line)
    if (match(line, /^\[[^]]*\][ \t]*/)) {
        options = substr(line, 1, RLENGTH)
        line = substr(line, RLENGTH + 1)
        gsub(/^\[[ \t]*|[ \t]*\][ \t]*$/, "", options)
    }
    n = split(options, part, /[ \t]+/)
    for (i = 1; i <= n; i++)
        if (part[i] ~ /^(signed-by|trusted)=/) kept = kept (kept == "" ? "" : " ") part[i]
    n = split(line, part, /[ \t]+/)
    if (part[2] != suite) return
    for (i = 3; i <= n; i++)
        if (part[i] == "main") emit(kept, part[1])
}

function end_stanza(    options, key, part, n, i) {
    if (has(field["types"], "deb") && has(field["suites"], suite) && has(field["components"], "main") &&
        tolower(field["enabled"]) !~ /^(no|false|off|0)$/) {
        key = field["signed-by"]
        if (key ~ /-----BEGIN/) {
            options = keydir "/key" ++keys ".asc"
            print key > options
            close(options)
            key = options
        }
        gsub(/[ \t]+/, ",", key)
        options = key == "" ? "" : "signed-by=" key
        if (field["trusted"] != "") options = options (options == "" ? "" : " ") "trusted=" field["trusted"]
        n = split(field["uris"], part, /[ \t]+/)
        for (i = 1; i <= n; i++)
            if (part[i] != "") emit(options, part[i])
    }
    split("", field)
    name = ""
}

function stanza_line(line) {
    if (line ~ /^#/) return
    if (line ~ /^[ \t]*$/) { end_stanza(); return }
    if (line ~ /^[ \t]/) {
        sub(/^[ \t]/, "", line)
        if (name == "signed-by" && (field[name] ~ /-----BEGIN/ || line ~ /-----BEGIN/))
            field[name] = field[name] (field[name] == "" ? "" : "\n") (line == "." ? "" : line)
        else
            field[name] = field[name] " " line
        return
    }
    name = tolower(substr(line, 1, index(line, ":") - 1))
    line = substr(line, index(line, ":") + 1)
    gsub(/^[ \t]+|[ \t]+$/, "", line)
    field[name] = line
}

FNR == 1 { end_stanza() }
FILENAME ~ /\.sources$/ { stanza_line($0); next }
{ one_line($0) }
END { end_stanza() }
