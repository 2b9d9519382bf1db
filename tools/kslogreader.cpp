// kslogreader: turns encrypted log files back into plain text for operators, as one journal.
//
// Files and directories are given on the command line; a directory stands for every log file
// in it ("name.N", N the rotation number; higher is older). The records of all files are
// merged by their header's time stamp, then process id, then the order of the files, so the
// records of several outputs and processes read as one story. Filters choose records by time,
// level, process, message and output name; -n keeps the last records; -f keeps following the
// files as writers append to them and rotate them; -o json prints one object per record.
//
// A damaged stretch of a file (a block torn by a writer that died, say) is skipped up to the
// next key block and reported on standard error with the file's name and the offsets skipped;
// the remaining files are still read, and the exit status tells that something was lost.
#include <kscrypto.h>
#include <kscryptolog.h>
#include <kslog.h>
#include <ksutils/cmdline.h>
#include <ksutils/crypto.h>
#include <ksutils/error.h>
#include <ksutils/unique_fd.h>

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <jansson.h>
#include <regex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitBadFile = 1;
constexpr int kExitUsage = 2;

const char* program = "kslogreader";

// A lone "-" names standard input, but the parser would take it for an option: it is handed
// to the parser as this empty argument, recognised afterwards by its address.
const char kStandardInput[] = "";

void print_help(FILE* out) {
    std::fprintf(out,
                 "Usage: %s [OPTION]... [-k PRIVATE_KEY | PRIVATE_KEY] LOGFILE|DIRECTORY...\n"
                 "\n"
                 "Decrypts encrypted log files and writes their plain records to standard output,\n"
                 "the records of all files merged by time stamp (then process id, then the order of\n"
                 "the files). A directory stands for every log file in it (\"name.N\"), each output's\n"
                 "files oldest first; give the files of one output oldest first (e.g. name.1 then\n"
                 "name.0) when naming them. \"-\" reads a log file from standard input.\n"
                 "\n",
                 program);
    ks::cl::print_help(out);
    std::fputs("\n"
               "Times are \"YYYY-MM-DD HH:MM:SS\" (local time, as in the records) or relative to now:\n"
               "\"-30s\", \"-10min\", \"-2h\", \"-1d\". Levels are error (0), warning or warn (1), info (2),\n"
               "debug (3) and trace (4). Time, level and process filters drop records without a\n"
               "record header.\n"
               "\n"
               "A file with a bad header is reported on standard error with its name. A torn or\n"
               "corrupt block, or records written for another key, are skipped up to the next\n"
               "key block that the private key opens, where reading resumes; each skipped\n"
               "stretch is reported with the offsets of its first and last bytes, after\n"
               "everything readable in the file has been printed. The other files are still read.\n"
               "\n"
               "Exit status: 0 when every file was read completely, 1 when any file could not\n"
               "be read completely, 2 for a usage error or an unusable key. With -f, SIGINT and\n"
               "SIGTERM end the program with that status.\n",
               out);
}

int usage_error(const std::string& message, const std::string& argument = "") {
    if (!argument.empty())
        std::fprintf(stderr, "%s: %s: %s\n", program, message.c_str(), argument.c_str());
    else
        std::fprintf(stderr, "%s: %s\n", program, message.c_str());
    std::fprintf(stderr, "Try '%s --help' for more information.\n", program);
    return kExitUsage;
}

std::string last_error() { return std::string(ks::_get_kserrno().message_view()); }

// ---- Records -------------------------------------------------------------------------------

// The level a word names, as the log core stamps it ("warn") or as people write it
// ("warning"); -1 for none. The words are the log core's own.
int level_of(ks::string_view word) {
    for (int l = KSLOG_LEVEL_ERROR; l <= KSLOG_LEVEL_TRACE; ++l)
        if (word == kslog_lvl_to_logstr(l) || word == kslog_lvl_to_userstr(l)) return l;
    return -1;
}

// One record: its text as written (with the final newline) and the fields of its header.
// A record without a header (text that the log core did not stamp) has an empty time.
struct Record {
    ks::string_view text;
    ks::string_view time;  // "yyyy-mm-dd HH:MM:SS.mmm"
    int pid = 0;
    int level = -1;
};

bool digits(ks::string_view text, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

// The stamped header "yyyy-mm-dd HH:MM:SS.mmm pppppp lllll " at the start of `line`.
bool parse_header(ks::string_view line, Record* r) {
    if (line.size() < KSLOG_HEADER_SIZE) return false;
    if (!digits(line, 0, 4) || line[4] != '-' || !digits(line, 5, 7) || line[7] != '-' || !digits(line, 8, 10) ||
        line[10] != ' ' || !digits(line, 11, 13) || line[13] != ':' || !digits(line, 14, 16) || line[16] != ':' ||
        !digits(line, 17, 19) || line[19] != '.' || !digits(line, 20, 23) || line[23] != ' ' || line[30] != ' ' ||
        line[36] != ' ')
        return false;
    size_t i = 24;
    while (i < 30 && line[i] == ' ') ++i;
    if (i == 30 || !digits(line, i, 30)) return false;
    int pid = 0;
    for (; i < 30; ++i) pid = pid * 10 + (line[i] - '0');
    ks::string_view level = line.substr(31, 5);
    while (!level.empty() && level.front() == ' ') level.remove_prefix(1);
    const int l = level_of(level);
    if (l < 0) return false;
    r->time = line.substr(0, 23);
    r->pid = pid;
    r->level = l;
    return true;
}

// Cuts decrypted text into records: a line with a stamped header starts one, any other line
// belongs to the record before it (a message may hold newlines).
void split_records(ks::string_view plain, std::vector<Record>* out) {
    for (size_t start = 0, end; start < plain.size(); start = end) {
        end = std::min(plain.find('\n', start), plain.size() - 1) + 1;
        Record r;
        r.text = plain.substr(start, end - start);
        if (parse_header(r.text, &r) || out->empty())
            out->push_back(r);
        else
            out->back().text = ks::string_view(out->back().text.data(), out->back().text.size() + r.text.size());
    }
}

// The parts after the header: "[file:line][function()]: message\n".
struct Source {
    ks::string_view file, function, message;
    long line = 0;
};

Source parse_source(const Record& r) {
    Source s;
    ks::string_view rest = r.text.substr(r.time.empty() ? 0 : KSLOG_HEADER_SIZE);
    if (!rest.empty() && rest.back() == '\n') rest.remove_suffix(1);
    s.message = rest;
    if (rest.empty() || rest[0] != '[') return s;
    const size_t close = rest.find(']');
    const size_t colon = rest.rfind(':', close);
    const size_t end = rest.find("()]: ", close);
    if (close == ks::string_view::npos || colon == ks::string_view::npos || colon == 0 || end == ks::string_view::npos ||
        close + 1 >= rest.size() || rest[close + 1] != '[' || !digits(rest, colon + 1, close))
        return s;
    s.file = rest.substr(1, colon - 1);
    for (size_t i = colon + 1; i < close; ++i) s.line = s.line * 10 + (rest[i] - '0');
    s.function = rest.substr(close + 2, end - close - 2);
    s.message = rest.substr(end + 5);
    return s;
}

// ---- Filters -------------------------------------------------------------------------------

struct Filter {
    std::string since, until;  // "yyyy-mm-dd HH:MM:SS", empty when not given
    int level = -1;
    std::vector<int> pids;
    std::unique_ptr<regex_t, void (*)(regex_t*)> grep{nullptr, [](regex_t* r) {
                                                           regfree(r);
                                                           delete r;
                                                       }};
    bool by_header() const { return !since.empty() || !until.empty() || level >= 0 || !pids.empty(); }

    bool accepts(const Record& r) const {
        if (r.time.empty()) {
            if (by_header()) return false;
        } else {
            const ks::string_view second = r.time.substr(0, 19);
            if (!since.empty() && second < ks::string_view(since)) return false;
            if (!until.empty() && second > ks::string_view(until)) return false;
            if (level >= 0 && r.level > level) return false;
            if (!pids.empty() && std::find(pids.begin(), pids.end(), r.pid) == pids.end()) return false;
        }
        if (grep) {
            const std::string message(parse_source(r).message);
            if (regexec(grep.get(), message.c_str(), 0, nullptr, 0) != 0) return false;
        }
        return true;
    }
};

// "YYYY-MM-DD HH:MM:SS" as is, or "-N" with a unit (s, min, h, d) before now; empty when bad.
std::string parse_time(ks::string_view text) {
    Record probe;  // an absolute time is checked as the start of a record header
    if (text.size() == 19 &&
        parse_header(std::string(text) + ".000      1 error [", &probe))
        return std::string(text);
    if (text.size() < 3 || text[0] != '-') return "";
    size_t i = 1;
    long amount = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && amount < 100000000; ++i)
        amount = amount * 10 + (text[i] - '0');
    const ks::string_view unit = text.substr(i);
    long scale = 0;
    if (i == 1) return "";
    if (unit == "s" || unit == "sec") scale = 1;
    else if (unit == "min") scale = 60;  // not "m": a month to some
    else if (unit == "h") scale = 3600;
    else if (unit == "d") scale = 86400;
    else return "";
    const time_t when = std::time(nullptr) - static_cast<time_t>(amount * scale);
    struct tm local;
    char buffer[32];
    if (!localtime_r(&when, &local) || std::strftime(buffer, sizeof buffer, "%F %T", &local) != 19) return "";
    return buffer;
}

int parse_level(ks::string_view text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '4') return text[0] - '0';
    return level_of(text);
}

// ---- Files ---------------------------------------------------------------------------------

// The output a log file belongs to: its base name without the rotation number.
std::string output_name(const std::string& path, long* rotation = nullptr) {
    std::string name = path.substr(path.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    if (rotation) *rotation = -1;
    if (dot == std::string::npos || dot + 1 == name.size() || !digits(name, dot + 1, name.size())) return name;
    if (rotation) *rotation = std::atol(name.c_str() + dot + 1);
    return name.substr(0, dot);
}

// The log files of `directory` ("name.N"), each output's files oldest first.
std::vector<std::string> list_directory(const std::string& directory) {
    std::vector<std::pair<std::pair<std::string, long>, std::string>> found;
    if (DIR* dir = ::opendir(directory.c_str())) {
        while (const dirent* entry = ::readdir(dir)) {
            long rotation;
            const std::string path = directory + "/" + entry->d_name;
            const std::string output = output_name(path, &rotation);
            struct stat st;
            if (rotation >= 0 && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
                found.push_back({{output, -rotation}, path});
        }
        ::closedir(dir);
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> paths;
    for (auto& f : found) paths.push_back(std::move(f.second));
    return paths;
}

// Decrypted text, in a memory file mapped whole (no copy of what may be hundreds of MiB).
class Mapping {
public:
    Mapping() = default;
    Mapping(void* data, size_t size) : data_(data), size_(size) {}
    Mapping(Mapping&& other) noexcept : data_(other.data_), size_(other.size_) { other.data_ = nullptr; }
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~Mapping() {
        if (data_) ::munmap(data_, size_);
    }
    ks::string_view text() const { return data_ ? ks::string_view(static_cast<const char*>(data_), size_) : ""; }

private:
    void* data_ = nullptr;
    size_t size_ = 0;
};

// A decrypted file: its plain text (what is new of it, when following) and records.
struct Plain {
    std::string name;  // as reported
    Mapping memory;    // what the library decrypted, or
    std::string owned;  // what decrypt_fast did
    ks::string_view text;
    std::vector<Record> records;
};

void report(const std::string& name, const std::string& errors) {
    for (size_t start = 0;;) {
        const size_t end = std::min(errors.find('\n', start), errors.size());
        std::fprintf(stderr, "%s: %s: %.*s\n", program, name.c_str(), static_cast<int>(end - start),
                     errors.data() + start);
        if (end == errors.size()) break;
        start = end + 1;
    }
}

// Decrypts `fd` into `memory`; false with `errors` set when anything was lost.
bool decrypt(ks::CryptoLogReader& reader, int fd, Mapping* memory, std::string* errors) {
    ks::unique_fd plain(::memfd_create("kslogreader", MFD_CLOEXEC));
    if (!plain) {
        *errors = std::strerror(errno);
        return false;
    }
    const bool whole = reader.decrypt(plain.get(), fd);
    if (!whole) *errors = last_error();
    struct stat st;
    if (::fstat(plain.get(), &st) == 0 && st.st_size > 0) {
        void* data = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, plain.get(), 0);
        if (data != MAP_FAILED) *memory = Mapping(data, static_cast<size_t>(st.st_size));
    }
    return whole;
}

// The common case without the library's general reader, which writes each record to a
// descriptor and keys a cipher for each: a file that is nothing but well-formed blocks is
// read whole and each record decrypted into `plain` under a key unwrapped once. False, with
// `plain` undefined, for anything else (a bad header, damage of any kind, a key that does not
// open): the library then reads the file, skipping and reporting what it must.
bool decrypt_fast(int fd, const char* private_key, std::string* plain) {
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < CRYPTO_LOG_HEADER_SIZE) return false;
    std::string bytes(static_cast<size_t>(st.st_size), '\0');
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::pread(fd, &bytes[done], bytes.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    if (crypto_log_layout_is_valid_header(data) != 0) return false;
    using Context = std::unique_ptr<mbedtls_aes_context, void (*)(mbedtls_aes_context*)>;
    std::map<std::string, Context> keys;  // by wrapped key: writers repeat theirs
    mbedtls_aes_context* key = nullptr;
    constexpr size_t kHead = 5, kWrapped = 256, kMaxRecord = 4112;
    auto length_at = [&](size_t at) {
        return static_cast<size_t>(data[at + 1]) | static_cast<size_t>(data[at + 2]) << 8 |
               static_cast<size_t>(data[at + 3]) << 16 | static_cast<size_t>(data[at + 4]) << 24;
    };
    plain->clear();
    plain->reserve(bytes.size());
    for (size_t at = CRYPTO_LOG_HEADER_SIZE; at < bytes.size();) {
        if (bytes.size() - at < kHead) return false;
        const size_t length = length_at(at);
        const unsigned char* payload = data + at + kHead;
        if (bytes.size() - at - kHead < length) return false;
        if (data[at] == 1) {
            if (length != kWrapped) return false;
            const std::string wrapped(reinterpret_cast<const char*>(payload), length);
            auto found = keys.find(wrapped);
            if (found == keys.end()) {
                unsigned char unwrapped[kWrapped];
                size_t size = 0;
                if (rsa_decrypt(payload, unwrapped, &size, private_key) != 0 || size != 32) return false;
                Context context(aes_context_new(unwrapped, 1), aes_context_free);
                if (!context) return false;
                found = keys.emplace(wrapped, std::move(context)).first;
            }
            key = found->second.get();
        } else if (data[at] == 2) {
            if (!key || length == 0 || length % 16 != 0 || length > kMaxRecord) return false;
            unsigned char iv[16] = {};
            const size_t end = plain->size();
            size_t size = 0;
            plain->resize(end + length);
            if (aes_decrypt_no_alloc(payload, length, key, iv, reinterpret_cast<unsigned char*>(&(*plain)[end]),
                                     length, &size) != 0)
                return false;
            plain->resize(end + size);
        } else {
            return false;
        }
        at += kHead + length;
    }
    return true;
}

// Identity of a file as it moves through rotations, and how much of it was printed.
struct Seen {
    off_t size = -1;
    size_t printed = 0;  // bytes of plain text
    std::string head;    // the header and first key block: a new file under a reused inode differs
    std::string error;  // reported, or (while `retry`) held back once
    bool retry = false;
};

constexpr size_t kHeadBytes = 32 + 5 + 256;

std::string read_head(int fd) {
    std::string head(kHeadBytes, '\0');
    const ssize_t n = ::pread(fd, &head[0], head.size(), 0);
    head.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return head;
}

class Journal {
public:
    Journal(ks::CryptoLogReader& reader, const std::string& private_key, const Filter& filter, bool json,
            const std::string& pattern)
        : reader_(reader), private_key_(private_key), filter_(filter), json_(json), pattern_(pattern) {}

    bool wanted(const std::string& path) const {
        return pattern_.empty() || ::fnmatch(pattern_.c_str(), output_name(path).c_str(), 0) == 0;
    }

    // Reads files (or standard input, "-") whole, several at a time, and takes them in the
    // order given; false after reporting it when anything was lost. With `followed`, remembers
    // how much of each was read and reads again only files that changed; with `quiet`, only
    // remembers.
    bool read(const std::vector<std::string>& paths, bool followed, bool quiet = false) {
        std::vector<Loaded> loaded(paths.size());
        std::atomic<size_t> next{0};
        auto work = [&] {
            for (size_t i; (i = next++) < paths.size();) load(paths[i], followed && paths[i] != "-", &loaded[i]);
        };
        {
            std::vector<std::thread> workers;
            const size_t cores = std::max(1u, std::thread::hardware_concurrency());
            for (size_t t = 1; t < std::min<size_t>({paths.size(), cores, 4}); ++t) try {
                    workers.emplace_back(work);
                } catch (const std::system_error&) {
                    break;  // fewer helpers, the same work
                }
            work();
            for (std::thread& w : workers) w.join();
        }
        bool whole = true;
        for (Loaded& l : loaded) whole = take(std::move(l), quiet) && whole;
        return whole;
    }

private:
    // A file opened and decrypted, on any thread: nothing reported, nothing remembered yet.
    struct Loaded {
        std::string name;  // as reported
        int error = 0;     // errno of a failed open
        bool followed = false;
        struct stat st = {};
        std::string head;
        bool unchanged = false;
        Mapping memory;
        std::string owned;
        bool whole = false;
        std::string errors;
    };

    // Only reads `seen_` (other threads are loading too).
    void load(const std::string& path, bool followed, Loaded* l) {
        const bool standard_input = path == "-";
        l->name = standard_input ? "(standard input)" : path;
        ks::unique_fd owned;
        if (!standard_input) {
            owned.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
            if (!owned) {
                l->error = errno;
                return;
            }
        }
        const int fd = standard_input ? STDIN_FILENO : owned.get();
        if (followed && ::fstat(fd, &l->st) == 0) {
            l->head = read_head(fd);
            const auto known = seen_.find({l->st.st_dev, l->st.st_ino});
            l->unchanged = known != seen_.end() && known->second.size == l->st.st_size &&
                           l->head.substr(0, known->second.head.size()) == known->second.head;
            l->followed = true;
            if (l->unchanged) return;
        }
        l->whole = (!standard_input && decrypt_fast(fd, private_key_.c_str(), &l->owned)) ||
                   decrypt(reader_, fd, &l->memory, &l->errors);
    }

    bool take(Loaded&& l, bool quiet) {
        if (l.error) {
            if (!quiet) std::fprintf(stderr, "%s: %s: %s\n", program, l.name.c_str(), std::strerror(l.error));
            return false;
        }
        if (l.unchanged) return true;
        Seen* seen = nullptr;
        if (l.followed) {
            seen = &seen_[{l.st.st_dev, l.st.st_ino}];
            if (seen->size >= 0 && (l.st.st_size < seen->size || l.head.substr(0, seen->head.size()) != seen->head))
                *seen = Seen();  // the inode of a deleted file, given to a new one
            seen->size = l.st.st_size;
            seen->head = std::move(l.head);
        }
        Plain plain;
        plain.name = std::move(l.name);
        plain.memory = std::move(l.memory);
        plain.owned = std::move(l.owned);
        plain.text = plain.owned.empty() ? plain.memory.text() : ks::string_view(plain.owned);
        const std::string& errors = l.errors;
        if (!l.whole && !quiet) {
            // A writer may be half-way through a block: damage found while following is
            // reported only when the next look finds it again, and the file is read again then.
            if (!seen || (seen->error == errors && seen->retry)) report(plain.name, errors);
            if (seen && (seen->retry = seen->error != errors)) seen->size = -1;
        }
        if (seen) {
            if (l.whole) seen->retry = false;
            seen->error = l.whole ? "" : errors;
            if (seen->printed > plain.text.size()) seen->printed = 0;
            const size_t from = seen->printed;
            seen->printed = plain.text.size();
            if (quiet) return l.whole;
            plain.text.remove_prefix(from);
        }
        files_.push_back(std::move(plain));
        return l.whole;
    }

public:
    // Merges the files read so far and prints the last `last` records chosen (all with -1).
    void print(long last) {
        // Processes sharing a file stamp a record before they wait for the file's lock, so a
        // file's records are nearly, not quite, in time order: each file is put in order first.
        auto earlier = [](const Record& x, const Record& y) {
            return x.time != y.time ? x.time < y.time : x.pid < y.pid;
        };
        for (Plain& p : files_) {
            split_records(p.text, &p.records);
            if (!std::is_sorted(p.records.begin(), p.records.end(), earlier))
                std::stable_sort(p.records.begin(), p.records.end(), earlier);
        }
        using Cursor = std::pair<size_t, size_t>;  // file, record
        auto later = [this, &earlier](const Cursor& a, const Cursor& b) {
            const Record& x = files_[a.first].records[a.second];
            const Record& y = files_[b.first].records[b.second];
            return earlier(y, x) || (!earlier(x, y) && a.first > b.first);
        };
        std::priority_queue<Cursor, std::vector<Cursor>, decltype(later)> heads(later);
        for (size_t f = 0; f < files_.size(); ++f)
            if (!files_[f].records.empty()) heads.push({f, 0});
        std::vector<const Record*> chosen;
        while (!heads.empty()) {
            Cursor c = heads.top();
            heads.pop();
            const Record& r = files_[c.first].records[c.second];
            if (filter_.accepts(r)) chosen.push_back(&r);
            if (++c.second < files_[c.first].records.size()) heads.push(c);
        }
        const size_t from = last >= 0 && static_cast<size_t>(last) < chosen.size() ? chosen.size() - last : 0;
        for (size_t i = from; i < chosen.size(); ++i) write(*chosen[i]);
        std::fflush(stdout);
        files_.clear();
    }

private:
    void write(const Record& r) {
        if (!json_) {
            std::fwrite(r.text.data(), 1, r.text.size(), stdout);
            return;
        }
        const Source s = parse_source(r);
        json_t* object = json_object();
        json_object_set_new(object, "time", json_stringn(r.time.data(), r.time.size()));
        json_object_set_new(object, "pid", json_integer(r.pid));
        json_object_set_new(object, "level", json_string(r.level >= 0 ? kslog_lvl_to_logstr(r.level) : ""));
        json_object_set_new(object, "file", json_stringn(s.file.data(), s.file.size()));
        json_object_set_new(object, "line", json_integer(s.line));
        json_object_set_new(object, "function", json_stringn(s.function.data(), s.function.size()));
        json_object_set_new(object, "message", json_stringn(s.message.data(), s.message.size()));
        json_dumpf(object, stdout, JSON_COMPACT | JSON_PRESERVE_ORDER);
        std::fputc('\n', stdout);
        json_decref(object);
    }

    ks::CryptoLogReader& reader_;
    const std::string private_key_;
    const Filter& filter_;
    bool json_;
    std::string pattern_;
    std::vector<Plain> files_;
    std::map<std::pair<dev_t, ino_t>, Seen> seen_;
};

volatile std::sig_atomic_t stop_requested = 0;
void request_stop(int) { stop_requested = 1; }

// What -f watches: every log file of the directories given, and every file of the outputs
// of the files given, so that records written just before a rotation are not missed.
std::vector<std::string> watched(const Journal& journal, const std::vector<std::string>& directories,
                                 const std::vector<std::string>& files) {
    std::vector<std::string> paths;
    for (const std::string& d : directories)
        for (std::string& p : list_directory(d)) paths.push_back(std::move(p));
    for (const std::string& f : files) {
        if (f == "-") continue;
        long rotation;
        const std::string output = output_name(f, &rotation);
        if (rotation < 0) {
            paths.push_back(f);
            continue;
        }
        const size_t slash = f.rfind('/');
        for (std::string& p : list_directory(slash == std::string::npos ? "." : f.substr(0, slash)))
            if (output_name(p) == output) paths.push_back(std::move(p));
    }
    paths.erase(std::remove_if(paths.begin(), paths.end(), [&](const std::string& p) { return !journal.wanted(p); }),
                paths.end());
    return paths;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 0 && argv[0] && *argv[0]) {
        const char* slash = std::strrchr(argv[0], '/');
        program = slash ? slash + 1 : argv[0];
    }

    std::vector<char*> args(argv, argv + argc);
    // A relative time ("--since -2h") looks like an option to the parser: it is joined to its
    // option ("--since=-2h").
    std::vector<std::string> joined;
    joined.reserve(args.size());
    for (size_t i = 1; i + 1 < args.size(); ++i)
        if ((std::strcmp(args[i], "--since") == 0 || std::strcmp(args[i], "--until") == 0) && args[i + 1][0] == '-') {
            joined.push_back(std::string(args[i]) + "=" + args[i + 1]);
            args[i] = &joined.back()[0];
            args.erase(args.begin() + static_cast<long>(i) + 1);
        }
    for (char*& arg : args)
        if (std::strcmp(arg, "-") == 0) arg = const_cast<char*>(kStandardInput);
    // "--key" and "--help" are the same options: the parser drops one dash.
    ks::cl::opt<ks::string_view> key_option{"k", "key", "-key", ks::cl::at_most(1), ks::cl::value_name("FILE"),
                                            ks::cl::help("the RSA private key (PEM or DER) matching the device's log "
                                                         "public key; without -k the first argument is the key")};
    ks::cl::opt<ks::string_view> since{"-since", ks::cl::at_most(1), ks::cl::value_name("TIME"),
                                       ks::cl::help("only records stamped at or after TIME")};
    ks::cl::opt<ks::string_view> until{"-until", ks::cl::at_most(1), ks::cl::value_name("TIME"),
                                       ks::cl::help("only records stamped at or before TIME (to the second)")};
    ks::cl::opt<ks::string_view> level{"-level", ks::cl::at_most(1), ks::cl::value_name("LEVEL"),
                                       ks::cl::help("only records of LEVEL or more severe")};
    ks::cl::list<int> pids{"-pid", ks::cl::value_name("PID"), ks::cl::help("only records of process PID (repeatable)")};
    ks::cl::opt<ks::string_view> grep{"-grep", ks::cl::at_most(1), ks::cl::value_name("REGEX"),
                                      ks::cl::help("only records whose message matches the extended REGEX")};
    ks::cl::opt<ks::string_view> output{"-output", ks::cl::at_most(1), ks::cl::value_name("GLOB"),
                                        ks::cl::help("only files of outputs whose name (the file name without its "
                                                     "rotation number) matches GLOB")};
    ks::cl::opt<int> last{"n", "-lines", ks::cl::at_most(1), ks::cl::value_name("N"), ks::cl::init(-1),
                          ks::cl::help("only the last N records chosen")};
    ks::cl::flag follow{"f", "-follow", ks::cl::at_most(1),
                        ks::cl::help("keep printing records as they are written, across rotations, until "
                                     "interrupted")};
    ks::cl::opt<ks::string_view> format{"o", "-format", ks::cl::at_most(1), ks::cl::value_name("FORMAT"),
                                        ks::cl::help("\"text\" (the records as written, the default) or \"json\" "
                                                     "(one object per record)")};
    ks::cl::flag help{"h", "help", "-help", ks::cl::help("show this help and exit")};
    ks::cl::list<ks::string_view> arguments{"LOGFILE", ks::cl::Positional, ks::cl::Sink,
                                            ks::cl::help("log files, oldest first, or directories; \"-\" is standard "
                                                         "input")};
    if (!ks::cl::parse(static_cast<int>(args.size()), args.data())) return usage_error(last_error());
    if (help) {
        print_help(stdout);
        return kExitOk;
    }
    std::string key(*key_option);
    std::vector<ks::string_view> names(arguments->begin(), arguments->end());
    if (key.empty() && !names.empty()) {
        key = std::string(names.front());
        names.erase(names.begin());
    }
    if (key.empty()) return usage_error("no private key given");
    if (names.empty()) return usage_error("no log file given");

    Filter filter;
    if (!since->empty() && (filter.since = parse_time(*since)).empty()) return usage_error("bad time", std::string(*since));
    if (!until->empty() && (filter.until = parse_time(*until)).empty()) return usage_error("bad time", std::string(*until));
    if (!level->empty() && (filter.level = parse_level(*level)) < 0) return usage_error("bad level", std::string(*level));
    filter.pids.assign(pids->begin(), pids->end());
    if (!grep->empty()) {
        filter.grep.reset(new regex_t);
        if (regcomp(filter.grep.get(), std::string(*grep).c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
            delete filter.grep.release();
            return usage_error("bad regular expression", std::string(*grep));
        }
    }
    if (!format->empty() && *format != "text" && *format != "json")
        return usage_error("bad format", std::string(*format));
    if (*last < -1) return usage_error("bad number of records", std::to_string(*last));

    ks::CryptoLogReader reader(key.c_str());
    if (!reader) {
        std::fprintf(stderr, "%s: %s\n", program, last_error().c_str());
        return kExitUsage;
    }
    std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
    Journal journal(reader, key, filter, *format == "json", std::string(*output));
    std::vector<std::string> directories, files, paths;
    for (ks::string_view argument : names) {
        const std::string name = argument.data() == kStandardInput ? "-" : std::string(argument);
        struct stat st;
        if (name != "-" && ::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            directories.push_back(name);
            for (std::string& path : list_directory(name))
                if (journal.wanted(path)) paths.push_back(std::move(path));
        } else {
            files.push_back(name);
            if (name == "-" || journal.wanted(name)) paths.push_back(name);
        }
    }
    int status = journal.read(paths, bool(follow)) ? kExitOk : kExitBadFile;
    journal.print(*last);
    if (!follow) return status;

    struct sigaction action = {};
    action.sa_handler = request_stop;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // What was there before, in files not named, is not news.
    journal.read(watched(journal, directories, files), true, true);
    while (!stop_requested) {
        const struct timespec pause = {0, 200 * 1000 * 1000};
        ::nanosleep(&pause, nullptr);
        if (!journal.read(watched(journal, directories, files), true)) status = kExitBadFile;
        journal.print(-1);
    }
    return status;
}
