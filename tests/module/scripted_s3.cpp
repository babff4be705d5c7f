// The functions of libs3.h, run by the scripted store.
//
// Each function records its arguments, asks the store for the outcome and runs the callbacks in the library's
// order on the calling thread.
#include "scripted_s3.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "call_trace.h"
#include "faults.h"
#include "scripted_s3_store.h"

namespace module_test {
namespace {

thread_local bool took_data = false;
thread_local Text thread_host;

Text text(const char* value) {
    return value == nullptr ? std::nullopt : Text(value);
}

Context copy(const S3BucketContext* context) {
    if (context == nullptr) {
        ADD_FAILURE() << "null bucket context";
        return {};
    }
    return {text(context->hostName),
            text(context->bucketName),
            context->protocol,
            context->uriStyle,
            text(context->accessKeyId),
            text(context->secretAccessKey),
            text(context->securityToken),
            text(context->authRegion),
            context->contextOption};
}

std::optional<PutRecord> copy(const S3PutProperties* put) {
    if (put == nullptr) return std::nullopt;
    PutRecord record{text(put->contentType),
                     text(put->md5),
                     text(put->cacheControl),
                     text(put->contentDispositionFilename),
                     text(put->contentEncoding),
                     put->expires,
                     put->cannedAcl,
                     {},
                     put->useServerSideEncryption,
                     put->putOption};
    for (int i = 0; i < put->metaDataCount; ++i)
        record.metadata.emplace_back(put->metaData[i].name, put->metaData[i].value);
    return record;
}

S3Call call_of(S3Kind kind, S3RequestContext* request_context, int timeout) {
    S3Call call;
    call.kind = kind;
    call.request_context = request_context != nullptr;
    call.timeout = timeout;
    call.thread_host = thread_host;
    // Every request is made at once and without a limit of its own.
    EXPECT_EQ(request_context, nullptr) << static_cast<int>(kind);
    EXPECT_EQ(timeout, 0) << static_cast<int>(kind);
    call.thread = std::this_thread::get_id();
    took_data = false;
    return call;
}

// One request between its recording and its completion.
class Request {
  public:
    Request(S3Call& call, const char* name, const S3ResponseHandler& handler, void* data)
        : call_(call), handler_(handler), data_(data) {
        trace_add(name);
        index_ = begin(call);
        reply_ = decide(call);
        if (reply_.null_data) data_ = nullptr;
        if (reply_.before) reply_.before();
        status_ = reply_.status;
    }

    Reply& reply() { return reply_; }
    void* data() const { return data_; }
    bool good() const { return status_ == S3StatusOK; }
    void keep(S3Status status) {
        if (good()) status_ = status;
    }

    void properties() {
        if (!reply_.properties && !reply_.null_properties) return;
        if (call_.properties_called || handler_.propertiesCallback == nullptr) return;
        call_.properties_called = true;
        if (reply_.properties && reply_.properties->etag == etag_of_body)
            reply_.properties->etag = "\"" + md5_of(call_.body) + "\"";
        if (reply_.properties) call_.etag = reply_.properties->etag;
        if (reply_.null_properties) {
            const InModule inside;
            keep(handler_.propertiesCallback(nullptr, data_));
            return;
        }
        const auto& from = *reply_.properties;
        const auto pointer = [](const Text& value) { return value ? value->c_str() : nullptr; };
        std::vector<S3NameValue> metadata;
        for (const auto& [name, value] : from.metadata)
            metadata.push_back({name.c_str(), value.c_str()});
        S3ResponseProperties record{};
        record.contentType = pointer(from.content_type);
        record.contentLength = from.length;
        record.eTag = pointer(from.etag);
        record.lastModified = from.last_modified;
        record.metaDataCount = static_cast<int>(metadata.size());
        record.metaData = metadata.data();
        record.usesServerSideEncryption = from.encryption;
        record.bucketRegion = pointer(from.region);
        record.storageClass = pointer(from.storage_class);
        record.restoreStatus = from.restore_status;
        record.restoreExpiry = from.restore_expiry;
        const InModule inside;
        keep(handler_.propertiesCallback(&record, data_));
    }

    void take_body(S3PutObjectDataCallback* callback, uint64_t length) {
        const bool failing = !good();
        const uint64_t wanted = reply_.take ? *reply_.take : (failing ? 0 : length);
        const uint64_t limit = std::max(length, wanted);
        std::string buffer(std::min<uint64_t>(static_cast<uint64_t>(pull_size()), limit), '\0');
        while (call_.body.size() < wanted) {
            const auto room = std::min<uint64_t>(buffer.size(), limit - call_.body.size());
            int got = 0;
            {
                const InModule inside;
                got = callback(static_cast<int>(room), buffer.data(), data_);
            }
            call_.pulls.push_back(got);
            EXPECT_LE(got, static_cast<int>(room));
            if (got > 0) {
                took_data = true;
                call_.body.append(buffer.data(), static_cast<size_t>(got));
                continue;
            }
            status_ = got < 0 ? S3StatusAbortedByCallback : S3StatusErrorIncompleteBody;
            return;
        }
    }

    void complete() {
        call_.status = status_;
        end(index_, call_);
        with_details(reply_.details, [&](const S3ErrorDetails* details) {
            const InModule inside;
            handler_.completeCallback(status_, details, data_);
        });
        if (reply_.after) reply_.after();
    }

  private:
    S3Call& call_;
    const S3ResponseHandler handler_;
    void* data_;
    size_t index_ = 0;
    Reply reply_;
    S3Status status_{};
};

void plain(S3Call& call, const char* name, const S3ResponseHandler* handler, void* data) {
    Request request(call, name, *handler, data);
    request.properties();
    request.complete();
}

const char* const status_names[] = {"OK",
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
static_assert(std::size(status_names) == 135);

}  // namespace

Text s3_thread_host() {
    return thread_host;
}

}  // namespace module_test

using namespace module_test;

extern "C" {

S3Status S3_initialize(const char* userAgentInfo, int flags, const char* defaultS3HostName) {
    const OutOfModule outside;
    trace_add("S3_initialize");
    auto call = call_of(S3Kind::initialize, nullptr, 0);
    call.flags = flags;
    call.context.host = text(defaultS3HostName);
    call.user_agent = text(userAgentInfo);
    const auto index = begin(call);
    call.status = decide(call).status;
    end(index, call);
    return call.status;
}

void S3_deinitialize(void) {
    const OutOfModule outside;
    trace_add("S3_deinitialize");
    const auto call = call_of(S3Kind::deinitialize, nullptr, 0);
    begin(call);
    if (const auto reply = decide(call); reply.before) reply.before();
}

S3Status S3_set_option(S3Option, int64_t) {
    return S3StatusOK;
}
S3Status S3_set_thread_default_host(const char* hostName) {
    const OutOfModule outside;
    thread_host = text(hostName);
    return S3StatusOK;
}

const char* S3_get_status_name(S3Status status) {
    const auto number = static_cast<size_t>(status);
    return number < std::size(status_names) ? status_names[number] : "Unknown";
}

int S3_status_is_retryable(S3Status status) {
    if (took_data && !retry_after_data()) return 0;
    switch (static_cast<int>(status)) {
        case 43:
        case 44:
        case 46:
        case 65:
        case 109:
        case 115:
        case 119:
        case 120:
            return 1;
        default:
            return 0;
    }
}

void S3_list_service(S3Protocol protocol, const char* accessKeyId, const char* secretAccessKey,
                     const char* securityToken, const char* hostName, const char* authRegion,
                     S3RequestContext* requestContext, int timeoutMs, const S3ListServiceHandler* handler,
                     void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::list_service, requestContext, timeoutMs);
    call.context = {
        text(hostName),   {}, protocol, {}, text(accessKeyId), text(secretAccessKey), text(securityToken),
        text(authRegion), 0};
    Request request(call, "S3_list_service", handler->responseHandler, callbackData);
    request.properties();
    for (const auto& bucket : request.reply().buckets) {
        const InModule inside;
        const auto status =
            handler->listServiceCallback("owner", "Owner", bucket.name.c_str(), bucket.created, callbackData);
        if (status != S3StatusOK) {
            request.keep(status);
            break;
        }
    }
    request.complete();
}

void S3_create_bucket(S3Protocol protocol, const char* accessKeyId, const char* secretAccessKey,
                      const char* securityToken, const char* hostName, const char* bucketName,
                      const char* authRegion, S3CannedAcl cannedAcl, const char* locationConstraint,
                      S3RequestContext* requestContext, int timeoutMs, const S3ResponseHandler* handler,
                      void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::create_bucket, requestContext, timeoutMs);
    call.context = {text(hostName),        text(bucketName),    protocol,         {}, text(accessKeyId),
                    text(secretAccessKey), text(securityToken), text(authRegion), 0};
    call.acl = cannedAcl;
    call.location = text(locationConstraint);
    plain(call, "S3_create_bucket", handler, callbackData);
}

void S3_delete_bucket(S3Protocol protocol, S3UriStyle uriStyle, const char* accessKeyId,
                      const char* secretAccessKey, const char* securityToken, const char* hostName,
                      const char* bucketName, const char* authRegion, S3RequestContext* requestContext,
                      int timeoutMs, const S3ResponseHandler* handler, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::delete_bucket, requestContext, timeoutMs);
    call.context = {text(hostName),        text(bucketName),    protocol,         uriStyle, text(accessKeyId),
                    text(secretAccessKey), text(securityToken), text(authRegion), 0};
    plain(call, "S3_delete_bucket", handler, callbackData);
}

void S3_list_bucket(const S3BucketContext* bucketContext, const char* prefix, const char* marker,
                    const char* delimiter, int maxkeys, S3RequestContext* requestContext, int timeoutMs,
                    const S3ListBucketHandler* handler, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::list_bucket, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.prefix = text(prefix);
    call.marker = text(marker);
    call.delimiter = text(delimiter);
    call.max = maxkeys;
    Request request(call, "S3_list_bucket", handler->responseHandler, callbackData);
    request.properties();
    if (const auto& page = request.reply().page) {
        std::vector<S3ListBucketContent> contents;
        for (const auto& object : page->objects)
            contents.push_back({object.key.c_str(), object.last_modified, object.etag.c_str(), object.size,
                                nullptr, nullptr});
        std::vector<const char*> prefixes;
        for (const auto& common : page->prefixes)
            prefixes.push_back(common.c_str());
        const InModule inside;
        request.keep(handler->listBucketCallback(
            page->truncated ? 1 : 0, page->next_marker ? page->next_marker->c_str() : nullptr,
            static_cast<int>(contents.size()), contents.data(), static_cast<int>(prefixes.size()),
            prefixes.data(), callbackData));
    }
    request.complete();
}

void S3_put_object(const S3BucketContext* bucketContext, const char* key, uint64_t contentLength,
                   const S3PutProperties* putProperties, S3RequestContext* requestContext, int timeoutMs,
                   const S3PutObjectHandler* handler, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::put_object, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.length = contentLength;
    call.put = copy(putProperties);
    Request request(call, "S3_put_object", handler->responseHandler, callbackData);
    request.take_body(handler->putObjectDataCallback, contentLength);
    if (request.good()) request.properties();
    request.complete();
}

void S3_copy_object(const S3BucketContext* bucketContext, const char* key, const char* destinationBucket,
                    const char* destinationKey, const S3PutProperties* putProperties,
                    int64_t* lastModifiedReturn, int eTagReturnSize, char* eTagReturn,
                    S3RequestContext* requestContext, int timeoutMs, const S3ResponseHandler* handler,
                    void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::copy_object, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.destination_bucket = text(destinationBucket);
    call.destination_key = text(destinationKey);
    call.put = copy(putProperties);
    // Nobody asks for what the copy is.
    EXPECT_EQ(lastModifiedReturn, nullptr);
    EXPECT_EQ(eTagReturn, nullptr);
    EXPECT_EQ(eTagReturnSize, 0);
    plain(call, "S3_copy_object", handler, callbackData);
}

void S3_get_object(const S3BucketContext* bucketContext, const char* key,
                   const S3GetConditions* getConditions, uint64_t startByte, uint64_t byteCount,
                   S3RequestContext* requestContext, int timeoutMs, const S3GetObjectHandler* handler,
                   void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::get_object, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.conditions = getConditions != nullptr;
    if (getConditions != nullptr) call.if_match = text(getConditions->ifMatchETag);
    call.start = startByte;
    call.count = byteCount;
    Request request(call, "S3_get_object", handler->responseHandler, callbackData);
    const auto final_status = request.reply().status;
    request.properties();
    const auto& data = request.reply().data;
    const auto piece = request.reply().piece == 0 ? data.size() : request.reply().piece;
    for (size_t at = 0; at < data.size(); at += piece) {
        if (final_status == S3StatusOK && !request.good()) break;
        // A copy of its own, so that a reader of memory beyond the piece is caught.
        const std::string part = data.substr(at, piece);
        const InModule inside;
        const auto status =
            handler->getObjectDataCallback(static_cast<int>(part.size()), part.data(), callbackData);
        if (status != S3StatusOK) {
            request.keep(status);
            break;
        }
    }
    request.complete();
}

void S3_head_object(const S3BucketContext* bucketContext, const char* key, S3RequestContext* requestContext,
                    int timeoutMs, const S3ResponseHandler* handler, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::head_object, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    plain(call, "S3_head_object", handler, callbackData);
}

void S3_delete_object(const S3BucketContext* bucketContext, const char* key, S3RequestContext* requestContext,
                      int timeoutMs, const S3ResponseHandler* handler, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::delete_object, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    plain(call, "S3_delete_object", handler, callbackData);
}

void S3_restore_object(const S3BucketContext* bucketContext, const char* key, int days, const char* tier,
                       S3RequestContext* requestContext, int timeoutMs, const S3ResponseHandler* handler,
                       void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::restore_object, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.days = days;
    call.tier = text(tier);
    plain(call, "S3_restore_object", handler, callbackData);
}

void S3_initiate_multipart(const S3BucketContext* bucketContext, const char* key,
                           const S3PutProperties* putProperties, const S3MultipartInitialHandler* handler,
                           S3RequestContext* requestContext, int timeoutMs, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::initiate_multipart, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.put = copy(putProperties);
    Request request(call, "S3_initiate_multipart", handler->responseHandler, callbackData);
    if (request.good()) {
        request.properties();
        const auto& id = request.reply().upload_id;
        call.upload_id = id;
        const InModule inside;
        request.keep(handler->responseXmlCallback(id ? id->c_str() : nullptr, callbackData));
    }
    request.complete();
}

void S3_upload_part(const S3BucketContext* bucketContext, const char* key,
                    const S3PutProperties* putProperties, const S3PutObjectHandler* handler, int seq,
                    const char* upload_id, uint64_t partContentLength, S3RequestContext* requestContext,
                    int timeoutMs, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::upload_part, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.put = copy(putProperties);
    call.part = seq;
    call.upload_id = text(upload_id);
    call.length = partContentLength;
    Request request(call, "S3_upload_part", handler->responseHandler, callbackData);
    request.take_body(handler->putObjectDataCallback, partContentLength);
    if (request.good()) request.properties();
    request.complete();
}

void S3_complete_multipart_upload(const S3BucketContext* bucketContext, const char* key,
                                  const S3MultipartCommitHandler* handler, const char* upload_id,
                                  uint64_t contentLength, S3RequestContext* requestContext, int timeoutMs,
                                  void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::complete_multipart, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.upload_id = text(upload_id);
    call.length = contentLength;
    Request request(call, "S3_complete_multipart_upload", handler->responseHandler, callbackData);
    request.take_body(handler->putObjectDataCallback, contentLength);
    if (request.good()) request.keep(check_commit(call));
    if (request.good()) {
        request.properties();
        auto& reply = request.reply();
        if (reply.commit_etag == etag_of_body) reply.commit_etag = commit_etag(call);
        const InModule inside;
        request.keep(handler->responseXmlCallback(
            reply.commit_location ? reply.commit_location->c_str() : nullptr,
            reply.commit_etag ? reply.commit_etag->c_str() : nullptr, callbackData));
    }
    request.complete();
}

void S3_abort_multipart_upload_ex(const S3BucketContext* bucketContext, const char* key, const char* uploadId,
                                  int timeoutMs, const S3AbortMultipartUploadHandler* handler,
                                  S3RequestContext* requestContext, void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::abort_multipart, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.upload_id = text(uploadId);
    plain(call, "S3_abort_multipart_upload", &handler->responseHandler, callbackData);
}

void S3_abort_multipart_upload(const S3BucketContext* bucketContext, const char* key, const char* uploadId,
                               int timeoutMs, const S3AbortMultipartUploadHandler* handler) {
    S3_abort_multipart_upload_ex(bucketContext, key, uploadId, timeoutMs, handler, nullptr,
                                 handler->callbackData);
}

void S3_list_parts(const S3BucketContext* bucketContext, const char* key, const char* partnumbermarker,
                   const char* uploadid, const char* encodingtype, int maxparts,
                   S3RequestContext* requestContext, int timeoutMs, const S3ListPartsHandler* handler,
                   void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::list_parts, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.key = text(key);
    call.part_marker = text(partnumbermarker);
    call.upload_id = text(uploadid);
    call.encoding = text(encodingtype);
    call.max = maxparts;
    Request request(call, "S3_list_parts", handler->responseHandler, callbackData);
    request.properties();
    if (request.good()) {
        const auto& reply = request.reply();
        std::vector<S3ListPart> parts;
        for (const auto& part : reply.parts)
            parts.push_back({part.etag.c_str(), -1, part.number, part.size});
        const InModule inside;
        request.keep(handler->responseXmlCallback(
            reply.truncated ? 1 : 0, reply.next_part ? reply.next_part->c_str() : nullptr, nullptr, nullptr,
            nullptr, nullptr, "STANDARD", static_cast<int>(parts.size()), 0, parts.data(), request.data()));
    }
    request.complete();
}

void S3_list_multipart_uploads(const S3BucketContext* bucketContext, const char* prefix,
                               const char* keymarker, const char* uploadidmarker, const char* encodingtype,
                               const char* delimiter, int maxuploads, S3RequestContext* requestContext,
                               int timeoutMs, const S3ListMultipartUploadsHandler* handler,
                               void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::list_uploads, requestContext, timeoutMs);
    call.context = copy(bucketContext);
    call.prefix = text(prefix);
    call.marker = text(keymarker);
    call.upload_marker = text(uploadidmarker);
    call.encoding = text(encodingtype);
    call.delimiter = text(delimiter);
    call.max = maxuploads;
    Request request(call, "S3_list_multipart_uploads", handler->responseHandler, callbackData);
    request.properties();
    if (request.good()) {
        const auto& reply = request.reply();
        std::vector<S3ListMultipartUpload> uploads;
        for (const auto& upload : reply.uploads)
            uploads.push_back({upload.key.c_str(), upload.upload_id.c_str(), "", "", nullptr, nullptr,
                               "STANDARD", upload.initiated});
        const InModule inside;
        request.keep(handler->responseXmlCallback(
            reply.truncated ? 1 : 0, reply.next_key ? reply.next_key->c_str() : nullptr,
            reply.next_upload ? reply.next_upload->c_str() : nullptr, static_cast<int>(uploads.size()),
            uploads.data(), 0, nullptr, request.data()));
    }
    request.complete();
}

void RG_get_user_info(const S3BucketContext* bucketContext, const char* userName,
                      S3RequestContext* requestContext, const RGUserInfoHandler* handler,
                      void* callbackData) {
    const OutOfModule outside;
    auto call = call_of(S3Kind::user_info, requestContext, 0);
    call.context = copy(bucketContext);
    call.user = text(userName);
    Request request(call, "RG_get_user_info", handler->responseHandler, callbackData);
    if (request.good() || request.reply().properties) request.properties();
    if (const auto& keys = request.reply().keys) {
        const auto size = sizeof(RGUserInfo) + keys->size() * sizeof(RGUserKey);
        auto* info = static_cast<RGUserInfo*>(std::calloc(1, size));
        info->keyCount = static_cast<int32_t>(keys->size());
        for (size_t i = 0; i < keys->size(); ++i) {
            // A text as long as its field leaves it without an end.
            auto& key = info->keys[i];
            (*keys)[i].user.copy(key.user, sizeof key.user);
            (*keys)[i].access_key.copy(key.accessKey, sizeof key.accessKey);
            (*keys)[i].secret_key.copy(key.secretKey, sizeof key.secretKey);
        }
        {
            const InModule inside;
            request.keep(handler->userInfoCallback(info, callbackData));
        }
        std::free(info);
    }
    request.complete();
}

}  // extern "C"
