// Durability and save pacing of the settings server; see persistence.h.
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
    : loop_(loop), store_(store), file_(std::move(file)), journal_(file_ + ".journal") {}

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
    const Journal::Replay replay = journal_.replay(store_);
    if (replay.applied > 0)
        KSLOG_INFO(kChannel, "Replayed {:d} change(s) from {:s}", replay.applied, journal_.path());
    if (replay.tornTail)
        KSLOG_INFO(kChannel, "Dropped an unfinished last record at offset {:d} of {:s}", replay.stoppedAt,
                   journal_.path());
    if (replay.damaged) {
        // The records after the damage are not trusted, but not thrown away either.
        const std::string aside = journal_.path() + ".damaged";
        const bool kept = ::rename(journal_.path().c_str(), aside.c_str()) == 0;
        KSLOG_ERROR(kChannel, "{:s} is damaged at offset {:d}: replay stopped there after {:d} change(s); {:s}",
                    journal_.path(), replay.stoppedAt, replay.applied,
                    kept ? "the journal is kept as " + aside : std::string("it could not be kept aside"));
        std::fprintf(stderr, "kssetter: %s is damaged at offset %llu: replay stopped there (kept as %s)\n",
                     journal_.path().c_str(), static_cast<unsigned long long>(replay.stoppedAt), aside.c_str());
    }
    if (!journal_.open() || !compact()) {
        std::fprintf(stderr, "kssetter: cannot write the settings: %s\n", errorText().c_str());
        return false;
    }
    return true;
}

void Persistence::set(const std::string& key, storage::ValueType type, const unsigned char* value, uint64_t size) {
    if (storage::Store::isVolatileKey(key)) return;
    journal_.addSet(key, type, value, size);
    changed();
}

void Persistence::erased(const std::string& key, bool prune, bool leafOnly) {
    if (storage::Store::isVolatileKey(key)) return;
    journal_.addDelete(key, prune, leafOnly);
    changed();
}

void Persistence::changed() {
    if (timer_ >= 0) return;
    // A rewrite blocks the loop for its fsync: soon after an isolated change, at most once
    // per kSaveInterval under a stream of them. It only keeps the settings file fresh for
    // offline readers; durability comes from the journal.
    const auto sinceLast = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastSave_);
    const auto delay = std::max(kSaveDelay, kSaveInterval - sinceLast);
    timer_ = loop_.start_timer(delay, std::chrono::milliseconds(0), [this] {
        timer_ = -1;
        compact();
        return -1;  // one-shot: the executor closes the timer
    });
}

bool Persistence::commit() {
    if (!journal_.pending()) return true;
    if (journal_.commit()) {
        if (journal_.size() > kJournalLimit) compact();
        return true;
    }
    KSLOG_ERROR(kChannel, "Cannot append to the journal ({:s}); rewriting {:s} instead", errorText(), file_);
    return compact();
}

bool Persistence::compact() {
    ks::_get_kserrno().set(ks::E_OK);
    if (store_.getPersistentChanges() > 0) store_.save({file_});
    lastSave_ = Clock::now();
    if (ks::_get_kserrno().code != ks::E_OK) {
        KSLOG_ERROR(kChannel, "Saving {:s} failed: {:s}", file_, errorText());
        return false;
    }
    // The settings file now holds every change, the queued ones too: the journal may go. Should
    // emptying it fail, replaying its records over the new file again changes nothing.
    journal_.discardPending();
    if (!journal_.reset()) KSLOG_WARN(kChannel, "{:s}", errorText());
    return true;
}

void Persistence::stop() {
    if (timer_ >= 0) loop_.del(timer_);
    timer_ = -1;
    commit();
    compact();
}

}  // namespace setter
}  // namespace ks
