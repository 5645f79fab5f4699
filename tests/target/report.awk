# Reads what the machine sends, prints one line per program as it ends, and at the end of the input writes
# "PASSED FAILED DONE" to the file named by `summary`. `plain` lists the programs that are no GoogleTest binaries.

BEGIN {
    n = split(plain, part, " ")
    for (i = 1; i <= n; i++) is_plain[part[i]] = 1
}

{ sub(/\r$/, "") }

/^@@ begin / { running[$3] = 1; next }
/^@@ end / { finish($3, $4, $5); next }
/^@@ problem / { failed++; print "FAILED  the machine: " substr($0, 12); next }
/^@@ done$/ { complete = 1; next }
/^@@ / { next }

(bar = index($0, "| ")) > 1 {
    program = substr($0, 1, bar - 1)
    line = substr($0, bar + 2)
    if (program == "target_poweroff") { print line; next }
    output[program] = output[program] "    " line "\n"
    read_line(program, line)
}

# A result line may follow output that did not end its own line, so it is not looked for at the start only.
function read_line(program, line) {
    if (line ~ /^\[==========\] Running [0-9]+ tests? from /) {
        split(line, word, " ")
        announced[program] += word[3]
    } else if (line ~ /\[       OK \] .* \([0-9]+ ms\)$/) {
        good[program]++
    } else if (line ~ /\[  FAILED  \] .* \([0-9]+ ms\)$/) {
        bad[program]++
    } else if (line ~ /\[  SKIPPED \] .* \([0-9]+ ms\)$/) {
        skipped[program]++
        sub(/.*\[  SKIPPED \] /, "", line)
        sub(/ \([0-9]+ ms\)$/, "", line)
        if (reason == "") reason = "no reason given"
        reasons[program] = reasons[program] "        skipped " line ": " reason "\n"
        reason = ""
    } else if (line ~ /: Skipped$/) {
        in_reason = 1
        reason = ""
        return
    } else if (in_reason && line != "") {
        reason = reason (reason == "" ? "" : " ") line
        return
    }
    in_reason = 0
}

function finish(program, status, milliseconds,    trouble, ran) {
    delete running[program]
    ran = good[program] + bad[program] + skipped[program]
    if (program in is_plain) {
        if (status == 0) good[program]++
        else trouble = "status " status
    } else if (ran != announced[program] + 0) {
        trouble = "status " status ", " ran " of " announced[program] + 0 " tests came to an end"
    } else if (ran == 0 && !filtered) {
        trouble = "status " status ", ran no test"
    } else if (status != 0 && bad[program] == 0) {
        trouble = "status " status ", though no test failed"
    }
    if (trouble != "") bad[program]++
    passed += good[program]
    failed += bad[program]
    printf "%s  %-36s %4d passed%s%s  %6.1f s%s\n", bad[program] ? "FAILED" : "ok    ", program, good[program],
        bad[program] ? ", " bad[program] " failed" : "", skipped[program] ? ", " skipped[program] " skipped" : "",
        milliseconds / 1000, trouble == "" ? "" : "  (" trouble ")"
    printf "%s", reasons[program]
    if (bad[program]) printf "%s", output[program]
    fflush()
}

END {
    for (program in running) {
        failed++
        printf "FAILED  %s had not ended when the machine did; its output so far:\n%s", program, output[program]
    }
    print passed + 0, failed + 0, complete + 0 >summary
}
