// Monitored keys: a lazily made subscription and the callback that handles its changes.
// Failures are logged here because the owner (usually a select loop) has nobody to report
// them to; a failed read cancels the subscription so that the next get_fd() makes a new one,
// which is how a monitored key survives a restart of the settings server.
#include <kssetter/ksmonitoredkey.h>

#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <set>
#include <string>
#include <utility>

namespace ks {
namespace setMgmt {

namespace {

int openChannel() {
    const long channel = static_cast<long>(log::open_channel(log::kKSSetMgmtChannel));
    if (channel < 0) KSLOG_ERROR(0, "Cannot open log channel {}", log::kKSSetMgmtChannel);
    return static_cast<int>(channel);
}

unsigned long channelOf(int logChannel) { return logChannel >= 0 ? static_cast<unsigned long>(logChannel) : 0; }

std::string errorText() { return std::string(_get_kserrno().message_view()); }

}  // namespace

MonitoredKey::MonitoredKey(const char* k, Callback cb, bool keys, void* ctx, bool atStart)
    : key(k ? k : ""), callback(std::move(cb)), reportKeys(keys), context(ctx), callAtStart(atStart),
      logChannel(openChannel()) {}

MonitoredKey::MonitoredKey(const ks::path& k, Callback cb, bool keys, void* ctx, bool atStart)
    : key(k), callback(std::move(cb)), reportKeys(keys), context(ctx), callAtStart(atStart),
      logChannel(openChannel()) {}

MonitoredKey::~MonitoredKey() { cancel(); }

MonitoredKey::MonitoredKey(MonitoredKey&& other) noexcept
    : key(std::move(other.key)),
      handle(std::exchange(other.handle, nullptr)),
      callback(std::move(other.callback)),
      reportKeys(other.reportKeys),
      context(other.context),
      callAtStart(other.callAtStart),
      logChannel(other.logChannel) {}

MonitoredKey& MonitoredKey::operator=(MonitoredKey&& other) noexcept {
    if (this != &other) {
        cancel();
        key = std::move(other.key);
        handle = std::exchange(other.handle, nullptr);
        callback = std::move(other.callback);
        reportKeys = other.reportKeys;
        context = other.context;
        callAtStart = other.callAtStart;
        logChannel = other.logChannel;
    }
    return *this;
}

int MonitoredKey::get_fd() {
    if (handle) return getNotificationFd(handle);
    handle = setNotification(key.str(), reportKeys);
    if (!handle) {
        KSLOG_ERROR(channelOf(logChannel), "setNotification({}): {}", key.str(), errorText());
        return -1;
    }
    if (callAtStart && callback) callback(key, context);
    const int fd = getNotificationFd(handle);
    if (fd < 0) {
        KSLOG_ERROR(channelOf(logChannel), "BUG: getNotificationFd ({}): {:d}", key.str(), fd);
        cancel();
        return -1;
    }
    return fd;
}

bool MonitoredKey::read_notifications() {
    if (!handle) {
        KSLOG_ERROR(channelOf(logChannel), "BUG: empty notification obj");
        return false;
    }
    std::set<std::string> keys;
    const int count = waitNotification(handle, 0, keys);
    if (count < 0) {
        KSLOG_ERROR(channelOf(logChannel), "waitNotification ({}): {}", key.str(), errorText());
        cancel();
        return false;
    }
    if (count == 0) KSLOG_ERROR(channelOf(logChannel), "BUG: waitNotification ({}): no notification received", key.str());
    for (const std::string& changed : keys)
        if (callback) callback(ks::path(changed), context);
    return true;
}

void MonitoredKey::cancel() {
    if (handle) cancelNotification(handle);
    handle = nullptr;
}

}  // namespace setMgmt
}  // namespace ks
