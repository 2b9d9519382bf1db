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
// kJournalLimit, at start-up after the journal has been replayed, and on a clean stop. So the
// settings file, which clients read while the server is down, is at most about a second
// behind the acknowledged state after a crash, and never half-written; the changes it lacks
// are in the journal and come back when the server starts.
//
// The journal is emptied only after a rewrite whose every step (write, fsync, rename,
// directory fsync) reported success, and this class alone keeps track of whether the file
// holds every change: a rewrite that failed leaves the journal as it is and is tried again a
// second later. When neither an append to the journal nor a rewrite succeeds (a full or
// failing disk), the round's changes are refused: the store is rebuilt from a copy of what is
// on disk (settings file and journal), kept in memory for this, with its volatile branch kept,
// and the requesters are told why.
// The server thus keeps serving reads and "/tmp" writes on a full disk, and persistent
// writes work again as soon as there is room, without a restart.
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
    // is. A damaged journal is replayed up to the damage and, once the file holds what was
    // replayed, kept aside as "<journal>.damaged". When the result cannot be written (a full
    // disk), the journal stays as it is and the rewrite is retried while the server serves.
    // False only when the settings file cannot be read.
    bool load();
    // A key was set or deleted in the store (after the store accepted the change).
    void set(const std::string& key, storage::ValueType type, const unsigned char* value, uint64_t size);
    void erased(const std::string& key, bool prune, bool leafOnly);
    // Whether changes wait for a commit; replies must wait with them.
    bool pending() const { return journal_.pending(); }
    // Puts the queued changes on disk. False when neither the journal nor a rewrite of the
    // settings file could: the changes are then undone in the store, and failure() is the
    // errno that refused them.
    bool commit();
    int failure() const { return failure_; }
    // Commits and rewrites the settings file; called once when the server stops.
    void stop();

    const std::string& file() const { return file_; }

private:
    using Clock = std::chrono::steady_clock;

    void changed();
    void scheduleSave(std::chrono::milliseconds delay);
    bool compact();
    void rollback();

    ks::Executor& loop_;
    storage::Store& store_;
    storage::Store durable_;  // the persistent settings as the file and the journal hold them
    std::string file_;
    Journal journal_;
    int timer_ = -1;
    Clock::time_point lastSave_{};
    bool dirty_ = false;          // the settings file lacks changes that the journal or the queue holds
    bool journalDamaged_ = false; // the journal on disk stops at damage: set it aside, append to no more of it
    int failure_ = 0;
};

}  // namespace setter
}  // namespace ks
