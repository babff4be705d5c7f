/*
 * libs3.h - client of S3-compatible object stores, C interface.
 *
 * Flow: fill a context (where, as whom), a handler (which functions to call back) and call one function; it
 * runs the whole request on the calling thread and returns after the complete callback ran. Any number of
 * threads may call at once; no lock of the library is held while a callback runs, so callbacks may start
 * requests of their own. Ownership: the library keeps nothing that it is given beyond the call, and
 * everything it gives to a callback is valid during that callback only. Errors: every request ends in exactly
 * one complete callback that carries the status; nothing is thrown or printed.
 */
#ifndef LIBS3_H
#define LIBS3_H

#include <stdint.h>
#include <sys/select.h>

#ifdef __cplusplus
extern "C" {
#endif

/* === Constants */

/** Flag of S3_initialize, kept for source compatibility; without effect here. */
#define S3_INIT_WINSOCK 1
/** Flag of S3_initialize: check the certificate and the name of HTTPS stores. */
#define S3_INIT_VERIFY_PEER 2
/** The usual flags; they do NOT include S3_INIT_VERIFY_PEER. */
#define S3_INIT_ALL (S3_INIT_WINSOCK)

/** Host used when neither a context nor S3_initialize names one. */
#define S3_DEFAULT_HOSTNAME "s3.amazonaws.com"
/** Region of a signature when a context names none. */
#define S3_DEFAULT_REGION "us-east-1"

/** Longest host name, in characters; a port counts. */
#define S3_MAX_HOSTNAME_SIZE 255
/** Longest bucket name, in characters (63 in virtual-host style). */
#define S3_MAX_BUCKET_NAME_SIZE 255
/** Longest key, in bytes; a longer one ends with S3StatusUriTooLong. */
#define S3_MAX_KEY_SIZE 1024
/** Bytes of metadata, names and values, that S3 promises to store. The library itself sets no limit. */
#define S3_MAX_METADATA_SIZE 2048
/** What precedes a metadata name in a header. */
#define S3_METADATA_HEADER_NAME_PREFIX "x-amz-meta-"
/** How many pairs fit S3_MAX_METADATA_SIZE when each is as short as possible. */
#define S3_MAX_METADATA_COUNT 157

/* === Enumerations */

/**
 * How a request ended. 1..48 are found by the library, 49..128 carry the name of the S3 error code in the
 * store's error document, 129..134 stand for an HTTP status without a usable document. The numbers are part
 * of the interface.
 */
typedef enum {
    S3StatusOK = 0,
    S3StatusInternalError,
    S3StatusOutOfMemory,
    S3StatusInterrupted,
    S3StatusInvalidBucketNameTooLong,
    S3StatusInvalidBucketNameFirstCharacter,
    S3StatusInvalidBucketNameCharacter,
    S3StatusInvalidBucketNameCharacterSequence,
    S3StatusInvalidBucketNameTooShort,
    S3StatusInvalidBucketNameDotQuadNotation,
    S3StatusQueryParamsTooLong,
    S3StatusFailedToInitializeRequest,
    S3StatusMetaDataHeadersTooLong,
    S3StatusBadMetaData,
    S3StatusBadContentType,
    S3StatusContentTypeTooLong,
    S3StatusBadMD5,
    S3StatusMD5TooLong,
    S3StatusBadCacheControl,
    S3StatusCacheControlTooLong,
    S3StatusBadContentDispositionFilename,
    S3StatusContentDispositionFilenameTooLong,
    S3StatusBadContentEncoding,
    S3StatusContentEncodingTooLong,
    S3StatusBadIfMatchETag,
    S3StatusIfMatchETagTooLong,
    S3StatusBadIfNotMatchETag,
    S3StatusIfNotMatchETagTooLong,
    S3StatusHeadersTooLong,
    S3StatusKeyTooLong,
    S3StatusUriTooLong,
    S3StatusXmlParseFailure,
    S3StatusEmailAddressTooLong,
    S3StatusUserIdTooLong,
    S3StatusUserDisplayNameTooLong,
    S3StatusGroupUriTooLong,
    S3StatusPermissionTooLong,
    S3StatusTargetBucketTooLong,
    S3StatusTargetPrefixTooLong,
    S3StatusTooManyGrants,
    S3StatusBadGrantee,
    S3StatusBadPermission,
    S3StatusXmlDocumentTooLarge,
    S3StatusNameLookupError,
    S3StatusFailedToConnect,
    S3StatusServerFailedVerification,
    S3StatusConnectionFailed,
    S3StatusAbortedByCallback,
    S3StatusNotSupported,

    S3StatusErrorAccessDenied,
    S3StatusErrorAccountProblem,
    S3StatusErrorAmbiguousGrantByEmailAddress,
    S3StatusErrorBadDigest,
    S3StatusErrorBucketAlreadyExists,
    S3StatusErrorBucketAlreadyOwnedByYou,
    S3StatusErrorBucketNotEmpty,
    S3StatusErrorCredentialsNotSupported,
    S3StatusErrorCrossLocationLoggingProhibited,
    S3StatusErrorEntityTooSmall,
    S3StatusErrorEntityTooLarge,
    S3StatusErrorExpiredToken,
    S3StatusErrorIllegalVersioningConfigurationException,
    S3StatusErrorIncompleteBody,
    S3StatusErrorIncorrectNumberOfFilesInPostRequest,
    S3StatusErrorInlineDataTooLarge,
    S3StatusErrorInternalError,
    S3StatusErrorInvalidAccessKeyId,
    S3StatusErrorInvalidAddressingHeader,
    S3StatusErrorInvalidArgument,
    S3StatusErrorInvalidBucketName,
    S3StatusErrorInvalidBucketState,
    S3StatusErrorInvalidDigest,
    S3StatusErrorInvalidEncryptionAlgorithmError,
    S3StatusErrorInvalidLocationConstraint,
    S3StatusErrorInvalidObjectState,
    S3StatusErrorInvalidPart,
    S3StatusErrorInvalidPartOrder,
    S3StatusErrorInvalidPayer,
    S3StatusErrorInvalidPolicyDocument,
    S3StatusErrorInvalidRange,
    S3StatusErrorInvalidRequest,
    S3StatusErrorInvalidSecurity,
    S3StatusErrorInvalidSOAPRequest,
    S3StatusErrorInvalidStorageClass,
    S3StatusErrorInvalidTargetBucketForLogging,
    S3StatusErrorInvalidToken,
    S3StatusErrorInvalidURI,
    S3StatusErrorKeyTooLong,
    S3StatusErrorMalformedACLError,
    S3StatusErrorMalformedPOSTRequest,
    S3StatusErrorMalformedXML,
    S3StatusErrorMaxMessageLengthExceeded,
    S3StatusErrorMaxPostPreDataLengthExceededError,
    S3StatusErrorMetadataTooLarge,
    S3StatusErrorMethodNotAllowed,
    S3StatusErrorMissingAttachment,
    S3StatusErrorMissingContentLength,
    S3StatusErrorMissingRequestBodyError,
    S3StatusErrorMissingSecurityElement,
    S3StatusErrorMissingSecurityHeader,
    S3StatusErrorNoLoggingStatusForKey,
    S3StatusErrorNoSuchBucket,
    S3StatusErrorNoSuchKey,
    S3StatusErrorNoSuchLifecycleConfiguration,
    S3StatusErrorNoSuchUpload,
    S3StatusErrorNoSuchVersion,
    S3StatusErrorNotImplemented,
    S3StatusErrorNotSignedUp,
    S3StatusErrorNoSuchBucketPolicy,
    S3StatusErrorOperationAborted,
    S3StatusErrorPermanentRedirect,
    S3StatusErrorPreconditionFailed,
    S3StatusErrorRedirect,
    S3StatusErrorRestoreAlreadyInProgress,
    S3StatusErrorRequestIsNotMultiPartContent,
    S3StatusErrorRequestTimeout,
    S3StatusErrorRequestTimeTooSkewed,
    S3StatusErrorRequestTorrentOfBucketError,
    S3StatusErrorSignatureDoesNotMatch,
    S3StatusErrorServiceUnavailable,
    S3StatusErrorSlowDown,
    S3StatusErrorTemporaryRedirect,
    S3StatusErrorTokenRefreshRequired,
    S3StatusErrorTooManyBuckets,
    S3StatusErrorUnexpectedContent,
    S3StatusErrorUnresolvableGrantByEmailAddress,
    S3StatusErrorUserKeyMustBeSpecified,
    S3StatusErrorQuotaExceeded,
    S3StatusErrorUnknown,

    S3StatusHttpErrorMovedTemporarily,
    S3StatusHttpErrorBadRequest,
    S3StatusHttpErrorForbidden,
    S3StatusHttpErrorNotFound,
    S3StatusHttpErrorConflict,
    S3StatusHttpErrorUnknown
} S3Status;

/** Transport of a request. */
typedef enum { S3ProtocolHTTPS = 0, S3ProtocolHTTP = 1 } S3Protocol;

/** Where the bucket stands: in the host name, or as the first element of the path. */
typedef enum { S3UriStyleVirtualHost = 0, S3UriStylePath = 1 } S3UriStyle;

/** Canned access rules; private is the store's default and sends no header. */
typedef enum {
    S3CannedAclPrivate = 0,
    S3CannedAclPublicRead = 1,
    S3CannedAclPublicReadWrite = 2,
    S3CannedAclAuthenticatedRead = 3,
    S3CannedAclBucketOwnerFullControl = 4
} S3CannedAcl;

/**
 * Settings of the whole process, see S3_set_option. Units stand in the names, defaults in the comments. A
 * variable of the environment replaces a default: S3OptionStallSeconds is ZORVAN_S3_STALL_SECONDS, and so on.
 * It is read once, before the first use; a value out of range is named on standard error and left out.
 */
typedef enum {
    /** Seconds without progress on the socket after which a request ends (120). Time inside callbacks does
       not count. */
    S3OptionStallSeconds = 0,
    /** The same for copies and for completing a multipart upload, where the store works before it answers
       (600). */
    S3OptionSlowStallSeconds = 1,
    /** Milliseconds a connection may take to be made (60000). */
    S3OptionConnectTimeoutMs = 2,
    /** Idle connections kept in all, for all hosts; active ones are never limited (256). 0 keeps none. */
    S3OptionMaxIdleConnections = 3,
    /** Seconds after which an idle connection is not used again (50). */
    S3OptionIdleConnectionSeconds = 4,
    /** Milliseconds an upload of 1 MiB or more waits for "100 Continue" before it sends anyway (1000). */
    S3OptionExpectTimeoutMs = 5,
    /** Consecutive tries without a new byte after which a broken download fails (5). */
    S3OptionDownloadResumes = 6,
    /** How often a body that fits the upload buffer is sent again by the library (3). */
    S3OptionUploadResends = 7,
    /** Milliseconds before the first repetition; doubles with each further one, up to 10 seconds (200). */
    S3OptionRetryPauseMs = 8,
    /** Seconds for which S3_head_object without a key repeats transient failures (30). */
    S3OptionBucketProbeSeconds = 9
} S3Option;

/* === Records */

/** Reserved for groups of concurrent requests; pass null. */
typedef struct S3RequestContext S3RequestContext;

/** One name with its value, both never null. */
typedef struct S3NameValue {
    const char* name;
    const char* value;
} S3NameValue;

/**
 * What the reply's headers tell. Strings are null when the header is absent. Valid during the callback only.
 */
typedef struct S3ResponseProperties {
    /** x-amz-request-id and x-amz-id-2. */
    const char* requestId;
    const char* requestId2;
    const char* contentType;
    /** Content-Length of this reply (of the range, not of the object, when a range was asked for); 0 when
     * absent. */
    uint64_t contentLength;
    const char* server;
    /** As received, quotes included. */
    const char* eTag;
    /** Last-Modified in seconds since 1970, UTC; -1 when absent. */
    int64_t lastModified;
    int metaDataCount;
    /** Names in lower case without the prefix, values trimmed. */
    const S3NameValue* metaData;
    /** 0: none. 1: AES256, the ETag is still an MD5. 2: a kind of encryption whose ETag is not an MD5. */
    char usesServerSideEncryption;
    /** x-amz-bucket-region. */
    const char* bucketRegion;
    /** Null for the standard class; an archive tier follows a colon ("INTELLIGENT_TIERING:ARCHIVE_ACCESS").
     */
    const char* storageClass;
    /** From x-amz-restore. 0: none. 1: under way. 2: a restored copy exists. */
    int restoreStatus;
    /** End of the restored copy in seconds since 1970, UTC; 0 when absent or unreadable. */
    int64_t restoreExpiry;
} S3ResponseProperties;

/**
 * Where a bucket is and who asks. A null hostName means the thread's default host
 * (S3_set_thread_default_host), else that of S3_initialize; "host:port" is allowed. A null or empty key id or
 * secret sends an unsigned request. A null or empty authRegion means S3_DEFAULT_REGION.
 */
typedef struct S3BucketContext {
    const char* hostName;
    const char* bucketName;
    S3Protocol protocol;
    S3UriStyle uriStyle;
    const char* accessKeyId;
    const char* secretAccessKey;
    const char* securityToken;
    const char* authRegion;
    /** Reserved, 0. */
    char contextOption;
} S3BucketContext;

/** What an object shall carry. Null strings send nothing. */
typedef struct S3PutProperties {
    const char* contentType;
    /** Base64 text for Content-MD5, sent as it is. */
    const char* md5;
    const char* cacheControl;
    const char* contentDispositionFilename;
    const char* contentEncoding;
    /** Expires header in seconds since 1970; negative sends none, 0 sends 1970. */
    int64_t expires;
    S3CannedAcl cannedAcl;
    int metaDataCount;
    /** Names without the prefix; they are sent in lower case. */
    const S3NameValue* metaData;
    /** Non-zero asks for AES256 at rest. */
    char useServerSideEncryption;
    /** Reserved, 0. */
    long putOption;
} S3PutProperties;

/** Conditions of a download; negative times and null tags are absent. Times are seconds since 1970, UTC. */
typedef struct S3GetConditions {
    int64_t ifModifiedSince;
    int64_t ifNotModifiedSince;
    const char* ifMatchETag;
    const char* ifNotMatchETag;
} S3GetConditions;

/**
 * The store's error document, or the library's words for a failure of its own. Strings may be null. Every
 * other element of the document stands in extraDetails in document order, nested ones with "/" in their
 * names. For a range that cannot be served (416) RangeRequested and ActualObjectSize are always tried to be
 * there, whatever the store sent.
 */
typedef struct S3ErrorDetails {
    const char* message;
    const char* resource;
    const char* furtherDetails;
    int extraDetailsCount;
    S3NameValue* extraDetails;
} S3ErrorDetails;

/** One object of a listing. lastModified is in seconds since 1970, -1 when unreadable; owners may be null. */
typedef struct S3ListBucketContent {
    const char* key;
    int64_t lastModified;
    const char* eTag;
    uint64_t size;
    const char* ownerId;
    const char* ownerDisplayName;
} S3ListBucketContent;

/** One upload in progress. Absent texts are empty, absent owners null. */
typedef struct S3ListMultipartUpload {
    const char* key;
    const char* uploadId;
    const char* initiatorId;
    const char* initiatorDisplayName;
    const char* ownerId;
    const char* ownerDisplayName;
    const char* storageClass;
    int64_t initiated;
} S3ListMultipartUpload;

/** One stored part; eTag as received, 1 to 34 characters; partNumber lies in 1..10000. */
typedef struct S3ListPart {
    const char* eTag;
    int64_t lastModified;
    uint64_t partNumber;
    uint64_t size;
} S3ListPart;

/** One key of a store user; texts end with NUL and are never cut. */
typedef struct RGUserKey {
    /** The user, or "user:subuser". */
    char user[48];
    char accessKey[256];
    char secretKey[48];
} RGUserKey;

/* Flexible array members are C; in C++ they are an extension of every compiler in use, which pedantic clang
 * reports. */
#if defined(__cplusplus) && defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif

/** A store user with its keys; keys has keyCount entries. Texts that do not fit are left empty. */
typedef struct RGUserInfo {
    char userId[256];
    char displayName[512];
    char email[512];
    int32_t suspended;
    int32_t maxBuckets;
    char reserved[564];
    int32_t keyCount;
    __extension__ RGUserKey keys[];
} RGUserInfo;

#if defined(__cplusplus) && defined(__clang__)
#pragma clang diagnostic pop
#endif

/* === Callbacks ===
 * All run on the thread that made the request, in the order properties, data or listing, complete.
 * Returning anything but S3StatusOK ends the request with that status. */

/** The reply's headers; at most once per request, for 2xx replies only (S3_head_object tells the one
 * exception). */
typedef S3Status(S3ResponsePropertiesCallback)(const S3ResponseProperties* properties, void* callbackData);

/** The end of a request, always exactly once. errorDetails may be null. */
typedef void(S3ResponseCompleteCallback)(S3Status status, const S3ErrorDetails* errorDetails,
                                         void* callbackData);

/** One bucket of S3_list_service. ownerId and ownerDisplayName may be null; the date is in seconds since
 * 1970, -1 if unknown. */
typedef S3Status(S3ListServiceCallback)(const char* ownerId, const char* ownerDisplayName,
                                        const char* bucketName, int64_t creationDateSeconds,
                                        void* callbackData);

/** One page of S3_list_bucket, also when it is empty. nextMarker is null unless isTruncated. */
typedef S3Status(S3ListBucketCallback)(int isTruncated, const char* nextMarker, int contentsCount,
                                       const S3ListBucketContent* contents, int commonPrefixesCount,
                                       const char** commonPrefixes, void* callbackData);

/**
 * Fills buffer with at most bufferSize bytes of the body. Returns the number of bytes written, 0 at the end
 * of the data (before contentLength bytes this fails the request with S3StatusErrorIncompleteBody), negative
 * to abort (S3StatusAbortedByCallback). Not called again after contentLength bytes, and never for an empty
 * body.
 */
typedef int(S3PutObjectDataCallback)(int bufferSize, char* buffer, void* callbackData);

/** Takes the next bufferSize bytes of an object; every byte comes exactly once and in order. */
typedef S3Status(S3GetObjectDataCallback)(int bufferSize, const char* buffer, void* callbackData);

/** The new upload's id; null when the reply held none. Not called after a failure. */
typedef S3Status(S3MultipartInitialResponseCallback)(const char* upload_id, void* callbackData);

/** The completed object; etag is quoted, or null when the store did not tell. Not called after a failure. */
typedef S3Status(S3MultipartCommitResponseCallback)(const char* location, const char* etag,
                                                    void* callbackData);

/** One page of S3_list_multipart_uploads, also when it is empty. The markers are null unless isTruncated. */
typedef S3Status(S3ListMultipartUploadsResponseCallback)(int isTruncated, const char* nextKeyMarker,
                                                         const char* nextUploadIdMarker, int uploadsCount,
                                                         const S3ListMultipartUpload* uploads,
                                                         int commonPrefixesCount, const char** commonPrefixes,
                                                         void* callbackData);

/**
 * One page of S3_list_parts, also when it is empty. The marker is null unless isTruncated. lastPartNumber is,
 * in spite of its name, how many parts of this page were delivered before: always 0, a page comes in one
 * call.
 */
typedef S3Status(S3ListPartsResponseCallback)(int isTruncated, const char* nextPartNumberMarker,
                                              const char* initiatorId, const char* initiatorDisplayName,
                                              const char* ownerId, const char* ownerDisplayName,
                                              const char* storageClass, int partsCount, int lastPartNumber,
                                              const S3ListPart* parts, void* callbackData);

/** The user, once, after a 2xx reply that could be read. */
typedef S3Status(RGUserInfoCallback)(const RGUserInfo* info, void* callbackData);

/* === Handlers; every function pointer but completeCallback may be null */

typedef struct S3ResponseHandler {
    S3ResponsePropertiesCallback* propertiesCallback;
    S3ResponseCompleteCallback* completeCallback;
} S3ResponseHandler;

typedef struct S3ListServiceHandler {
    S3ResponseHandler responseHandler;
    S3ListServiceCallback* listServiceCallback;
} S3ListServiceHandler;

typedef struct S3ListBucketHandler {
    S3ResponseHandler responseHandler;
    S3ListBucketCallback* listBucketCallback;
} S3ListBucketHandler;

typedef struct S3PutObjectHandler {
    S3ResponseHandler responseHandler;
    S3PutObjectDataCallback* putObjectDataCallback;
} S3PutObjectHandler;

typedef struct S3GetObjectHandler {
    S3ResponseHandler responseHandler;
    S3GetObjectDataCallback* getObjectDataCallback;
} S3GetObjectHandler;

typedef struct S3MultipartInitialHandler {
    S3ResponseHandler responseHandler;
    S3MultipartInitialResponseCallback* responseXmlCallback;
} S3MultipartInitialHandler;

typedef struct S3MultipartCommitHandler {
    S3ResponseHandler responseHandler;
    /** Gives the commit document. */
    S3PutObjectDataCallback* putObjectDataCallback;
    S3MultipartCommitResponseCallback* responseXmlCallback;
} S3MultipartCommitHandler;

typedef struct S3ListMultipartUploadsHandler {
    S3ResponseHandler responseHandler;
    S3ListMultipartUploadsResponseCallback* responseXmlCallback;
} S3ListMultipartUploadsHandler;

typedef struct S3ListPartsHandler {
    S3ResponseHandler responseHandler;
    S3ListPartsResponseCallback* responseXmlCallback;
} S3ListPartsHandler;

typedef struct S3AbortMultipartUploadHandler {
    S3ResponseHandler responseHandler;
    /** What S3_abort_multipart_upload passes to the callbacks, having no argument for it. */
    void* callbackData;
} S3AbortMultipartUploadHandler;

typedef struct RGUserInfoHandler {
    S3ResponseHandler responseHandler;
    RGUserInfoCallback* userInfoCallback;
} RGUserInfoHandler;

/* === The library as a whole */

/**
 * Makes the library ready; may be called any number of times, from any thread, also while requests run (it
 * never waits for them). Every call replaces the user agent and the default host. S3_INIT_VERIFY_PEER in
 * flags has the certificates of that host name (port left aside) checked; a call without it leaves them
 * unchecked only as long as no other call asked for the checks, which then stay on until S3_deinitialize.
 * Other hosts keep what was said for them, hosts never named are checked. The call that makes the library
 * ready sets SIGPIPE to be ignored if it stands at its default. userAgentInfo: User-Agent of all later
 * requests, null or empty for a built-in one. defaultS3HostName: null or empty for S3_DEFAULT_HOSTNAME.
 * Returns S3StatusOK, S3StatusUriTooLong (host over S3_MAX_HOSTNAME_SIZE; nothing was changed),
 * S3StatusOutOfMemory or S3StatusInternalError.
 */
S3Status S3_initialize(const char* userAgentInfo, int flags, const char* defaultS3HostName);

/**
 * Closes idle connections and forgets hosts. Running requests go on; the last one tears down. Harmless when
 * the library is not initialised; S3_initialize makes it ready again.
 */
void S3_deinitialize(void);

/**
 * Changes one setting for all later requests of the process; any thread, at any time, also before
 * S3_initialize. Returns S3StatusOK, or S3StatusErrorInvalidArgument for an unknown option or a value out of
 * its range (negative; 0 for the stall options and the connect time-out).
 */
S3Status S3_set_option(S3Option option, int64_t value);

/**
 * Sets the host used on the calling thread wherever hostName is null; null returns to the host of
 * S3_initialize. Returns S3StatusOK, S3StatusUriTooLong or S3StatusOutOfMemory.
 */
S3Status S3_set_thread_default_host(const char* hostName);

/** The status's name without its prefix ("OK", "ErrorNoSuchKey"), a static text; "Unknown" for numbers out of
 * range. */
const char* S3_get_status_name(S3Status status);

/**
 * Whether the same request may well succeed when it is made again: 1 or 0.
 * After a request took bytes from a put-data callback, the question about that request's status, asked on the
 * same thread before its next request (the complete callback included), is answered with 0: the callback
 * stands behind the bytes taken, so a repetition would send the following ones in their place.
 */
int S3_status_is_retryable(S3Status status);

/* === Requests ===
 * timeoutMs limits the whole call in milliseconds, <= 0 means no limit. requestContext is reserved. Keys are
 * bytes, sent percent-encoded. Unless said otherwise a null or empty key ends at once with
 * S3StatusErrorUserKeyMustBeSpecified, a key over S3_MAX_KEY_SIZE with S3StatusUriTooLong, an impossible
 * bucket name with one of the InvalidBucketName statuses. */

/** Lists the caller's buckets; the listing callbacks run after the complete document was read, each name once
 * (S3: ListBuckets). */
void S3_list_service(S3Protocol protocol, const char* accessKeyId, const char* secretAccessKey,
                     const char* securityToken, const char* hostName, const char* authRegion,
                     S3RequestContext* requestContext, int timeoutMs, const S3ListServiceHandler* handler,
                     void* callbackData);

/** Creates a bucket, in path style; locationConstraint may be null or empty (S3: CreateBucket). */
void S3_create_bucket(S3Protocol protocol, const char* accessKeyId, const char* secretAccessKey,
                      const char* securityToken, const char* hostName, const char* bucketName,
                      const char* authRegion, S3CannedAcl cannedAcl, const char* locationConstraint,
                      S3RequestContext* requestContext, int timeoutMs, const S3ResponseHandler* handler,
                      void* callbackData);

/** Deletes an empty bucket (S3: DeleteBucket). */
void S3_delete_bucket(S3Protocol protocol, S3UriStyle uriStyle, const char* accessKeyId,
                      const char* secretAccessKey, const char* securityToken, const char* hostName,
                      const char* bucketName, const char* authRegion, S3RequestContext* requestContext,
                      int timeoutMs, const S3ResponseHandler* handler, void* callbackData);

/**
 * Lists one page of a bucket (S3: ListObjects, version 1). maxkeys <= 0 leaves the page size to the store.
 * One call of the listing callback per page; keys are decoded. When the page is truncated and the store names
 * no marker, or names it encoded in an unclear way, the marker is the larger of the last key and the last
 * common prefix.
 */
void S3_list_bucket(const S3BucketContext* bucketContext, const char* prefix, const char* marker,
                    const char* delimiter, int maxkeys, S3RequestContext* requestContext, int timeoutMs,
                    const S3ListBucketHandler* handler, void* callbackData);

/**
 * Stores an object of exactly contentLength bytes (S3: PutObject). Bodies of 1 MiB and more are announced
 * with "Expect: 100-continue" and the put-data callback is not called before the store agreed or the time-out
 * passed. Shorter bodies are read whole first, and sent again by the library when the store fails with a
 * retryable status.
 */
void S3_put_object(const S3BucketContext* bucketContext, const char* key, uint64_t contentLength,
                   const S3PutProperties* putProperties, S3RequestContext* requestContext, int timeoutMs,
                   const S3PutObjectHandler* handler, void* callbackData);

/**
 * Copies an object inside the store (S3: CopyObject). A null destination means that of the source;
 * putProperties, if given, replace those of the source. lastModifiedReturn (seconds since 1970) and
 * eTagReturn (a buffer of eTagReturnSize bytes, cut to fit, always ended with NUL) may be null; they are
 * written before the complete callback.
 */
void S3_copy_object(const S3BucketContext* bucketContext, const char* key, const char* destinationBucket,
                    const char* destinationKey, const S3PutProperties* putProperties,
                    int64_t* lastModifiedReturn, int eTagReturnSize, char* eTagReturn,
                    S3RequestContext* requestContext, int timeoutMs, const S3ResponseHandler* handler,
                    void* callbackData);

/**
 * Reads byteCount bytes from startByte; byteCount 0 means to the end (S3: GetObject). A reply that is cut
 * short is asked for again from the byte reached, provided that the object is still the same; when that
 * fails, the status is S3StatusInternalError with a message that names the bytes received and expected.
 * getConditions may be null.
 */
void S3_get_object(const S3BucketContext* bucketContext, const char* key,
                   const S3GetConditions* getConditions, uint64_t startByte, uint64_t byteCount,
                   S3RequestContext* requestContext, int timeoutMs, const S3GetObjectHandler* handler,
                   void* callbackData);

/**
 * Asks for an object's properties (S3: HeadObject). A null or empty key asks for the bucket: then the
 * properties callback also runs for a 301 that names the bucket's region, transient failures are repeated
 * inside (S3OptionBucketProbeSeconds, the time limit of the whole call), and one that lasts ends with
 * S3StatusInternalError, as does a malformed host.
 */
void S3_head_object(const S3BucketContext* bucketContext, const char* key, S3RequestContext* requestContext,
                    int timeoutMs, const S3ResponseHandler* handler, void* callbackData);

/** Deletes an object; a missing one is no error for the store (S3: DeleteObject). */
void S3_delete_object(const S3BucketContext* bucketContext, const char* key, S3RequestContext* requestContext,
                      int timeoutMs, const S3ResponseHandler* handler, void* callbackData);

/** Begins a multipart upload (S3: CreateMultipartUpload). putProperties may be null; they are those of the
 * object to be. */
void S3_initiate_multipart(const S3BucketContext* bucketContext, const char* key,
                           const S3PutProperties* putProperties, const S3MultipartInitialHandler* handler,
                           S3RequestContext* requestContext, int timeoutMs, void* callbackData);

/**
 * Stores part seq (1..10000) of partContentLength bytes (S3: UploadPart); the body as in S3_put_object. A
 * reply without ETag fails with S3StatusInternalError before the properties callback.
 */
void S3_upload_part(const S3BucketContext* bucketContext, const char* key,
                    const S3PutProperties* putProperties, const S3PutObjectHandler* handler, int seq,
                    const char* upload_id, uint64_t partContentLength, S3RequestContext* requestContext,
                    int timeoutMs, void* callbackData);

/**
 * Makes the object of its parts (S3: CompleteMultipartUpload). The put-data callback gives a document of
 * contentLength bytes, which is read whole first. After an answer that leaves the outcome open the object
 * itself is asked for: its ETag must be the one that follows from the parts' ETags; if it is not, the
 * document is sent again, a bounded number of times. (The parts' MD5s fix the object's size as well, which
 * the document does not tell.)
 */
void S3_complete_multipart_upload(const S3BucketContext* bucketContext, const char* key,
                                  const S3MultipartCommitHandler* handler, const char* upload_id,
                                  uint64_t contentLength, S3RequestContext* requestContext, int timeoutMs,
                                  void* callbackData);

/** Gives an upload up; the callbacks get the handler's callbackData (S3: AbortMultipartUpload). */
void S3_abort_multipart_upload(const S3BucketContext* bucketContext, const char* key, const char* uploadId,
                               int timeoutMs, const S3AbortMultipartUploadHandler* handler);

/** The same with callback data as an argument; that of the handler is not looked at. */
void S3_abort_multipart_upload_ex(const S3BucketContext* bucketContext, const char* key, const char* uploadId,
                                  int timeoutMs, const S3AbortMultipartUploadHandler* handler,
                                  S3RequestContext* requestContext, void* callbackData);

/**
 * Lists one page of an upload's parts (S3: ListParts). partnumbermarker and encodingtype may be null;
 * maxparts <= 0 leaves the page size to the store. A part without a usable ETag or number fails with
 * S3StatusInternalError before the callback.
 */
void S3_list_parts(const S3BucketContext* bucketContext, const char* key, const char* partnumbermarker,
                   const char* uploadid, const char* encodingtype, int maxparts,
                   S3RequestContext* requestContext, int timeoutMs, const S3ListPartsHandler* handler,
                   void* callbackData);

/**
 * Lists one page of the uploads in progress (S3: ListMultipartUploads). Texts may be null; maxuploads <= 0
 * leaves the page size to the store. The next page is asked for with both markers. Keys are given decoded
 * when the reply says that they are encoded; with a null encodingtype that is asked for where a plain listing
 * cannot be read or holds U+FFFD.
 */
void S3_list_multipart_uploads(const S3BucketContext* bucketContext, const char* prefix,
                               const char* keymarker, const char* uploadidmarker, const char* encodingtype,
                               const char* delimiter, int maxuploads, S3RequestContext* requestContext,
                               int timeoutMs, const S3ListMultipartUploadsHandler* handler,
                               void* callbackData);

/**
 * Asks for a readable copy of an archived object for days days (<= 0 leaves the number out) with the given
 * retrieval tier (null or empty leaves it out) (S3: RestoreObject). 200 and 202 are success.
 */
void S3_restore_object(const S3BucketContext* bucketContext, const char* key, int days, const char* tier,
                       S3RequestContext* requestContext, int timeoutMs, const S3ResponseHandler* handler,
                       void* callbackData);

/**
 * Reads a store user and its keys through the store's administration interface (Ceph RADOS Gateway: admin
 * operations, "get user info"). bucketContext names host and credentials; its bucket is the entry of the
 * administration interface (null or empty: "admin"; may contain slashes), addressed as a path whatever the
 * URI style. userName may be "tenant$user". Inactive keys and keys that do not fit RGUserKey are left out. No
 * total time limit applies, only the stall guard.
 */
void RG_get_user_info(const S3BucketContext* bucketContext, const char* userName,
                      S3RequestContext* requestContext, const RGUserInfoHandler* handler, void* callbackData);

#ifdef __cplusplus
}
#endif

#endif /* LIBS3_H */
