/*
 * Two MD5 sums over the same bytes in one pass.
 *
 * MD5 is one long chain of dependent steps that leaves most of a processor idle. An upload in parts needs the
 * sum of the part and the sum of the file over every byte; computed side by side, the second costs little.
 */
#pragma once

#include <cstddef>

/* The context's words are needed, which the newer interface hides. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

/**
 * What MD5_Update does, for two contexts at once.
 *
 * Side by side only while both contexts are as far into a block of 64 bytes; otherwise one after the other,
 * with the same result. Not thread safe for one context.
 * @param bytes any alignment; null when length is 0
 * @return 1, or 0 when MD5_Update failed; then neither sum is good for anything
 */
int zorvan_i_s3_md5_update_both(MD5_CTX* first, MD5_CTX* second, const void* bytes, size_t length) noexcept;
