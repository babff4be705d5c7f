// Log of requests; see request_log.h.
#include "request_log.h"

#include "json.h"

namespace zorvan::devstore {

std::uint64_t request_log::begin(std::uint64_t connection, const http_request& request) {
    logged_request entry;
    entry.connection = connection;
    entry.method = request.method;
    entry.path = request.path;
    entry.query = request.raw_query;
    for (const auto& header : request.headers)
        if (header.first != "authorization") entry.headers.push_back(header);
    const std::lock_guard lock(mutex_);
    entry.id = next_++;
    entries_.push_back(std::move(entry));
    if (entries_.size() > limit) entries_.pop_front();
    return next_ - 1;
}

void request_log::update(const logged_request& state) {
    const std::lock_guard lock(mutex_);
    // Ids count up by one, so the place follows from the first entry's.
    if (entries_.empty() || state.id < entries_.front().id) return;
    auto& entry = entries_[static_cast<std::size_t>(state.id - entries_.front().id)];
    entry.status = state.status;
    entry.bytes_in = state.bytes_in;
    entry.bytes_out = state.bytes_out;
    entry.sent_continue = state.sent_continue;
    entry.outcome = state.outcome;
}

void request_log::clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
}

void request_log::count_on_bucket(const std::string& bucket, const http_request& request) {
    bucket_request entry{request.method, bucket, std::string(request.header("user-agent")), {}};
    for (const auto& parameter : request.query)
        entry.parameters.insert(parameter.first);
    const std::lock_guard lock(mutex_);
    ++on_buckets_[entry];
}

std::string request_log::on_buckets_json() const {
    json_ptr root(json_object());
    json_t* const list = json_array();
    json_object_set_new(root.get(), "requests", list);
    const std::lock_guard lock(mutex_);
    for (const auto& [entry, count] : on_buckets_) {
        json_t* const item = json_object();
        json_object_set_new(item, "method", json_from(entry.method));
        json_object_set_new(item, "bucket", json_from(entry.bucket));
        json_t* const parameters = json_array();
        for (const auto& name : entry.parameters)
            json_array_append_new(parameters, json_from(name));
        json_object_set_new(item, "parameters", parameters);
        json_object_set_new(item, "agent", json_from(entry.agent));
        json_object_set_new(item, "count", json_integer(static_cast<json_int_t>(count)));
        json_array_append_new(list, item);
    }
    return dump_json(root.get());
}

std::string request_log::json() const {
    json_ptr root(json_object());
    json_t* const list = json_array();
    json_object_set_new(root.get(), "requests", list);
    const std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
        json_t* const item = json_object();
        json_object_set_new(item, "id", json_integer(static_cast<json_int_t>(entry.id)));
        json_object_set_new(item, "connection", json_integer(static_cast<json_int_t>(entry.connection)));
        json_object_set_new(item, "method", json_from(entry.method));
        json_object_set_new(item, "path", json_from(entry.path));
        json_object_set_new(item, "query", json_from(entry.query));
        json_t* const headers = json_object();
        for (const auto& [name, value] : entry.headers)
            json_object_set_new(headers, name.c_str(), json_from(value));
        json_object_set_new(item, "headers", headers);
        json_object_set_new(item, "status", json_integer(entry.status));
        json_object_set_new(item, "bytes_in", json_integer(static_cast<json_int_t>(entry.bytes_in)));
        json_object_set_new(item, "bytes_out", json_integer(static_cast<json_int_t>(entry.bytes_out)));
        json_object_set_new(item, "continue", json_boolean(entry.sent_continue));
        json_object_set_new(item, "outcome", json_from(entry.outcome));
        json_array_append_new(list, item);
    }
    return dump_json(root.get());
}

}  // namespace zorvan::devstore
