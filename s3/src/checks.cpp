// What is refused before anything is sent. A line end inside a value would let it write headers of its own,
// so control characters are refused everywhere.
#include "checks.h"

#include <algorithm>
#include <string>

#include "text.h"

namespace s3 {
namespace {

bool is_alnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool has_control_character(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && byte != '\t') || byte == 0x7f;
    });
}

// RFC 9110, 5.6.2: what a header's name may consist of.
bool is_token(std::string_view text) {
    constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
        return is_alnum(c) || kOthers.find(c) != std::string_view::npos;
    });
}

bool looks_like_dotted_quad(std::string_view text) {
    int groups = 0;
    while (true) {
        const size_t dot = text.find('.');
        const std::string_view group = text.substr(0, dot);
        if (group.empty() || group.size() > 3 ||
            !std::all_of(group.begin(), group.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return false;
        ++groups;
        if (dot == std::string_view::npos) return groups == 4;
        text.remove_prefix(dot + 1);
    }
}

std::string quoted_filename(std::string_view name) {
    std::string out = "attachment; filename=\"";
    for (const char c : name) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

}  // namespace

void check_host(std::string_view host) {
    constexpr std::string_view kForbidden = "/?#@ \t\\";
    if (host.empty() || has_control_character(host) ||
        host.find_first_of(kForbidden) != std::string_view::npos)
        throw Refusal{S3StatusNameLookupError};
}

void check_bucket(std::string_view bucket, bool virtual_host) {
    const size_t longest = virtual_host ? 63 : S3_MAX_BUCKET_NAME_SIZE;
    if (bucket.size() < 3) throw Refusal{S3StatusInvalidBucketNameTooShort};
    if (bucket.size() > longest) throw Refusal{S3StatusInvalidBucketNameTooLong};
    if (!is_alnum(bucket.front())) throw Refusal{S3StatusInvalidBucketNameFirstCharacter};
    for (size_t i = 0; i < bucket.size(); ++i) {
        const char c = bucket[i];
        const bool fits = is_alnum(c) || c == '-' || c == '.' || (!virtual_host && (c == '_' || c == ':'));
        if (!fits) throw Refusal{S3StatusInvalidBucketNameCharacter};
    }
    const bool bad_sequence =
        bucket.find(".-") != std::string_view::npos || bucket.find("-.") != std::string_view::npos;
    if (virtual_host && bad_sequence) throw Refusal{S3StatusInvalidBucketNameCharacterSequence};
    if (looks_like_dotted_quad(bucket)) throw Refusal{S3StatusInvalidBucketNameDotQuadNotation};
}

void check_key_length(const char* key) {
    if (key != nullptr && std::string_view(key).size() > S3_MAX_KEY_SIZE) throw Refusal{S3StatusUriTooLong};
}

void check_key(const char* key) {
    if (key == nullptr || *key == '\0') throw Refusal{S3StatusErrorUserKeyMustBeSpecified};
    check_key_length(key);
}

void append_checked(NameValues& headers, std::string_view name, const char* value, S3Status bad) {
    if (value == nullptr || *value == '\0') return;
    const std::string_view text = trim(value);
    if (text.empty() || has_control_character(text)) throw Refusal{bad};
    headers.emplace_back(name, text);
}

void append_acl(NameValues& headers, S3CannedAcl acl) {
    switch (acl) {
        case S3CannedAclPrivate:
            break;
        case S3CannedAclPublicRead:
            headers.emplace_back("x-amz-acl", "public-read");
            break;
        case S3CannedAclPublicReadWrite:
            headers.emplace_back("x-amz-acl", "public-read-write");
            break;
        case S3CannedAclAuthenticatedRead:
            headers.emplace_back("x-amz-acl", "authenticated-read");
            break;
        case S3CannedAclBucketOwnerFullControl:
            headers.emplace_back("x-amz-acl", "bucket-owner-full-control");
            break;
    }
}

void append_put_headers(NameValues& headers, const S3PutProperties* properties) {
    if (properties == nullptr) return;
    append_checked(headers, "Content-Type", properties->contentType, S3StatusBadContentType);
    append_checked(headers, "Content-MD5", properties->md5, S3StatusBadMD5);
    append_checked(headers, "Cache-Control", properties->cacheControl, S3StatusBadCacheControl);
    NameValues disposition;
    append_checked(disposition, "Content-Disposition", properties->contentDispositionFilename,
                   S3StatusBadContentDispositionFilename);
    for (auto& [name, filename] : disposition)
        headers.emplace_back(name, quoted_filename(filename));
    append_checked(headers, "Content-Encoding", properties->contentEncoding, S3StatusBadContentEncoding);
    if (properties->expires >= 0) {
        const std::string date = format_http_date(properties->expires);
        if (!date.empty()) headers.emplace_back("Expires", date);
    }
    append_acl(headers, properties->cannedAcl);
    for (int i = 0; i < properties->metaDataCount; ++i) {
        const S3NameValue& pair = properties->metaData[i];
        std::string_view value = pair.value != nullptr ? pair.value : "";
        if (pair.name == nullptr || !is_token(pair.name)) throw Refusal{S3StatusBadMetaData};
        if (has_control_character(value)) throw Refusal{S3StatusBadMetaData};
        value = value.substr(0, value.find_last_not_of(" \t") + 1);
        headers.emplace_back(S3_METADATA_HEADER_NAME_PREFIX + to_lower(pair.name), value);
    }
    if (properties->useServerSideEncryption != 0)
        headers.emplace_back("x-amz-server-side-encryption", "AES256");
}

}  // namespace s3
