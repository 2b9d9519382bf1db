// The settings server's journal; see journal.h.
#include "kssetter/server/journal.h"

#include <ksutils/error.h>

#include <kswrite.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ks {
namespace setter {

namespace {

constexpr size_t kHead = 8;           // length and checksum
constexpr size_t kPayloadHead = 6;    // operation, type or flags, key length
constexpr uint32_t kMaxPayload = 64u << 20;

void putU32(std::string& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
}

uint32_t getU32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

// Frames `payload` (built after a placeholder head) into a record in place.
std::string frame(std::string record) {
    const uint32_t length = static_cast<uint32_t>(record.size() - kHead);
    const uint32_t sum =
        Journal::crc32c(reinterpret_cast<const unsigned char*>(record.data()) + kHead, record.size() - kHead);
    std::string head;
    putU32(head, length);
    putU32(head, sum);
    record.replace(0, kHead, head);
    return record;
}

std::string start(char op, unsigned char typeOrFlags, ks::string_view key) {
    std::string record(kHead, '\0');
    record.push_back(op);
    record.push_back(static_cast<char>(typeOrFlags));
    putU32(record, static_cast<uint32_t>(key.size()));
    record.append(key.data(), key.size());
    return record;
}

// Applies one payload; false when it does not describe a change.
bool apply(storage::Store& store, const unsigned char* p, uint32_t length) {
    if (length < kPayloadHead) return false;
    const uint32_t keyLength = getU32(p + 2);
    if (keyLength == 0 || keyLength > length - kPayloadHead) return false;
    const std::string key(reinterpret_cast<const char*>(p + kPayloadHead), keyLength);
    const unsigned char* value = p + kPayloadHead + keyLength;
    const uint32_t valueLength = length - kPayloadHead - keyLength;
    if (p[0] == 'S' && p[1] <= storage::None) {
        store.setKey(key, p[1] == storage::None ? nullptr : value, static_cast<storage::ValueType>(p[1]), valueLength);
        return true;
    }
    if (p[0] == 'D' && p[1] <= 3 && valueLength == 0) {
        if (key == "/")
            store.clear();
        else
            store.delKey(key, p[1] & 1, p[1] & 2);
        return true;
    }
    return false;
}

// The file's bytes (none for a missing file). False, with errno, when it cannot be read to
// its end: a journal read short would look like one that ends early.
bool readWhole(const std::string& path, std::string& out) {
    ks::unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return errno == ENOENT;
    char chunk[16384];
    ssize_t n;
    // Reads of a regular file are not interrupted by signals: no EINTR to retry.
    while ((n = ::read(fd.get(), chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<size_t>(n));
    return n == 0;
}

}  // namespace

uint32_t Journal::crc32c(const unsigned char* data, size_t size) {
    static const auto table = [] {
        struct Table {
            uint32_t v[256];
        } t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = c & 1 ? 0x82F63B78u ^ (c >> 1) : c >> 1;
            t.v[i] = c;
        }
        return t;
    }();
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) crc = table.v[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFFu;
}

std::string Journal::encodeSet(ks::string_view key, storage::ValueType type, const unsigned char* value,
                               uint64_t size) {
    std::string record = start('S', static_cast<unsigned char>(type), key);
    if (value) record.append(reinterpret_cast<const char*>(value), size);
    return frame(std::move(record));
}

std::string Journal::encodeDelete(ks::string_view key, bool prune, bool leafOnly) {
    return frame(start('D', static_cast<unsigned char>((prune ? 1 : 0) | (leafOnly ? 2 : 0)), key));
}

Journal::Replay Journal::replay(storage::Store& store) const {
    std::string data;
    if (!readWhole(path_, data)) {
        Replay unread;
        unread.error = errno;
        return unread;
    }
    return applyRecords(data, store);
}

Journal::Replay Journal::applyRecords(const std::string& data, storage::Store& store) {
    Replay result;
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    size_t at = 0;
    // A tail of zeros is space the file system gave the last append before its data.
    auto zeros = [&](size_t from) { return data.find_first_not_of('\0', from) == std::string::npos; };
    while (at < data.size()) {
        const size_t left = data.size() - at;
        const uint32_t length = left >= kHead ? getU32(bytes + at) : 0;
        if (left < kHead || length > left - kHead) {
            // Cut short: the last append never completed, so it was never acknowledged.
            result.tornTail = length <= kMaxPayload || zeros(at);
            result.damaged = !result.tornTail;
            break;
        }
        const bool last = at + kHead + length == data.size();
        if (crc32c(bytes + at + kHead, length) != getU32(bytes + at + 4) || !apply(store, bytes + at + kHead, length)) {
            // With nothing after it, a bad record is an append the crash cut inside the
            // page cache; with records after it, the file was damaged.
            result.tornTail = last || zeros(at);
            result.damaged = !result.tornTail;
            break;
        }
        ++result.applied;
        at += kHead + length;
    }
    result.stoppedAt = at;
    return result;
}

bool Journal::open(uint64_t validLength) {
    auto fail = [&](const char* what) {
        failure_ = errno;
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot {:s} the journal {:s}: {:s}", what, path_, std::strerror(failure_));
        fd_.reset();
        return false;
    };
    // Remembered even if this open fails: a later one must not cut into whole records.
    size_ = validLength;
    fd_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    struct stat st;
    if (!fd_ || ::fstat(fd_.get(), &st) != 0) return fail("open");
    // size_ changes only once the cut is made: should it fail, the next open cuts again.
    if (static_cast<uint64_t>(st.st_size) > validLength &&
        ::ftruncate(fd_.get(), static_cast<off_t>(validLength)) != 0)
        return fail("cut the torn end of");
    size_ = std::min(static_cast<uint64_t>(st.st_size), validLength);
    // write_all cuts a failed append back to the descriptor's position, taken as where the
    // append began; an O_APPEND descriptor stands at 0 until its first write, so a failed
    // first append would empty the journal.
    if (::lseek(fd_.get(), static_cast<off_t>(size_), SEEK_SET) < 0) return fail("seek to the end of");
    // The file's name must survive a power loss as surely as the records fsync'ed into it.
    const size_t slash = path_.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
    ks::unique_fd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd || ::fsync(dirFd.get()) != 0) return fail("sync the directory of");
    return true;
}

void Journal::addSet(ks::string_view key, storage::ValueType type, const unsigned char* value, uint64_t size) {
    pending_ += encodeSet(key, type, value, size);
}

void Journal::addDelete(ks::string_view key, bool prune, bool leafOnly) { pending_ += encodeDelete(key, prune, leafOnly); }

bool Journal::commit(storage::Store& durable) {
    if (pending_.empty()) return true;
    if (!fd_ && !open(size_)) return false;
    // Whatever part of a failed append went in is cut off (by write_all itself, or here after
    // a failed sync, whose pages may be neither on disk nor reported again), so a retry never
    // leaves a torn or unsynced record in the middle of the file.
    if (write_all(fd_.get(), pending_.data(), pending_.size(), 1) < 0 || ::fdatasync(fd_.get()) != 0) {
        failure_ = errno;
        if (::ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) fd_.reset();  // the next open cuts
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot write the journal {:s}: {:s}", path_, std::strerror(failure_));
        return false;
    }
    size_ += pending_.size();
    applyRecords(pending_, durable);
    pending_.clear();
    return true;
}

bool Journal::reset() {
    if (!fd_ && !open(size_)) return false;
    if (::ftruncate(fd_.get(), 0) != 0) {
        failure_ = errno;
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot empty the journal {:s}: {:s}", path_, std::strerror(failure_));
        return false;
    }
    size_ = 0;
    ::lseek(fd_.get(), 0, SEEK_SET);  // where the next append begins, as in open()
    return true;
}

}  // namespace setter
}  // namespace ks
