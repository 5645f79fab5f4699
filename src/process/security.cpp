// Checking passwords. The C library's functions with static storage are not used, so that threads do not disturb each
// other: the strings that a logon returns live in a block of the calling thread, which is freed when the thread ends.

#include "vwincompat/security.h"

#include <crypt.h>
#include <pthread.h>
#include <shadow.h>
#include <cstring>
#include <new>

#include "base/accounts.h"
#include "base/allocate.h"
#include "base/failure.h"
#include "base/guards.h"

namespace {

// The strings of a thread's last logon.
struct LogonText {
    AccountText passwd;
    AccountText shadow;
};

pthread_key_t logon_text_key;
int logon_text_error;
pthread_once_t logon_text_once = PTHREAD_ONCE_INIT;

void deleteLogonText(void *text) {
    delete static_cast<LogonText *>(text);
}

void initLogonText() {
    logon_text_error = pthread_key_create(&logon_text_key, deleteLogonText);
}

// The calling thread's block, or null with errno.
LogonText *threadText() {
    pthread_once(&logon_text_once, initLogonText);
    if (logon_text_error != 0) {
        return Fail(logon_text_error);
    }
    auto *text = static_cast<LogonText *>(pthread_getspecific(logon_text_key));
    if (text == nullptr) {
        text = new (std::nothrow) LogonText;
        const int error = text != nullptr ? pthread_setspecific(logon_text_key, text) : ENOMEM;
        if (error != 0) {
            delete text;
            return Fail(error);
        }
    }
    return text;
}

// The user's entry, or null with errno.
passwd *findUser(const char *name, passwd *entry, AccountText *text) {
    passwd *found = nullptr;
    const int error = vlliLookUpAccount(
        text, [&](char *buffer, size_t size) { return getpwnam_r(name, entry, buffer, size, &found); });
    if (found == nullptr) {
        errno = error != 0 ? error : EACCES;
    }
    return found;
}

// The user's hash in the shadow database, or null.
char *findShadowHash(const char *name, AccountText *text) {
    spwd entry;
    spwd *found = nullptr;
    vlliLookUpAccount(
        text, [&](char *buffer, size_t size) { return getspnam_r(name, &entry, buffer, size, &found); });
    return found != nullptr ? found->sp_pwdp : nullptr;
}

// Compares every byte, so that the time that it takes does not depend on where two hashes differ.
bool isSameHash(const char *a, const char *b) {
    const size_t length = strlen(a);
    if (length != strlen(b)) {
        return false;
    }
    unsigned difference = 0;
    for (size_t i = 0; i < length; ++i) {
        difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
    }
    return difference == 0;
}

// True when the password gives the hash; false with errno.
bool checkPassword(const char *password, const char *hash) {
    const HeapBlock<crypt_data> work(static_cast<crypt_data *>(calloc(1, sizeof(crypt_data))));
    if (work == nullptr) {
        return Fail(ENOMEM);
    }
    // For a hash of an unknown method crypt_r() returns null, or a text that begins with '*' and is no hash.
    const char *result = crypt_r(password, hash, work.get());
    const bool same = result != nullptr && *result != '*' && isSameHash(result, hash);
    explicit_bzero(work.get(), sizeof(crypt_data));
    if (!same) {
        errno = EACCES;
    }
    return same;
}

}  // namespace

BOOL vllLogonUser(LPCSTR lpszUsername, LPCSTR lpszPassword, struct passwd *lpUser) {
    if (lpszUsername == nullptr || lpszPassword == nullptr || lpUser == nullptr) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;  // a thread cancelled in a lookup would leave locks of the C library held
    LogonText *text = threadText();
    passwd entry;
    if (text == nullptr || findUser(lpszUsername, &entry, &text->passwd) == nullptr) {
        return FALSE;
    }
    if (strcmp(entry.pw_passwd, "x") == 0) {
        entry.pw_passwd = findShadowHash(lpszUsername, &text->shadow);
        if (entry.pw_passwd == nullptr) {
            return Fail(EACCES);
        }
    }
    if (!checkPassword(lpszPassword, entry.pw_passwd)) {
        return FALSE;
    }
    *lpUser = entry;
    return TRUE;
}
