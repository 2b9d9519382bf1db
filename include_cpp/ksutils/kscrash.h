/// @file
/// Crash reporting: when the process dies of SIGSEGV, SIGBUS, SIGILL, SIGFPE or SIGABRT, a
/// signal handler on an alternate stack writes a plain-text report (program, pid, signal,
/// fault address, backtrace, /proc/self/maps) and lets the process die of the same signal.
///
/// @code
///   ks::init_exception_handler("exampled", ks::ExceptionHandlerMethod::report_file);
/// @endcode
///
/// Everything the handler needs (directory, file name prefix, socket) is prepared here, at
/// set-up, so that the handler itself calls only async-signal-safe functions. Reports go into
/// the crash directory (ks::common_path::crash) as "<program>-<pid>-<seconds>.crash", or,
/// with the collector method, to the crash collector listening on the install root's
/// "var/run/kscrash.skt" (a file is written instead when the collector cannot take it).
/// The handler arms a watchdog alarm, so a report that cannot be written never keeps a dead
/// process alive.
#pragma once

#include <ksexport.h>

namespace ks {

/// How init_exception_handler() reports a crash.
enum class ExceptionHandlerMethod : int {
    none = 0,         ///< no handler: the signals keep their default actions
    report_file = 1,  ///< write the report into the crash directory
    collector = 2,    ///< stream the report to the crash collector; a file when it is not there
};

/// The collector's socket, in the install root's "var/run".
constexpr const char* kCrashCollectorSocket = "kscrash.skt";

/// Installs (or, called again, re-installs) the handlers for the calling process and an
/// alternate signal stack for the calling thread. 0 on success; -1 with the error record
/// set when the crash directory cannot be made or a handler cannot be installed.
KS_EXPORT int init_exception_handler(const char* program, ExceptionHandlerMethod method);

/// Restores the default actions and frees the alternate stack of the calling thread.
KS_EXPORT void uninit_exception_handler();

/// Gives the calling thread an alternate signal stack of its own, so that a stack overflow
/// on it is reported too. 0 or -1.
KS_EXPORT int add_exception_handler_thread();

/// For the collector method: reconnects when the collector went away. Never blocks.
/// 0 when connected (or nothing to check), -1 when the collector cannot be reached.
KS_EXPORT int check_exception_handler_connection();

/// The directory reports are written to, "" before init_exception_handler.
KS_EXPORT const char* crash_report_directory();

}  // namespace ks
