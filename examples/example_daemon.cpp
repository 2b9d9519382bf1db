// example_daemon: the smallest complete daemon built on ksutils; read this one first.
//
//   example_daemon -start [-no-detach] [-log-config=FILE]   start (detached by default)
//   example_daemon -stop                                    stop the running instance
//   example_daemon -execute-log-config -log-config=FILE     change its logging at run time
//   example_daemon -version | -help
//
// What it does: every second it logs a heartbeat on its own log channel, and it
// watches the settings key "/example_daemon/message", logging each new value. It stops on
// SIGTERM/SIGINT or "-stop". Everything else (command line, detaching, PID file
// "var/run/example_daemon.pid", logging into "var/log/example_daemon.*", crash reports)
// comes from ks::daemon::Instance.
//
// The install root is the installation's; set KS_INSTALL_ROOT to run it on another one
// (a build tree, a test or the demo).
#include <kspath.h>
#include <kssetter/ksmonitoredkey.h>
#include <kssetter/kssetmgmt.h>
#include <ksutils/executor.h>
#include <ksutils/ksdaemon.h>
#include <ksutils/kslog.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace {

constexpr const char* kChannelName = "example";
constexpr const char* kWatchedKey = "/example_daemon/message";
constexpr std::chrono::seconds kHeartbeat{1};

// The daemon's own state; everything here runs on the main thread, inside the executor.
class ExampleDaemon {
public:
    explicit ExampleDaemon(int stop_fd) : stop_fd_(stop_fd) {}

    int run() {
        // Channels are opened once logging runs, that is inside the run callback.
        channel_ = ks::log::open_channel(kChannelName);
        KSLOG_INFO(channel_, "example_daemon running, pid {:d}", static_cast<int>(::getpid()));

        // The framework writes '1' into the stop pipe on SIGTERM/SIGINT or "-stop".
        loop_.add(stop_fd_, EPOLLIN, [this] {
            char byte = 0;
            if (::read(stop_fd_, &byte, 1) == 1) KSLOG_INFO(channel_, "stop requested");
            stopping_ = true;
            return -1;  // unregister: the loop ends when nothing else is registered
        });
        heartbeat_ = loop_.start_timer(kHeartbeat, kHeartbeat, [this] {
            KSLOG_INFO(channel_, "heartbeat {:d}", ++beats_);
            watch();  // resubscribe if the settings server went away meanwhile
            return 0;
        });
        watch();

        while (!stopping_ && loop_.tick(std::chrono::milliseconds(1000))) {
        }
        if (heartbeat_ >= 0) loop_.del(heartbeat_);
        if (watched_fd_ >= 0) loop_.del(watched_fd_);
        KSLOG_INFO(channel_, "example_daemon stopped after {:d} heartbeats", beats_);
        return 0;
    }

private:
    // Subscribes to the watched key (once) and puts its descriptor into the loop.
    void watch() {
        if (watched_fd_ >= 0) return;
        watched_fd_ = message_.get_fd();
        if (watched_fd_ < 0) return;
        loop_.add(watched_fd_, EPOLLIN, [this] {
            if (message_.read_notifications()) return 0;
            // The server went away; the heartbeat resubscribes.
            watched_fd_ = -1;
            return -1;
        });
    }

    // Called with the key once at subscription and on every change.
    bool on_message(const ks::path& key) {
        std::string value;
        if (ks::setMgmt::getKey(key.str(), value) < 0)
            KSLOG_INFO(channel_, "'{:s}' is not set", key.view());
        else
            KSLOG_INFO(channel_, "'{:s}' changed to '{:s}'", key.view(), value);
        return true;
    }

    int stop_fd_;
    unsigned long channel_ = 0;
    ks::Executor loop_;
    int heartbeat_ = -1;
    int beats_ = 0;
    bool stopping_ = false;
    int watched_fd_ = -1;
    ks::setMgmt::MonitoredKey message_{
        kWatchedKey, [this](const ks::path& key, void*) { return on_message(key); }, /*reportKeys=*/true,
        /*context=*/nullptr, /*callAtStart=*/true};
};

}  // namespace

int main(int argc, char** argv) {
    if (const char* root = std::getenv("KS_INSTALL_ROOT")) kspath_set_install_path(root);

    auto daemon = ks::daemon::instance(argc, argv);
    const int stop_fd = daemon->on_stop_pipe();  // before run(): it must survive detaching
    daemon->on_run([stop_fd] {
        ExampleDaemon example(stop_fd);
        return example.run();
    });
    return daemon->run();
}
