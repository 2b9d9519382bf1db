// A daemon for the black-box tests of ks::daemon::Instance: it records its events, one a line, into
// the file KSTEST_EVENTS names. KSTEST_MODE: normal (its run callback returns on the stop byte),
// ignore-term (it never returns), crash (once running), fail-prerun (refuses to start).
#include <kspath.h>
#include <ksutils/error.h>
#include <ksutils/ksdaemon.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::atomic<int> g_stop_flag{0};
int g_stop_fd = -1;       // the framework's stop pipe, read by the run loop
int g_probe_fd[2] = {-1, -1};  // a stop descriptor of our own that nobody reads

void record(const std::string& line) {
    const char* file = std::getenv("KSTEST_EVENTS");
    if (!file) return;
    ks::unique_fd fd(::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const std::string text = line + "\n";
    (void)!::write(fd.get(), text.data(), text.size());
}

// A function of its own gives the backtrace a frame; a real fault even under the UB sanitizer.
__attribute__((noinline, no_sanitize("undefined"))) void crash_now(volatile int* target) { *target = 42; }

}  // namespace

int main(int argc, char** argv) {
    if (const char* root = std::getenv("KS_INSTALL_ROOT")) kspath_set_install_path(root);
    const std::string mode = std::getenv("KSTEST_MODE") ? std::getenv("KSTEST_MODE") : "normal";
    auto d = ks::daemon::instance(argc, argv);

    g_stop_fd = d->on_stop_pipe();
    if (::pipe2(g_probe_fd, O_CLOEXEC) == 0) {
        d->on_stop_fd(g_probe_fd[1]);
        d->protect_fd(g_probe_fd[0]);
    }
    d->on_stop_flag(&g_stop_flag);
    // Runs after the descriptors and the flag were given their stop notice.
    d->on_stop([] {
        pollfd p{g_probe_fd[0], POLLIN, 0};
        const bool readable = ::poll(&p, 1, 0) == 1 && p.revents == POLLIN;
        record("callback flag=" + std::to_string(g_stop_flag.load()) + " stop_fd=" + (readable ? "readable" : "empty"));
    });
    for (int i = 0; i < 3; ++i) {
        const int id = d->add_default_settings_callback([i] {
            record("default " + std::to_string(i));
            return true;
        });
        if (i == 1) {
            // Removed and added again: ids keep increasing, so order follows the ids.
            d->remove_default_settings_callback(id);
            d->add_default_settings_callback(d->get_load_settings_function([] {
                record("default 1");
                return true;
            }));
        }
    }
    if (mode == "fail-prerun") {
        d->on_pre_run([] {
            ks::_get_kserrno().set(ks::E_INVAL, "test daemon refuses to start");
            return false;
        });
    }

    ks::daemon::Instance* self = d.get();  // not the shared pointer: no cycle through the callback
    d->on_run([mode, self] {
        const char* now = std::getenv("LD_LIBRARY_PATH");
        record(std::string("env LD_LIBRARY_PATH=") + (now ? now : "unset") +
               " saved=" + self->environment().get("LD_LIBRARY_PATH").value_or("unset"));
        record("run pid=" + std::to_string(::getpid()));
        if (mode == "crash") crash_now(nullptr);
        if (mode == "ignore-term") {
            for (;;) ::pause();
        }
        for (pollfd p{g_stop_fd, POLLIN, 0}; ::poll(&p, 1, -1) != 1;) {
        }
        char byte = 0;
        (void)!::read(g_stop_fd, &byte, 1);
        record(std::string("pipe byte=") + byte);
        return 3;
    });
    const int status = d->run();
    record("exit " + std::to_string(status) + " pid=" + std::to_string(::getpid()));
    return status;
}
