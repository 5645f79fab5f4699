// The per-thread exception state of the C++ runtime. This definition replaces the one in the static runtime, which
// reaches its thread-local storage through the dynamic loader and would make the library depend on it. The library
// throws no exception: the runtime uses this state only on its way to std::terminate().

namespace {

// Three words at most: the caught exceptions, the number of uncaught ones and, on ARM, those in propagation. Only the
// runtime reads them.
__thread void *exception_state[3] __attribute__((tls_model("initial-exec")));

}  // namespace

extern "C" {

void *__cxa_get_globals() {
    return exception_state;
}

void *__cxa_get_globals_fast() {
    return exception_state;
}
}
