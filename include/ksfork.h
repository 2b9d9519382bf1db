/** @file
 * @brief Fork hooks (C interface).
 *
 * Modules with process-wide state (mutexes, connections) register a handler
 * that runs in the child after every fork made through ksfork(), so a child can re-create
 * locks that another thread of the parent held at the moment of the fork. */
#ifndef KSFORK_H
#define KSFORK_H

#include <ksexport.h>
#include <sys/types.h>

KS_EXTERN_C_BEGIN

/** Registers `child_handler`; handlers run in registration order, in the child only.
 * Registering the same handler twice keeps one entry. 0 on success, -1 when the table
 * (64 entries) is full or the handler is null. */
KS_EXPORT int kslib_atfork(void (*child_handler)(void));

/** fork(2), then the registered handlers in the child. */
KS_EXPORT pid_t ksfork(void);

KS_EXTERN_C_END

#endif
