// Look-ups on requests and assembly of replies; see http_message.h.
#include "http_message.h"

#include <algorithm>

#include "text.h"

namespace zorvan::devstore {

std::string_view http_request::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (key == name) return value;
    return {};
}

bool http_request::has_header(std::string_view name) const {
    return std::any_of(headers.begin(), headers.end(), [&](const name_value& h) { return h.first == name; });
}

const std::string* http_request::parameter(std::string_view name) const {
    for (const auto& [key, value] : query)
        if (key == name) return &value;
    return nullptr;
}

std::string http_request::parameter_or_empty(std::string_view name) const {
    const auto* value = parameter(name);
    return value ? *value : std::string();
}

void set_target(http_request& request, std::string_view target) {
    // A proxy-style absolute target carries scheme and authority before the path.
    if (!target.starts_with('/')) {
        const auto scheme = target.find("://");
        const auto slash = scheme == std::string_view::npos ? scheme : target.find('/', scheme + 3);
        target = slash == std::string_view::npos ? std::string_view("/") : target.substr(slash);
    }
    const auto question = target.find('?');
    request.path = target.substr(0, question);
    request.raw_query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
    request.query.clear();
    if (request.raw_query.empty()) return;
    for (const auto piece : split(request.raw_query, '&')) {
        if (piece.empty()) continue;
        const auto equals = piece.find('=');
        request.query.emplace_back(
            url_decode(piece.substr(0, equals), true),
            equals == std::string_view::npos ? std::string() : url_decode(piece.substr(equals + 1), true));
    }
}

void http_response::set(std::string_view name, std::string_view value) {
    for (auto& [key, old] : headers) {
        if (equals_ignoring_case(key, name)) {
            old = value;
            return;
        }
    }
    headers.emplace_back(name, value);
}

void http_response::remove(std::string_view name) {
    std::erase_if(headers, [&](const name_value& h) { return equals_ignoring_case(h.first, name); });
}

std::string_view reason_phrase(unsigned status) {
    switch (status) {
        case 200:
            return "OK";
        case 202:
            return "Accepted";
        case 204:
            return "No Content";
        case 206:
            return "Partial Content";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 304:
            return "Not Modified";
        case 307:
            return "Temporary Redirect";
        case 308:
            return "Permanent Redirect";
        case 400:
            return "Bad Request";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 409:
            return "Conflict";
        case 411:
            return "Length Required";
        case 412:
            return "Precondition Failed";
        case 416:
            return "Range Not Satisfiable";
        case 429:
            return "Too Many Requests";
        case 500:
            return "Internal Server Error";
        case 501:
            return "Not Implemented";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "Unknown";
    }
}

http_response xml_response(std::string document, unsigned status) {
    http_response out;
    out.status = status;
    out.set("Content-Type", "application/xml");
    out.text = R"(<?xml version="1.0" encoding="UTF-8"?>)" + std::move(document);
    return out;
}

}  // namespace zorvan::devstore
