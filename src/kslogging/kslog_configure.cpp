// Configuring the running core: resolving an output as configured to its base path,
// adding an output to a channel, applying a validated "update" plan and dumping the tables
// back as an "update" document. A plan is applied in two phases under the write lock:
// every file object it needs is pinned first, and only then does any channel change, so
// a plan that cannot be applied leaves the logger exactly as it was. The JSON side (what
// a document may say) is kslogconfig.cpp; this file knows only the tables.
#include "kslog_tables.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kslog_detail {
namespace {

uint64_t clamp_size(uint64_t size) { return std::min(std::max(size, kMinLogSize), g_state.max_size); }
uint64_t clamp_num(uint64_t num) { return std::min(std::max(num, kMinNumLogs), g_state.max_num); }

}  // namespace

// Adds (or updates, when the channel already writes to the same base path) one output.
// A size or number of 0 means "not given".
int add_output(int ch, const char* spec, int level, uint64_t size, uint64_t num) {
    if (!valid_channel(ch) || !g_state.channels[ch].in_use) return -1;
    std::string base;
    if (!resolve_output(spec, g_state.identity, g_state.install_path, base)) return -1;
    channel& c = g_state.channels[ch];
    output* existing = nullptr;
    for (int i = 0; i < c.num_outputs; ++i)
        if (c.outputs[i].file && c.outputs[i].file->base == base) existing = &c.outputs[i];
    file_handle file = existing ? existing->file : find_file(base);
    if (!existing) {
        if (c.num_outputs >= kMaxOutputs) return -1;
        const bool created = file == nullptr;
        if (created && !(file = create_file(base))) return -1;
        if (created) {
            file->max_size = clamp_size(size ? size : g_state.max_size);
            file->num_files = clamp_num(num ? num : g_state.max_num);
        }
        existing = &c.outputs[c.num_outputs++];
        existing->file = file;
    }
    // Re-clamped even when not given, so that lowered global limits reach old objects.
    file->max_size = clamp_size(size ? size : file->max_size);
    file->num_files = clamp_num(num ? num : file->num_files);
    existing->spec = spec;
    existing->level = level;
    update_max_level(c);
    return 0;
}

bool resolve_output(const char* spec, const char* identity, const char* install_path, std::string& base) {
    if (spec == nullptr || *spec == '\0') return false;
    char buffer[kPathBuffer];
    int n;
    if (spec[0] == ':') {
        if (std::strcmp(spec, ":stdout") != 0 && std::strcmp(spec, ":stderr") != 0) return false;
        n = std::snprintf(buffer, sizeof buffer, "%s", spec);
    } else if (spec[0] == '/') {
        n = std::snprintf(buffer, sizeof buffer, "%s.", spec);
    } else if (std::strchr(spec, '/')) {
        n = std::snprintf(buffer, sizeof buffer, "%s/%s.", install_path, spec);
    } else {
        n = std::snprintf(buffer, sizeof buffer, "%s/%s/%s.%s.", install_path, "var/log", identity, spec);
    }
    if (n <= 0 || static_cast<size_t>(n) >= sizeof buffer) return false;
    if (buffer[0] != '/' && buffer[0] != ':') return false;
    base.assign(buffer, static_cast<size_t>(n));
    return true;
}

int apply_plan(const update_plan& plan, std::string& error) {
    if (!initialized()) {
        error = "The log core is not initialised.";
        return -1;
    }
    write_guard guard;
    int new_channels = 0;
    for (const planned_channel& pc : plan.channels)
        if (find_channel(pc.name.c_str()) < 0) ++new_channels;
    if (g_state.num_channels + new_channels > kMaxChannels) {
        error = "Too many channels in log config: " + std::to_string(g_state.num_channels + new_channels) + " / " +
                std::to_string(kMaxChannels);
        return -1;
    }
    // Phase one: pin a file object for every output, creating directories and lock
    // files, before any channel changes.
    std::vector<file_handle> pinned;
    std::vector<file_handle> created;  // new objects, which take the plan's global limits
    for (const planned_channel& pc : plan.channels) {
        for (const planned_output& po : pc.outputs) {
            std::string base;
            file_handle file;
            if (resolve_output(po.spec.c_str(), g_state.identity, g_state.install_path, base))
                file = find_file(base);
            if (!file && !base.empty() && (file = create_file(base))) created.push_back(file);
            if (!file) {
                error = "Cannot open output '" + po.spec + "' of channel '" + pc.name + "'.";
                return -1;
            }
            pinned.push_back(std::move(file));
        }
    }
    // Phase two: nothing below can fail for want of a file object.
    if (plan.size) {
        g_state.max_size = plan.size;
        g_state.size_source = plan.source;
    }
    if (plan.num) {
        g_state.max_num = plan.num;
        g_state.num_source = plan.source;
    }
    for (const file_handle& file : created) {
        file->max_size = g_state.max_size;
        file->num_files = g_state.max_num;
    }
    for (const planned_channel& pc : plan.channels) {
        int ch = find_channel(pc.name.c_str());
        if (ch < 0) ch = append_channel(pc.name.c_str());
        channel& c = g_state.channels[ch];
        c.in_use = true;
        release_outputs(c);
        for (const planned_output& po : pc.outputs) add_output(ch, po.spec.c_str(), po.level, po.size, po.num);
        update_max_level(c);
    }
    return 0;
}

const char* identity() { return g_state.identity; }
const char* install_path() { return g_state.install_path; }

void global_settings(uint64_t& size, std::string& size_source, uint64_t& num, std::string& num_source) {
    read_guard guard;
    size = g_state.max_size;
    size_source = g_state.size_source;
    num = g_state.max_num;
    num_source = g_state.num_source;
}

}  // namespace kslog_detail

using namespace kslog_detail;

extern "C" json_t* kslog_get_config(void) {
    json_t* config = json_object();
    json_t* channels = json_object();
    json_t* global = json_object();
    if (!config || !channels || !global) {
        json_decref(config);
        json_decref(channels);
        json_decref(global);
        return nullptr;
    }
    json_object_set_new(config, "action", json_string("update"));
    json_object_set_new(config, "global", global);
    json_object_set_new(config, "channels", channels);
    if (!initialized()) {
        json_object_set_new(global, "size", json_integer(static_cast<json_int_t>(kMaxLogSize)));
        json_object_set_new(global, "num", json_integer(static_cast<json_int_t>(kMaxNumLogs)));
        return config;
    }
    read_guard guard;
    json_object_set_new(global, "size", json_integer(static_cast<json_int_t>(g_state.max_size)));
    json_object_set_new(global, "num", json_integer(static_cast<json_int_t>(g_state.max_num)));
    for (int ch = 0; ch < g_state.num_channels; ++ch) {
        const channel& c = g_state.channels[ch];
        if (!c.in_use) continue;
        json_t* outputs = json_array();
        for (int i = 0; i < c.num_outputs; ++i) {
            const output& out = c.outputs[i];
            json_t* entry = json_object();
            json_object_set_new(entry, "file", json_string(out.spec.c_str()));
            json_object_set_new(entry, "level", json_string(kslog_lvl_to_userstr(out.level)));
            json_object_set_new(entry, "size", json_integer(static_cast<json_int_t>(out.file->max_size)));
            json_object_set_new(entry, "num", json_integer(static_cast<json_int_t>(out.file->num_files)));
            json_array_append_new(outputs, entry);
        }
        json_object_set_new(channels, c.name, outputs);
    }
    return config;
}
