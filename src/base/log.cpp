// Lines for the system's log. Messages keep the exact bytes of their format, trailing newline included.

#include "base/log.h"

#include <syslog.h>
#include <cstdarg>

#include "base/failure.h"
#include "base/guards.h"

namespace {

void logLine(int priority, const char *format, va_list arguments) {
    const NoCancel no_cancel;
    const KeepErrno keep_errno;
    vsyslog(priority, format, arguments);
}

}  // namespace

void vlliLogError(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logLine(LOG_ERR, format, arguments);
    va_end(arguments);
}

void vlliLogNotice(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logLine(LOG_INFO, format, arguments);
    va_end(arguments);
}
