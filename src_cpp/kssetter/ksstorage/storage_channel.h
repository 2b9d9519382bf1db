// The log channel of the settings storage, for code that keeps no handle of its own.
#pragma once

#include <ksutils/kslog.h>

namespace ks {
namespace storage {

// The settings channel as it stands: an existing channel is looked up rather than opened
// again, because opening re-enables a channel that was closed on purpose. Only a channel
// that does not exist yet is opened.
inline unsigned long settings_log_channel() {
    const unsigned long existing = ks::log::get_channel_by_name(ks::log::kKSSetMgmtChannel);
    return static_cast<long>(existing) >= 0 ? existing : ks::log::open_channel(ks::log::kKSSetMgmtChannel);
}

}  // namespace storage
}  // namespace ks
