// The settings server's journal: replay of torn, zero-filled and damaged files, start-up
// over a damaged journal, and acknowledged writes surviving SIGKILL of a real server.
#include "kssetter_fixture.h"

#include "kssetter/server/journal.h"
#include "kssetter/server/persistence.h"

#include <ksutils/executor.h>

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
        const char *a, *c;  // the values of /j/a and /j/c after the replay
    } cases[] = {
        {"whole", a + b + c, 3, false, false, "<none>", "3"},
        {"cut inside the last head", a + b + c.substr(0, 5), 2, true, false, "<none>", "<none>"},
        {"cut inside the last payload", a + b + c.substr(0, c.size() - 1), 2, true, false, "<none>", "<none>"},
        {"last record garbled", a + b + c.substr(0, c.size() - 1) + "x", 2, true, false, "<none>", "<none>"},
        {"zeros after the end", a + std::string(64, '\0'), 1, true, false, "1", "<none>"},
        {"damaged in the middle", a + damagedB + c, 1, false, true, "1", "<none>"},
        {"huge length", a + std::string("\xff\xff\xff\x7f", 4) + std::string(40, 'x'), 1, false, true, "1", "<none>"},
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
    std::string records = setRecord("/p/a", "1") + setRecord("/p/b", "2");
    records.back() ^= 1;
    records += setRecord("/p/c", "3");
    kstest::write_file(journal, records);
    ks::Executor loop;
    Store store;
    ks::setter::Persistence persistence(loop, store, file);
    ASSERT_TRUE(persistence.load());
    EXPECT_EQ(valueOf(store, "/p/a"), "1");
    EXPECT_EQ(valueOf(store, "/p/c"), "<none>");
    EXPECT_EQ(Store::checkHash(file), 0);
    EXPECT_EQ(kstest::read_file(journal + ".damaged"), records);
    EXPECT_EQ(kstest::read_file(journal), "");
}

// Four clients write while the server is killed at random moments (every fifth round stopped);
// after every restart each key holds its last acknowledged value, or the one in flight at the
// kill, and never a value of a record torn at the journal's end.
TEST(Journal, AcknowledgedWritesSurviveKill9) {
    ClientScope client;
    ServerProcess server;
    std::mt19937 random(std::random_device{}());
    std::map<std::string, std::string> acked, inflight;
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::map<std::string, std::string> ackedBy[4], inflightBy[4];
        std::atomic<bool> stop{false};
        inThread([] { EXPECT_EQ(0, sm::setKey("/tmp/dur", "volatile")); });
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; !stop; ++i) {
                    const std::string key = "/dur/c" + std::to_string(t) + "/k" + std::to_string(i % 8);
                    const std::string value = std::to_string(round) + "." + std::to_string(i);
                    inflightBy[t][key] = value;
                    if (sm::setKey(key, value) != 0) break;  // the server is gone
                    ackedBy[t][key] = value;
                    inflightBy[t].erase(key);
                }
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<>(5, 60)(random)));
        if (round % 5 == 4) {  // a stop under load leaves every change in the file, none in the journal
            EXPECT_EQ(0, server.stop());
            EXPECT_EQ("", kstest::read_file(storagePath() + ".journal"));
        } else {
            server.crash();
        }
        stop = true;
        for (auto& th : threads) th.join();
        for (int t = 0; t < 4; ++t) {
            for (const auto& [key, value] : ackedBy[t]) acked[key] = value, inflight.erase(key);
            for (const auto& [key, value] : inflightBy[t]) inflight[key] = value;
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
    EXPECT_LT(kstest::read_file(storagePath() + ".journal").size(), ks::setter::Persistence::kJournalLimit);
}

}  // namespace
