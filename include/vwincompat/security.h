/**
 * @file
 * Checking a user's password.
 *
 * Example: let only members of a group in.
 *
 * @code{.c}
 * BOOL mayEnter(LPCSTR user, LPCSTR password, gid_t group) {
 *     struct passwd entry;
 *     if (!vllLogonUser(user, password, &entry)) {
 *         return FALSE; // EACCES: the name or the password is wrong
 *     }
 *     return entry.pw_gid == group;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_SECURITY_H
#define VWINCOMPAT_SECURITY_H

#include <pwd.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Checks a user's password with getpwnam_r(3) and crypt_r(3), and with getspnam_r(3) when the entry points to
 * the shadow database, which takes the privilege to read it. No session is started and no identity is
 * changed. It blocks as the databases do (nsswitch.conf(5)), and for the time that the hash takes.
 *
 * @param lpszUsername  the user's name; not null.
 * @param lpszPassword  the password in clear text; not null.
 * @param lpUser        receives the user's entry; not null. Untouched when the operation fails. pw_passwd is
 *                      the hash that was verified. The strings belong to the calling thread: they are valid
 *                      until its next call, whatever the result of that, or until it ends.
 * @return  TRUE, or FALSE.
 * @error EACCES  the password is wrong, or the user is unknown; or the entry has no usable hash, or its
 *                shadow entry is missing or cannot be read.
 * @error EINVAL  lpszUsername, lpszPassword or lpUser is null.
 * @error ENOMEM  no memory is left.
 * @error EAGAIN  the process has no key for thread-specific data left (pthread_key_create(3)).
 * @error others  as getpwnam_r(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllLogonUser(LPCSTR lpszUsername, LPCSTR lpszPassword, struct passwd *lpUser);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SECURITY_H */
