// Private entry of the encrypted log writer for the log core, which already knows where
// the record goes: it has just seeked to the end of the file, so asking the kernel again
// for the position would cost one system call per record.
#pragma once

#include <kscryptolog.h>

#include <sys/types.h>

// crypto_log_writer_encrypt() for a descriptor positioned at `position`. Not exported.
extern "C" int crypto_log_writer_encrypt_at(crypto_log_writer* writer, int fd, const char* record, size_t length,
                                            off_t position);
