// The channel table: at most 64 named channels, each with up to eight outputs that hold
// handles on shared file objects, and the process-wide state beside it. The table lock is
// never destroyed, so a thread that races with the last kslog_uninit finds empty tables
// rather than a dead lock.
//
// Whether a record passes a channel's level is read from a per-channel snapshot of the
// maximum level, without the table lock (see publish_levels): the test runs before every
// log statement formats anything, so it must cost a load, not a lock, yet it decides
// exactly as the read-locked check would.
#include "kslog_tables.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kslog_detail {

core_state g_state;
pthread_rwlock_t g_table_lock = PTHREAD_RWLOCK_INITIALIZER;

namespace {

// Each channel's maximum level plus one, 0 when it writes nothing (closed, not in use,
// beyond the table, core not initialised). Stored only by a writer of the table, just
// before it lets go of the lock.
std::atomic<int> g_levels[kMaxChannels];

}  // namespace

// Why the snapshot decides as the read-locked check would: the read-locked check sees the
// table as the last writer left it at its unlock. Every writer stores the snapshot of every
// channel before that unlock, so a check that begins after a writer's unlock sees that
// writer's values, and a check that overlaps a writer sees the values from before or after
// it, which are the two answers the locked check could give depending on who took the
// lock first. A writer's half-done changes are never stored. A record that passes the
// snapshot is checked once more under the read lock before it is written.
void publish_levels() {
    for (int ch = 0; ch < kMaxChannels; ++ch) {
        const channel& c = g_state.channels[ch];
        const int value = ch < g_state.num_channels && c.enabled ? c.max_level + 1 : 0;
        g_levels[ch].store(value, std::memory_order_release);
    }
}

bool can_log_locked(int ch, int level) {
    if (!valid_channel(ch)) return false;
    const channel& c = g_state.channels[ch];
    return c.enabled && level <= c.max_level;
}

void update_max_level(channel& c) {
    int level = KSLOG_LEVEL_ERROR;
    for (int i = 0; i < c.num_outputs; ++i) level = std::max(level, c.outputs[i].level);
    c.max_level = level;
}

void release_outputs(channel& c) {
    for (int i = 0; i < c.num_outputs; ++i) c.outputs[i] = output{};
    c.num_outputs = 0;
}

int find_channel(const char* name) {
    for (int i = 0; i < g_state.num_channels; ++i)
        if (std::strcmp(g_state.channels[i].name, name) == 0) return i;
    return -1;
}

// Appends an empty channel, in use and enabled; -1 when the table is full.
int append_channel(const char* name) {
    if (g_state.num_channels >= kMaxChannels) return -1;
    const int ch = g_state.num_channels++;
    channel& c = g_state.channels[ch];
    c = channel{};
    std::snprintf(c.name, sizeof c.name, "%s", name);
    c.in_use = true;
    c.enabled = true;
    return ch;
}

void copy_outputs(channel& dst, const channel& src) {
    release_outputs(dst);
    for (int i = 0; i < src.num_outputs; ++i) dst.outputs[i] = src.outputs[i];
    dst.num_outputs = src.num_outputs;
    dst.max_level = src.max_level;
}

void clear_tables() {
    for (int i = 0; i < g_state.num_channels; ++i) {
        release_outputs(g_state.channels[i]);
        g_state.channels[i] = channel{};
    }
    g_state.num_channels = 0;
    g_state.files.clear();
}

}  // namespace kslog_detail

using namespace kslog_detail;

extern "C" int kslog_can_log(int ch, int level) {
    if (ch < 0 || ch >= kMaxChannels) return 0;
    const int limit = g_levels[ch].load(std::memory_order_acquire);
    return limit > 0 && level < limit ? 1 : 0;
}
