// How calls that never block are kept from being cancellation points.
#pragma once

// A raw system call is no cancellation point, and cheaper than disabling cancellation around the C library's
// function. ThreadSanitizer sees only calls of the function, so builds with it use that.
#if defined(__SANITIZE_THREAD__)
constexpr bool kRawCalls = false;
#else
constexpr bool kRawCalls = true;
#endif
