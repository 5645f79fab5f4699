// Everything that the gateway reports also goes to the system's log, as source "gateway": that is where the library's
// event log looks for records (vll-eventlog shows them).

#include <syslog.h>

#include "gateway.h"

namespace {

// Without LOG_PID: a tag with a process id is no event-log source.
bool start() {
    openlog("gateway", 0, LOG_USER);
    return true;
}

void note(const char *line) {
    syslog(LOG_INFO, "%s", line);
}

}  // namespace

extern const Piece log_piece;
const Piece log_piece = {"log", start, closelog, note, nullptr};
