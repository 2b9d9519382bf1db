// Durability and save pacing of the settings server; see persistence.h.
#include "kssetter/server/persistence.h"

#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

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
    if (replay.error != 0) {
        // Its records may be acknowledged changes: serving without them, and emptying it at
        // the first rewrite, would lose them.
        std::fprintf(stderr, "kssetter: cannot read %s: %s\n", journal_.path().c_str(), std::strerror(replay.error));
        return false;
    }
    if (replay.applied > 0)
        KSLOG_INFO(kChannel, "Replayed {:d} change(s) from {:s}", replay.applied, journal_.path());
    if (replay.tornTail)
        KSLOG_INFO(kChannel, "Dropped an unfinished last record at offset {:d} of {:s}", replay.stoppedAt,
                   journal_.path());
    durable_ = storage::Store(store_, "/");
    durable_.delKey_("/tmp", true, false);
    // Whatever the journal holds may be missing from the file; only a rewrite can tell.
    dirty_ = replay.stoppedAt > 0 || replay.tornTail || replay.damaged;
    journalDamaged_ = replay.damaged;
    if (replay.damaged) {
        KSLOG_ERROR(kChannel, "{:s} is damaged at offset {:d}: replay stopped there after {:d} change(s)",
                    journal_.path(), replay.stoppedAt, replay.applied);
        std::fprintf(stderr, "kssetter: %s is damaged at offset %llu: replay stopped there\n", journal_.path().c_str(),
                     static_cast<unsigned long long>(replay.stoppedAt));
    } else if (!journal_.open(replay.stoppedAt)) {
        KSLOG_ERROR(kChannel, "{:s}", errorText());  // commit() opens it again
    }
    if (!compact()) {
        std::fprintf(stderr, "kssetter: cannot write the settings yet (%s); serving, and trying again\n",
                     errorText().c_str());
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
    dirty_ = true;
    // A rewrite blocks the loop for its fsync: soon after an isolated change, at most once
    // per kSaveInterval under a stream of them. It only keeps the settings file fresh for
    // offline readers; durability comes from the journal.
    const auto sinceLast = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastSave_);
    scheduleSave(std::max(kSaveDelay, kSaveInterval - sinceLast));
}

void Persistence::scheduleSave(std::chrono::milliseconds delay) {
    if (timer_ >= 0) return;
    timer_ = loop_.start_timer(delay, std::chrono::milliseconds(0), [this] {
        timer_ = -1;
        compact();
        return -1;  // one-shot: the executor closes the timer
    });
}

bool Persistence::commit() {
    if (!journal_.pending()) return true;
    if (!journalDamaged_ && journal_.commit(durable_)) {
        if (journal_.size() > kJournalLimit) compact();
        return true;
    }
    if (!journalDamaged_) {
        failure_ = journal_.failure();
        KSLOG_ERROR(kChannel, "Cannot append to the journal ({:s}); rewriting {:s} instead", errorText(), file_);
    }
    if (compact()) return true;
    rollback();
    return false;
}

bool Persistence::compact() {
    lastSave_ = Clock::now();
    if (!dirty_ && !journal_.pending()) return true;
    if (!store_.writeFile(file_)) {
        failure_ = errno;
        KSLOG_ERROR(kChannel, "Saving {:s} failed: {:s}; the journal keeps the changes, retrying in {:d} ms", file_,
                    errorText(), static_cast<int>(kSaveInterval.count()));
        scheduleSave(kSaveInterval);
        return false;
    }
    // The settings file now holds every change, the queued ones too: the journal may go. Should
    // emptying it fail, replaying its records over the new file again changes nothing.
    dirty_ = false;
    journal_.applyPending(durable_);
    journal_.discardPending();
    if (journalDamaged_) {
        // Kept for inspection: the records after the damage are not trusted, but not thrown away.
        const std::string aside = journal_.path() + ".damaged";
        if (::rename(journal_.path().c_str(), aside.c_str()) == 0) {
            journalDamaged_ = false;
            KSLOG_ERROR(kChannel, "The damaged journal is kept as {:s}", aside);
            if (!journal_.open(0)) KSLOG_ERROR(kChannel, "{:s}", errorText());
        } else {
            KSLOG_ERROR(kChannel, "The damaged journal could not be kept aside: {:s}", std::strerror(errno));
        }
        return true;
    }
    if (!journal_.reset()) KSLOG_WARN(kChannel, "{:s}", errorText());
    return true;
}

// Undoes the changes the last commit could not make durable: the store becomes what is on
// disk, plus the volatile branch as it is now. Taken from memory, since a disk that refused
// the changes may refuse to be read back as well.
void Persistence::rollback() {
    journal_.discardPending();
    storage::Store rebuilt(durable_, "/");
    storage::Store volatileBranch(store_, "/tmp");
    rebuilt.merge(volatileBranch, "/tmp");
    store_ = std::move(rebuilt);
    dirty_ = journal_.size() > 0 || journalDamaged_;
}

void Persistence::stop() {
    if (timer_ >= 0) loop_.del(timer_);
    timer_ = -1;
    commit();
    compact();
}

}  // namespace setter
}  // namespace ks
