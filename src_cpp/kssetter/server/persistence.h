// How the settings server's changes reach the disk. Everything about durability and pacing
// is behind this narrow interface, so request handling does not depend on it.
//
// A persistent change (a key outside "/tmp") is first queued for the journal (journal.h).
// The server commits the queue, one append and one fdatasync, after each round of the event
// loop and sends no reply before the commit that covers the changes it has seen: every
// request that arrived while an fsync was in flight is covered by the next one, so the
// clients share fsyncs (group commit) and no acknowledged change is ever lost.
//
// The settings file is rewritten (shadow, fsync, rename) a tenth of a second after a
// persistent change, at most once a second under a stream of them, when the journal passes
// kJournalLimit, at start-up after the journal has been replayed, and on a clean stop; each
// rewrite empties the journal. So the settings file, which clients read while the server is
// down, is at most about a second behind the acknowledged state after a crash, and never
// half-written; the changes it lacks are in the journal and come back when the server starts.
#pragma once

#include "kssetter/server/journal.h"

#include <kssetter/ksstorage.h>
#include <ksutils/executor.h>

#include <chrono>
#include <string>

namespace ks {
namespace setter {

class Persistence {
public:
    static constexpr uint64_t kJournalLimit = 4u << 20;

    Persistence(ks::Executor& loop, storage::Store& store, std::string file);
    ~Persistence();
    Persistence(const Persistence&) = delete;
    Persistence& operator=(const Persistence&) = delete;

    // Loads the store from the settings file (a missing file is an empty store), replays the
    // journal over it and writes the result back, leaving the journal empty. A settings file
    // that fails its checksum is loaded anyway, with a warning: it is still the best there
    // is. A damaged journal is replayed up to the damage and kept aside as
    // "<journal>.damaged". False when the settings cannot be read or written.
    bool load();
    // A key was set or deleted in the store (after the store accepted the change).
    void set(const std::string& key, storage::ValueType type, const unsigned char* value, uint64_t size);
    void erased(const std::string& key, bool prune, bool leafOnly);
    // Whether changes wait for a commit; replies must wait with them.
    bool pending() const { return journal_.pending(); }
    // Puts the queued changes on disk. False when neither the journal nor a rewrite of the
    // settings file could: the changes are then not durable.
    bool commit();
    // Commits and rewrites the settings file; called once when the server stops.
    void stop();

    const std::string& file() const { return file_; }

private:
    using Clock = std::chrono::steady_clock;

    void changed();
    bool compact();

    ks::Executor& loop_;
    storage::Store& store_;
    std::string file_;
    Journal journal_;
    int timer_ = -1;
    Clock::time_point lastSave_{};
};

}  // namespace setter
}  // namespace ks
