// ks::path joining, the standard directories, directory and temp-file operations, and the
// install-root search (run in a private mount namespace so the machine's /etc and /opt are
// never looked at, let alone changed).
#include <kspath.h>
#include <ksutils/error.h>
#include <ksutils/iptablesutl.h>
#include <ksutils/path.h>
#include <ksutils/releaseutl.h>

#include "kstest.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <functional>
#include <sstream>

namespace {

struct RootGuard {
    explicit RootGuard(const char* root) { kspath_set_install_path(root); }
    ~RootGuard() { kspath_set_install_path(nullptr); }
};

TEST(Path, JoinsPiecesWithSingleSlashes) {
    struct Case {
        std::vector<std::string> pieces;
        const char* expected;
        bool reset_each = false;  // the reset flag on every piece, not only the first
    } cases[] = {
        {{"a", "b/"}, "a/b"},
        {{"/", "x//y"}, "/x/y"},
        {{"a", "/x"}, "a/x"},
        {{"//"}, "/"},
        {{""}, ""},
        // Resetting restarts only at an absolute piece.
        {{"a", "b", "c"}, "a/b/c", true},
        {{"a", "b", "/d", "e"}, "/d/e", true},
    };
    for (const Case& c : cases) {
        ks::path p;
        bool first = true;
        for (const std::string& piece : c.pieces) {
            p.add_piece(first || c.reset_each, piece);
            first = false;
        }
        EXPECT_EQ(p.view(), c.expected) << "pieces starting " << c.pieces[0];
    }
    ks::path p("a", "b");
    p.reset("e/f");
    EXPECT_EQ(p.view(), "e/f");
}

TEST(Path, BasenameAndDirname) {
    struct Case {
        const char* text;
        const char* base;
        const char* dir;
    } cases[] = {
        {"", "", "."}, {"name", "name", "."}, {"/", "/", "/"}, {"/etc", "etc", "/"}, {"/a/b/c", "c", "/a/b"},
    };
    for (const Case& c : cases) {
        ks::path p(c.text);
        EXPECT_EQ(p.basename(), c.base) << c.text;
        EXPECT_EQ(p.dirname(), c.dir) << c.text;
    }
}

TEST(Path, CommonPathsUnderTheRoot) {
    RootGuard root("/opt/kestrum");
    // The names under the root are a table; these rows are the ones built another way.
    const std::pair<int, const char*> cases[] = {
        {0, "/opt/kestrum"},       {5, "/opt/kestrum/share/scripts"}, {8, "/tmp/kslogs/opt/kestrum/var/crash"},
        {13, "/opt/kestrum/va/bin"}, {14, "/etc"},                     {15, "/tmp"},
        {19, ""},
    };
    for (const auto& [value, expected] : cases) {
        std::ostringstream os;
        os << static_cast<ks::common_path>(value);
        EXPECT_EQ(os.str(), expected) << value;
    }
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(ks::path(ks::common_path::cwd).view(), cwd);
    EXPECT_EQ(ks::path(ks::common_path::exe).basename(), "path_test");
    EXPECT_EQ(ks::path(ks::common_path::run, "kssetmgmt.skt").view(), "/opt/kestrum/var/run/kssetmgmt.skt");
}

TEST(Path, DirectoriesTempFilesAndRefusals) {
    kstest::TempDir dir;
    ks::path deep(dir.path(), "a/b/c"), file, tmp, missing(dir.path(), "missing"), empty, out;
    ASSERT_TRUE(deep.mkdirp() && deep.mkdirp()) << "an existing directory is no error";
    EXPECT_TRUE(deep.is_directory());
    ASSERT_TRUE(deep.temp_file(file) && deep.temp_dir(tmp));
    EXPECT_EQ(file.dirname(), deep.view());
    EXPECT_EQ(file.basename().size(), 6u);
    EXPECT_TRUE(tmp.is_directory() && tmp.rmdir());

    struct stat st;
    const std::pair<std::function<bool()>, const char*> refused[] = {  // the error record's start
        {[&] { return ks::path(file.view(), "sub/dir").mkdirp(); }, "E_INVAL Path has non directory"},
        {[&] { return file.mkdir(); }, "E_INVAL Path is not a directory"},
        {[&] { return missing.unlink(); }, "E_SYSTEM "},
        {[&] { return missing.status(st); }, "E_NOENT "},
        {[&] { return empty.temp_file(out); }, "E_INVAL "},
        {[&] { return empty.temp_dir(out); }, "E_INVAL "},
        {[&] { return empty.unlink(); }, "E_INVAL "},
        {[&] { return empty.rmdir(); }, "E_INVAL "},
    };
    for (const auto& [op, error] : refused) {
        ks::_get_kserrno().set(ks::E_OK);
        EXPECT_FALSE(op()) << error;
        EXPECT_THAT(kstest::error_text(), ::testing::StartsWith(error));
    }
    EXPECT_TRUE(file.unlink());
}

TEST(Path, CpathInternsEqualTexts) {
    const char* a = ks::path::cpath(ks::path("/x", "y"));
    const char* b = ks::path::cpath(ks::path("/x/y"));
    const char* c = ks::path::cpath(ks::path("/x/z"));
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    EXPECT_STREQ(a, "/x/y");
    RootGuard root("/r");
    EXPECT_STREQ(ks::path::cpath(ks::common_path::log, "f"), "/r/var/log/f");
}

// The installed-file constants, used as paths, name the files under the root in force then.
TEST(Path, InstallPathsFollowTheRoot) {
    const std::pair<const ks::install_path*, const char*> constants[] = {  // '$' is the root
        // One under the root, one absolute: the others are read through by their modules' tests.
        {&ks::kBoxIptables, "$/bin/iptables"},
        {&ks::kBootstrapInfoFile, "/etc/kestrum-release-bootstrap"},
    };
    const auto passed = [](ks::path p) { return p.str(); };
    for (const std::string root : {"/first/root", "/second"}) {
        RootGuard guard(root.c_str());
        for (const auto& [constant, pattern] : constants) {
            const std::string expected = pattern[0] == '$' ? root + (pattern + 1) : pattern;
            const ks::path& bound = *constant;
            const ks::path copied = *constant;
            std::ostringstream printed;
            printed << *constant;
            EXPECT_EQ(std::vector<std::string>(5, expected),
                      (std::vector<std::string>{bound.str(), copied.str(), passed(*constant), printed.str(),
                                                fmt::format("{}", *constant)}));
        }
    }
}

// Runs `body` in a child inside a private mount namespace where `etc` and `opt` are
// bind-mounted over /etc and /opt; returns what the body answered, or "SKIP".
std::string in_private_namespace(const std::string& etc, const std::string& opt,
                                 const std::function<std::string()>& body) {
    kstest::TempDir out;
    kstest::in_child([&] {
        std::string result = "SKIP";
        if (kstest::private_mounts() && mount(etc.c_str(), "/etc", nullptr, MS_BIND, nullptr) == 0 &&
            mount(opt.c_str(), "/opt", nullptr, MS_BIND, nullptr) == 0) {
            kspath_set_install_path(nullptr);
            result = body();
        }
        return kstest::write_file(out / "result", result) ? 0 : 1;
    });
    return kstest::read_file(out / "result");
}

// A fake /etc (with this passwd) and /opt for in_private_namespace.
struct FakeSystem {
    explicit FakeSystem(const std::string& passwd) {
        kstest::run("mkdir -p '" + etc + "' '" + opt + "'");
        kstest::write_file(etc + "/passwd", passwd);
    }
    kstest::TempDir dir;
    const std::string etc = dir / "etc", opt = dir / "opt";
};

std::string query() {
    const char* root = kspath_default_install_path();
    return root ? root : "(null)";
}

TEST(Path, InstallRootSearchOrder) {
    kstest::TempDir dir;
    const std::string etc = dir / "etc", opt = dir / "opt", app = dir / "data/app";
    ASSERT_EQ(kstest::run("mkdir -p '" + etc + "' '" + opt + "' '" + app + "/etc'"), 0);
    const std::string user_line = "kestrum-box:x:999:999::/home/ksbox:/bin/false\n";
    struct Case {
        const char* name;
        std::string link;     // target of /etc/kestrum-box, "" for none
        std::string passwd;   // contents of /etc/passwd
        bool opt_root;        // whether /opt/kestrum exists
        std::string expected;
    } cases[] = {
        {"link wins", app + "/etc", user_line, true, app},
        {"link without /etc falls to user", app, user_line, true, "/home/ksbox"},
        {"link to missing dir falls to user", dir / "missing/etc", user_line, false, "/home/ksbox"},
        {"user home is not checked", "", "# comment\nroot:x:0:0:root:/root:/bin/sh\n" + user_line, false,
         "/home/ksbox"},
        {"opt fallback", "", "root:x:0:0:root:/root:/bin/sh\n", true, "/opt/kestrum"},
        {"nothing found", "", "root:x:0:0:root:/root:/bin/sh\n", false, "(null)"},
    };
    for (const Case& c : cases) {
        kstest::run("rm -rf '" + etc + "'/* '" + opt + "'/*");
        ASSERT_TRUE(kstest::write_file(etc + "/passwd", c.passwd));
        if (!c.link.empty()) {
            ASSERT_EQ(symlink(c.link.c_str(), (etc + "/kestrum-box").c_str()), 0);
        }
        if (c.opt_root) {
            ASSERT_EQ(kstest::run("mkdir '" + opt + "/kestrum'"), 0);
        }
        std::string got = in_private_namespace(etc, opt, query);
        if (got == "SKIP") GTEST_SKIP() << "no private mount namespace here";
        EXPECT_EQ(got, c.expected) << c.name;
    }
}

// With no link, no user and no /opt/kestrum: no root, paths under it fail, and the
// failure is not cached, so a root that appears later is found. Setting the current root
// again forgets it.
TEST(Path, MissingRootFailsAndIsSearchedAgain) {
    const FakeSystem fake("root:x:0:0:root:/root:/bin/sh\n");
    std::string got = in_private_namespace(fake.etc, fake.opt, [] {
        kspath_set_install_path("/some/root");
        const std::string set = query();
        kspath_set_install_path("/some/root");
        std::string first = set + "," + query();
        ks::path p(ks::common_path::log, "x");
        std::string unknown = std::string(p.good() ? "good" : "fail") + ":" + p.str();
        bool made = ::mkdir("/opt/kestrum", 0755) == 0;
        std::ostringstream common;
        common << ks::common_path::log_config;
        return first + "|" + unknown + "|" + (made ? query() : "mkdir failed") + "|" + common.str();
    });
    if (got == "SKIP") GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(got, "/some/root,(null)|fail:x|/opt/kestrum|/opt/kestrum/etc/logging");
}

TEST(Path, UserHomeLookup) {
    const FakeSystem fake(
        "#alice:x:1:1::/commented:/bin/sh\n"
        "bob:x:2:2:Bob:/home/bob:/bin/sh\n"
        "short:x:3\n"
        "alice:x:1:1::/home/alice:/bin/sh\n"
        "carol:x:4:4::/home/carol:/bin/sh");  // no newline: stops the search
    std::string got = in_private_namespace(fake.etc, fake.opt, [] {
        std::string out;
        for (const char* user : {"bob", "alice", "short", "carol", "nobody"}) {
            char home[4096] = "";
            int rc = get_userhome(user, home);
            out += std::string(user) + "=" + (rc == 0 ? home : "-1") + ";";
        }
        return out;
    });
    if (got == "SKIP") GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(got, "bob=/home/bob;alice=/home/alice;short=-1;carol=-1;nobody=-1;");
}

}  // namespace
