// Private entry of the encrypted log writer for the log core, which keeps each log file
// open between records and already knows where the record goes and, most of the time,
// whose process id the file's header carries: asking the kernel again would cost system
// calls on every record.
#pragma once

#include <kscryptolog.h>

#include <sys/types.h>

// crypto_log_writer_encrypt() for a descriptor positioned at `position`, the end of the file.
// `header_ours` (may be null) caches the header's process id between records: true on entry
// means the caller knows the header names this process, so it is not read again; on return
// it says whether the header names this process now. The bytes appended, or -1 (nothing
// appended). Not exported.
extern "C" ssize_t crypto_log_writer_encrypt_at(crypto_log_writer* writer, int fd, const char* record,
                                                size_t length, off_t position, bool* header_ours);
