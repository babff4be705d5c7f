// An S3 client library that does what a test says, with the interface of s3/include/libs3.h.
//
// Behind it stands a small in-memory store; a test may replace the outcome of any call by a Reply: for the
// nth call of a kind, for the next calls in order, or by a function that looks at the call. Every call is
// recorded with all its arguments. Callbacks run on the calling thread in the library's order: body data,
// properties, data or listing, completion.
#pragma once

#include <libs3.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace module_test {

enum class S3Kind {
    initialize,
    deinitialize,
    list_service,
    create_bucket,
    delete_bucket,
    list_bucket,
    put_object,
    copy_object,
    get_object,
    head_object,
    delete_object,
    initiate_multipart,
    upload_part,
    complete_multipart,
    abort_multipart,
    list_parts,
    list_uploads,
    restore_object,
    user_info,
};

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Text = std::optional<std::string>;

/// A bucket context as the module filled it.
struct Context {
    Text host, bucket;
    S3Protocol protocol{};
    S3UriStyle uri_style{};
    Text access_key, secret_key, token, region;
    char option = 0;
};

/// Put properties as the module filled them.
struct PutRecord {
    Text content_type, md5, cache_control, disposition, encoding;
    int64_t expires = 0;
    S3CannedAcl acl{};
    Pairs metadata;
    char encryption = 0;
    long option = 0;
};

/// One call with its arguments. What a kind does not have keeps its initial value.
struct S3Call {
    S3Kind kind{};
    Context context;
    Text key;
    Text prefix, marker, delimiter, encoding;
    int max = -1;
    uint64_t start = 0, count = 0;
    bool conditions = false;
    Text if_match;
    uint64_t length = 0;
    std::optional<PutRecord> put;
    Text destination_bucket, destination_key;
    Text upload_id, part_marker, upload_marker;
    int part = 0;
    int days = 0;
    Text tier, user, location, user_agent;
    int acl = 0;
    int flags = 0;
    bool request_context = false;
    Text thread_host;  ///< default host of the calling thread
    int timeout = 0;
    std::thread::id thread;
    std::string body;        ///< what was taken from a put-data callback
    std::vector<int> pulls;  ///< what each put-data call returned
    Text etag;               ///< what the reply's properties told
    S3Status status{};       ///< how it ended
    bool properties_called = false;
};

/// As an ETag: the quoted MD5 of the body that the call sends; of a commit: what follows from its parts.
extern const char* const etag_of_body;

/// What a reply's headers tell.
struct Properties {
    Text etag;
    uint64_t length = 0;
    int64_t last_modified = -1;
    Pairs metadata;
    char encryption = 0;
    Text content_type, region, storage_class;
    int restore_status = 0;
    int64_t restore_expiry = 0;
};

/// Error details of a reply; absent texts are null.
struct Details {
    Text message, resource, further;
    Pairs extra;
};

struct ListedObject {
    std::string key;
    int64_t last_modified = -1;
    uint64_t size = 0;
    std::string etag = "\"x\"";
};

/// One page of a bucket listing.
struct Page {
    bool truncated = false;
    Text next_marker;
    std::vector<ListedObject> objects;
    std::vector<std::string> prefixes;
};

struct ListedPart {
    uint64_t number = 0;
    uint64_t size = 0;
    std::string etag;
};

struct ListedUpload {
    std::string key, upload_id;
    int64_t initiated = -1;
};

struct ListedBucket {
    std::string name;
    int64_t created = -1;
};

struct UserKey {
    std::string user, access_key, secret_key;
};

/// How a call shall end.
struct Reply {
    S3Status status = S3StatusOK;
    std::optional<Properties> properties;          ///< delivered when set
    bool null_properties = false;                  ///< the properties callback gets a null record
    std::string data;                              ///< a download's body
    size_t piece = 0;                              ///< bytes per data callback; 0 = all at once
    std::optional<Page> page;                      ///< a listing's page
    std::vector<ListedBucket> buckets;             ///< a service listing
    std::optional<std::vector<UserKey>> keys;      ///< a user's keys
    Text upload_id, commit_etag, commit_location;  ///< answers of the multipart calls
    std::vector<ListedPart> parts;                 ///< a page of parts
    std::vector<ListedUpload> uploads;             ///< a page of uploads
    bool truncated = false;                        ///< of those pages, with their markers
    Text next_part, next_key, next_upload;
    /// Bytes taken from the put-data callback, more than announced if so wanted; none: all on success.
    std::optional<size_t> take;
    bool null_data = false;  ///< the callbacks get no user data
    std::optional<Details> details;
    std::function<void()> before;  ///< runs inside the call, first
    std::function<void()> after;   ///< runs inside the call, after the completion
};

/// An object of the store.
struct Object {
    std::string data;
    Properties properties;
    PutRecord put;
};

/// A part of an upload in progress.
struct StoredPart {
    std::string data;
    std::string etag;
};

/// A multipart upload in progress.
struct Upload {
    std::string key;
    int64_t initiated = -1;
    PutRecord put;
    std::map<int, StoredPart> parts;
};

struct Bucket {
    int64_t created = -1;
    Text region;
    std::map<std::string, Object> objects;
    std::map<std::string, Upload> uploads;  ///< by upload id
};

/// Answers a call, or declines (no value) and leaves it to the next rule.
using Responder = std::function<std::optional<Reply>(const S3Call&)>;

/// Back to an empty store without rules.
void s3_reset();
/// The next call of that kind that no nth-rule catches ends like this; several are used in order.
void s3_script(S3Kind kind, Reply reply);
/// Forget what s3_script() said of that kind.
void s3_script_clear(S3Kind kind);
/// The nth call (from 1) of that kind ends like this.
void s3_on_call(S3Kind kind, int nth, Reply reply);
/// The nth call of that kind fails with a status.
void s3_fail(S3Kind kind, int nth, S3Status status);
/// Every call of that kind is shown to this function first.
void s3_respond(S3Kind kind, Responder responder);
/// Every call is shown to this function before all other rules; an empty one ends it.
void s3_intercept(Responder responder);
/// How the store would end a call.
Reply s3_store_answer(const S3Call& call);
/// How many bytes one put-data callback asks for (65536).
void s3_pull_size(int bytes);
/// Whether a status stays retryable after body bytes were taken (false, as in the library).
void s3_retry_after_data(bool retryable);
/// How many bytes one get-data callback carries when the store answers (16384).
void s3_push_size(size_t bytes);
/// How many entries a page of the store's listings holds (1000).
void s3_page_size(size_t entries);

/// The store. Fill it before the module runs.
Bucket& s3_bucket(const std::string& name);
/// Put an object with an MD5-like ETag; @return its properties to be changed.
Object& s3_object(const std::string& bucket, const std::string& key, const std::string& data);
/// The object of that name, or null.
const Object* s3_find(const std::string& bucket, const std::string& key);
/// An upload in progress, with parts of these data, from number 1.
Upload& s3_upload(const std::string& bucket, const std::string& key, const std::string& id, int64_t initiated,
                  const std::vector<std::string>& parts = {});
/// The ids of a bucket's uploads in progress.
std::vector<std::string> s3_upload_ids(const std::string& bucket);
/// Keys of a user of the gateway.
void s3_user(const std::string& name, std::vector<UserKey> keys);

/// The default host of the calling thread, none when it is the process's.
Text s3_thread_host();
/// The calls made so far.
std::vector<S3Call> s3_calls();
/// Those of one kind.
std::vector<S3Call> s3_calls(S3Kind kind);
/// The MD5 of a text in hexadecimal.
std::string md5_of(const std::string& data);
/// Make error details live as long as the returned function needs them.
void with_details(const std::optional<Details>& details,
                  const std::function<void(const S3ErrorDetails*)>& use);

}  // namespace module_test
