// Save pacing of the settings server; see persistence.h.
#include "kssetter/server/persistence.h"

#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace ks {
namespace setter {

namespace {

constexpr unsigned long kChannel = 0;
constexpr auto kSaveDelay = std::chrono::milliseconds(100);
constexpr auto kSaveInterval = std::chrono::milliseconds(1000);

std::string errorText() { return std::string(ks::_get_kserrno().message_view()); }

}  // namespace

Persistence::Persistence(ks::Executor& loop, storage::Store& store, std::string file)
    : loop_(loop), store_(store), file_(std::move(file)) {}

Persistence::~Persistence() {
    if (timer_ >= 0) loop_.del(timer_);
}

bool Persistence::load() {
    if (::access(file_.c_str(), F_OK) == 0 && storage::Store::checkHash(file_) < 0) {
        // Hand-edited files fail here too; their contents are still the best we have.
        KSLOG_WARN(kChannel, "{:s} failed its checksum ({:s}); loading it anyway", file_, errorText());
        std::fprintf(stderr, "kssetter: warning: %s failed its checksum\n", file_.c_str());
    }
    if (store_.load(file_) < 0) {
        std::fprintf(stderr, "kssetter: cannot read %s: %s\n", file_.c_str(), errorText().c_str());
        return false;
    }
    return true;
}

void Persistence::changed(ks::string_view key) {
    if (storage::Store::isVolatileKey(key) || timer_ >= 0) return;
    // A save blocks the loop for its fsync: soon after an isolated change, at most once per
    // kSaveInterval under a stream of them.
    const auto sinceLast = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastSave_);
    const auto delay = std::max(kSaveDelay, kSaveInterval - sinceLast);
    timer_ = loop_.start_timer(delay, std::chrono::milliseconds(0), [this] {
        timer_ = -1;
        flush();
        return -1;  // one-shot: the executor closes the timer
    });
    if (timer_ < 0) flush();  // no timer: save at once rather than not at all
}

void Persistence::flush() {
    if (store_.getPersistentChanges() == 0) return;
    ks::_get_kserrno().set(ks::E_OK);
    store_.save({file_});
    lastSave_ = Clock::now();
    if (ks::_get_kserrno().code != ks::E_OK)
        KSLOG_ERROR(kChannel, "Saving {:s} failed: {:s}", file_, errorText());
}

void Persistence::stop() {
    if (timer_ >= 0) loop_.del(timer_);
    timer_ = -1;
    flush();
}

}  // namespace setter
}  // namespace ks
