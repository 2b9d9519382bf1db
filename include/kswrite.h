/** @file
 * @brief Robust writers: a record is either wholly in the file or not at all (C interface). */
#ifndef KSWRITE_H
#define KSWRITE_H

#include <ksexport.h>
#include <stddef.h>
#include <sys/types.h>
#include <sys/uio.h>

KS_EXTERN_C_BEGIN

/** Writes `length` bytes, completing short writes and retrying EINTR. On ENOSPC the file is
 * truncated back to where the write started and -1 returned. With `all_or_nothing` set, any
 * incomplete write is truncated back too and gives -1; otherwise the count written. */
KS_EXPORT ssize_t write_all(int fd, const void* data, size_t length, int all_or_nothing);

/** One writev of the whole vector, up to 3 attempts from the same start position; the total
 * on success, -1 (file truncated back to the start position) on failure. */
KS_EXPORT ssize_t writev_all(int fd, const struct iovec* iov, int count);

KS_EXTERN_C_END

#endif
