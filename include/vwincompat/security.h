/**
 * @file
 * Checking a user's password.
 */
#ifndef VWINCOMPAT_SECURITY_H
#define VWINCOMPAT_SECURITY_H

#include <pwd.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Checks a user's password against the password database, and the shadow database when the entry points there
 * (which takes the privilege to read it). No session is started and no identity changed. May block as the
 * databases do (nsswitch.conf(5)) and for the time that the hash takes.
 *
 * @param lpszUsername  the user's name.
 * @param lpszPassword  the password in clear text.
 * @param lpUser        on success the user's entry; pw_passwd is the hash that was verified. Its strings belong
 *                      to the calling thread and are valid until its next logon, or until it ends.
 * @return TRUE, or FALSE with lpUser untouched: EACCES (wrong password, unknown user, no usable hash, shadow
 *         entry missing or not readable), EINVAL (null pointer), ENOMEM, or the lookup's own error.
 */
VLL_API BOOL vllLogonUser(LPCSTR lpszUsername, LPCSTR lpszPassword, struct passwd *lpUser);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SECURITY_H */
