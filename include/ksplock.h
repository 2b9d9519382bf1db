/** @file
 * @brief Process locks (C interface).
 *
 * A process lock is a whole-file fcntl write lock on a lock file, held by one process at a
 * time. The holder also writes its pid in decimal (and a newline) into the file, so tools
 * that only read PID files (start-stop-daemon, pkill -F) find it; other processes ask the
 * kernel for the holder with plock_get_pid(). */
#ifndef KSPLOCK_H
#define KSPLOCK_H

#include <ksexport.h>
#include <sys/types.h>

KS_EXTERN_C_BEGIN

/** Opens (and with O_CREAT creates, mode 0644) the lock file; O_CLOEXEC is always added.
 * Returns the descriptor, or -1 with E_SYSTEM in the error record. */
KS_EXPORT int plock_open(const char* path, int flags);

/** Takes the lock without waiting: 1 taken, 0 held by another process, -1 error. */
KS_EXPORT int plock_lock(int fd);

/** Waits for the lock: 1 taken, -1 error. */
KS_EXPORT int plock_wait_lock(int fd);

/** Releases the lock: 0, or -1 on error. */
KS_EXPORT int plock_unlock(int fd);

/** 1 and the holder's pid in *pid when another process holds the lock, 0 when nobody
 * does, -1 on error. */
KS_EXPORT int plock_get_pid(int fd, pid_t* pid);

/** 1 when another process holds the lock, 0 when not, -1 on error. */
KS_EXPORT int plock_is_locked(int fd);

/** Closes the descriptor (which releases the lock). */
KS_EXPORT void plock_close(int fd);

KS_EXTERN_C_END

#endif
