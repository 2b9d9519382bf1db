/** @file
 * @brief The install root: where every installed file of the appliance lives (C interface). */
#ifndef KSPATH_H
#define KSPATH_H

#include <ksexport.h>

KS_EXTERN_C_BEGIN

/** The install root, found once and cached: the target of the "/etc/kestrum-box" link less
 * its "/etc", else the home of the "kestrum-box" user, else "/opt/kestrum". Null when none
 * is found (the next call searches again). */
KS_EXPORT const char* kspath_default_install_path(void);

/** Sets the root; null or the current root makes the next query search again. */
KS_EXPORT void kspath_set_install_path(const char* path);

/** Copies the home directory of `user` from "/etc/passwd" into `out` (4096 bytes);
 * 0 on success, -1 when the user or the file is missing. */
KS_EXPORT int get_userhome(const char* user, char* out);

KS_EXTERN_C_END

#endif
