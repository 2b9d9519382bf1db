// Fork hooks for class code; see ksfork.h.
#pragma once

#include <ksfork.h>

namespace ks {

inline int lib_atfork(void (*child_handler)()) { return kslib_atfork(child_handler); }
inline pid_t fork() { return ksfork(); }

}  // namespace ks
