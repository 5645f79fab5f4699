// Matchers for results and the last error.
//
//     EXPECT_THAT(vllSetEvent(closed), FailsWith(EINVAL));
//     EXPECT_THAT(vllGetEventFd(closed), FailsWith(EINVAL, -1));
//     EXPECT_THAT(vllCreateMutex(FALSE, name), Yields(testing::Ne(0U), EEXIST));
//
// The last error is 0 when the call is made: the matcher clears it, and is made before the call (the function of a
// call expression is evaluated before its arguments).
#pragma once

#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>
#include <cerrno>
#include <cstring>
#include <type_traits>
#include <utility>

#include "vwincompat/types.h"

// An operation's result, and the last error that it leaves.
template <typename ResultMatcher>
class ResultWithErrno {
  public:
    ResultWithErrno(ResultMatcher result, int error) : result_(std::move(result)), error_(error) {
        errno = 0;
    }

    template <typename Result>
    operator testing::Matcher<Result>() const {
        return testing::Matcher<Result>(new Implementation<Result>(result_, error_));
    }

  private:
    template <typename Result>
    class Implementation : public testing::MatcherInterface<Result> {
      public:
        Implementation(const ResultMatcher &result, int error)
            : result_(testing::SafeMatcherCast<Result>(result)), error_(error) {}
        bool MatchAndExplain(Result result, testing::MatchResultListener *listener) const override {
            const int last_error = errno;
            *listener << "with errno " << last_error << " (" << strerror(last_error) << ")";
            return result_.Matches(result) && last_error == error_;
        }
        void DescribeTo(std::ostream *out) const override {
            result_.DescribeTo(out);
            *out << " with errno " << error_ << " (" << strerror(error_) << ")";
        }

      private:
        testing::Matcher<Result> result_;
        int error_;
    };

    ResultMatcher result_;
    int error_;
};

// Zero of any type: 0, FALSE, false, null.
class IsZeroMatcher {
  public:
    template <typename Result>
    operator testing::Matcher<Result>() const {
        return testing::Eq(std::remove_cv_t<std::remove_reference_t<Result>>{});
    }
};

template <typename ResultMatcher>
ResultWithErrno<ResultMatcher> Yields(ResultMatcher result, int error) {
    return {std::move(result), error};
}

inline ResultWithErrno<IsZeroMatcher> FailsWith(int error) {
    return {IsZeroMatcher(), error};
}

template <typename Result>
auto FailsWith(int error, Result result) {
    return Yields(testing::Eq(result), error);
}

// For rows of a table that succeed or fail: with error 0 a result that is not zero, whatever the last error; otherwise
// FailsWith(error).
inline testing::Matcher<BOOL> Outcome(int error) {
    errno = 0;
    return error == 0 ? testing::Matcher<BOOL>(testing::Ne(FALSE)) : testing::Matcher<BOOL>(FailsWith(error));
}
