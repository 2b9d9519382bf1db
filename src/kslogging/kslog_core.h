// Private interface between the log core (kslog*.cpp) and its JSON configuration
// (kslogconfig.cpp): output resolution, the two-phase application of an "update" plan
// under the table lock, the start-up sequence, and the core's own printf-style records.
#pragma once

#include <kslog.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kslog_detail {

constexpr int kMaxChannels = 64;
constexpr int kMaxChannelName = 31;
constexpr int kMaxOutputs = 8;
constexpr int kMaxFiles = 512;
constexpr size_t kPathBuffer = 4096;
constexpr size_t kMaxIdentity = 511;
constexpr uint64_t kMinLogSize = 4096;
constexpr uint64_t kMaxLogSize = 262144;
constexpr uint64_t kMinNumLogs = 1;
constexpr uint64_t kMaxNumLogs = 2;
constexpr const char* kBuiltInSource = "library built-in";

// Turns an output specification into its base path (":stdout", ":stderr", or a file path
// ending with '.'); no side effects. False for anything the core would refuse.
bool resolve_output(const char* spec, const char* identity, const char* install_path, std::string& base);

// One output of an "update" document, already expanded. A size or number of 0 was not
// given: a new file object then takes the global value, an existing one keeps its own.
struct planned_output {
    std::string spec;
    int level = KSLOG_LEVEL_ERROR;
    uint64_t size = 0;
    uint64_t num = 0;
};

struct planned_channel {
    std::string name;
    std::vector<planned_output> outputs;
};

struct update_plan {
    uint64_t size = 0;  // 0: keep the global value
    uint64_t num = 0;
    std::string source;  // what set the values (a file path, or "" for run-time documents)
    std::vector<planned_channel> channels;
};

// Applies a validated plan under the write lock. Every output's file object is created
// before anything changes, so a plan that cannot be applied (an unwritable directory,
// full tables) leaves the running configuration as it was and describes why in `error`.
int apply_plan(const update_plan& plan, std::string& error);

// Identity and install root of the running core (both "" when uninitialised).
const char* identity();
const char* install_path();

// Start-up steps implemented with the configuration: the first valid value per global
// limit from the start-up files, and the first start-up document that executes.
struct startup_limits {
    uint64_t size = 0;
    uint64_t num = 0;
    std::string size_source;
    std::string num_source;
};
startup_limits read_startup_limits(const char* startup_config, const char* identity, const char* install_path);
void apply_startup_config(const char* startup_config);

// The global limits with their sources, read under the table lock.
void global_settings(uint64_t& size, std::string& size_source, uint64_t& num, std::string& num_source);

// A record from the library itself on channel 0, formatted like every log statement.
void core_log(int level, const char* file, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

}  // namespace kslog_detail

#define KSLOG_CORE(level, ...) ::kslog_detail::core_log((level), __FILE__, __LINE__, __func__, __VA_ARGS__)
