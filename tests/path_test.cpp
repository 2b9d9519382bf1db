// Paths, standard directories and the install-root search (in a private mount namespace).
#include <kspath.h>
#include <ksutils/error.h>
#include <ksutils/iptablesutl.h>
#include <ksutils/path.h>

#include "kstest.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <functional>
#include <sstream>

namespace {

struct RootGuard {  // sets the install root for a scope
    explicit RootGuard(const char* root) { kspath_set_install_path(root); }
    ~RootGuard() { kspath_set_install_path(nullptr); }
};

TEST(Path, JoinsPiecesWithSingleSlashesAndSplitsThemAgain) {
    // The pieces, the reset flag on every piece (not only the first), then joined, base and dir.
    const std::tuple<std::vector<std::string>, bool, const char*> cases[] = {
        {{"name"}, false, "name name ."},   {{"a", "b/"}, false, "a/b b a"},    {{"/", "x//y"}, false, "/x/y y /x"},
        {{"a", "/x"}, false, "a/x x a"},    {{"//", "etc"}, false, "/etc etc /"}, {{"//"}, false, "/ / /"},
        {{""}, false, "  ."},
        // Resetting restarts only at an absolute piece.
        {{"a", "b", "c"}, true, "a/b/c c a/b"}, {{"a", "b", "/d", "e"}, true, "/d/e e /d"},
    };
    for (const auto& [pieces, reset_each, expected] : cases) {
        ks::path p;
        for (size_t i = 0; i < pieces.size(); ++i) p.add_piece(i == 0 || reset_each, pieces[i]);
        EXPECT_EQ(expected, std::string(p.view()) + " " + std::string(p.basename()) + " " + std::string(p.dirname()));
    }
}

TEST(Path, CommonPathsUnderTheRoot) {
    RootGuard root("/opt/kestrum");
    // The names under the root are a table; these rows are the ones built another way.
    const std::pair<int, const char*> cases[] = {
        {0, "/opt/kestrum"},         {5, "/opt/kestrum/share/scripts"}, {8, "/tmp/kslogs/opt/kestrum/var/crash"},
        {13, "/opt/kestrum/va/bin"}, {14, "/etc"}, {15, "/tmp"}, {19, ""}};
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

// Installed-file constants follow the root in force when read, however read; cpath interns texts.
TEST(Path, NamesFollowTheRootAndCpathInternsThem) {
    for (const std::string root : {"/first/root", "/second"}) {
        RootGuard guard(root.c_str());
        const ks::path& bound = ks::kBoxIptables;
        std::ostringstream printed;
        printed << ks::kBoxIptables;
        EXPECT_EQ(std::vector<std::string>(3, root + "/bin/iptables"),
                  (std::vector<std::string>{bound.str(), printed.str(), fmt::format("{}", ks::kBoxIptables)}));
        EXPECT_EQ(root + "/var/log/f", ks::path::cpath(ks::common_path::log, "f"));
    }
    const char* a = ks::path::cpath(ks::path("/x", "y"));
    EXPECT_EQ(a, ks::path::cpath(ks::path("/x/y")));
    EXPECT_NE(a, ks::path::cpath(ks::path("/x/z")));
    EXPECT_STREQ(a, "/x/y");
}

// What `body` answers in a child whose /etc and /opt are dir's "etc" and "opt", or "SKIP".
std::string in_private_namespace(const kstest::TempDir& dir, const std::function<std::string()>& body) {
    kstest::TempDir out;
    kstest::in_child([&] {
        std::string result = "SKIP";
        if (kstest::private_mounts() && mount((dir / "etc").c_str(), "/etc", nullptr, MS_BIND, nullptr) == 0 &&
            mount((dir / "opt").c_str(), "/opt", nullptr, MS_BIND, nullptr) == 0) {
            kspath_set_install_path(nullptr);
            result = body();
        }
        return kstest::write_file(out / "result", result) ? 0 : 1;
    });
    return kstest::read_file(out / "result");
}

// The root is the "/etc/kestrum-box" link's target less "/etc", else the user's home, else
// /opt/kestrum; each step changes the fake /etc or /opt and searches again.
TEST(Path, InstallRootSearchOrderAndUserHomes) {
    kstest::TempDir dir;
    const std::string app = dir / "data/app";
    ASSERT_EQ(0, kstest::run("mkdir -p '" + dir / "etc" + "' '" + dir / "opt/kestrum" + "' '" + app + "/etc'"));
    ASSERT_TRUE(kstest::write_file(dir / "etc/passwd",
                                   "#kestrum-box:x:1:1::/commented:/bin/sh\n"
                                   "bob:x:2:2:Bob:/home/bob:/bin/sh\n"
                                   "short:x:3\n"
                                   "kestrum-box:x:999:999::/home/ksbox:/bin/false\n"
                                   "carol:x:4:4::/home/carol:/bin/sh"));  // no newline: stops the search
    const std::pair<std::string, std::string> steps[] = {  // the change, the root found then
        {"ln -s '" + app + "/etc' /etc/kestrum-box", app},
        {"ln -sfn '" + app + "' /etc/kestrum-box", "/home/ksbox"},                      // no "/etc" at the end
        {"ln -sfn '" + dir / "missing/etc" + "' /etc/kestrum-box", "/home/ksbox"},  // the home is not checked
        {"echo 'root:x:0:0:root:/root:/bin/sh' > /etc/passwd", "/opt/kestrum"},
        {"rmdir /opt/kestrum", "(null)"},
    };
    std::string expected = "bob=/home/bob;kestrum-box=/home/ksbox;short=-1;carol=-1;nobody=-1;";
    for (const auto& step : steps) expected += step.second + ";";
    const std::string got = in_private_namespace(dir, [&] {
        const auto query = [] {
            const char* root = kspath_default_install_path();
            return std::string(root ? root : "(null)");
        };
        std::string out;
        for (const char* user : {"bob", "kestrum-box", "short", "carol", "nobody"}) {
            char home[4096] = "";
            out += std::string(user) + "=" + (get_userhome(user, home) == 0 ? home : "-1") + ";";
        }
        for (const auto& step : steps) {
            kstest::run(step.first);
            kspath_set_install_path(nullptr);
            out += query() + ";";
        }
        // Without a root, paths under it fail; the failure is not cached, so a root that
        // appears later is found. Setting the current root again forgets it.
        kspath_set_install_path("/some/root");
        out += query() + ",";
        kspath_set_install_path("/some/root");
        out += query() + "|";
        const ks::path p(ks::common_path::log, "x");
        out += std::string(p.good() ? "good:" : "fail:") + p.str() + "|";
        out += ::mkdir("/opt/kestrum", 0755) == 0 ? query() : "mkdir failed";
        std::ostringstream common;
        common << ks::common_path::log_config;
        return out + "|" + common.str();
    });
    if (got == "SKIP") GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(got, expected + "/some/root,(null)|fail:x|/opt/kestrum|/opt/kestrum/etc/logging");
}

}  // namespace
