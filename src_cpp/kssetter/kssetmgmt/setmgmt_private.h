// State of the settings client shared between its source files, not part of the API.
#pragma once

namespace ks {
namespace setMgmt {

class Connection;

// The settings client's log channel while the module is initialised, else the default one.
unsigned long _log_channel() noexcept;

// The calling thread's request connection, created on first use.
Connection& _thread_connection();

}  // namespace setMgmt
}  // namespace ks
