// Signature V4: rebuild the canonical request from what came over the wire,
// sign it with the caller's secret, compare.
#include "auth_sigv4.h"

#include <algorithm>
#include <array>

#include "digest.h"
#include "errors.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

constexpr std::string_view algorithm = "AWS4-HMAC-SHA256";
constexpr std::string_view empty_sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr std::int64_t allowed_skew_seconds = 15 * 60;
constexpr std::uint64_t longest_presigned_seconds = 7 * 24 * 3600;

// The signed statement, wherever it was found.
struct claim {
    std::string key_id;
    std::string date;
    std::string region;
    std::string scope;
    std::vector<std::string> signed_headers;
    std::string signature;
    std::string timestamp;
    bool presigned = false;
};

void set_credential(claim& out, std::string_view credential) {
    // The key id may hold slashes itself: the scope is the last four pieces.
    const auto pieces = split(credential, '/');
    if (pieces.size() < 5 || pieces.back() != "aws4_request") throw s3_failure("InvalidArgument");
    const auto n = pieces.size();
    out.date = pieces[n - 4];
    out.region = pieces[n - 3];
    if (pieces[n - 2] != "s3") throw s3_failure("InvalidArgument");
    out.scope = out.date + "/" + out.region + "/s3/aws4_request";
    out.key_id = credential.substr(0, credential.size() - out.scope.size() - 1);
}

void set_signed_headers(claim& out, std::string_view list) {
    for (const auto name : split(list, ';'))
        out.signed_headers.push_back(to_lower(name));
}

claim claim_from_header(const http_request& request) {
    claim out;
    std::string_view value = request.header("authorization");
    value.remove_prefix(algorithm.size());
    for (auto piece : split(value, ',')) {
        piece = trim(piece);
        const auto equals = piece.find('=');
        if (equals == std::string_view::npos) throw s3_failure("InvalidArgument");
        const auto name = piece.substr(0, equals);
        const auto content = piece.substr(equals + 1);
        if (name == "Credential") set_credential(out, content);
        if (name == "SignedHeaders") set_signed_headers(out, content);
        if (name == "Signature") out.signature = content;
    }
    if (out.key_id.empty() || out.signed_headers.empty() || out.signature.empty())
        throw s3_failure("InvalidArgument");
    out.timestamp = request.header("x-amz-date");
    if (out.timestamp.empty()) {
        const auto seconds = parse_http_date(request.header("date"));
        if (!seconds) throw s3_failure("AccessDenied");
        for (const char c : iso_date(*seconds * 1000))
            if (c != '-' && c != ':') out.timestamp.push_back(c);
        out.timestamp = out.timestamp.substr(0, 15) + "Z";
    }
    return out;
}

claim claim_from_query(const http_request& request) {
    claim out;
    out.presigned = true;
    set_credential(out, request.parameter_or_empty("X-Amz-Credential"));
    set_signed_headers(out, request.parameter_or_empty("X-Amz-SignedHeaders"));
    out.signature = request.parameter_or_empty("X-Amz-Signature");
    out.timestamp = request.parameter_or_empty("X-Amz-Date");
    if (out.signature.empty()) throw s3_failure("InvalidArgument");
    return out;
}

void check_time(const claim& signed_claim, const http_request& request, std::int64_t now) {
    const auto at = parse_amz_date(signed_claim.timestamp);
    if (!at || !signed_claim.timestamp.starts_with(signed_claim.date)) throw s3_failure("AccessDenied");
    if (signed_claim.presigned) {
        const auto life = parse_number(request.parameter_or_empty("X-Amz-Expires"));
        if (!life || *life > longest_presigned_seconds) throw s3_failure("InvalidArgument");
        if (now > *at + static_cast<std::int64_t>(*life) || *at > now + allowed_skew_seconds)
            throw s3_failure("AccessDenied");
    } else if (now - *at > allowed_skew_seconds || *at - now > allowed_skew_seconds) {
        throw s3_failure("RequestTimeTooSkewed");
    }
}

// Decoded and coded again, so that a client that leaves a legal character bare is still understood.
std::string recoded(std::string_view text, bool keep_slash) {
    return url_encode(url_decode(text), keep_slash);
}

std::string canonical_query(const http_request& request) {
    std::vector<name_value> pairs;
    if (!request.raw_query.empty()) {
        for (const auto piece : split(request.raw_query, '&')) {
            if (piece.empty()) continue;
            const auto equals = piece.find('=');
            const auto name = recoded(piece.substr(0, equals), false);
            if (name == "X-Amz-Signature") continue;
            pairs.emplace_back(
                name, equals == std::string_view::npos ? "" : recoded(piece.substr(equals + 1), false));
        }
    }
    std::sort(pairs.begin(), pairs.end());
    std::string out;
    for (const auto& [name, value] : pairs) {
        if (!out.empty()) out += '&';
        out += name;
        out += '=';
        out += value;
    }
    return out;
}

std::string canonical_value(std::string_view text) {
    std::string out;
    for (const char c : trim(text)) {
        if (c == ' ' && !out.empty() && out.back() == ' ') continue;
        out.push_back(c);
    }
    return out;
}

std::string canonical_headers(const http_request& request, const claim& signed_claim) {
    std::string out;
    for (const auto& name : signed_claim.signed_headers) {
        std::string joined;
        bool first = true;
        for (const auto& [key, value] : request.headers) {
            if (key != name) continue;
            if (!first) joined += ',';
            joined += canonical_value(value);
            first = false;
        }
        out += name;
        out += ':';
        out += joined;
        out += '\n';
    }
    return out;
}

void check_coverage(const http_request& request, const claim& signed_claim) {
    const auto is_signed = [&](std::string_view name) {
        return std::find(signed_claim.signed_headers.begin(), signed_claim.signed_headers.end(), name) !=
               signed_claim.signed_headers.end();
    };
    if (!is_signed("host")) throw s3_failure("AccessDenied");
    for (const auto& [name, value] : request.headers)
        if (name.starts_with("x-amz-") && !is_signed(name) &&
            !(signed_claim.presigned && name == "x-amz-content-sha256"))
            throw s3_failure("AccessDenied");
}

std::string payload_word(const http_request& request, const claim& signed_claim, authentication& out) {
    const auto sent = request.header("x-amz-content-sha256");
    if (sent.empty() || sent == "UNSIGNED-PAYLOAD" ||
        (signed_claim.presigned && sent == empty_sha256 && !request.content_length)) {
        return sent.empty() ? "UNSIGNED-PAYLOAD" : std::string(sent);
    }
    if (sent == "STREAMING-AWS4-HMAC-SHA256-PAYLOAD") {
        out.payload = payload_signing::chunked;
    } else if (sent.size() == 64 && from_hex(sent)) {
        out.payload = payload_signing::whole;
        out.payload_sha256 = to_lower(sent);
    } else {
        throw s3_failure("XAmzContentSHA256Mismatch");
    }
    return std::string(sent);
}

std::string signing_key(const std::string& secret, const claim& signed_claim) {
    const auto date_key = hmac_sha256("AWS4" + secret, signed_claim.date);
    const auto region_key = hmac_sha256(date_key, signed_claim.region);
    const auto service_key = hmac_sha256(region_key, "s3");
    return hmac_sha256(service_key, "aws4_request");
}

}  // namespace

authentication authenticate(const http_request& request, const user_registry& users, std::int64_t now) {
    authentication out;
    const auto header = request.header("authorization");
    const bool presigned = request.has_parameter("X-Amz-Algorithm");
    if (header.empty() && !presigned) {
        // Version 2 is not spoken here: refuse it clearly instead of treating the caller as nobody.
        if (request.has_parameter("AWSAccessKeyId")) throw s3_failure("InvalidRequest");
        return out;
    }
    if (!presigned && !header.starts_with(algorithm)) throw s3_failure("InvalidRequest");
    if (presigned && request.parameter_or_empty("X-Amz-Algorithm") != algorithm)
        throw s3_failure("InvalidArgument");

    const claim signed_claim = presigned ? claim_from_query(request) : claim_from_header(request);
    std::string secret;
    out.caller = users.find_by_key(signed_claim.key_id, secret);
    if (!out.caller) throw s3_failure("InvalidAccessKeyId");
    check_time(signed_claim, request, now);

    const std::string payload = payload_word(request, signed_claim, out);
    std::string names;
    for (const auto& name : signed_claim.signed_headers) {
        if (!names.empty()) names += ';';
        names += name;
    }
    const std::string canonical = request.method + "\n" + recoded(request.path, true) + "\n" +
                                  canonical_query(request) + "\n" + canonical_headers(request, signed_claim) +
                                  "\n" + names + "\n" + payload;
    const std::string to_sign = std::string(algorithm) + "\n" + signed_claim.timestamp + "\n" +
                                signed_claim.scope + "\n" + sha256_hex(canonical);
    out.signing_key = signing_key(secret, signed_claim);
    const std::string expected = hex(hmac_sha256(out.signing_key, to_sign));
    if (!equal_in_constant_time(expected, signed_claim.signature)) throw s3_failure("SignatureDoesNotMatch");
    check_coverage(request, signed_claim);
    if (out.caller->suspended) throw s3_failure("AccessDenied");

    out.seed_signature = signed_claim.signature;
    out.timestamp = signed_claim.timestamp;
    out.scope = signed_claim.scope;
    out.region = signed_claim.region;
    return out;
}

}  // namespace zorvan::devstore
