// Log configuration: every refusal with its message and no change to the running
// configuration, path expansion, save followed by update, and the start-up order.
#include <kslog.h>
#include <ksutils/error.h>

#include "kslog_support.h"

namespace {

using kslogtest::LoggerTest;

json_t* parse(const std::string& text) {
    json_error_t error;
    return json_loads(text.c_str(), 0, &error);
}

std::string error_message() {
    const auto view = ks::_get_kserrno().message_view();
    return std::string(view.data(), view.size());
}

std::string channels_json(int count) {
    std::string text = R"({"action":"update","channels":{)";
    for (int i = 0; i < count; ++i) text += (i ? "," : "") + std::string("\"c") + std::to_string(i) + "\":[]";
    return text + "}}";
}

std::string entries_json(int count) {
    std::string text = R"({"action":"update","channels":{"x":[)";
    for (int i = 0; i < count; ++i) text += (i ? "," : "") + std::string(R"({"file":"f)") + std::to_string(i) + "\"}";
    return text + "]}}";
}

std::string with_entry(const std::string& entry) {
    return R"({"action":"update","channels":{"x":[)" + entry + "]}}";
}

TEST_F(LoggerTest, RefusesBadDocumentsWithTheirMessageAndChangesNothing) {
    start();
    ASSERT_EQ(update(R"({"action":"update","channels":{"kept":[{"file":"kept","level":"debug"}]}})"), 0);
    const std::string name32(32, 'n');
    const std::string long_path(5000, 'p');
    const struct {
        std::string document;
        std::vector<std::string> messages;  // logged in this order; the last is in the error record
    } table[] = {
        {R"({"channels":{}})", {"Failed to extract 'action' value from log config."}},
        {R"({"action":7})", {"Failed to extract 'action' value from log config."}},
        {R"({"action":"delete"})", {"Invalid action 'delete' in log config."}},
        {R"({"action":"update","global":3,"channels":{}})", {"Value for key 'global' is not an object."}},
        {R"({"action":"update","global":{"size":"big"},"channels":{}})",
         {"global 'size' must be a non-zero positive integer"}},
        {R"({"action":"update","global":{"size":0},"channels":{}})",
         {"global 'size' must be a non-zero positive integer"}},
        {R"({"action":"update","global":{"size":4095},"channels":{}})",
         {"global 'size' must be in [4096, 262144] - got 4095"}},
        {R"({"action":"update","global":{"size":262145},"channels":{}})",
         {"global 'size' must be in [4096, 262144] - got 262145"}},
        {R"({"action":"update","global":{"num":-1},"channels":{}})",
         {"global 'num' must be a non-zero positive integer"}},
        {R"({"action":"update","global":{"num":3},"channels":{}})", {"global 'num' must be in [1, 2] - got 3"}},
        {R"({"action":"update"})", {"Failed to extract 'channels' value from config."}},
        {R"({"action":"update","channels":[]})", {"Value for key 'channels' is not an object."}},
        {channels_json(65), {"Too many channels in log config: 65 / 64"}},
        {R"({"action":"update","channels":{")" + name32 + R"(":[]}})", {"Channel name too long: '" + name32 + "'"}},
        {R"({"action":"update","channels":{"x":{}}})", {"Value for key 'x' is missing or is not a json array"}},
        {entries_json(9), {"Channel 'x': file limit exceeded: 9 / 8."}},
        {with_entry(R"({"file":"a","colour":"red"})"), {"Invalid key 'colour'."}},
        {with_entry(R"({"file":"a"},{"level":"info"})"), {"Missing key 'file' for entry #1 in channel 'x'."}},
        {with_entry(R"({"file":"$HOME/x"})"), {"Cannot expand prefix '$HOME/x' in '$HOME/x'.", "Invalid file path."}},
        {with_entry(R"({"file":"logs/"})"), {"Path 'logs/' doesn't end with a filename.", "Invalid file path."}},
        {with_entry(R"({"file":":stdin"})"), {"Invalid file path."}},
        {with_entry(R"({"file":")" + long_path + "\"}"), {"Invalid file path."}},
        {with_entry(R"({"file":"a","level":"warn"})"), {"Invalid log level 'warn'."}},
        {with_entry(R"({"file":"a","size":"1"})"), {"Invalid type for 'size' - expected integer."}},
        {with_entry(R"({"file":"a","size":-5})"), {"Invalid size '-5'."}},
        {with_entry(R"({"file":"a","num":1.5})"), {"Invalid type for 'num' - expected integer."}},
        {with_entry(R"({"file":"a","num":0})"), {"Invalid num '0'."}},
        {R"({"action":"save"})", {"Failed to extract 'file' value from config json."}},
        {R"({"action":"save","file":"$CHANNEL_NAME.json"})",
         {"Cannot expand prefix '$CHANNEL_NAME.json' in '$CHANNEL_NAME.json'.", "Invalid file path."}},
    };
    json_t* before = kslog_get_config();
    for (const auto& row : table) {
        SCOPED_TRACE(row.document.substr(0, 200));
        json_t* doc = parse(row.document);
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(kslog_is_valid_config(doc), -1);
        EXPECT_EQ(error_message(), row.messages.back());
        ks::_get_kserrno().set(ks::E_OK);
        EXPECT_EQ(kslog_execute_config(doc), -1);
        EXPECT_EQ(error_message(), row.messages.back());
        json_decref(doc);
        json_t* after = kslog_get_config();
        EXPECT_TRUE(json_equal(before, after));
        json_decref(after);
    }
    json_decref(before);
    // The messages reach the log too, in order, on the default channel.
    const std::string log = decrypt(root / "var/log/kstestd.0");
    for (const auto& row : table)
        for (const auto& message : row.messages) {
            if (message.size() > 200) continue;
            EXPECT_NE(log.find("]: " + message + "\n"), std::string::npos) << message;
        }
}

TEST_F(LoggerTest, UnreadableOrUnusableInputFailsCleanly) {
    start();
    kstest::TempDir dir;
    ASSERT_TRUE(kstest::write_file(dir / "broken.json", "{\"action\": \"update\", "));
    ASSERT_TRUE(kstest::write_file(dir / "regular", "not a directory"));
    for (const std::string& path : {dir / "broken.json", dir / "missing.json"}) {
        EXPECT_EQ(kslog_execute_config_from_path(path.c_str()), -1);
        EXPECT_EQ(error_message(), "Failed to load json from '" + path + "'.");
        EXPECT_EQ(kslog_is_valid_config_from_path(path.c_str()), -1);
    }
    EXPECT_EQ(kslog_execute_config_from_path(nullptr), -1);
    EXPECT_EQ(kslog_is_valid_config_from_path(nullptr), -1);
    EXPECT_EQ(kslog_execute_config(nullptr), -1);
    const std::string unwritable = dir / "regular/saved.json";
    EXPECT_EQ(kslogtest::execute(R"({"action":"save","file":")" + unwritable + "\"}"), -1);
    EXPECT_EQ(error_message(), "Failed to dump new config to '" + unwritable + "'.");

    // Valid on paper, but its directory cannot be made: the whole update is refused,
    // including the channel listed before it.
    json_t* before = kslog_get_config();
    const std::string doc = R"({"action":"update","global":{"size":4096},"channels":{"a":[{"file":"fine"}],
        "b":[{"file":")" + dir.path() + R"(/regular/sub/out"}]}})";
    json_t* parsed = parse(doc);
    EXPECT_EQ(kslog_is_valid_config(parsed), 0);
    json_decref(parsed);
    EXPECT_EQ(update(doc), -1);
    EXPECT_NE(error_message().find("/regular/sub/out"), std::string::npos) << error_message();
    json_t* after = kslog_get_config();
    EXPECT_TRUE(json_equal(before, after));
    EXPECT_EQ(kslog_channel_get_by_name("a"), -1);
    EXPECT_EQ(kslog_get_max_log_size(), 262144u);
    json_decref(before);
    json_decref(after);
}

TEST_F(LoggerTest, ExpandsTheVariablesOfFilePaths) {
    start("/opt/kestrum/bin/ksdevmgmt");
    const std::string r = root.path();
    const struct {
        const char* file;
        std::string spec;
    } table[] = {
        {"$INSTALL_PATH/var/log/$IDENTITY.$CHANNEL_NAME", r + "/var/log/ksdevmgmt.dns"},
        {"/$INSTALL_PATH/var/log/x", r + "/var/log/x"},
        {"$INSTALL_PATH/var/log/$IDENTITYextra", r + "/var/log/ksdevmgmtextra"},
        {"var/$CHANNEL_NAME/$CHANNEL_NAME", "var/dns/dns"},
        {"plain", "plain"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.file);
        ASSERT_EQ(update(std::string(R"({"action":"update","channels":{"dns":[{"file":")") + row.file + "\"}]}}"), 0);
        json_t* config = kslog_get_config();
        const json_t* entry = json_array_get(json_object_get(json_object_get(config, "channels"), "dns"), 0);
        EXPECT_EQ(json_string_value(json_object_get(entry, "file")), row.spec);
        json_decref(config);
    }
    const int dns = kslog_channel_get_by_name("dns");
    ASSERT_EQ(update(R"({"action":"update","channels":{"dns":[{"file":"$INSTALL_PATH/var/log/$IDENTITY.$CHANNEL_NAME"}]}})"),
              0);
    kslogtest::log(dns, 0, "to the dns file");
    EXPECT_NE(decrypt(root / "var/log/ksdevmgmt.dns.0").find("to the dns file"), std::string::npos);
}

TEST_F(LoggerTest, SaveThenUpdateRestoresTheSameOutputs) {
    start();
    ASSERT_EQ(update(R"({"action":"update","global":{"size":8192,"num":1},"channels":{
        "default":[{"file":":stderr","level":"warning"},{"file":"main","level":"info","size":4096}],
        "net":[{"file":"/$INSTALL_PATH/var/log/net","level":"trace"}],
        "quiet":[]}})"),
              0);
    json_t* saved_state = kslog_get_config();
    ASSERT_EQ(kslogtest::execute(R"({"action":"save","file":"$INSTALL_PATH/etc/logging/saved.json"})"), 0);
    const std::string saved = root / "etc/logging/saved.json";
    EXPECT_EQ(kslog_is_valid_config_from_path(saved.c_str()), 0);

    ASSERT_EQ(update(R"({"action":"update","global":{"size":262144,"num":2},"channels":{
        "default":[{"file":":stdout"}],"net":[{"file":"other"}],"quiet":[{"file":"q"}]}})"),
              0);
    ASSERT_EQ(kslog_execute_config_from_path(saved.c_str()), 0);
    json_t* restored = kslog_get_config();
    EXPECT_TRUE(json_equal(saved_state, restored)) << json_dumps(restored, JSON_SORT_KEYS);
    EXPECT_EQ(kslog_get_max_log_size(), 8192u);
    EXPECT_EQ(kslog_get_max_num_logs(), 1u);
    json_decref(saved_state);
    json_decref(restored);
}

// The start-up file, then the program's own file, then "default.json": the first that
// executes configures the channels; the global limits come from the first file naming a
// valid value each.
TEST_F(LoggerTest, StartUpOrder) {
    const std::string trace_to = R"({"file":"boot","level":"trace"})";
    const std::string program = root / "etc/logging/kstestd.json";
    const std::string shared = root / "etc/logging/default.json";
    const std::string given = root / "etc/given.json";
    ASSERT_TRUE(kstest::write_file(program, R"({"action":"update","global":{"size":8192},"channels":{
        "default":[)" + trace_to + R"(],"prog":[]}})"));
    ASSERT_TRUE(kstest::write_file(shared, R"({"action":"update","global":{"size":16384,"num":1},"channels":{
        "default":[)" + trace_to + R"(],"dflt":[]}})"));
    ASSERT_TRUE(kstest::write_file(given, R"({"action":"update","global":{"size":4096},"channels":{
        "default":[)" + trace_to + R"(],"given":[]}})"));
    const struct {
        const char* startup;
        bool break_program;
        const char* channel;
        uint64_t size;
        uint64_t num;
        std::string applied;
    } table[] = {
        {nullptr, false, "prog", 8192, 1, program},
        {given.c_str(), false, "given", 4096, 1, given},
        {nullptr, true, "dflt", 16384, 1, shared},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.applied);
        if (row.break_program) {
            ASSERT_TRUE(kstest::write_file(program, "{ broken"));
        }
        ::unlink((root / "var/log/kstestd.boot.0").c_str());
        start("/bin/kstestd", row.startup);
        EXPECT_GT(kslog_channel_get_by_name(row.channel), 0);
        EXPECT_EQ(kslog_get_num_channels(), 2);
        EXPECT_EQ(kslog_get_max_log_size(), row.size);
        EXPECT_EQ(kslog_get_max_num_logs(), row.num);
        kslog_print_settings();
        const std::string log = decrypt(root / "var/log/kstestd.boot.0");
        EXPECT_NE(log.find("]: kslog started with config '" + row.applied + "'.\n"), std::string::npos) << log;
        EXPECT_NE(log.find("]: kslog limits - [min, max]: level in [error, trace], size in [4096, 262144], num in "
                           "[1, 2]\n"),
                  std::string::npos);
        char size_line[256];
        std::snprintf(size_line, sizeof size_line, "]:    size : %10zu - source: %s\n", static_cast<size_t>(row.size),
                      row.applied.c_str());
        EXPECT_NE(log.find(size_line), std::string::npos) << log;
        EXPECT_NE(log.find("]:    num  :          1 - source: " + shared + "\n"), std::string::npos) << log;
        EXPECT_NE(log.find("]:    level:      error - source: library built-in\n"), std::string::npos);
        kslog_uninit();
    }
}

}  // namespace
