// The C++ runtime's per-thread exception state, in the place of the static runtime's own. That one is reached
// through the dynamic loader, which would become a dependency of the library; this one is not. No exception
// is ever thrown here: the state only serves the runtime on its way to std::terminate().

namespace {

// caught exceptions, their count, and on ARM those in propagation: three words at most, opaque to us.
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
