// Reads what the library logged: the lines that arrived at the private /dev/log (private_machine.h).
#pragma once

#include <string>
#include <vector>

struct LogLine {
    int priority;      // LOG_ERR, LOG_INFO
    std::string text;  // as logged, trailing newline included
};

// Creates the socket at /dev/log and connects the process's syslog to it. Once per process.
void startSyslogCapture();

// The lines that this process (and its children) logged since the last call, oldest first.
std::vector<LogLine> takeLog();

// The same, LOG_ERR lines only, without those of a stack dump.
std::vector<std::string> takeErrors();
