// The last error, errno: setting it when an operation fails, and keeping it over clean-up.
#pragma once

#include <cerrno>

// Keeps errno over a scope. Clean-up runs in such a scope, so that it never changes the last error.
class KeepErrno {
  public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;

  private:
    int saved_;
};

// How an operation fails: `return Fail(EINVAL);` sets the last error and returns the zero value of the result's type
// (FALSE, 0, null, an absent descriptor); `return Fail(EINVAL, -1);` returns the given value.
template <typename Result = void>
class [[nodiscard]] Fail {
  public:
    Fail(int error, Result result) : result_(result) { errno = error; }
    operator Result() const { return result_; }

  private:
    Result result_;
};

template <>
class [[nodiscard]] Fail<void> {
  public:
    explicit Fail(int error) { errno = error; }
    template <typename Result>
    operator Result() const {
        return Result{};
    }
};

Fail(int)->Fail<void>;

// For calls that return an error number instead of setting errno, as the pthread calls do: true for 0, otherwise
// false with the number in errno.
inline bool vlliSucceeded(int error) {
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}

// Makes a system call again for as long as signals interrupt it. The result of the call that was not interrupted.
template <typename Call>
auto vlliRetryOnEintr(Call call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}
