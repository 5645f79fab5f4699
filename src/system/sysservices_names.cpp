// Names of the machine and the user, and the expansion of strings.

#include <pwd.h>
#include <unistd.h>
#include <wordexp.h>
#include <cerrno>
#include <cstring>

#include "base/accounts.h"
#include "base/failure.h"
#include "base/guards.h"
#include "vwincompat/system.h"

namespace {

// The words that a string expands to. They are freed also after an expansion that has failed, which may leave some.
class Words {
  public:
    explicit Words(const char *text) {
        const NoCancel no_cancel;
        const KeepErrno keep_errno;  // wordexp() changes it on success too
        error_ = wordexp(text, &words_, 0);
    }
    ~Words() {
        const KeepErrno keep_errno;
        wordfree(&words_);
    }
    Words(const Words &) = delete;
    Words &operator=(const Words &) = delete;

    int error() const { return error_; }

    // The bytes of all words, with one more after each.
    DWORD size() const {
        size_t size = 0;
        for (size_t i = 0; i < words_.we_wordc; ++i) {
            size += strlen(words_.we_wordv[i]) + 1;
        }
        return static_cast<DWORD>(size);
    }

    // Writes the words with a blank between them, and a terminator. There must be at least one word.
    void join(char *out) const {
        for (size_t i = 0; i < words_.we_wordc; ++i) {
            out = stpcpy(out, words_.we_wordv[i]);
            *out++ = ' ';
        }
        out[-1] = '\0';
    }

  private:
    wordexp_t words_ = {};
    int error_;
};

// The name of the user that the process runs as, or null.
const char *currentUser(passwd *entry, AccountText *text) {
    const KeepErrno keep_errno;
    passwd *found = nullptr;
    vlliLookUpAccount(
        text, [&](char *buffer, size_t size) { return getpwuid_r(getuid(), entry, buffer, size, &found); });
    return found != nullptr ? found->pw_name : getenv("USER");
}

}  // namespace

BOOL vllGetComputerName(LPSTR lpBuffer, LPDWORD lpnSize) {
    if (lpBuffer == nullptr || lpnSize == nullptr) {
        return Fail(EINVAL);
    }
    if (gethostname(lpBuffer, *lpnSize) == -1) {
        return Fail(ENOBUFS);
    }
    *lpnSize = static_cast<DWORD>(strlen(lpBuffer));
    return TRUE;
}

BOOL vllGetUserName(LPSTR lpBuffer, LPDWORD lpnSize) {
    if (lpBuffer == nullptr || lpnSize == nullptr) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;
    AccountText text;
    passwd entry;
    const char *name = currentUser(&entry, &text);
    if (name == nullptr) {
        return Fail(ENOENT);
    }
    const size_t length = strlen(name);
    if (length + 1 > *lpnSize) {
        return Fail(ENOBUFS);
    }
    memcpy(lpBuffer, name, length + 1);
    *lpnSize = static_cast<DWORD>(length);
    return TRUE;
}

DWORD vllExpandEnvironmnentStrings(LPCSTR lpSrc, LPSTR lpBuffer, DWORD dwSize) {
    if (lpSrc == nullptr || (lpBuffer == nullptr && dwSize != 0)) {
        return Fail(EINVAL);
    }
    const Words words(lpSrc);
    if (words.error() != 0) {
        return Fail(words.error() == WRDE_NOSPACE ? ENOMEM : EINVAL);
    }
    const DWORD size = words.size();
    if (size > dwSize) {
        return Fail(ENOBUFS, size);
    }
    if (size == 0) {
        if (dwSize != 0) {
            *lpBuffer = '\0';
        }
        return 0;
    }
    words.join(lpBuffer);
    return size - 1;
}

BOOL vllGetSystemInfo(struct utsname *lpSystemInfo) {
    if (lpSystemInfo == nullptr) {
        return Fail(EINVAL);
    }
    return uname(lpSystemInfo) == 0;
}
