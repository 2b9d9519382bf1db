/// @file
/// Fork hooks for class code; see ksfork.h.
#pragma once

#include <ksfork.h>

namespace ks {

/// Registers a handler that runs in the child after every ks::fork(); see kslib_atfork().
inline int lib_atfork(void (*child_handler)()) { return kslib_atfork(child_handler); }
/// fork(2), then the registered handlers in the child; see ksfork().
inline pid_t fork() { return ksfork(); }

}  // namespace ks
