// How short calls on descriptors that never block are kept from being cancellation points.
#pragma once

// The raw system call is cheaper than disabling cancellation around the C library's function, but ThreadSanitizer
// sees only the latter.
#if defined(__SANITIZE_THREAD__)
constexpr bool kRawCalls = false;
#else
constexpr bool kRawCalls = true;
#endif
