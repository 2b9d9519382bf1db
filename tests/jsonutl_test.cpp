// JSON getters on present, absent and wrong-typed members, parse errors, arrays, statuses.
#include <ksutils/error.h>
#include <ksutils/jsonutl.h>

#include <gtest/gtest.h>

#include "kstest.h"

namespace {

TEST(JsonGetters, PresentAbsentAndWrongTyped) {
    const ks::json_ptr doc = ks::json_load_string(R"({"s":"text","i":-5,"b":true,"o":{"k":1},"a":[1],"n":null})");
    ASSERT_TRUE(doc);
    const json_t* d = doc.get();
    const json_t* fallback = json_object_get(d, "n");
    // Each getter against each member: E_OK only for its own type.
    const char* keys[] = {"s", "i", "b", "o", "a", "n", "missing"};
    for (const char* key : keys) {
        const std::string k = key;
        auto code = [&](const char* own) { return k == own ? ks::E_OK : k == "missing" ? ks::E_NOENT : ks::E_INVAL; };
        EXPECT_EQ(k == "s" ? "text" : "fb", ks::json_get_string(d, key, "fb")) << key;
        EXPECT_EQ(code("s"), ks::_get_kserrno().code) << key;
        EXPECT_EQ(k == "i" ? -5 : 7, ks::json_get_int(d, key, 7)) << key;
        EXPECT_EQ(code("i"), ks::_get_kserrno().code) << key;
        EXPECT_EQ(k == "b", ks::json_get_bool(d, key, false)) << key;
        EXPECT_EQ(code("b"), ks::_get_kserrno().code) << key;
        EXPECT_EQ(k == "o" ? json_object_get(d, "o") : fallback, ks::json_get_object(d, key, fallback)) << key;
        EXPECT_EQ(code("o"), ks::_get_kserrno().code) << key;
        EXPECT_EQ(k == "a" ? json_object_get(d, "a") : nullptr, ks::json_get_array(d, key)) << key;
        EXPECT_EQ(code("a"), ks::_get_kserrno().code) << key;
    }
    ks::json_get_int(d, "s", 0);
    EXPECT_EQ("E_INVAL member \"s\" is a string, not an integer", kstest::error_text());
    EXPECT_EQ("x", ks::json_get_string(nullptr, "s", "x")) << "no object: the member is absent";
    EXPECT_EQ(ks::E_NOENT, ks::_get_kserrno().code);
}

TEST(JsonLoad, ErrorsCarryTheirPosition) {
    EXPECT_FALSE(ks::json_load_string("{\"a\": 1,\n  \"b\" 2}"));
    EXPECT_EQ("E_INVAL JSON text: ':' expected near '2' at line 2, column 7", kstest::error_text());
    kstest::TempDir dir;
    EXPECT_FALSE(ks::json_load_file(dir / "missing.json"));
    EXPECT_THAT(kstest::error_text(), ::testing::StartsWith("E_NOENT " + dir / "missing.json: "));
    ASSERT_TRUE(kstest::write_file(dir / "doc.json", "[1, 2,]"));
    EXPECT_FALSE(ks::json_load_file(dir / "doc.json"));
    EXPECT_THAT(kstest::error_text(), ::testing::StartsWith("E_INVAL " + dir / "doc.json: "));
    EXPECT_TRUE(ks::json_load_string("42")) << "any value at the root";
}

TEST(JsonArrays, FromVectorsAndResponseStatus) {
    const auto dumped = [](const ks::json_ptr& j) { return ks::unique_c_ptr<char>(json_dumps(j.get(), JSON_COMPACT)); };
    EXPECT_STREQ(R"(["a","b\u0000c"])",
                 dumped(ks::to_json_array(std::vector<std::string>{"a", std::string("b\0c", 3)})).get());
    EXPECT_STREQ("[1,-2,9223372036854775807]", dumped(ks::to_json_array(std::vector<int64_t>{1, -2, INT64_MAX})).get());

    // The status is 0 when refused.
    const struct { const char* response; int64_t status; int code; } cases[] = {{R"({"status":200})", 200, ks::E_OK},  {R"({"status":"404"})", 404, ks::E_OK},
                 {R"({"status":"40x"})", 0, ks::E_INVAL}, {R"({"status":""})", 0, ks::E_INVAL},
                 {R"({"status":true})", 0, ks::E_INVAL},  {R"({})", 0, ks::E_NOENT}, {R"([200])", 0, ks::E_NOENT}};
    for (const auto& c : cases) {
        int64_t status = 0;
        ks::_get_kserrno().set(ks::E_OK);
        EXPECT_EQ(c.code == ks::E_OK, ks::json_response_status(ks::json_load_string(c.response).get(), status))
            << c.response;
        EXPECT_EQ(c.status, status) << c.response;
        EXPECT_EQ(c.code, ks::_get_kserrno().code) << c.response;
    }
}

}  // namespace
