// Replays arbitrary bytes as the settings server's journal into an empty store. Replay must
// stop inside the input, apply only whole records, and a journal made only of the records
// it applied must replay to the same store.
#include "kssetter/server/journal.h"

#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

using ks::setter::Journal;
using ks::storage::Store;

namespace {

std::string scratchPath() {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/journal_fuzz." + std::to_string(::getpid());
}

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    ks::unique_fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd || (size > 0 && ::write(fd.get(), data, size) != static_cast<ssize_t>(size))) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = scratchPath();
    writeFile(path, data, size);
    Store first;
    const Journal::Replay r = Journal(path).replay(first);
    if (r.stoppedAt > size || (r.tornTail && r.damaged)) std::abort();
    if (!r.tornTail && !r.damaged && r.stoppedAt != size) std::abort();

    writeFile(path, data, r.stoppedAt);
    Store second;
    const Journal::Replay again = Journal(path).replay(second);
    if (again.applied != r.applied || again.tornTail || again.damaged || !(first == second)) std::abort();
    ::unlink(path.c_str());
    return 0;
}
