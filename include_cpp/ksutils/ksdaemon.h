/// @file
/// The daemon skeleton: command line, detaching, PID file, settings thread and stop.
///
/// @code
///   int main(int argc, char** argv) {
///       auto d = ks::daemon::instance(argc, argv);
///       int stop_fd = d->on_stop_pipe();          // readable once the daemon must stop
///       d->on_run([stop_fd] { ... loop until stop_fd is readable ...; return 0; });
///       return d->run();
///   }
/// @endcode
///
/// run() performs the action chosen on the command line: -start (the default; with
/// -no-detach it stays in the foreground), -stop, -version, -execute-log-config
/// -log-config=FILE and -help. Started daemons double-fork, hold "<name>.pid" in the install
/// root's "var/run" locked for their whole life, and report start-up failures back to the
/// launching process, which prints "Error: ..." and exits with 127. The run callback runs
/// on the main thread; a settings thread applies run-time log configurations, runs the
/// default-settings callbacks and turns SIGTERM/SIGINT into the stop notifications (stop
/// descriptors, then the stop flag, then the stop callback, all on the settings thread).
#pragma once

#include <ksexport.h>
#include <ksutils/cmdline.h>
#include <ksutils/environ.h>
#include <ksutils/kscrash.h>
#include <ksutils/path.h>
#include <ksutils/process_lock.h>
#include <ksutils/string_view.h>
#include <ksutils/unique_fd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ks {
namespace daemon {

class Instance;

/// The process's daemon object, created by the first call (later arguments are ignored).
KS_EXPORT std::shared_ptr<Instance> instance(int argc, char** argv);
/// The existing daemon object; null before the first instance(argc, argv).
KS_EXPORT std::shared_ptr<Instance> instance();

/// The daemon object of the process (see the file description); made by instance(argc, argv).
class KS_EXPORT Instance {
public:
    /// The actions of the command line: -start, -stop, -version, -execute-log-config, -help.
    enum class StartupAction : int { start = 0, stop = 1, version = 2, execute_log_config = 3, help = 4 };

    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    ~Instance();

    // ---- Callbacks (set before run()) ----------------------------------------------------

    /// Called on the main thread once the daemon runs; its result is the exit status.
    void on_run(std::function<int()> callback) { run_callback_ = std::move(callback); }
    /// Called on the settings thread when the daemon must stop.
    void on_stop(std::function<void()> callback) { stop_callback_ = std::move(callback); }
    /// Set to 1 (on the settings thread) when the daemon must stop.
    void on_stop_flag(std::atomic<int>* flag) { stop_flag_ = flag; }
    /// Receives the byte '1' when the daemon must stop. The caller keeps owning `fd`; it is
    /// kept open through detaching.
    void on_stop_fd(int fd);
    /// A pipe owned by the instance whose read end (returned, -1 on failure) receives '1'
    /// when the daemon must stop: for daemons waiting in an event loop.
    int on_stop_pipe();
    /// Called in the detached daemon before it reports a successful start; false fails it.
    void on_pre_run(std::function<bool()> callback) { pre_run_callback_ = std::move(callback); }
    /// How crashes are reported (default: a report file in the crash directory).
    void on_crash(ExceptionHandlerMethod method) { crash_method_ = method; }

    /// Run, on the settings thread in id order, at start and whenever "/default_settings"
    /// changes. Returns the callback's id (ids only grow). The callbacks run under the lock
    /// that add/remove take, so a callback must not add or remove callbacks itself.
    int add_default_settings_callback(const std::function<bool()>& callback);
    /// Removes the default-settings callback `id`.
    void remove_default_settings_callback(int id);
    /// A default-settings callback that runs `loader` and logs when it fails.
    static std::function<bool()> get_load_settings_function(const std::function<bool()>& loader);

    /// Keeps `fd` open through detaching (stop descriptors and the PID file are kept anyway).
    void protect_fd(int fd);

    // ---- Actions -------------------------------------------------------------------------

    /// Performs the command line's action and returns the process's exit status: 0; 1 for
    /// a command-line or logging set-up failure or a -stop that timed out; 127 when start,
    /// stop or execute-log-config failed (after printing "Error: ..." to standard error).
    int run();

    /// Parses once and caches the result; with `report`, a failure prints the error and the
    /// usage to standard error.
    bool check_command_line(bool report);
    /// (Re)starts logging with the daemon's name as identity, then applies -log-config.
    bool do_kslog_setup();
    /// The start action: installs the stop signal handlers and daemonizes.
    int do_run();
    /// Detaches (unless -no-detach), takes the PID file and runs the daemon.
    int daemonize();
    /// Opens "<name>.pid" in the install root's "var/run"; false with the error record set.
    bool open_pidfile();
    /// The stop action: sends SIGTERM to the running instance and waits until it lets go of its
    /// PID file.
    int do_stop();
    /// The execute-log-config action: checks the -log-config file and hands its path to the
    /// running instance through the settings key log_config_key().
    int do_execute_log_config();

    // ---- Settings thread -----------------------------------------------------------------

    /// The settings thread's body.
    void daemon_settings_thread();
    /// Executes the log configuration file named by log_config_key().
    bool handle_log_config_change(const ks::path& key, void* context);
    /// Runs the default-settings callbacks.
    bool handle_default_settings_change(const ks::path& key, void* context);

    // ---- State ---------------------------------------------------------------------------

    /// The daemon's name: the base name of argv[0].
    const std::string& name() const { return name_; }
    /// The action chosen on the command line.
    StartupAction action() const { return *action_; }
    /// True with -no-detach.
    bool no_detach() const { return static_cast<bool>(no_detach_); }
    /// The process environment as it was at start-up, "LD_LIBRARY_PATH" included.
    const ks::Environ& environment() const { return environ_; }
    /// The settings key locked while a run-time log configuration is handed over:
    /// "/tmp/daemon/<name>/logging".
    const ks::path& log_key() const { return log_key_; }
    /// The settings key that names a run-time log configuration file:
    /// "/tmp/daemon/<name>/logging/config".
    const ks::path& log_config_key() const { return log_config_key_; }
    /// The PID file's descriptor, -1 while it is not open.
    int pidfile_fd() const { return pidfile_.fd(); }
    /// The descriptors kept open through detaching.
    std::map<int, int> protected_fds() const;

private:
    friend KS_EXPORT std::shared_ptr<Instance> instance(int argc, char** argv);
    friend void reset_mutexes_after_fork();

    Instance(int argc, char** argv);

    int run_daemon();
    // The pid of the instance holding the PID file lock; false with the error record set
    // when it cannot be read or nobody holds it (`nobody` is then the message).
    bool find_running_pid(pid_t& pid, ks::string_view nobody);
    void send_report();
    [[noreturn]] void fail_detached();
    void stop_notifications();
    bool write_stop_byte(int fd);

    int argc_;
    char** argv_;
    std::string name_;

    // Registration order is declaration order: the selector must come first.
    ks::cl::sub_commands<StartupAction> action_;
    ks::cl::flag no_detach_;
    ks::cl::opt<ks::string_view> start_log_config_;
    ks::cl::opt<ks::string_view> runtime_log_config_;

    ks::path log_key_;
    ks::path log_config_key_;
    ks::Environ environ_;

    ks::ProcessLock pidfile_;
    mutable std::mutex protected_mutex_;
    std::map<int, int> protected_fds_;
    ks::unique_fd stop_pipe_read_;
    ks::unique_fd stop_pipe_write_;
    ks::unique_fd report_pipe_write_;
    std::vector<ks::unique_fd> owned_stop_pipes_;

    std::function<int()> run_callback_;
    std::function<void()> stop_callback_;
    std::atomic<int>* stop_flag_ = nullptr;
    std::mutex mutex_;  // guards stop_fds_
    std::vector<int> stop_fds_;
    std::function<bool()> pre_run_callback_;
    ExceptionHandlerMethod crash_method_ = ExceptionHandlerMethod::report_file;

    std::mutex callbacks_mutex_;
    std::map<int, std::function<bool()>> default_settings_callbacks_;
    int next_callback_id_ = 1;

    std::thread settings_thread_;
    bool logging_ = false;          // holds one reference on the logger
    bool detached_child_ = false;   // a process forked by daemonize(), before it runs
    bool command_line_checked_ = false;
    bool command_line_ok_ = false;
};

}  // namespace daemon
}  // namespace ks
