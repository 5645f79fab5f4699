// Lines for the system's log.
#pragma once

// syslog(3) at LOG_ERR, and at LOG_INFO. errno is kept, and neither is a cancellation point.
void vlliLogError(const char *format, ...) __attribute__((format(printf, 1, 2)));
void vlliLogNotice(const char *format, ...) __attribute__((format(printf, 1, 2)));
