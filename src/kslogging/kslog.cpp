// Placeholder log core: reports "not initialised" everywhere until the real core lands.
#include <kslog.h>

extern "C" {
int kslog_init(const char*, const char*, const char*) { return -1; }
void kslog_uninit(void) {}
int kslog_initialized(void) { return 0; }
const char* kslog_identity(const char*) { return nullptr; }
int kslog_channel_open(const char*) { return -1; }
void kslog_channel_close(int) {}
int kslog_channel_copy(int, int) { return -1; }
int kslog_get_num_channels(void) { return 0; }
int kslog_channel_get_by_name(const char*) { return -1; }
int kslog_can_log(int, int) { return 0; }
int kschlog_get_max_level(int) { return 0; }
uint64_t kslog_get_max_log_size(void) { return 262144; }
uint64_t kslog_get_max_num_logs(void) { return 2; }
void kslog_log_full(int, int, char*, size_t) {}
const char* kslog_lvl_to_logstr(int) { return "error"; }
const char* kslog_lvl_to_userstr(int) { return "error"; }
int kslog_logstr_to_lvl(const char*) { return 0; }
int kslog_userstr_to_lvl(const char*) { return 0; }
int kslog_is_valid_config(const json_t*) { return -1; }
int kslog_is_valid_config_from_path(const char*) { return -1; }
int kslog_execute_config(const json_t*) { return -1; }
int kslog_execute_config_from_path(const char*) { return -1; }
json_t* kslog_get_config(void) { return nullptr; }
void kslog_print_settings(void) {}
}
