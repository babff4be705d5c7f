// The in-memory store behind the scripted S3 layer and the choice of a call's outcome.
//
// One mutex guards it all; it is released while the module's callbacks run.
#include "scripted_s3_store.h"

#include <deque>
#include <mutex>

#include "call_trace.h"

namespace module_test {
namespace {

std::mutex mutex;
std::map<std::string, Bucket> buckets;
std::map<std::string, std::vector<UserKey>> users;
std::map<S3Kind, std::deque<Reply>> scripts;
std::map<S3Kind, std::map<int, Reply>> nth_replies;
std::map<S3Kind, Responder> responders;
Responder interceptor;
std::map<S3Kind, int> call_counts;
std::vector<S3Call> calls;
int pull_bytes = 65536;
size_t push_bytes = 16384;
size_t page_entries = 1000;
int uploads_begun = 0;
bool retries_after_data = false;

Reply failed(S3Status status) {
    Reply reply;
    reply.status = status;
    return reply;
}

const Object* find_locked(const Text& bucket, const Text& key) {
    const auto found = buckets.find(bucket.value_or(""));
    if (found == buckets.end() || !key) return nullptr;
    const auto object = found->second.objects.find(*key);
    return object == found->second.objects.end() ? nullptr : &object->second;
}

Reply head(const S3Call& call) {
    Reply reply;
    if (!call.key || call.key->empty()) {
        const auto bucket = buckets.find(call.context.bucket.value_or(""));
        if (bucket == buckets.end()) return failed(S3StatusHttpErrorNotFound);
        reply.properties = Properties{};
        reply.properties->region = bucket->second.region;
        return reply;
    }
    const auto* object = find_locked(call.context.bucket, call.key);
    if (object == nullptr) return failed(S3StatusHttpErrorNotFound);
    reply.properties = object->properties;
    return reply;
}

Reply get(const S3Call& call) {
    const auto* object = find_locked(call.context.bucket, call.key);
    if (object == nullptr) return failed(S3StatusErrorNoSuchKey);
    Reply reply;
    const auto size = object->data.size();
    if (call.start > 0 && call.start >= size) {
        reply.status = S3StatusErrorInvalidRange;
        const auto end = call.count == 0 ? std::string() : std::to_string(call.start + call.count - 1);
        reply.details = Details{{},
                                {},
                                {},
                                {{"RangeRequested", "bytes=" + std::to_string(call.start) + "-" + end},
                                 {"ActualObjectSize", std::to_string(size)}}};
        return reply;
    }
    reply.data = object->data.substr(call.start, call.count == 0 ? std::string::npos : call.count);
    reply.piece = push_bytes;
    reply.properties = object->properties;
    reply.properties->length = reply.data.size();
    return reply;
}

Reply list(const S3Call& call) {
    const auto bucket = buckets.find(call.context.bucket.value_or(""));
    if (bucket == buckets.end()) return failed(S3StatusErrorNoSuchBucket);
    Reply reply;
    reply.properties = Properties{};
    Page page;
    const auto prefix = call.prefix.value_or("");
    const auto marker = call.marker.value_or("");
    const auto limit = call.max > 0 ? static_cast<size_t>(call.max) : page_entries;
    std::string last;
    for (const auto& [key, object] : bucket->second.objects) {
        if (!key.starts_with(prefix)) continue;
        const auto slash = key.find('/', prefix.size());
        const bool common = call.delimiter == "/" && slash != std::string::npos;
        const auto name = common ? key.substr(0, slash + 1) : key;
        if (name <= marker && !marker.empty()) continue;
        if (name == last) continue;
        if (page.objects.size() + page.prefixes.size() == limit) {
            page.truncated = true;
            page.next_marker = last;
            break;
        }
        last = name;
        if (common)
            page.prefixes.push_back(name);
        else
            page.objects.push_back({key, object.properties.last_modified, object.data.size(),
                                    object.properties.etag.value_or("")});
    }
    reply.page = page;
    return reply;
}

Reply service() {
    Reply reply;
    reply.properties = Properties{};
    for (const auto& [name, bucket] : buckets)
        reply.buckets.push_back({name, bucket.created});
    return reply;
}

Reply user(const S3Call& call) {
    const auto found = users.find(call.user.value_or(""));
    if (found == users.end()) return failed(S3StatusHttpErrorNotFound);
    Reply reply;
    reply.properties = Properties{};
    reply.keys = found->second;
    return reply;
}

Reply upload_call(const S3Call& call) {
    const auto bucket = buckets.find(call.context.bucket.value_or(""));
    if (bucket == buckets.end()) return failed(S3StatusErrorNoSuchBucket);
    auto reply = answer_upload_call(bucket->second, call, page_entries);
    // Never an id that another upload has or had.
    if (call.kind == S3Kind::initiate_multipart) reply.upload_id = "2~new" + std::to_string(++uploads_begun);
    return reply;
}

// A request on an object without a key would be one on its bucket: the library refuses it.
bool lacks_key(const S3Call& call) {
    switch (call.kind) {
        case S3Kind::put_object:
        case S3Kind::get_object:
        case S3Kind::delete_object:
        case S3Kind::copy_object:
        case S3Kind::restore_object:
        case S3Kind::initiate_multipart:
        case S3Kind::upload_part:
        case S3Kind::complete_multipart:
        case S3Kind::abort_multipart:
        case S3Kind::list_parts:
            return call.key.value_or("").empty() || call.destination_key == "";
        default:
            return false;
    }
}

Reply from_store(const S3Call& call) {
    if (lacks_key(call)) return failed(S3StatusErrorUserKeyMustBeSpecified);
    switch (call.kind) {
        case S3Kind::initiate_multipart:
        case S3Kind::upload_part:
        case S3Kind::complete_multipart:
        case S3Kind::abort_multipart:
        case S3Kind::list_parts:
        case S3Kind::list_uploads:
            return upload_call(call);
        case S3Kind::head_object:
            return head(call);
        case S3Kind::get_object:
            return get(call);
        case S3Kind::list_bucket:
            return list(call);
        case S3Kind::list_service:
            return service();
        case S3Kind::user_info:
            return user(call);
        default:
            break;
    }
    Reply reply;
    reply.properties = Properties{};
    reply.properties->etag = "\"0123456789abcdef0123456789abcdef\"";
    return reply;
}

// What a successful call changes.
void apply(const S3Call& call) {
    if (call.kind == S3Kind::create_bucket) buckets[call.context.bucket.value_or("")];
    if (call.kind == S3Kind::delete_bucket) buckets.erase(call.context.bucket.value_or(""));
    const auto found = buckets.find(call.context.bucket.value_or(""));
    if (found == buckets.end()) return;
    apply_upload_call(found->second, call);
    auto& objects = found->second.objects;
    if (call.kind == S3Kind::delete_object) objects.erase(call.key.value_or(""));
    if (call.kind == S3Kind::put_object) {
        Object object{call.body, {}, call.put.value_or(PutRecord{})};
        object.properties.length = call.body.size();
        object.properties.metadata = object.put.metadata;
        object.properties.etag = "\"0123456789abcdef0123456789abcdef\"";
        objects[call.key.value_or("")] = object;
    }
    if (call.kind == S3Kind::copy_object && call.key && objects.contains(*call.key)) {
        const auto source = objects[*call.key];
        buckets[call.destination_bucket.value_or(*call.context.bucket)]
            .objects[call.destination_key.value_or(*call.key)] = source;
    }
}

}  // namespace

Reply decide(const S3Call& call) {
    Responder responder;
    {
        const std::lock_guard lock(mutex);
        responder = interceptor;
    }
    if (responder)
        if (auto reply = responder(call)) return *reply;
    responder = nullptr;
    {
        const std::lock_guard lock(mutex);
        const auto nth = ++call_counts[call.kind];
        auto& special = nth_replies[call.kind];
        if (const auto found = special.find(nth); found != special.end()) return found->second;
        auto& script = scripts[call.kind];
        if (!script.empty()) {
            auto reply = script.front();
            script.pop_front();
            return reply;
        }
        if (const auto found = responders.find(call.kind); found != responders.end())
            responder = found->second;
    }
    if (responder)
        if (auto reply = responder(call)) return *reply;
    const std::lock_guard lock(mutex);
    return from_store(call);
}

size_t begin(const S3Call& call) {
    const std::lock_guard lock(mutex);
    calls.push_back(call);
    return calls.size() - 1;
}

void end(size_t index, const S3Call& call) {
    const std::lock_guard lock(mutex);
    calls[index] = call;
    if (call.status == S3StatusOK) apply(call);
}

S3Status check_commit(const S3Call& call) {
    const std::lock_guard lock(mutex);
    const auto found = buckets.find(call.context.bucket.value_or(""));
    if (found == buckets.end()) return S3StatusErrorNoSuchBucket;
    if (!parse_commit(call.body)) return S3StatusErrorMalformedXML;
    return assemble(found->second, call) ? S3StatusOK : S3StatusErrorInvalidPart;
}

std::string commit_etag(const S3Call& call) {
    const std::lock_guard lock(mutex);
    return assemble(buckets[call.context.bucket.value_or("")], call)->properties.etag.value_or("");
}

int pull_size() {
    const std::lock_guard lock(mutex);
    return pull_bytes;
}

void s3_reset() {
    const std::lock_guard lock(mutex);
    buckets.clear();
    users.clear();
    scripts.clear();
    nth_replies.clear();
    responders.clear();
    interceptor = nullptr;
    call_counts.clear();
    calls.clear();
    pull_bytes = 65536;
    push_bytes = 16384;
    page_entries = 1000;
    uploads_begun = 0;
    retries_after_data = false;
}

bool retry_after_data() {
    const std::lock_guard lock(mutex);
    return retries_after_data;
}

void s3_retry_after_data(bool retryable) {
    const std::lock_guard lock(mutex);
    retries_after_data = retryable;
}

void s3_script(S3Kind kind, Reply reply) {
    const std::lock_guard lock(mutex);
    scripts[kind].push_back(std::move(reply));
}

void s3_script_clear(S3Kind kind) {
    const std::lock_guard lock(mutex);
    scripts[kind].clear();
}

void s3_on_call(S3Kind kind, int nth, Reply reply) {
    const std::lock_guard lock(mutex);
    nth_replies[kind][nth] = std::move(reply);
}

void s3_fail(S3Kind kind, int nth, S3Status status) {
    s3_on_call(kind, nth, failed(status));
}

void s3_respond(S3Kind kind, Responder responder) {
    const std::lock_guard lock(mutex);
    responders[kind] = std::move(responder);
}

void s3_intercept(Responder responder) {
    const std::lock_guard lock(mutex);
    interceptor = std::move(responder);
}

Reply s3_store_answer(const S3Call& call) {
    const std::lock_guard lock(mutex);
    return from_store(call);
}

void s3_pull_size(int bytes) {
    const std::lock_guard lock(mutex);
    pull_bytes = bytes;
}

void s3_push_size(size_t bytes) {
    const std::lock_guard lock(mutex);
    push_bytes = bytes;
}

void s3_page_size(size_t entries) {
    const std::lock_guard lock(mutex);
    page_entries = entries;
}

Bucket& s3_bucket(const std::string& name) {
    const std::lock_guard lock(mutex);
    return buckets[name];
}

Object& s3_object(const std::string& bucket, const std::string& key, const std::string& data) {
    const std::lock_guard lock(mutex);
    auto& object = buckets[bucket].objects[key];
    object.data = data;
    object.properties.length = data.size();
    object.properties.etag = "\"0123456789abcdef0123456789abcdef\"";
    object.properties.last_modified = 1600000000;
    return object;
}

const Object* s3_find(const std::string& bucket, const std::string& key) {
    const std::lock_guard lock(mutex);
    return find_locked(bucket, key);
}

Upload& s3_upload(const std::string& bucket, const std::string& key, const std::string& id, int64_t initiated,
                  const std::vector<std::string>& parts) {
    const std::lock_guard lock(mutex);
    auto& upload = buckets[bucket].uploads[id];
    upload.key = key;
    upload.initiated = initiated;
    for (const auto& data : parts)
        upload.parts[static_cast<int>(upload.parts.size()) + 1] = {data, "\"" + md5_of(data) + "\""};
    return upload;
}

std::vector<std::string> s3_upload_ids(const std::string& bucket) {
    const std::lock_guard lock(mutex);
    std::vector<std::string> ids;
    for (const auto& [id, upload] : buckets[bucket].uploads)
        ids.push_back(id);
    return ids;
}

void s3_user(const std::string& name, std::vector<UserKey> keys) {
    const std::lock_guard lock(mutex);
    users[name] = std::move(keys);
}

std::vector<S3Call> s3_calls() {
    const std::lock_guard lock(mutex);
    return calls;
}

std::vector<S3Call> s3_calls(S3Kind kind) {
    const std::lock_guard lock(mutex);
    std::vector<S3Call> found;
    for (const auto& call : calls)
        if (call.kind == kind) found.push_back(call);
    return found;
}

void with_details(const std::optional<Details>& details,
                  const std::function<void(const S3ErrorDetails*)>& use) {
    if (!details) {
        use(nullptr);
        return;
    }
    const auto pointer = [](const Text& text) { return text ? text->c_str() : nullptr; };
    std::vector<S3NameValue> extra;
    for (const auto& [name, value] : details->extra)
        extra.push_back({name.c_str(), value.c_str()});
    const S3ErrorDetails record{pointer(details->message), pointer(details->resource),
                                pointer(details->further), static_cast<int>(extra.size()), extra.data()};
    use(&record);
}

}  // namespace module_test
