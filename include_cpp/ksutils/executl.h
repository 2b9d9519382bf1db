/// @file
/// Running external programs for the daemons: one command with control over the child's
/// descriptors, process group, session and waiting; a script of lines fed to an interpreter's
/// standard input, with or without a time limit; and an argument vector as text for messages.
///
/// Children always get a process group of their own (a detached one a session of its own), so
/// a whole group can be signalled, and they die with their parent (PR_SET_PDEATHSIG). Between
/// fork and exec the child runs only async-signal-safe system calls: everything it needs is
/// prepared in the parent first, so a multi-threaded daemon cannot deadlock its child.
#pragma once
#include <ksexport.h>
#include <ksutils/string_view.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace ks {

/// Options of exec_command(), and what it reports back.
struct exec_command_ctx {
    /// Descriptors the child receives as 0, 1 and 2; -1 means "/dev/null" unless the number
    /// itself is in keep_fds.
    int stdin_fd = -1;
    int stdout_fd = -1;  ///< the child's standard output
    int stderr_fd = -1;  ///< the child's standard error
    /// Descriptor numbers the child keeps open (close-on-exec is cleared on them); every
    /// other descriptor from 3 up is closed in the child.
    std::set<int> keep_fds;
    /// "NAME=value" array ending with a null pointer, or null to inherit the environment.
    char* const* envp = nullptr;
    /// Called in the child just before it exits because setpgid or the exec failed; it runs
    /// between fork and exec, so it must only make async-signal-safe calls.
    std::function<void()> on_child_error;
    /// Wait for the child and report its result.
    bool wait = true;
    /// Without wait: the child leaves the caller's session (a detached grandchild runs on).
    bool detach = false;

    /// Filled by exec_command, which takes the options as const.
    mutable int pid = -1;  ///< the child's pid (detached: the intermediate child, already collected)
    mutable int result = 0;  ///< the waited child's status
    mutable bool has_result = false;  ///< true when `result` holds a status
};

/// 0 on success, -1 on failure (a waited command that ends with a non-zero status is a failure:
/// E_SYSTEM "child's return code = N", the status in ctx.result). The command is searched in PATH.
KS_EXPORT int exec_command(const char** argv, const exec_command_ctx& ctx);
/// exec_command() with the default options: waited for, standard descriptors on "/dev/null".
KS_EXPORT int exec_command(const char** argv);

/// The words of a null-terminated vector joined by single blanks ("" for a null vector).
KS_EXPORT std::string command_to_str(const char** argv);

/// Writes each line as its words joined by blanks plus "\n" to the interpreter's standard
/// input and waits for it; its output goes to "/dev/null". 0 when it exited with status 0.
KS_EXPORT int exec_script(const std::vector<std::vector<std::string>>& lines, const ks::string_view& interpreter);

/// The same under a time limit: past it the interpreter's whole process group is killed.
/// Its standard output and error are captured and logged with the status. 0 or -1.
KS_EXPORT int exec_script(const std::vector<std::vector<std::string>>& lines, int timeout_seconds,
                          const ks::string_view& interpreter);

}  // namespace ks
