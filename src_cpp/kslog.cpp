// The logging facade over the log core: typed levels, bool results, the log statement's
// formatting, and print(), which blocks every signal while the core holds its locks so a
// signal handler that logs cannot deadlock on them.
#include <ksutils/kslog.h>

#include <pthread.h>
#include <signal.h>

namespace ks {
namespace log {

const char* const kKSPppoeDiscoveryChannel = "pppoe-discovery";
const char* const kKSDhcpDiscoveryChannel = "dhcp-discovery";
const char* const kKSTallisHandlersChannel = "kstallishandlers";
const char* const kKSCloudGuardianChannel = "guardian";
const char* const kKSParentalChannel = "parental";
const char* const kKSKarmaChannel = "kskarma";
const char* const kKSExchangeChannel = "ksexchange";
const char* const kKSNetMgmtChannel = "ksnetmgmt";
const char* const kKSDevMgmtChannel = "ksdevmgmt";
const char* const kKSSetMgmtChannel = "kssetmgmt";

namespace {

level from_core(int l) { return l >= 1 && l <= 4 ? static_cast<level>(l) : level::error; }

// Emits with every signal of the calling thread blocked; drops the record if the mask
// cannot be changed, rather than risk a handler re-entering the core's locks.
void emit(unsigned long channel, level l, char* data, size_t size) {
    sigset_t all, previous;
    sigfillset(&all);
    if (pthread_sigmask(SIG_SETMASK, &all, &previous) != 0) return;
    kslog_log_full(static_cast<int>(channel), to_core(l), data, size);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

}  // namespace

bool start(const char* argv0, const char* install_path, const char* startup_config) {
    return kslog_init(argv0, install_path, startup_config) == 0;
}
void stop() { kslog_uninit(); }
bool started() { return kslog_initialized() != 0; }

unsigned long open_channel(const char* name) { return static_cast<unsigned long>(kslog_channel_open(name)); }
void close_channel(unsigned long channel) { kslog_channel_close(static_cast<int>(channel)); }
bool copy_channel(unsigned long dst, unsigned long src) {
    return kslog_channel_copy(static_cast<int>(dst), static_cast<int>(src)) == 0;
}
unsigned long get_channel_by_name(const char* name) {
    return static_cast<unsigned long>(kslog_channel_get_by_name(name));
}
unsigned long get_num_channels() { return static_cast<unsigned long>(kslog_get_num_channels()); }
level get_default_level() { return level::error; }
level get_channel_max_level(unsigned long channel) {
    return from_core(kschlog_get_max_level(static_cast<int>(channel)));
}
uint64_t get_max_log_size() { return kslog_get_max_log_size(); }
uint64_t get_max_num_logs() { return kslog_get_max_num_logs(); }

json_t* get_log_config() { return kslog_get_config(); }
bool execute_log_config(const json_t* config) { return kslog_execute_config(config) == 0; }
bool execute_log_config(ks::string_view path) { return kslog_execute_config_from_path(path.data()) == 0; }
bool is_valid_log_config(const json_t* config) { return kslog_is_valid_config(config) == 0; }
bool is_valid_log_config(ks::string_view path) { return kslog_is_valid_config_from_path(path.data()) == 0; }

void print(unsigned long channel, level l, std::string&& record) {
    emit(channel, l, record.data(), record.size());
}

void backtrace(const char* function) {
    KSLOG_WARN(0, "Cannot generate backtrace for function '{}' - backtrace generation is not supported by this libc!",
               function ? function : "");
}

namespace detail {

void vlog(unsigned long channel, level l, const char* file, int line, const char* function, fmt::string_view format,
          fmt::format_args args) {
    fmt::memory_buffer record;  // 500 characters inline: most records never touch the heap
    fmt::format_to(std::back_inserter(record), KSLOG_HEADER_TEMPLATE "[{:s}:{:d}][{:s}()]: ", file, line, function);
    fmt::vformat_to(std::back_inserter(record), format, args);
    record.push_back('\n');
    // A record over 4095 bytes is cut in place; the NUL the core then writes at byte 4095
    // still lies inside the buffer.
    emit(channel, l, record.data(), record.size());
}

}  // namespace detail
}  // namespace log

void log_json(unsigned long channel, log::level l, const char* prefix, const json_t* value) {
    if (!value) return;
    char* text = json_dumps(value, 0);
    if (!text) return;
    if (log::can_log(channel, l)) {
        if (prefix == nullptr || *prefix == '\0')
            log::detail::log(channel, l, "jsonutl", __LINE__, "log_json", "{:s}", text);
        else
            log::detail::log(channel, l, "jsonutl", __LINE__, "log_json", "{:s}: {:s}", prefix, text);
    }
    std::free(text);
}

}  // namespace ks
