// The settings server's journal: an append-only file beside the settings file that holds
// every persistent change made since the settings file was last written, so that a change
// can be acknowledged as soon as one small append is on disk instead of after a rewrite of
// the whole file.
//
// A record is: payload length (32 bits), CRC-32C of the payload (32 bits), payload. The
// payload is an operation byte ('S' set, 'D' delete), a byte of type (set) or flags
// (delete: 1 prune, 2 leaf only), the key's length (32 bits), the key, and for a set the
// value's bytes. Integers are little-endian.
//
// Replay reads records in order and applies them to a store. A last record cut short, or
// whose checksum fails with nothing after it, is a write that a crash interrupted: it was
// never acknowledged and is dropped. A record whose checksum fails with more records after
// it is damage: replay stops there, says so, and keeps the file aside for inspection.
#pragma once

#include <kssetter/ksstorage.h>
#include <ksutils/string_view.h>
#include <ksutils/unique_fd.h>

#include <cstdint>
#include <string>

namespace ks {
namespace setter {

class Journal {
public:
    explicit Journal(std::string path) : path_(std::move(path)) {}

    struct Replay {
        size_t applied = 0;     // records applied to the store
        bool tornTail = false;  // an interrupted last write was dropped
        bool damaged = false;   // stopped at a record that fails its checksum
        uint64_t stoppedAt = 0; // offset of the first record not applied
        int error = 0;          // errno when the file exists but could not be read: none applied
    };
    // Applies the journal's records to `store` (a missing journal has none).
    Replay replay(storage::Store& store) const;

    // Opens the journal for appending, creating it empty. Bytes beyond `validLength` (the end
    // of the last whole record: an append that never completed) are cut off first, so that
    // records appended now are not hidden behind a torn one.
    bool open(uint64_t validLength);
    // Queue one change; nothing reaches the file before commit().
    void addSet(ks::string_view key, storage::ValueType type, const unsigned char* value, uint64_t size);
    void addDelete(ks::string_view key, bool prune, bool leafOnly);
    bool pending() const { return !pending_.empty(); }
    // Appends the queued records and waits until they are on disk, then applies them to
    // `durable` (the owner's copy of what the disk holds). On failure the file is cut back to
    // where the append began (or, should that fail too, when it is next opened) and the
    // records stay queued; failure() is the errno of the failed step.
    bool commit(storage::Store& durable);
    int failure() const { return failure_; }
    // Bytes in the file.
    uint64_t size() const { return size_; }
    // Empties the file once the settings file holds every change in it.
    bool reset();
    // Forgets the queued records (the settings file holds their changes).
    void discardPending() { pending_.clear(); }
    void applyPending(storage::Store& store) const { applyRecords(pending_, store); }

    const std::string& path() const { return path_; }

    // CRC-32C (Castagnoli) of the payload, as each record carries it.
    static uint32_t crc32c(const unsigned char* data, size_t size);
    // One encoded record (the tests build journals with these).
    static std::string encodeSet(ks::string_view key, storage::ValueType type, const unsigned char* value,
                                 uint64_t size);
    static std::string encodeDelete(ks::string_view key, bool prune, bool leafOnly);

private:
    static Replay applyRecords(const std::string& records, storage::Store& store);

    std::string path_;
    ks::unique_fd fd_;
    std::string pending_;
    uint64_t size_ = 0;  // bytes of whole, synced records
    int failure_ = 0;
};

}  // namespace setter
}  // namespace ks
