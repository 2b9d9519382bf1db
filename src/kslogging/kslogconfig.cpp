// Log configuration: JSON documents with an "action". "update" sets the global file limits
// and, per listed channel, its outputs; "save" writes the running configuration back as an
// "update" document. Every document is checked whole before anything is applied, and the
// application itself is two-phase (see apply_plan), so a refused document never leaves the
// logger half-configured. Messages go to channel 0 through the core, and the error ones
// also land in the calling thread's error record.
#include "kslog_core.h"

#include <kspath.h>
#include <ksutils/error.h>

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kslog_detail {
namespace {

struct json_deleter {
    void operator()(json_t* value) const noexcept { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

// Logs at error level from the caller's position and keeps the text in the error record.
#define KSLOG_CONFIG_FAIL(...)                                                 \
    do {                                                                       \
        char fail_text_[kPathBuffer];                                          \
        std::snprintf(fail_text_, sizeof fail_text_, __VA_ARGS__);             \
        KSLOG_CORE(KSLOG_LEVEL_ERROR, "%s", fail_text_);                       \
        ks::_get_kserrno().set(ks::E_INVAL, std::string(fail_text_));          \
    } while (0)

// Where "$IDENTITY" and "$INSTALL_PATH" point: the running core's values, or before
// start-up the identity being started.
struct expansion {
    const char* identity;
    const char* install_path;
};

expansion current_expansion() {
    const char* install = install_path();
    if (*install == '\0') {
        const char* fallback = kspath_default_install_path();
        install = fallback ? fallback : "";
    }
    return {identity(), install};
}

bool expand_path(const char* path, const char* channel, const expansion& ex, std::string& out) {
    const size_t len = std::strlen(path);
    if (len > 0 && path[len - 1] == '/') {
        KSLOG_CONFIG_FAIL("Path '%s' doesn't end with a filename.", path);
        return false;
    }
    KSLOG_CORE(KSLOG_LEVEL_TRACE, "Expanding path '%s'...", path);
    struct variable {
        const char* name;
        const char* value;
    };
    const variable variables[] = {
        {"$IDENTITY", ex.identity},
        {"$INSTALL_PATH", ex.install_path},
        {"$CHANNEL_NAME", channel},
    };
    out.clear();
    for (const char* p = path; *p;) {
        if (*p != '$') {
            out.push_back(*p++);
            continue;
        }
        const variable* match = nullptr;
        for (const variable& v : variables)
            if (v.value && std::strncmp(p, v.name, std::strlen(v.name)) == 0) match = &v;
        if (!match) {
            KSLOG_CONFIG_FAIL("Cannot expand prefix '%s' in '%s'.", p, path);
            return false;
        }
        const char* value = match->value;
        // "$INSTALL_PATH" holds no trailing slash, but a user may write "/$INSTALL_PATH".
        if (!out.empty() && out.back() == '/' && *value == '/') ++value;
        out += value;
        p += std::strlen(match->name);
    }
    if (out.size() >= kPathBuffer) {
        KSLOG_CONFIG_FAIL("Path too long: '%s'.", out.c_str());
        return false;
    }
    return true;
}

bool read_global(const json_t* global, const char* key, uint64_t min, uint64_t max, uint64_t& value) {
    const json_t* item = json_object_get(global, key);
    if (!item) return true;
    if (!json_is_integer(item) || json_integer_value(item) <= 0) {
        KSLOG_CONFIG_FAIL("global '%s' must be a non-zero positive integer", key);
        return false;
    }
    const json_int_t v = json_integer_value(item);
    if (static_cast<uint64_t>(v) < min || static_cast<uint64_t>(v) > max) {
        KSLOG_CONFIG_FAIL("global '%s' must be in [%d, %d] - got %lld", key, static_cast<int>(min),
                          static_cast<int>(max), static_cast<long long>(v));
        return false;
    }
    value = static_cast<uint64_t>(v);
    return true;
}

bool read_entry_integer(const json_t* entry, const char* key, uint64_t& value) {
    const json_t* item = json_object_get(entry, key);
    if (!item) return true;
    if (!json_is_integer(item)) {
        KSLOG_CONFIG_FAIL("Invalid type for '%s' - expected integer.", key);
        return false;
    }
    const json_int_t v = json_integer_value(item);
    if (v <= 0) {
        KSLOG_CONFIG_FAIL("Invalid %s '%lld'.", key, static_cast<long long>(v));
        return false;
    }
    value = static_cast<uint64_t>(v);
    return true;
}

bool parse_entry(const json_t* entry, size_t position, const char* channel, const expansion& ex,
                 planned_output& out) {
    if (!json_is_object(entry)) {
        KSLOG_CONFIG_FAIL("Missing key 'file' for entry #%d in channel '%s'.", static_cast<int>(position), channel);
        return false;
    }
    const char* key;
    const json_t* value;
    json_object_foreach(const_cast<json_t*>(entry), key, value) {
        if (std::strcmp(key, "file") != 0 && std::strcmp(key, "level") != 0 && std::strcmp(key, "size") != 0 &&
            std::strcmp(key, "num") != 0) {
            KSLOG_CONFIG_FAIL("Invalid key '%s'.", key);
            return false;
        }
    }
    const json_t* file = json_object_get(entry, "file");
    if (!file) {
        KSLOG_CONFIG_FAIL("Missing key 'file' for entry #%d in channel '%s'.", static_cast<int>(position), channel);
        return false;
    }
    std::string base;
    if (!json_is_string(file) || !expand_path(json_string_value(file), channel, ex, out.spec) ||
        !resolve_output(out.spec.c_str(), ex.identity, ex.install_path, base)) {
        KSLOG_CONFIG_FAIL("Invalid file path.");
        return false;
    }
    if (const json_t* level = json_object_get(entry, "level")) {
        const char* text = json_is_string(level) ? json_string_value(level) : "";
        bool known = false;
        for (int l = KSLOG_LEVEL_ERROR; l <= KSLOG_LEVEL_TRACE; ++l)
            if (std::strcmp(text, kslog_lvl_to_userstr(l)) == 0) known = true;
        if (!known) {
            KSLOG_CONFIG_FAIL("Invalid log level '%s'.", text);
            return false;
        }
        out.level = kslog_userstr_to_lvl(text);
    }
    return read_entry_integer(entry, "size", out.size) && read_entry_integer(entry, "num", out.num);
}

// Every check of an "update" document; fills `plan` when all pass.
bool parse_update(const json_t* doc, const expansion& ex, update_plan& plan) {
    const char* action = json_string_value(json_object_get(doc, "action"));
    if (!action || std::strcmp(action, "update") != 0) {
        KSLOG_CONFIG_FAIL("Invalid action '%s'. Expected 'update'.", action ? action : "");
        return false;
    }
    if (const json_t* global = json_object_get(doc, "global")) {
        if (!json_is_object(global)) {
            KSLOG_CONFIG_FAIL("Value for key 'global' is not an object.");
            return false;
        }
        if (!read_global(global, "size", kMinLogSize, kMaxLogSize, plan.size) ||
            !read_global(global, "num", kMinNumLogs, kMaxNumLogs, plan.num))
            return false;
    }
    const json_t* channels = json_object_get(doc, "channels");
    if (!channels) {
        KSLOG_CONFIG_FAIL("Failed to extract 'channels' value from config.");
        return false;
    }
    if (!json_is_object(channels)) {
        KSLOG_CONFIG_FAIL("Value for key 'channels' is not an object.");
        return false;
    }
    if (json_object_size(channels) > static_cast<size_t>(kMaxChannels)) {
        KSLOG_CONFIG_FAIL("Too many channels in log config: %d / %d", static_cast<int>(json_object_size(channels)),
                          kMaxChannels);
        return false;
    }
    const char* name;
    const json_t* files;
    json_object_foreach(const_cast<json_t*>(channels), name, files) {
        if (std::strlen(name) > static_cast<size_t>(kMaxChannelName) || *name == '\0') {
            KSLOG_CONFIG_FAIL("Channel name too long: '%s'", name);
            return false;
        }
        if (!json_is_array(files)) {
            KSLOG_CONFIG_FAIL("Value for key '%s' is missing or is not a json array", name);
            return false;
        }
        if (json_array_size(files) > static_cast<size_t>(kMaxOutputs)) {
            KSLOG_CONFIG_FAIL("Channel '%s': file limit exceeded: %zu / %d.", name, json_array_size(files),
                              kMaxOutputs);
            return false;
        }
        KSLOG_CORE(KSLOG_LEVEL_DEBUG, "Parsing files for channel '%s'...", name);
        planned_channel pc;
        pc.name = name;
        size_t position;
        const json_t* entry;
        json_array_foreach(files, position, entry) {
            planned_output out;
            if (!parse_entry(entry, position, name, ex, out)) return false;
            pc.outputs.push_back(std::move(out));
        }
        plan.channels.push_back(std::move(pc));
    }
    return true;
}

bool parse_save(const json_t* doc, const expansion& ex, std::string& path) {
    const char* action = json_string_value(json_object_get(doc, "action"));
    if (!action) {
        KSLOG_CONFIG_FAIL("Failed to extract 'action' value from config.");
        return false;
    }
    if (std::strcmp(action, "save") != 0) {
        KSLOG_CONFIG_FAIL("Invalid action '%s'. Expected 'save'.", action);
        return false;
    }
    const char* file = json_string_value(json_object_get(doc, "file"));
    if (!file) {
        KSLOG_CONFIG_FAIL("Failed to extract 'file' value from config json.");
        return false;
    }
    if (!expand_path(file, nullptr, ex, path) || path.empty()) {
        KSLOG_CONFIG_FAIL("Invalid file path.");
        return false;
    }
    return true;
}

enum class action { invalid, update, save };

action read_action(const json_t* doc) {
    const char* text = json_string_value(json_object_get(doc, "action"));
    if (!text) {
        KSLOG_CONFIG_FAIL("Failed to extract 'action' value from log config.");
        return action::invalid;
    }
    if (std::strcmp(text, "update") == 0) return action::update;
    if (std::strcmp(text, "save") == 0) return action::save;
    KSLOG_CONFIG_FAIL("Invalid action '%s' in log config.", text);
    return action::invalid;
}

int validate(const json_t* doc, const expansion& ex) {
    if (!doc) return -1;
    switch (read_action(doc)) {
        case action::update: {
            update_plan plan;
            return parse_update(doc, ex, plan) ? 0 : -1;
        }
        case action::save: {
            std::string path;
            return parse_save(doc, ex, path) ? 0 : -1;
        }
        case action::invalid:
            break;
    }
    return -1;
}

int execute(const json_t* doc, const char* source) {
    if (!doc || !kslog_initialized()) return -1;
    const expansion ex = current_expansion();
    switch (read_action(doc)) {
        case action::update: {
            update_plan plan;
            if (!parse_update(doc, ex, plan)) return -1;
            plan.source = source;
            std::string error;
            if (apply_plan(plan, error) != 0) {
                KSLOG_CONFIG_FAIL("%s", error.c_str());
                return -1;
            }
            KSLOG_CORE(KSLOG_LEVEL_INFO, "The log config was successfully updated.");
            return 0;
        }
        case action::save: {
            std::string path;
            if (!parse_save(doc, ex, path)) return -1;
            json_ptr config(kslog_get_config());
            if (!config || json_dump_file(config.get(), path.c_str(), JSON_INDENT(4)) != 0) {
                KSLOG_CONFIG_FAIL("Failed to dump new config to '%s'.", path.c_str());
                return -1;
            }
            KSLOG_CORE(KSLOG_LEVEL_INFO, "Saved log config to '%s'.", path.c_str());
            return 0;
        }
        case action::invalid:
            break;
    }
    return -1;
}

json_ptr load(const char* path) {
    json_error_t error;
    json_ptr doc(json_load_file(path, 0, &error));
    if (!doc) KSLOG_CONFIG_FAIL("Failed to load json from '%s'.", path);
    return doc;
}

// The start-up documents after the caller's own: the program's file, then "default.json".
struct startup_file {
    const char* missing;   // warning when unreadable
    const char* too_long;  // the subject of the "install path is too long" warning
    std::string path;
    bool fits;
};

void startup_files(const char* identity, const char* install, startup_file files[2]) {
    char buffer[kPathBuffer];
    int n = std::snprintf(buffer, sizeof buffer, "%s/%s/%s.json", install, "etc/logging", identity);
    files[0] = {"Program-specific logging config is missing (%s)", "the program-specific logging config file",
                n >= 0 && static_cast<size_t>(n) < sizeof buffer ? buffer : "",
                n >= 0 && static_cast<size_t>(n) < sizeof buffer};
    n = std::snprintf(buffer, sizeof buffer, "%s/%s/%s", install, "etc/logging", "default.json");
    files[1] = {"Default logging config is missing (%s)", "the default logging config file",
                n >= 0 && static_cast<size_t>(n) < sizeof buffer ? buffer : "",
                n >= 0 && static_cast<size_t>(n) < sizeof buffer};
}

}  // namespace

startup_limits read_startup_limits(const char* startup_config, const char* id, const char* install) {
    startup_limits limits;
    startup_file files[2];
    startup_files(id, install, files);
    const std::string candidates[] = {startup_config ? startup_config : "", files[0].path, files[1].path};
    const expansion ex{id, install};
    for (const std::string& path : candidates) {
        if (path.empty()) continue;
        json_error_t error;
        json_ptr doc(json_load_file(path.c_str(), 0, &error));
        if (!doc || validate(doc.get(), ex) != 0) continue;
        const json_t* global = json_object_get(doc.get(), "global");
        const json_t* size = json_object_get(global, "size");
        const json_t* num = json_object_get(global, "num");
        if (!limits.size && json_is_integer(size) && json_integer_value(size) >= static_cast<json_int_t>(kMinLogSize) &&
            json_integer_value(size) <= static_cast<json_int_t>(kMaxLogSize)) {
            limits.size = static_cast<uint64_t>(json_integer_value(size));
            limits.size_source = path;
        }
        if (!limits.num && json_is_integer(num) && json_integer_value(num) >= static_cast<json_int_t>(kMinNumLogs) &&
            json_integer_value(num) <= static_cast<json_int_t>(kMaxNumLogs)) {
            limits.num = static_cast<uint64_t>(json_integer_value(num));
            limits.num_source = path;
        }
    }
    return limits;
}

void apply_startup_config(const char* startup_config) {
    if (startup_config && kslog_execute_config_from_path(startup_config) == 0) {
        KSLOG_CORE(KSLOG_LEVEL_INFO, "kslog started with config '%s'.", startup_config);
        return;
    }
    startup_file files[2];
    startup_files(identity(), install_path(), files);
    for (const startup_file& file : files) {
        if (!file.fits) {
            KSLOG_CORE(KSLOG_LEVEL_WARNING,
                       "Cannot generate a correct path for %s because the install path is too long (%zd bytes)",
                       file.too_long, static_cast<ssize_t>(std::strlen(install_path())));
            continue;
        }
        if (::access(file.path.c_str(), R_OK) != 0) {
            KSLOG_CORE(KSLOG_LEVEL_WARNING, file.missing, file.path.c_str());
            continue;
        }
        if (kslog_execute_config_from_path(file.path.c_str()) == 0) {
            KSLOG_CORE(KSLOG_LEVEL_INFO, "kslog started with config '%s'.", file.path.c_str());
            return;
        }
    }
    KSLOG_CORE(KSLOG_LEVEL_WARNING, "kslog started without a log config file. Default library settings are used.");
}

}  // namespace kslog_detail

using namespace kslog_detail;

extern "C" {

int kslog_is_valid_config(const json_t* config) { return validate(config, current_expansion()); }

int kslog_is_valid_config_from_path(const char* path) {
    if (!path) return -1;
    json_ptr doc = load(path);
    return doc ? validate(doc.get(), current_expansion()) : -1;
}

int kslog_execute_config(const json_t* config) { return execute(config, "(run-time config)"); }

int kslog_execute_config_from_path(const char* path) {
    if (!path || !kslog_initialized()) return -1;
    json_ptr doc = load(path);
    return doc ? execute(doc.get(), path) : -1;
}

void kslog_print_settings(void) {
    uint64_t size, num;
    std::string size_source, num_source;
    global_settings(size, size_source, num, num_source);
    KSLOG_CORE(KSLOG_LEVEL_TRACE, "kslog limits - [min, max]: level in [%s, %s], size in [%d, %d], num in [%d, %d]",
               kslog_lvl_to_userstr(KSLOG_LEVEL_ERROR), kslog_lvl_to_userstr(KSLOG_LEVEL_TRACE),
               static_cast<int>(kMinLogSize), static_cast<int>(kMaxLogSize), static_cast<int>(kMinNumLogs),
               static_cast<int>(kMaxNumLogs));
    KSLOG_CORE(KSLOG_LEVEL_TRACE, "kslog defaults at startup:");
    KSLOG_CORE(KSLOG_LEVEL_TRACE, "   level: %10s - source: %s", kslog_lvl_to_userstr(KSLOG_LEVEL_ERROR),
               kBuiltInSource);
    KSLOG_CORE(KSLOG_LEVEL_TRACE, "   size : %10zu - source: %s", static_cast<size_t>(size), size_source.c_str());
    KSLOG_CORE(KSLOG_LEVEL_TRACE, "   num  : %10zu - source: %s", static_cast<size_t>(num), num_source.c_str());
}

}  // extern "C"
