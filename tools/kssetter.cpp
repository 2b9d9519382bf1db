// kssetter: the settings server (its core is src_cpp/kssetter/server/).
//
// It serves the settings of an install root on "var/run/kssetmgmt.skt" and keeps them in
// "etc/storage.data" (the file clients read when the server is down) and its journal
// "etc/storage.data.journal". A persistent change is answered only once it is on disk in
// the journal; keys under "/tmp" live in memory only. The settings file is rewritten a
// tenth of a second after a change, at most once a second, and on a clean stop (SIGTERM,
// SIGINT). After a crash an offline reader sees the settings file as of its last rewrite
// (about a second behind at most, never half-written); the server, when it starts again,
// replays the journal and has every acknowledged change.
//
// Usage: kssetter [-root DIR]   (runs in the foreground until SIGTERM or SIGINT)
#include "kssetter/kssetmgmt/protocol.h"
#include "kssetter/server/server.h"

#include <ksutils/cmdline.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>

#include <kspath.h>

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <string>

namespace cl = ks::cl;

int main(int argc, char** argv) {
    // SIGTERM and SIGINT are read from a signalfd, so they must be blocked in every thread,
    // including any the log core starts: nothing else runs before this.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    // "--root" and "--help" are the same options: the parser drops one dash.
    cl::opt<ks::string_view> root{"root", "-root", cl::at_most(1), cl::value_name("DIR"),
                                  cl::help("the install root whose settings to serve (default: the installation's)")};
    cl::flag help{"help", "h", "-help", cl::help("show this help and exit")};
    if (!cl::parse(argc, argv)) {
        std::fprintf(stderr, "kssetter: %s\n", std::string(ks::_get_kserrno().message_view()).c_str());
        cl::print_usage(stderr);
        return 1;
    }
    if (help) {
        cl::print_help(stdout);
        std::puts("\nServes DIR/var/run/kssetmgmt.skt, keeps the settings in DIR/etc/storage.data.\n"
                  "Runs in the foreground; SIGTERM or SIGINT saves and stops it.");
        return 0;
    }
    const std::string rootDir(*root);
    if (!rootDir.empty()) kspath_set_install_path(rootDir.c_str());
    if (!kspath_default_install_path()) {
        std::fprintf(stderr, "kssetter: no install root found; use -root DIR\n");
        return 1;
    }
    const char* logRoot = rootDir.empty() ? nullptr : rootDir.c_str();
    if (!ks::log::start(argv[0], logRoot, nullptr))
        std::fprintf(stderr, "kssetter: warning: logging is off (no etc/logs-pub.pem in the install root?)\n");

    const ks::path runDir(ks::common_path::run);
    const ks::path etcDir(ks::common_path::etc);
    runDir.mkdirp();
    etcDir.mkdirp();
    int status = 1;
    {
        ks::setter::Server server(ks::path(runDir, ks::setter::kSocketName).str(),
                                  ks::path(etcDir, ks::setter::kStorageFileName).str());
        if (server.start(true)) {
            server.run();
            status = 0;
        }
        server.stop();
    }
    ks::log::stop();
    return status;
}
