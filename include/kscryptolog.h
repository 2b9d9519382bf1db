/** @file
 * @brief Encrypted log files: writing and reading (C interface).
 *
 * The file format: a 32-byte header ("KSCL", version 1, pid of the last key writer)
 * followed by typed blocks: 1 = the AES key wrapped with the RSA public key, 2 = one record
 * encrypted with AES-256-CBC under the latest key. */
#ifndef KSCRYPTOLOG_H
#define KSCRYPTOLOG_H

#include <ksexport.h>
#include <stddef.h>

KS_EXTERN_C_BEGIN

#define CRYPTO_LOG_HEADER_SIZE 32  /**< Size of the file header in bytes. */

/** Appends encrypted records to log files under one AES key of its own (opaque). */
typedef struct crypto_log_writer crypto_log_writer;
/** Decrypts log files with a private key (opaque). */
typedef struct crypto_log_reader crypto_log_reader;

/** A writer with a fresh random key wrapped for `public_key_path`; null on any failure.
 * crypto_log_writer_free releases it. */
KS_EXPORT crypto_log_writer* crypto_log_writer_new(const char* public_key_path);
/** Replaces the writer's AES key with a fresh random one; the next record brings the new
 * key block. 0 or -1. */
KS_EXPORT int crypto_log_writer_regen_sym_key(crypto_log_writer* writer);
/** Encrypts and appends one record of `length` bytes to `fd` (open, positioned at its end,
 * header already written), preceded by the writer's key block when the file's last key is not
 * its own; 0 or -1. */
KS_EXPORT int crypto_log_writer_encrypt(crypto_log_writer* writer, int fd, const char* record, size_t length);
/** Appends the writer's key block and then one record block holding `ciphertext`; 0 or -1. */
KS_EXPORT int crypto_log_writer_write_with_key(crypto_log_writer* writer, int fd, const unsigned char* ciphertext,
                                               size_t length);
/** Appends one record block holding `ciphertext`, under the key block already in the file;
 * 0 or -1. */
KS_EXPORT int crypto_log_writer_write_without_key(crypto_log_writer* writer, int fd,
                                                  const unsigned char* ciphertext, size_t length);
/** Frees the writer (null is ignored). */
KS_EXPORT void crypto_log_writer_free(crypto_log_writer* writer);

/** Writes the header at offset 0 with the caller's pid and returns to the previous position. */
KS_EXPORT int crypto_log_layout_write_header(int fd);
/** Reads the 32-byte header at offset 0 into `header`, restoring the position; 0 or -1. */
KS_EXPORT int crypto_log_layout_read_header(int fd, unsigned char header[CRYPTO_LOG_HEADER_SIZE]);
/** 0 when the magic and the version match, -1 otherwise. */
KS_EXPORT int crypto_log_layout_is_valid_header(const unsigned char header[CRYPTO_LOG_HEADER_SIZE]);

/** A reader for `private_key_path`, or null; crypto_log_reader_free releases it. */
KS_EXPORT crypto_log_reader* crypto_log_reader_new(const char* private_key_path);
/** Frees the reader (null is ignored). */
KS_EXPORT void crypto_log_reader_free(crypto_log_reader* reader);
/** Writes the plain records of `in_fd` to `out_fd`; 0 at the end of the file, -1 on error.
 * A damaged stretch (a torn or corrupt block, records under a key that does not open) is
 * skipped up to the next key block that opens and reading goes on; the result is then -1,
 * after everything readable was written, and the error message has one line per stretch. */
KS_EXPORT int crypto_log_reader_decrypt(crypto_log_reader* reader, int out_fd, int in_fd);

KS_EXTERN_C_END

#endif
