// When the settings server writes its settings file. Everything about pacing and durability
// is behind this narrow interface (changed, flush, stop), so that the way changes reach the
// disk can be replaced without touching request handling.
//
// Today: the file is saved (shadow, fsync, rename) a tenth of a second after a persistent
// change, at most once a second under a stream of changes, and once more on stop. Keys under
// "/tmp" never cause a save.
#pragma once

#include <kssetter/ksstorage.h>
#include <ksutils/executor.h>

#include <chrono>
#include <string>

namespace ks {
namespace setter {

class Persistence {
public:
    Persistence(ks::Executor& loop, storage::Store& store, std::string file);
    ~Persistence();
    Persistence(const Persistence&) = delete;
    Persistence& operator=(const Persistence&) = delete;

    // Loads the store from the file (a missing file is an empty store). A file that fails
    // its checksum is loaded anyway, with a warning: it is still the best there is.
    bool load();
    // A key was set or deleted in the store.
    void changed(ks::string_view key);
    // Writes pending persistent changes now.
    void flush();
    // Cancels pacing and flushes; called once when the server stops.
    void stop();

    const std::string& file() const { return file_; }

private:
    using Clock = std::chrono::steady_clock;

    ks::Executor& loop_;
    storage::Store& store_;
    std::string file_;
    int timer_ = -1;
    Clock::time_point lastSave_{};
};

}  // namespace setter
}  // namespace ks
