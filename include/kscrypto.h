/** @file
 * @brief Encryption, signature and random wrappers (C interface).
 *
 * The choices are made once for the whole system:
 * AES-256-CBC padded with P bytes of value P (1 to 16), RSA PKCS#1 v1.5 with 2048-bit keys
 * read from PEM or DER files, random bytes from a freshly seeded CTR-DRBG.
 *
 * Every function returns 0 or a code: positive codes are the KSCRYPTO_E* values below,
 * negative codes are those of the underlying crypto library. kscrypto_strerror gives the
 * text of either. Each call creates and frees its own contexts, so all are re-entrant. */
#ifndef KSCRYPTO_H
#define KSCRYPTO_H

#include <ksexport.h>
#include <stddef.h>

KS_EXTERN_C_BEGIN

#define KSCRYPTO_OK 0          /**< Success. */
#define KSCRYPTO_EPARAM 1      /**< Invalid parameter: "Invalid param". */
#define KSCRYPTO_EBUFSIZE 2    /**< Output buffer too small: "Buffer size is too small". */
#define KSCRYPTO_EINSIZE 3     /**< Input of the wrong size: "Input size mismatch". */
#define KSCRYPTO_EKEYTYPE 4    /**< The key file holds no RSA key: "Wrong key type". */
#define KSCRYPTO_EREAD 101     /**< Read failure, text of errno. */
#define KSCRYPTO_EWRITE 102    /**< Write failure, text of errno. */
#define KSCRYPTO_ENOMEM 103    /**< Allocation failure, text of errno. */

#define AES_KEY_SIZE 32        /**< Size of an AES-256 key in bytes. */
#define AES_IV_SIZE 16         /**< Size of an AES initialisation vector in bytes. */
#define AES_BLOCK_SIZE 16      /**< Size of an AES block in bytes; ciphertexts are multiples of it. */
/** Size of an RSA ciphertext or signature: keys are 2048 bits. */
#define RSA_BLOCK_SIZE 256

struct mbedtls_aes_context;
/** A keyed AES context of the crypto library (mbedtls_aes_context), as used by the
 * `*_with_context` and `*_no_alloc` forms. Callers that do not link the crypto library
 * themselves get one from aes_context_new: keyed with the 32-byte `key` for encryption
 * (`for_decryption` 0) or decryption; null on failure. Free it with aes_context_free. */
KS_EXPORT struct mbedtls_aes_context* aes_context_new(const unsigned char* key, int for_decryption);
/** Frees a context made by aes_context_new (null is ignored). */
KS_EXPORT void aes_context_free(struct mbedtls_aes_context* ctx);

/** Writes the text of `code` into `buffer`, at most size - 1 characters, always
 * NUL-terminated at the last byte; codes above 100 take the text of the current errno.
 * Returns `buffer`. */
KS_EXPORT char* kscrypto_strerror(int code, char* buffer, size_t size);

/** @name AES-256-CBC
 * `iv` (16 bytes) is advanced as CBC does, so consecutive calls chain. `in` may
 * be null only when `in_len` is 0.
 * Encryption output is always longer than the input and a multiple of 16 bytes. The
 * allocating forms return a malloc'ed buffer that the caller frees; on failure `*out` is
 * null and `*out_len` 0. */
/** @{ */
/** Encrypts `in` with the 32-byte `key` into a new buffer `*out` of `*out_len` bytes. */
KS_EXPORT int aes_encrypt(const unsigned char* in, size_t in_len, const unsigned char* key, unsigned char* iv,
                          unsigned char** out, size_t* out_len);
/** As aes_encrypt, with a context keyed for encryption instead of the key. */
KS_EXPORT int aes_encrypt_with_context(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                                       unsigned char* iv, unsigned char** out, size_t* out_len);
/** As aes_encrypt_with_context, into the caller's `out` of `out_capacity` bytes.
 * Fails with KSCRYPTO_EBUFSIZE when `out_capacity` is below the padded length. */
KS_EXPORT int aes_encrypt_no_alloc(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                                   unsigned char* iv, unsigned char* out, size_t out_capacity, size_t* out_len);

/** The inverse of aes_encrypt: `in_len` must be a non-zero multiple of 16 (else KSCRYPTO_EINSIZE); padding
 * that is not P bytes of value P is refused with the crypto library's invalid-padding code. */
KS_EXPORT int aes_decrypt(const unsigned char* in, size_t in_len, const unsigned char* key, unsigned char* iv,
                          unsigned char** out, size_t* out_len);
/** As aes_decrypt, with a context keyed for decryption instead of the key. */
KS_EXPORT int aes_decrypt_with_context(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                                       unsigned char* iv, unsigned char** out, size_t* out_len);
/** As aes_decrypt_with_context, into the caller's `out` of `out_capacity` bytes.
 * Fails with KSCRYPTO_EBUFSIZE when the plain text does not fit in `out_capacity`. */
KS_EXPORT int aes_decrypt_no_alloc(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                                   unsigned char* iv, unsigned char* out, size_t out_capacity, size_t* out_len);

/** Encrypts `in_fd` into `out_fd`.
 * Streams `in_fd` to `out_fd` until the end of the input, completing short reads and
 * writes and retrying EINTR. Read errors give KSCRYPTO_EREAD, write errors
 * KSCRYPTO_EWRITE (errno tells why); a decryption input that is not a non-zero multiple
 * of 16 bytes gives KSCRYPTO_EINSIZE. Whatever was written before a failure stays. */
KS_EXPORT int aes_encrypt_file(int out_fd, int in_fd, const unsigned char* key, const unsigned char* iv);
/** Decrypts `in_fd` into `out_fd`, streaming as aes_encrypt_file does. */
KS_EXPORT int aes_decrypt_file(int out_fd, int in_fd, const unsigned char* key, const unsigned char* iv);
/** @} */

/** @name RSA PKCS#1 v1.5
 * A key file that holds no RSA key gives KSCRYPTO_EKEYTYPE; parse errors
 * of the key file are returned as they are. Key sizes above 2048 bits do not fit the
 * 256-byte buffers: KSCRYPTO_EBUFSIZE (output) or KSCRYPTO_EINSIZE (input). */
/** @{ */

/** Encrypts `in_len` bytes (at most 245) into `out`, which holds RSA_BLOCK_SIZE bytes. */
KS_EXPORT int rsa_encrypt(const unsigned char* in, size_t in_len, unsigned char* out, const char* public_key_file);
/** Decrypts the RSA_BLOCK_SIZE bytes of `in` into `out` (room for RSA_BLOCK_SIZE bytes). */
KS_EXPORT int rsa_decrypt(const unsigned char* in, unsigned char* out, size_t* out_len,
                          const char* private_key_file);
/** Signs a caller-computed hash into `signature` (RSA_BLOCK_SIZE bytes). A 32-byte hash is
 * signed as SHA-256 and a 16-byte hash as MD5 (with the standard DigestInfo, as
 * "openssl dgst -sign" does); any other length is signed as raw bytes (as
 * "openssl pkeyutl -sign" without a digest does). */
KS_EXPORT int rsa_sign(const unsigned char* hash, size_t hash_len, unsigned char* signature,
                       size_t* signature_len, const char* private_key_file);
/** 0 when `signature` (RSA_BLOCK_SIZE bytes) is valid for the hash, read as rsa_sign does. */
KS_EXPORT int rsa_verify(const unsigned char* hash, size_t hash_len, const unsigned char* signature,
                         const char* public_key_file);
/** @} */

/** Fills `len` bytes from a CTR-DRBG seeded from the default entropy source. */
KS_EXPORT int crypto_gen_random_bytes(unsigned char* out, size_t len);

KS_EXTERN_C_END

#endif
