// The index on disk; see journal.h. Files are named by the SHA-256 of what
// they describe, since keys may hold any byte; binary texts are kept as hex.
#include "journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <system_error>

#include "blob_directory.h"
#include "digest.h"
#include "json.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

std::string file_name(std::string_view kind, std::string_view bucket, std::string_view rest) {
    std::string whole(bucket);
    whole += '\n';
    whole += rest;
    return std::string(kind) + "-" + sha256_hex(whole) + ".json";
}

// Written beside and renamed, so that a reader finds the old or the new file, never half of one.
void replace_file(const std::filesystem::path& path, const json_t* document) {
    const auto beside = path.string() + ".new";
    {
        std::ofstream out(beside, std::ios::binary | std::ios::trunc);
        out << dump_json(document);
        out.flush();
        if (!out) throw std::system_error(EIO, std::generic_category(), "write " + beside);
    }
    std::filesystem::rename(beside, path);
}

void set_hex(json_t* object, const char* name, std::string_view bytes) {
    json_object_set_new(object, name, json_string(hex(bytes).c_str()));
}

std::string get_hex(const json_t* object, const char* name) {
    return from_hex(json_text(object, name)).value_or(std::string());
}

json_t* pairs_to_json(const std::vector<name_value>& pairs) {
    json_t* const out = json_array();
    for (const auto& [name, value] : pairs) {
        json_t* const item = json_object();
        set_hex(item, "name", name);
        set_hex(item, "value", value);
        json_array_append_new(out, item);
    }
    return out;
}

std::vector<name_value> pairs_from_json(json_t* list) {
    std::vector<name_value> out;
    std::size_t index = 0;
    json_t* item = nullptr;
    json_array_foreach(list, index, item) out.emplace_back(get_hex(item, "name"), get_hex(item, "value"));
    return out;
}

json_t* attributes_to_json(const object_attributes& attributes) {
    json_t* const out = json_object();
    set_hex(out, "content_type", attributes.content_type);
    json_object_set_new(out, "headers", pairs_to_json(attributes.headers));
    json_object_set_new(out, "metadata", pairs_to_json(attributes.metadata));
    set_hex(out, "storage_class", attributes.storage_class);
    return out;
}

object_attributes attributes_from_json(json_t* object) {
    object_attributes out;
    out.content_type = get_hex(object, "content_type");
    out.headers = pairs_from_json(json_object_get(object, "headers"));
    out.metadata = pairs_from_json(json_object_get(object, "metadata"));
    out.storage_class = get_hex(object, "storage_class");
    return out;
}

json_t* content_to_json(const content& body) {
    json_t* const out = json_array();
    for (const auto& piece : body.segments()) {
        json_t* const item = json_object();
        json_object_set_new(item, "blob", json_string(piece.source->name().c_str()));
        json_object_set_new(item, "offset", json_integer(static_cast<json_int_t>(piece.offset)));
        json_object_set_new(item, "length", json_integer(static_cast<json_int_t>(piece.length)));
        json_array_append_new(out, item);
    }
    return out;
}

// Blobs may be shared by several objects: each file is opened once.
using open_blobs = std::map<std::string, blob_ptr>;

content content_from_json(json_t* list, directory_blob_store& files, open_blobs& open) {
    content out;
    std::size_t index = 0;
    json_t* item = nullptr;
    json_array_foreach(list, index, item) {
        const auto name = json_text(item, "blob");
        auto& source = open[name];
        if (!source) source = files.open(name);
        const auto offset = static_cast<std::uint64_t>(json_number(item, "offset", 0));
        const auto length = static_cast<std::uint64_t>(json_number(item, "length", 0));
        if (!source || offset + length > source->size())
            throw std::invalid_argument("blob " + name + " is damaged");
        out.append({source, offset, length});
    }
    return out;
}

object_ptr object_from_json(json_t* root, directory_blob_store& files, open_blobs& open) {
    auto out = std::make_shared<object_record>();
    out->etag = json_text(root, "etag");
    out->modified = json_number(root, "modified", 0);
    out->archive_status = json_text(root, "archive_status");
    out->attributes = attributes_from_json(json_object_get(root, "attributes"));
    out->body = content_from_json(json_object_get(root, "content"), files, open);
    if (json_object_get(root, "restore_ready"))
        out->restore =
            restore_state{json_number(root, "restore_ready", 0), json_number(root, "restore_expires", 0)};
    return out;
}

upload_record upload_from_json(json_t* root, directory_blob_store& files, open_blobs& open) {
    upload_record out;
    out.key = get_hex(root, "key");
    out.id = json_text(root, "id");
    out.owner = json_text(root, "owner");
    out.initiated = json_number(root, "initiated", 0);
    out.attributes = attributes_from_json(json_object_get(root, "attributes"));
    std::size_t index = 0;
    json_t* item = nullptr;
    json_array_foreach(json_object_get(root, "parts"), index, item) {
        part_record part;
        part.etag = json_text(item, "etag");
        part.modified = json_number(item, "modified", 0);
        part.body = content_from_json(json_object_get(item, "content"), files, open);
        out.parts.emplace(static_cast<unsigned>(json_number(item, "number", 0)), std::move(part));
    }
    return out;
}

}  // namespace

journal::journal(std::filesystem::path root)
    : root_(std::move(root)), blobs_(std::make_unique<directory_blob_store>(root_ / "blobs")) {
    std::filesystem::create_directories(root_ / "index");
}

journal::~journal() = default;

blob_store& journal::blobs() {
    return *blobs_;
}

void journal::load(bucket_index& index) {
    std::vector<json_ptr> buckets;
    std::vector<json_ptr> entries;
    for (const auto& file : std::filesystem::directory_iterator(root_ / "index")) {
        const auto name = file.path().filename().string();
        if (!name.ends_with(".json")) continue;
        std::ifstream in(file.path(), std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        (name.starts_with("bucket-") ? buckets : entries).push_back(parse_json(text));
    }
    std::map<std::string, bucket*> by_name;
    for (const auto& root : buckets) {
        const auto name = json_text(root.get(), "name");
        by_name[name] =
            &index.restore_bucket(name, json_text(root.get(), "owner"), json_text(root.get(), "region"),
                                  json_number(root.get(), "created", 0));
    }
    open_blobs open;
    for (const auto& root : entries) {
        const auto at = by_name.find(json_text(root.get(), "bucket"));
        if (at == by_name.end()) continue;
        if (json_text(root.get(), "kind") == "object") {
            at->second->store(get_hex(root.get(), "key"), object_from_json(root.get(), *blobs_, open));
        } else {
            at->second->begin_upload(upload_from_json(root.get(), *blobs_, open));
        }
    }
    std::set<std::string> names;
    for (const auto& [name, source] : open)
        names.insert(name);
    blobs_->remove_others(names);
}

void journal::save_bucket(const bucket& entry) {
    const json_ptr root(json_object());
    json_object_set_new(root.get(), "name", json_from(entry.name));
    json_object_set_new(root.get(), "owner", json_from(entry.owner));
    json_object_set_new(root.get(), "region", json_from(entry.region));
    json_object_set_new(root.get(), "created", json_integer(entry.created));
    replace_file(root_ / "index" / file_name("bucket", entry.name, ""), root.get());
}

void journal::remove_bucket(const std::string& name) {
    std::filesystem::remove(root_ / "index" / file_name("bucket", name, ""));
}

void journal::save_object(const std::string& bucket, const std::string& key, const object_record& object) {
    const json_ptr root(json_object());
    json_object_set_new(root.get(), "kind", json_string("object"));
    json_object_set_new(root.get(), "bucket", json_from(bucket));
    set_hex(root.get(), "key", key);
    json_object_set_new(root.get(), "etag", json_from(object.etag));
    json_object_set_new(root.get(), "modified", json_integer(object.modified));
    json_object_set_new(root.get(), "archive_status", json_from(object.archive_status));
    json_object_set_new(root.get(), "attributes", attributes_to_json(object.attributes));
    json_object_set_new(root.get(), "content", content_to_json(object.body));
    if (object.restore) {
        json_object_set_new(root.get(), "restore_ready", json_integer(object.restore->ready_at));
        json_object_set_new(root.get(), "restore_expires", json_integer(object.restore->expires_at));
    }
    replace_file(root_ / "index" / file_name("object", bucket, key), root.get());
}

void journal::remove_object(const std::string& bucket, const std::string& key) {
    std::filesystem::remove(root_ / "index" / file_name("object", bucket, key));
}

void journal::save_upload(const std::string& bucket, const upload_record& upload) {
    const json_ptr root(json_object());
    json_object_set_new(root.get(), "kind", json_string("upload"));
    json_object_set_new(root.get(), "bucket", json_from(bucket));
    set_hex(root.get(), "key", upload.key);
    json_object_set_new(root.get(), "id", json_from(upload.id));
    json_object_set_new(root.get(), "owner", json_from(upload.owner));
    json_object_set_new(root.get(), "initiated", json_integer(upload.initiated));
    json_object_set_new(root.get(), "attributes", attributes_to_json(upload.attributes));
    json_t* const parts = json_array();
    for (const auto& [number, part] : upload.parts) {
        json_t* const item = json_object();
        json_object_set_new(item, "number", json_integer(number));
        json_object_set_new(item, "etag", json_from(part.etag));
        json_object_set_new(item, "modified", json_integer(part.modified));
        json_object_set_new(item, "content", content_to_json(part.body));
        json_array_append_new(parts, item);
    }
    json_object_set_new(root.get(), "parts", parts);
    replace_file(root_ / "index" / file_name("upload", bucket, upload.id), root.get());
}

void journal::remove_upload(const std::string& bucket, const std::string& id) {
    std::filesystem::remove(root_ / "index" / file_name("upload", bucket, id));
}

}  // namespace zorvan::devstore
