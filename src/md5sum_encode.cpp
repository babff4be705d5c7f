/*
 * The Content-MD5 form (RFC 1864) of an MD5 in hexadecimal.
 *
 * Pure computation; any thread.
 */
#include "s3_request.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {
constexpr const char* source_file = "md5sum_encode";
constexpr std::string_view base64_alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/** The value of a hexadecimal digit, or -1. */
constexpr int hex_value(char digit) noexcept {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

/** RFC 4648 with padding; `encoded` gets a terminator. */
void base64(const std::array<unsigned, MD5_DIGEST_LENGTH>& bytes, char* encoded) noexcept {
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t given = std::min<size_t>(3, bytes.size() - i);
        unsigned group = bytes[i] << 16U;
        if (given > 1) group |= bytes[i + 1] << 8U;
        if (given > 2) group |= bytes[i + 2];
        *encoded++ = base64_alphabet[group >> 18U & 63U];
        *encoded++ = base64_alphabet[group >> 12U & 63U];
        *encoded++ = given > 1 ? base64_alphabet[group >> 6U & 63U] : '=';
        *encoded++ = given > 2 ? base64_alphabet[group & 63U] : '=';
    }
    *encoded = '\0';
}
}  // namespace

zorvan_result_t zorvan_i_s3_md5sum_encode(const char* md5sum, char* encoded) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    std::array<unsigned, MD5_DIGEST_LENGTH> bytes{};
    for (size_t i = 0; i < bytes.size(); ++i) {
        const int high = hex_value(md5sum[2 * i]);
        const int low = high < 0 ? -1 : hex_value(md5sum[2 * i + 1]);
        if (low < 0) {
            char message[66];
            std::snprintf(message, sizeof message, "Invalid character in md5sum %32s", md5sum);
            return trace.exit_result(ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "%s", message));
        }
        bytes[i] = static_cast<unsigned>(high * 16 + low);
    }
    base64(bytes, encoded);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Encoded md5sum=%32s to %s\n", md5sum, encoded);
    return trace.exit_result(ZORVAN_SUCCESS);
}
