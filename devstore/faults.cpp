// Reading, matching and applying fault rules; see faults.h. Cuts and stalls
// themselves are carried out by the session.
#include "faults.h"

#include <algorithm>
#include <initializer_list>
#include <stdexcept>

#include "json.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

std::optional<std::uint64_t> optional_count(const json_t* object, const char* name) {
    const json_t* value = json_object_get(object, name);
    if (!value) return std::nullopt;
    if (!json_is_integer(value) || json_integer_value(value) < 0)
        throw std::invalid_argument(std::string(name) + " must be a number of bytes");
    return static_cast<std::uint64_t>(json_integer_value(value));
}

bool flag(const json_t* object, const char* name) {
    return json_is_true(json_object_get(object, name));
}

// A misspelt word would make a test pass for nothing.
void check_members(json_t* object, const char* what, std::initializer_list<std::string_view> known) {
    if (!json_is_object(object)) throw std::invalid_argument(std::string("no object \"") + what + '"');
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(object, name, value) {
        if (std::find(known.begin(), known.end(), std::string_view(name)) == known.end())
            throw std::invalid_argument("unknown member \"" + std::string(name) + "\" of \"" + what + '"');
    }
}

fault_action read_action(json_t* object) {
    check_members(object, "action",
                  {"delay_ms",
                   "status",
                   "body",
                   "headers",
                   "redirect",
                   "perform",
                   "read_body",
                   "withhold_continue",
                   "cut_request_after",
                   "stall_request_after",
                   "cut_before_reply",
                   "stall_before_reply",
                   "cut_reply_after",
                   "stall_reply_after",
                   "reset",
                   "short_body",
                   "overlong",
                   "etag",
                   "truncate_xml",
                   "ignore_range"});
    const char* name = nullptr;
    json_t* value = nullptr;
    fault_action out;
    out.delay_ms = optional_count(object, "delay_ms").value_or(0);
    if (const auto status = optional_count(object, "status")) {
        if (*status < 200 || *status > 599) throw std::invalid_argument("status must be in 200..599");
        out.status = static_cast<unsigned>(*status);
    }
    if (json_object_get(object, "body")) out.body = json_text(object, "body");
    json_object_foreach(json_object_get(object, "headers"), name, value) {
        if (json_is_null(value)) {
            out.remove_headers.emplace_back(name);
        } else if (json_is_string(value)) {
            out.headers.emplace_back(name, json_string_value(value));
        } else {
            throw std::invalid_argument("headers must be texts, or null to remove one");
        }
    }
    out.redirect = json_text(object, "redirect");
    out.perform = flag(object, "perform");
    out.read_body = flag(object, "read_body");
    out.withhold_continue = flag(object, "withhold_continue");
    out.cut_request_after = optional_count(object, "cut_request_after");
    out.stall_request_after = optional_count(object, "stall_request_after");
    out.cut_before_reply = flag(object, "cut_before_reply");
    out.stall_before_reply = flag(object, "stall_before_reply");
    out.cut_reply_after = optional_count(object, "cut_reply_after");
    out.stall_reply_after = optional_count(object, "stall_reply_after");
    out.reset = flag(object, "reset");
    out.short_body = optional_count(object, "short_body").value_or(0);
    out.overlong = optional_count(object, "overlong").value_or(0);
    out.etag = json_text(object, "etag");
    if (!out.etag.empty() && out.etag != "wrong" && out.etag != "missing")
        throw std::invalid_argument("etag must be \"wrong\" or \"missing\"");
    out.truncate_xml = flag(object, "truncate_xml");
    out.ignore_range = flag(object, "ignore_range");
    return out;
}

std::optional<std::regex> read_regex(const json_t* object, const char* name) {
    const auto text = json_text(object, name);
    if (text.empty()) return std::nullopt;
    try {
        return std::regex(text);
    } catch (const std::regex_error& error) {
        throw std::invalid_argument(std::string(name) + ": " + error.what());
    }
}

constexpr std::string_view wrong_etag = "00000000000000000000000000000bad";

void change_etags(const fault_action& action, http_response& response) {
    if (action.etag == "missing") response.remove("ETag");
    for (auto& [name, value] : response.headers)
        if (equals_ignoring_case(name, "ETag")) value = '"' + std::string(wrong_etag) + '"';
    for (std::size_t at = 0; (at = response.text.find("<ETag>", at)) != std::string::npos;) {
        const auto end = response.text.find("</ETag>", at);
        if (end == std::string::npos) return;
        const auto whole = end + 7 - at;
        const std::string text = action.etag == "missing"
                                     ? std::string()
                                     : "<ETag>&quot;" + std::string(wrong_etag) + "&quot;</ETag>";
        response.text.replace(at, whole, text);
        at += text.size();
    }
}

}  // namespace

void fault_plan::add(std::string_view json) {
    const auto root = parse_json(json);
    json_t* const match = json_object_get(root.get(), "match");
    check_members(match, "match", {"method", "path", "query", "skip", "count"});
    rule entry;
    entry.method = json_text(match, "method");
    entry.path = read_regex(match, "path");
    entry.query = read_regex(match, "query");
    entry.skip = optional_count(match, "skip").value_or(0);
    entry.count = optional_count(match, "count").value_or(1);
    entry.endless = entry.count == 0;
    entry.action = read_action(json_object_get(root.get(), "action"));
    const std::lock_guard lock(mutex_);
    rules_.push_back(std::move(entry));
}

void fault_plan::clear() {
    const std::lock_guard lock(mutex_);
    rules_.clear();
    ++generation_;
}

std::uint64_t fault_plan::generation() const {
    const std::lock_guard lock(mutex_);
    return generation_;
}

std::optional<fault_action> fault_plan::match(const http_request& request) {
    const std::lock_guard lock(mutex_);
    for (auto& entry : rules_) {
        if (!entry.endless && entry.count == 0) continue;
        if (!entry.method.empty() && entry.method != request.method) continue;
        if (entry.path && !std::regex_search(request.path, *entry.path)) continue;
        if (entry.query && !std::regex_search(request.raw_query, *entry.query)) continue;
        if (entry.skip > 0) {
            --entry.skip;
            continue;
        }
        if (!entry.endless) --entry.count;
        auto action = entry.action;
        action.generation = generation_;
        return action;
    }
    return std::nullopt;
}

void apply_fault(const fault_action& action, http_response& response) {
    if (action.answers()) {
        http_response scripted;
        scripted.status = action.status.value_or(action.redirect.empty() ? 200U : 307U);
        if (!action.redirect.empty()) scripted.set("Location", action.redirect);
        scripted.text = action.body.value_or(std::string());
        if (scripted.text.starts_with('<')) scripted.set("Content-Type", "application/xml");
        response = std::move(scripted);
    }
    if (!action.etag.empty()) change_etags(action, response);
    if (action.truncate_xml) response.text.resize(response.text.size() / 2);
    for (const auto& name : action.remove_headers)
        response.remove(name);
    for (const auto& [name, value] : action.headers)
        response.set(name, value);
}

}  // namespace zorvan::devstore
