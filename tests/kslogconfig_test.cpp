// Log configuration: refusals with their message and no change, path expansion, save, start-up order.
#include <ksutils/error.h>

#include "kslog_fixture.h"

namespace {

using kslogtest::config_text;
using kslogtest::execute;
using kslogtest::LoggerTest;

std::string error_message() { return ks::_get_kserrno().message_view().str(); }

// `count` comma-separated copies of `item`, each with its "#" replaced by its number.
std::string repeated(int count, const std::string& item) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += (i ? "," : "") + item.substr(0, item.find('#')) + std::to_string(i) + item.substr(item.find('#') + 1);
    return text;
}

std::string with_entry(const std::string& entry) { return R"({"action":"update","channels":{"x":[)" + entry + "]}}"; }
std::string with_global(const std::string& g) { return R"({"action":"update","global":)" + g + R"(,"channels":{}})"; }

TEST_F(LoggerTest, RefusesBadDocumentsWithTheirMessageAndChangesNothing) {
    start();
    ASSERT_EQ(execute(R"({"action":"update","channels":{"kept":[{"file":"kept","level":"debug"}]}})"), 0);
    const std::string name32(32, 'n'), long_path(5000, 'p');
    const std::pair<std::string, std::string> table[] = {  // document, message in the error record
        {R"({"channels":{}})", "Failed to extract 'action' value from log config."},
        {R"({"action":"delete"})", "Invalid action 'delete' in log config."},
        {with_global("3"), "Value for key 'global' is not an object."},
        {with_global(R"({"size":"big"})"), "global 'size' must be a non-zero positive integer"},
        {with_global(R"({"size":4095})"), "global 'size' must be in [4096, 262144] - got 4095"},
        {with_global(R"({"size":262145})"), "global 'size' must be in [4096, 262144] - got 262145"},
        {with_global(R"({"num":3})"), "global 'num' must be in [1, 2] - got 3"},
        {R"({"action":"update"})", "Failed to extract 'channels' value from config."},
        {R"({"action":"update","channels":[]})", "Value for key 'channels' is not an object."},
        {R"({"action":"update","channels":{)" + repeated(65, R"("c#":[])") + "}}",
         "Too many channels in log config: 65 / 64"},
        {R"({"action":"update","channels":{")" + name32 + R"(":[]}})", "Channel name too long: '" + name32 + "'"},
        {R"({"action":"update","channels":{"x":{}}})", "Value for key 'x' is missing or is not a json array"},
        {with_entry(repeated(9, R"({"file":"f#"})")), "Channel 'x': file limit exceeded: 9 / 8."},
        {with_entry(R"({"file":"a","colour":"red"})"), "Invalid key 'colour'."},
        {with_entry(R"({"file":"a"},{"level":"info"})"), "Missing key 'file' for entry #1 in channel 'x'."},
        {with_entry(R"({"file":"$HOME/x"})"), "Invalid file path."},
        {with_entry(R"({"file":"logs/"})"), "Invalid file path."},
        {with_entry(R"({"file":":stdin"})"), "Invalid file path."},
        {with_entry(R"({"file":")" + long_path + "\"}"), "Invalid file path."},
        {with_entry(R"({"file":"a","level":"warn"})"), "Invalid log level 'warn'."},
        {with_entry(R"({"file":"a","size":"1"})"), "Invalid type for 'size' - expected integer."},
        {with_entry(R"({"file":"a","num":0})"), "Invalid num '0'."},
        {R"({"action":"save"})", "Failed to extract 'file' value from config json."},
        {R"({"action":"save","file":"$CHANNEL_NAME.json"})", "Invalid file path."},
    };
    const std::string before = config_text();
    for (const auto& [document, message] : table) {
        SCOPED_TRACE(document.substr(0, 200));
        const ks::unique_c_ptr<json_t> doc(json_loads(document.c_str(), 0, nullptr));
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(kslog_is_valid_config(doc.get()), -1);
        EXPECT_EQ(error_message(), message);
        ks::_get_kserrno().set(ks::E_OK);
        EXPECT_EQ(kslog_execute_config(doc.get()), -1);
        EXPECT_EQ(error_message(), message);
        EXPECT_EQ(config_text(), before);
    }
}

TEST_F(LoggerTest, UnreadableOrUnusableInputFailsCleanly) {
    start();
    kstest::TempDir dir;
    ASSERT_TRUE(kstest::write_file(dir / "broken.json", "{\"action\": \"update\", "));
    ASSERT_TRUE(kstest::write_file(dir / "regular", "not a directory"));
    const std::string broken = dir / "broken.json";
    EXPECT_EQ(kslog_execute_config_from_path(broken.c_str()), -1);
    EXPECT_EQ(error_message(), "Failed to load json from '" + broken + "'.");
    EXPECT_EQ(kslog_is_valid_config_from_path(broken.c_str()), -1);
    EXPECT_EQ(std::tuple(kslog_execute_config_from_path(nullptr), kslog_is_valid_config_from_path(nullptr),
                         kslog_execute_config(nullptr)),
              std::tuple(-1, -1, -1));
    EXPECT_EQ(execute(R"({"action":"save","file":")" + dir / "regular/saved.json" + "\"}"), -1);
    EXPECT_EQ(error_message(), "Failed to dump new config to '" + dir / "regular/saved.json" + "'.");

    // Valid on paper, but a directory cannot be made: the whole update is refused, even what came before.
    const std::string before = config_text();
    const std::string doc = R"({"action":"update","global":{"size":4096},"channels":{"a":[{"file":"fine"}],
        "b":[{"file":")" + dir / "regular/sub/out" + R"("}]}})";
    EXPECT_EQ(kslog_is_valid_config(ks::unique_c_ptr<json_t>(json_loads(doc.c_str(), 0, nullptr)).get()), 0);
    EXPECT_EQ(execute(doc), -1);
    EXPECT_NE(error_message().find("/regular/sub/out"), std::string::npos) << error_message();
    EXPECT_EQ(config_text(), before);
}

TEST_F(LoggerTest, ExpandsTheVariablesOfFilePaths) {
    start("/opt/kestrum/bin/ksdevmgmt");
    const std::string r = root.path();
    const std::pair<const char*, std::string> table[] = {
        {"$INSTALL_PATH/var/log/$IDENTITY.$CHANNEL_NAME", r + "/var/log/ksdevmgmt.dns"},
        {"/$INSTALL_PATH/var/log/x", r + "/var/log/x"}, {"var/$CHANNEL_NAME/$CHANNEL_NAME", "var/dns/dns"},
        {"$INSTALL_PATH/var/log/$IDENTITYextra", r + "/var/log/ksdevmgmtextra"}, {"plain", "plain"}};
    for (const auto& [file, expanded] : table) {
        ASSERT_EQ(execute(std::string(R"({"action":"update","channels":{"dns":[{"file":")") + file + "\"}]}}"), 0);
        EXPECT_EQ(config_text("dns", "file"), "\"" + expanded + "\"") << file;
    }
}

TEST_F(LoggerTest, SaveThenUpdateRestoresTheSameOutputs) {
    start();
    ASSERT_EQ(execute(R"({"action":"update","global":{"size":8192,"num":1},"channels":{
        "default":[{"file":":stderr","level":"warning"},{"file":"main","level":"info","size":4096}],
        "net":[{"file":"/$INSTALL_PATH/var/log/net","level":"trace"}],"quiet":[]}})"),
              0);
    const std::string saved_state = config_text(), saved = root / "etc/logging/saved.json";
    ASSERT_EQ(execute(R"({"action":"save","file":"$INSTALL_PATH/etc/logging/saved.json"})"), 0);
    EXPECT_EQ(kslog_is_valid_config_from_path(saved.c_str()), 0);
    ASSERT_EQ(execute(R"({"action":"update","global":{"size":262144,"num":2},"channels":{
        "default":[{"file":":stdout"}],"net":[{"file":"other"}],"quiet":[{"file":"q"}]}})"),
              0);
    // An output the document adds takes that document's limits.
    EXPECT_EQ(config_text("quiet", "size") + " " + config_text("quiet", "num"), "262144 2");
    ASSERT_EQ(kslog_execute_config_from_path(saved.c_str()), 0);
    EXPECT_EQ(config_text(), saved_state);
}

// Start-up file, own file, "default.json": the first that executes sets the channels, each limit its own.
TEST_F(LoggerTest, StartUpOrder) {
    const std::string program = root / "etc/logging/kstestd.json", shared = root / "etc/logging/default.json",
                      given = root / "etc/given.json";
    for (const auto& [path, global, channel] : {std::tuple{program, R"({"size":8192})", "prog"},
                                                {shared, R"({"size":16384,"num":1})", "dflt"},
                                                {given, R"({"size":4096})", "given"}})
        ASSERT_TRUE(kstest::write_file(path, std::string(R"({"action":"update","global":)") + global +
                                                 R"(,"channels":{"default":[{"file":"boot","level":"trace"}],")" +
                                                 channel + R"(":[]}})"));
    for (const auto& [startup, channel, size, applied] :
         {std::tuple<const char*, const char*, size_t, std::string>{nullptr, "prog", 8192, program},
          {given.c_str(), "given", 4096, given}, {nullptr, "dflt", 16384, shared}}) {
        SCOPED_TRACE(applied);
        if (applied == shared) kstest::write_file(program, "{ broken");  // falls through to default.json
        ::unlink((root / "var/log/kstestd.boot.0").c_str());
        start("/bin/kstestd", startup);
        EXPECT_EQ(std::pair(kslog_channel_get_by_name(channel), kslog_get_num_channels()), std::pair(1, 2));
        kslog_print_settings();
        const std::string log = decrypt(root / "var/log/kstestd.boot.0");
        char size_line[256];
        std::snprintf(size_line, sizeof size_line, "]:    size : %10zu - source: %s\n", size, applied.c_str());
        for (const std::string& line :
             {"]: kslog started with config '" + applied + "'.\n",
              std::string(size_line), "]:    num  :          1 - source: " + shared + "\n",
              std::string("]:    level:      error - source: library built-in\n")})
            EXPECT_NE(log.find(line), std::string::npos) << line << log;
        kslog_uninit();
    }
}

}  // namespace
