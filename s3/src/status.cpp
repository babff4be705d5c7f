// Statuses: their names, what maps onto them, and which of them are worth another try. The table stands in
// the order of the enumeration; the record of the thread's last request is thread-local, so nothing here
// locks.
#include "status.h"

#include <array>
#include <cstddef>

namespace s3 {
namespace {

constexpr std::array<const char*, 135> kNames{"OK",
                                              "InternalError",
                                              "OutOfMemory",
                                              "Interrupted",
                                              "InvalidBucketNameTooLong",
                                              "InvalidBucketNameFirstCharacter",
                                              "InvalidBucketNameCharacter",
                                              "InvalidBucketNameCharacterSequence",
                                              "InvalidBucketNameTooShort",
                                              "InvalidBucketNameDotQuadNotation",
                                              "QueryParamsTooLong",
                                              "FailedToInitializeRequest",
                                              "MetaDataHeadersTooLong",
                                              "BadMetaData",
                                              "BadContentType",
                                              "ContentTypeTooLong",
                                              "BadMD5",
                                              "MD5TooLong",
                                              "BadCacheControl",
                                              "CacheControlTooLong",
                                              "BadContentDispositionFilename",
                                              "ContentDispositionFilenameTooLong",
                                              "BadContentEncoding",
                                              "ContentEncodingTooLong",
                                              "BadIfMatchETag",
                                              "IfMatchETagTooLong",
                                              "BadIfNotMatchETag",
                                              "IfNotMatchETagTooLong",
                                              "HeadersTooLong",
                                              "KeyTooLong",
                                              "UriTooLong",
                                              "XmlParseFailure",
                                              "EmailAddressTooLong",
                                              "UserIdTooLong",
                                              "UserDisplayNameTooLong",
                                              "GroupUriTooLong",
                                              "PermissionTooLong",
                                              "TargetBucketTooLong",
                                              "TargetPrefixTooLong",
                                              "TooManyGrants",
                                              "BadGrantee",
                                              "BadPermission",
                                              "XmlDocumentTooLarge",
                                              "NameLookupError",
                                              "FailedToConnect",
                                              "ServerFailedVerification",
                                              "ConnectionFailed",
                                              "AbortedByCallback",
                                              "NotSupported",
                                              "ErrorAccessDenied",
                                              "ErrorAccountProblem",
                                              "ErrorAmbiguousGrantByEmailAddress",
                                              "ErrorBadDigest",
                                              "ErrorBucketAlreadyExists",
                                              "ErrorBucketAlreadyOwnedByYou",
                                              "ErrorBucketNotEmpty",
                                              "ErrorCredentialsNotSupported",
                                              "ErrorCrossLocationLoggingProhibited",
                                              "ErrorEntityTooSmall",
                                              "ErrorEntityTooLarge",
                                              "ErrorExpiredToken",
                                              "ErrorIllegalVersioningConfigurationException",
                                              "ErrorIncompleteBody",
                                              "ErrorIncorrectNumberOfFilesInPostRequest",
                                              "ErrorInlineDataTooLarge",
                                              "ErrorInternalError",
                                              "ErrorInvalidAccessKeyId",
                                              "ErrorInvalidAddressingHeader",
                                              "ErrorInvalidArgument",
                                              "ErrorInvalidBucketName",
                                              "ErrorInvalidBucketState",
                                              "ErrorInvalidDigest",
                                              "ErrorInvalidEncryptionAlgorithmError",
                                              "ErrorInvalidLocationConstraint",
                                              "ErrorInvalidObjectState",
                                              "ErrorInvalidPart",
                                              "ErrorInvalidPartOrder",
                                              "ErrorInvalidPayer",
                                              "ErrorInvalidPolicyDocument",
                                              "ErrorInvalidRange",
                                              "ErrorInvalidRequest",
                                              "ErrorInvalidSecurity",
                                              "ErrorInvalidSOAPRequest",
                                              "ErrorInvalidStorageClass",
                                              "ErrorInvalidTargetBucketForLogging",
                                              "ErrorInvalidToken",
                                              "ErrorInvalidURI",
                                              "ErrorKeyTooLong",
                                              "ErrorMalformedACLError",
                                              "ErrorMalformedPOSTRequest",
                                              "ErrorMalformedXML",
                                              "ErrorMaxMessageLengthExceeded",
                                              "ErrorMaxPostPreDataLengthExceededError",
                                              "ErrorMetadataTooLarge",
                                              "ErrorMethodNotAllowed",
                                              "ErrorMissingAttachment",
                                              "ErrorMissingContentLength",
                                              "ErrorMissingRequestBodyError",
                                              "ErrorMissingSecurityElement",
                                              "ErrorMissingSecurityHeader",
                                              "ErrorNoLoggingStatusForKey",
                                              "ErrorNoSuchBucket",
                                              "ErrorNoSuchKey",
                                              "ErrorNoSuchLifecycleConfiguration",
                                              "ErrorNoSuchUpload",
                                              "ErrorNoSuchVersion",
                                              "ErrorNotImplemented",
                                              "ErrorNotSignedUp",
                                              "ErrorNoSuchBucketPolicy",
                                              "ErrorOperationAborted",
                                              "ErrorPermanentRedirect",
                                              "ErrorPreconditionFailed",
                                              "ErrorRedirect",
                                              "ErrorRestoreAlreadyInProgress",
                                              "ErrorRequestIsNotMultiPartContent",
                                              "ErrorRequestTimeout",
                                              "ErrorRequestTimeTooSkewed",
                                              "ErrorRequestTorrentOfBucketError",
                                              "ErrorSignatureDoesNotMatch",
                                              "ErrorServiceUnavailable",
                                              "ErrorSlowDown",
                                              "ErrorTemporaryRedirect",
                                              "ErrorTokenRefreshRequired",
                                              "ErrorTooManyBuckets",
                                              "ErrorUnexpectedContent",
                                              "ErrorUnresolvableGrantByEmailAddress",
                                              "ErrorUserKeyMustBeSpecified",
                                              "ErrorQuotaExceeded",
                                              "ErrorUnknown",
                                              "HttpErrorMovedTemporarily",
                                              "HttpErrorBadRequest",
                                              "HttpErrorForbidden",
                                              "HttpErrorNotFound",
                                              "HttpErrorConflict",
                                              "HttpErrorUnknown"};

// The numbers that other programs rely on.
static_assert(S3StatusInternalError == 1 && S3StatusOutOfMemory == 2);
static_assert(S3StatusErrorAccessDenied == 49 && S3StatusErrorBadDigest == 52);
static_assert(S3StatusErrorBucketAlreadyExists == 53 && S3StatusErrorInvalidAccessKeyId == 66);
static_assert(S3StatusErrorInvalidArgument == 68 && S3StatusErrorInvalidRange == 79);
static_assert(S3StatusErrorNoSuchBucket == 101 && S3StatusErrorNoSuchKey == 102);
static_assert(S3StatusErrorNoSuchUpload == 104 && S3StatusErrorNotSignedUp == 107);
static_assert(S3StatusErrorPermanentRedirect == 110 && S3StatusErrorSignatureDoesNotMatch == 118);
static_assert(S3StatusErrorServiceUnavailable == 119 && S3StatusErrorSlowDown == 120);
static_assert(S3StatusHttpErrorForbidden == 131 && S3StatusHttpErrorNotFound == 132);
static_assert(S3StatusHttpErrorUnknown + 1 == kNames.size());

// Records whose layout other code relies on.
static_assert(sizeof(S3ResponseProperties) == 112 && offsetof(S3ResponseProperties, bucketRegion) == 80);
static_assert(sizeof(S3PutProperties) == 80 && offsetof(S3PutProperties, putOption) == 72);
static_assert(sizeof(S3BucketContext) == 64 && offsetof(S3BucketContext, contextOption) == 56);
static_assert(sizeof(S3ErrorDetails) == 40 && sizeof(S3GetConditions) == 32);
static_assert(sizeof(RGUserKey) == 352 && offsetof(RGUserInfo, keyCount) == 1852);
static_assert(offsetof(RGUserInfo, keys) == 1856);

struct RequestNote {
    S3Status status = S3StatusOK;
    bool took_body_bytes = false;
};

RequestNote& this_threads_note() {
    thread_local RequestNote note;
    return note;
}

}  // namespace

std::optional<S3Status> status_from_error_code(std::string_view code) {
    constexpr std::string_view kPrefix = "Error";
    for (size_t i = S3StatusErrorAccessDenied; i < S3StatusErrorUnknown; ++i) {
        if (std::string_view(kNames[i]).substr(kPrefix.size()) == code) return static_cast<S3Status>(i);
    }
    return std::nullopt;
}

S3Status status_from_http(long http_status) {
    if (http_status >= 200 && http_status <= 299) return S3StatusOK;
    switch (http_status) {
        case 0:
            return S3StatusConnectionFailed;
        case 301:
            return S3StatusErrorPermanentRedirect;
        case 307:
            return S3StatusHttpErrorMovedTemporarily;
        case 400:
            return S3StatusHttpErrorBadRequest;
        case 403:
            return S3StatusHttpErrorForbidden;
        case 404:
            return S3StatusHttpErrorNotFound;
        case 405:
            return S3StatusErrorMethodNotAllowed;
        case 409:
            return S3StatusHttpErrorConflict;
        case 411:
            return S3StatusErrorMissingContentLength;
        case 412:
            return S3StatusErrorPreconditionFailed;
        case 416:
            return S3StatusErrorInvalidRange;
        case 500:
            return S3StatusErrorInternalError;
        case 501:
            return S3StatusErrorNotImplemented;
        // A gateway in front of the store failed: as good a reason to come again as the store's own words.
        case 502:
        case 504:
            return S3StatusErrorServiceUnavailable;
        case 503:
            return S3StatusErrorSlowDown;
        default:
            return S3StatusHttpErrorUnknown;
    }
}

bool is_retryable_kind(S3Status status) {
    switch (status) {
        case S3StatusNameLookupError:
        case S3StatusFailedToConnect:
        case S3StatusConnectionFailed:
        case S3StatusErrorInternalError:
        case S3StatusErrorOperationAborted:
        case S3StatusErrorRequestTimeout:
        case S3StatusErrorServiceUnavailable:
        case S3StatusErrorSlowDown:
            return true;
        default:
            return false;
    }
}

void note_request_end(S3Status status, bool took_body_bytes) {
    this_threads_note() = {status, took_body_bytes};
}

void note_request_begin() {
    this_threads_note() = {};
}

}  // namespace s3

extern "C" const char* S3_get_status_name(S3Status status) {
    const auto index = static_cast<size_t>(status);
    return index < s3::kNames.size() ? s3::kNames[index] : "Unknown";
}

extern "C" int S3_status_is_retryable(S3Status status) {
    const s3::RequestNote& note = s3::this_threads_note();
    if (note.took_body_bytes && note.status == status) return 0;
    return s3::is_retryable_kind(status) ? 1 : 0;
}
