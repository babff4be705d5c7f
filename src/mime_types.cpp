/*
 * The table from file-name extension to MIME type.
 *
 * Filled by activation from a file in mime.types form, read by uploads without a lock, destroyed by
 * deactivation. An entry is one allocation: the extension in a field of fixed size, the type behind it.
 */
#include "zorvan_s3.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
constexpr int bucket_count = 1549;
constexpr size_t line_size = 256;
constexpr size_t longest_extension = 30;

struct mime_entry_t {
    char extension[32];

    char* type() noexcept { return reinterpret_cast<char*>(this + 1); }
};

zorvan_hashtable_t zorvan_i_s3_mime_extensions = nullptr;

mime_entry_t* make_entry(std::string_view extension, std::string_view type) noexcept {
    auto* const entry = static_cast<mime_entry_t*>(std::calloc(1, sizeof(mime_entry_t) + type.size() + 1));
    if (!entry) return nullptr;
    extension.copy(entry->extension, extension.size());
    type.copy(entry->type(), type.size());
    return entry;
}

/** Add the extensions of one line. @return whether memory sufficed */
bool add_extensions(std::string_view type, std::string_view rest) noexcept {
    constexpr std::string_view blanks = " \t\n\v\f\r";
    constexpr std::string_view separators = " \t\n\r";
    for (;;) {
        const size_t begin = rest.find_first_not_of(blanks);
        if (begin == std::string_view::npos) return true;
        rest.remove_prefix(begin);
        const std::string_view extension = rest.substr(0, rest.find_first_of(separators));
        rest.remove_prefix(extension.size());
        if (extension.empty() || extension.size() > longest_extension) continue;
        mime_entry_t* const entry = make_entry(extension, type);
        if (!entry) return false;
        /* The first line that names an extension wins; any other refusal is a lack of memory. */
        const bool known = zorvan_hashtable_lookup(&zorvan_i_s3_mime_extensions, entry->extension) != nullptr;
        if (known || zorvan_hashtable_insert(&zorvan_i_s3_mime_extensions, entry->extension, entry) != 0) {
            std::free(entry);
            if (!known) return false;
        }
    }
}
}  // namespace

int zorvan_i_s3_mime_types_init() noexcept {
    return zorvan_hashtable_init(&zorvan_i_s3_mime_extensions, bucket_count, zorvan_hashtable_string_hash,
                                 zorvan_hashtable_string_keyeq);
}

void zorvan_i_s3_mime_types_destroy() noexcept {
    zorvan_hashtable_destroy_all(&zorvan_i_s3_mime_extensions, std::free);
}

int zorvan_i_s3_mime_types_parse(const char* path) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    FILE* const file = std::fopen(path, "r");
    if (!file) {
        zorvan_i_s3_mime_types_destroy();
        return trace.exit(-1);
    }
    char line[line_size];
    while (std::fgets(line, sizeof line, file)) {
        line[std::strcspn(line, "#")] = '\0';
        char type[line_size];
        char rest[line_size];
        if (std::sscanf(line, "%255s %255[^\n]", type, rest) != 2) continue;
        if (!add_extensions(type, rest)) {
            std::fclose(file);
            zorvan_i_s3_mime_types_destroy();
            return trace.exit(-1);
        }
    }
    /* The stream stays open on purpose: whoever watches the process sees which file is in force. */
    static FILE* in_force = nullptr;
    in_force = file;
    (void)in_force;
    return trace.exit(0);
}

const char* zorvan_i_s3_mime_type_of_extension(const char* extension) noexcept {
    if (!zorvan_i_s3_mime_extensions) return nullptr;
    auto* const entry =
        static_cast<mime_entry_t*>(zorvan_hashtable_lookup(&zorvan_i_s3_mime_extensions, extension));
    return entry ? entry->type() : nullptr;
}

const char* zorvan_i_s3_mime_type_of_key(const char* key) noexcept {
    const char* const dot = key ? std::strrchr(key, '.') : nullptr;
    return dot && dot[1] ? zorvan_i_s3_mime_type_of_extension(dot + 1) : nullptr;
}
