// The category table against an independent index computation, its edge cases and log texts.
#include <ksutils/error.h>
#include <ksutils/parentalcategorytranslator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "kslogcapture.h"

namespace {

using Translator = ks::ParentalCategoryTranslator;

class CategoryTest : public ::testing::Test {
protected:
    bool load(Translator& t, const std::string& json) {
        kstest::write_file(dir_ / "categories.json", json);
        return t.init(ks::path(dir_ / "categories.json"));
    }
    kstest::LogCapture log_{"parental_test", "parental"};
    kstest::TempDir dir_;
};

// Every one of 64 words' 32 bits is a slot; 1,000 names take distinct slots at random.
TEST_F(CategoryTest, ThousandCategoriesRoundTrip) {
    std::mt19937 rng(7);
    std::vector<uint64_t> slots(64 * 32);
    std::iota(slots.begin(), slots.end(), 0);
    std::shuffle(slots.begin(), slots.end(), rng);
    std::string json = "[";
    std::map<std::string, uint64_t> expected;
    std::set<std::string> all, some;
    for (int i = 0; i < 1000; ++i) {
        json += (i ? "," : "") + fmt::format(R"({{"name":"{}{}","number":{},"bit":{}{}}})", i % 3 ? "cat" : "CAT", i,
                                             slots[i] / 32 + 1, slots[i] % 32, i % 5 ? "" : R"(,"extra":"ignored")");
        const std::string name = "cat" + std::to_string(i);  // names are kept in lower case
        expected[name] = slots[i];
        all.insert(name);
        if (rng() % 3 == 0) some.insert(name);
    }
    Translator t;
    ASSERT_TRUE(load(t, json + "]"));
    EXPECT_EQ(expected, (std::map<std::string, uint64_t>(t.nameToIndex.begin(), t.nameToIndex.end())));
    for (const auto* names : {&all, &some}) EXPECT_EQ(*names, t.decode(t.encode(*names)));
    t.uninit();
    EXPECT_TRUE(t.nameToIndex.empty() && t.indexToName.empty() && t.wordCount == 0);
}

TEST_F(CategoryTest, EdgeCasesAndLogTexts) {
    Translator t;
    std::string out = log_.during([&] {
        ASSERT_TRUE(load(t, R"([{"name":"Gambling","number":2,"bit":3}, {"name":"news","number":1.0,"bit":40},
            {"number":1,"bit":1}, {"name":"a","bit":1}, {"name":"a","number":1}, {"name":"","number":1,"bit":1},
            {"name":"a","number":"1","bit":1}, {"name":"a","number":1,"bit":null}, {"name":"zero","number":0,"bit":1},
            {"name":"GAMBLING","number":1,"bit":9}, {"name":"huge","number":1e12,"bit":1},
            {"name":"negative","number":-1,"bit":1}, 7, "news", null])"));
    });
    for (const char* record :
         {"invalid json category (no 'name')", "invalid json category (no 'number')", "invalid json category (no 'bit')",
          "invalid json category (null or empty 'name')", "invalid json category ('number' not a number)",
          "invalid json category ('bit' not a number)", "invalid json category ('number' out of range)",
          "parental category gambling has index 35", " warn *invalid json category (no 'name'): 7",
          "invalid json category (no 'name'): \"news\"", "invalid json category (no 'name'): null"})
        EXPECT_TRUE(kstest::has_record(out, record)) << record << "\n" << out;
    // Two words; the first "gambling" wins; a bit past 31 lands in the next word.
    EXPECT_EQ((std::vector<unsigned>{0, 8}), t.encode({"gambling"}));
    EXPECT_EQ((std::set<std::string>{"gambling", "news"}), t.decode({0, 8 | 1 << 8, 0xFFFFFFFF}))
        << "words past wordCount are ignored";
    out = log_.during([&] {
        EXPECT_EQ((std::vector<unsigned>{0, 0}), t.encode({"Gambling"})) << "names match lower case only";
        t.decode({1u << 1, 1u << 1});
    });
    EXPECT_TRUE(kstest::has_record(out, "trying to encode unknown parental category: Gambling")) << out;
    EXPECT_TRUE(kstest::has_record(out, "trying to decode unknown parental index: 33(1:1)")) << out;
    t.uninit();

    for (const char* bad : {"{}", "[1,"}) {
        Translator broken;
        EXPECT_FALSE(load(broken, bad)) << bad;
        EXPECT_EQ("cannot load parental categories from " + (dir_ / "categories.json"),
                  ks::_get_kserrno().message_view());
    }
}

}  // namespace
