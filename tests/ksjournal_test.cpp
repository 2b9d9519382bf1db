// The settings server's journal: replay of torn, zero-filled and damaged files, start-up
// over a damaged journal, acknowledged writes surviving SIGKILL of a real server, and a full
// disk that refuses writes without losing an acknowledged one.
#include "kssetter_fixture.h"

#include "kssetter/server/journal.h"
#include "kssetter/server/persistence.h"

#include <ksutils/executor.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>

#include <atomic>
#include <fstream>
#include <map>
#include <random>

namespace {

using namespace kssetter_test;
using ks::setter::Journal;
using ks::storage::Store;
namespace sm = ks::setMgmt;

std::string setRecord(const std::string& key, const std::string& value) {
    return Journal::encodeSet(key, ks::storage::String, reinterpret_cast<const unsigned char*>(value.data()),
                              value.size());
}

std::string valueOf(const Store& store, const std::string& key) {
    std::string value;
    return store.getKey(key, value) < 0 ? "<none>" : value;
}

TEST(Journal, ReplayAppliesWholeRecordsAndTellsTornFromDamaged) {
    const std::string a = setRecord("/j/a", "1"), b = Journal::encodeDelete("/j/a", true, false),
                      c = setRecord("/j/c", "3");
    std::string damagedB = b;
    damagedB[12] ^= 0x40;  // a payload byte: the checksum no longer matches
    struct Case {
        const char* name;
        std::string bytes;
        size_t applied;
        bool torn, damaged;
        const char* a;
        const char* c;
    } cases[] = {
        {"whole", a + b + c, 3, false, false, "<none>", "3"},
        {"cut inside the last head", a + b + c.substr(0, 5), 2, true, false, "<none>", "<none>"},
        {"cut inside the last payload", a + b + c.substr(0, c.size() - 1), 2, true, false, "<none>", "<none>"},
        {"last record garbled", a + b + c.substr(0, c.size() - 1) + "x", 2, true, false, "<none>", "<none>"},
        {"zeros after the end", a + std::string(64, '\0'), 1, true, false, "1", "<none>"},
        {"damaged in the middle", a + damagedB + c, 1, false, true, "1", "<none>"},
        {"length beyond any record", a + std::string("\xff\xff\xff\x7f", 4) + std::string(40, 'x'), 1, false, true,
         "1", "<none>"},
    };
    kstest::TempDir dir;
    for (const Case& t : cases) {
        SCOPED_TRACE(t.name);
        const std::string path = dir / "storage.data.journal";
        kstest::write_file(path, t.bytes);
        Store store;
        const Journal::Replay r = Journal(path).replay(store);
        EXPECT_EQ(r.applied, t.applied);
        EXPECT_EQ(r.tornTail, t.torn);
        EXPECT_EQ(r.damaged, t.damaged);
        EXPECT_EQ(valueOf(store, "/j/a"), t.a);
        EXPECT_EQ(valueOf(store, "/j/c"), t.c);
    }
}

// Start-up over a damaged journal: the changes before the damage are in, the rest is kept
// aside, the journal is empty again and the settings file passes its checksum.
TEST(Journal, StartUpStopsAtDamageAndKeepsTheJournalAside) {
    kstest::TempDir dir;
    const std::string file = dir / "storage.data", journal = file + ".journal";
    std::string second = setRecord("/p/b", "2");
    second[second.size() - 1] ^= 1;
    kstest::write_file(journal, setRecord("/p/a", "1") + second + setRecord("/p/c", "3"));
    ks::Executor loop;
    Store store;
    ks::setter::Persistence persistence(loop, store, file);
    ASSERT_TRUE(persistence.load());
    EXPECT_EQ(valueOf(store, "/p/a"), "1");
    EXPECT_EQ(valueOf(store, "/p/c"), "<none>");
    EXPECT_EQ(Store::checkHash(file), 0);
    struct stat st;
    EXPECT_EQ(::stat((journal + ".damaged").c_str(), &st), 0);
    ASSERT_EQ(::stat(journal.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
}

// Four clients write persistent keys while the server is killed at random moments; after
// every restart each key holds its last acknowledged value, or the value whose request was
// in flight at the kill, and never a value of a record torn at the journal's end.
TEST(Journal, AcknowledgedWritesSurviveKill9) {
    ClientScope client;
    ServerProcess server;
    std::mt19937 random(std::random_device{}());
    std::map<std::string, std::string> acked, inflight;
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        struct Writer {
            std::map<std::string, std::string> acked, inflight;
        } writers[4];
        std::atomic<bool> stop{false};
        inThread([] { EXPECT_EQ(0, sm::setKey("/tmp/dur", "volatile")); });
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                Writer& w = writers[t];
                for (int i = 0; !stop; ++i) {
                    const std::string key = "/dur/c" + std::to_string(t) + "/k" + std::to_string(i % 8);
                    const std::string value = std::to_string(round) + "." + std::to_string(i);
                    w.inflight[key] = value;
                    if (sm::setKey(key, value) != 0) break;  // the server is gone
                    w.acked[key] = value;
                    w.inflight.erase(key);
                }
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<>(5, 60)(random)));
        server.crash();
        stop = true;
        for (auto& th : threads) th.join();
        for (const Writer& w : writers) {
            for (const auto& [key, value] : w.acked) acked[key] = value, inflight.erase(key);
            for (const auto& [key, value] : w.inflight) inflight[key] = value;
        }
        // A write the kill cut short inside the journal: never acknowledged, never applied.
        const std::string torn = setRecord("/dur/torn", "round " + std::to_string(round));
        std::ofstream(storagePath() + ".journal", std::ios::binary | std::ios::app)
            << torn.substr(0, std::uniform_int_distribution<size_t>(1, torn.size() - 1)(random));

        server.start();
        inThread([&] {
            for (const auto& [key, value] : acked) {
                const std::string now = sm::getKeyValue(key, "<none>");
                const auto flying = inflight.find(key);
                EXPECT_TRUE(now == value || (flying != inflight.end() && now == flying->second))
                    << key << " is " << now << ", acknowledged " << value;
            }
            EXPECT_EQ(sm::getKeyValue("/dur/torn", "<none>"), "<none>");
            EXPECT_EQ(sm::getKeyValue("/tmp/dur", "<none>"), "<none>") << "volatile keys die with the server";
            for (const auto& [key, value] : inflight) acked[key] = sm::getKeyValue(key, "<none>");
            inflight.clear();
        });
        EXPECT_EQ(Store::checkHash(storagePath()), 0);
    }
    EXPECT_GE(acked.size(), 8u) << "the clients should have written between the kills";
    // A burst past the journal's limit is folded into the file at once, not at the next save.
    inThread([] {
        for (int i = 0; i < 5; ++i) EXPECT_EQ(0, sm::setKey("/dur/big" + std::to_string(i), std::string(1u << 20, 'x')));
    });
    const auto journal = std::ifstream(storagePath() + ".journal", std::ios::ate).tellg();
    EXPECT_LT(static_cast<uint64_t>(journal), ks::setter::Persistence::kJournalLimit);
}

// A tmpfs of `options` over `dir`, in a mount namespace that only the calling thread and the
// processes it starts see; the thread returns to the original namespace on destruction.
class SmallDisk {
public:
    SmallDisk(const std::string& dir, const char* options)
        : dir_(dir), original_(::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC)) {
        mounted_ = original_ && kstest::private_mounts() && ::mount("kstest", dir.c_str(), "tmpfs", 0, options) == 0;
    }
    ~SmallDisk() {
        if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
        if (original_) ::setns(original_.get(), CLONE_NEWNS);
    }
    bool mounted() const { return mounted_; }

private:
    std::string dir_;
    ks::unique_fd original_;
    bool mounted_ = false;
};

// Persistent writes fill a small disk until they are refused, each with E_SYSTEM and undone;
// reads and "/tmp" writes go on. SIGKILL on the full disk, a start on it, SIGKILL again, then
// a start with room: every acknowledged write has its last acknowledged value throughout.
TEST(Journal, FullDiskRefusesWritesAndLosesNoAcknowledgedOne) {
    ClientScope client;
    SmallDisk disk(root() / "etc", "size=1m");
    if (!disk.mounted()) GTEST_SKIP() << "no mount namespace here";
    ASSERT_TRUE(kstest::write_file(root() / "etc/filler", std::string(512 << 10, 'f')));
    ServerProcess server;
    std::map<std::string, std::string> acked;
    int refused = 0, written = 0;
    for (; written < 2000 && refused < 20; ++written) {
        const std::string key = "/full/k" + std::to_string(written % 64);
        const std::string value = std::string(2048, 'v') + std::to_string(written);
        if (sm::setKey(key, value) == 0) {
            acked[key] = value;
            continue;
        }
        ++refused;
        ASSERT_TRUE(failed(-1, ks::E_SYSTEM, "System error: No space left on device")) << key;
        EXPECT_EQ(sm::getKeyValue(key, "<none>"), acked.count(key) ? acked[key] : "<none>") << key;
        EXPECT_EQ(sm::setKey("/tmp/full/" + std::to_string(written), "kept"), 0) << kstest::error_text();
    }
    ASSERT_GT(refused, 0) << "the disk never filled";
    auto expectAcked = [&](const char* when) {
        inThread([&] {
            for (const auto& [key, value] : acked)
                EXPECT_EQ(sm::getKeyValue(key, "<none>"), value) << key << " " << when;
        });
    };
    server.crash();
    server.start();
    expectAcked("after a start on the full disk");
    // The first append after a start must not disturb the records replayed before it.
    inThread([] { EXPECT_TRUE(failed(sm::setKey("/full/k0", std::string(4096, 'r')), ks::E_SYSTEM)); });
    server.crash();
    ASSERT_EQ(::unlink((root() / "etc/filler").c_str()), 0);
    server.start();
    expectAcked("after a start with room");
    inThread([] { EXPECT_EQ(sm::setKey("/full/after", "room"), 0) << kstest::error_text(); });
    EXPECT_EQ(server.stop(), 0);
    Store saved;
    ASSERT_EQ(Store::checkHash(storagePath()) + saved.load(storagePath()), 0);
    for (const auto& [key, value] : acked) EXPECT_EQ(valueOf(saved, key), value) << key;
    EXPECT_EQ(valueOf(saved, "/full/after"), "room");
}

}  // namespace
