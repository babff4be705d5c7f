/*
 * Error objects and the process-wide table that turns them into 32-bit results.
 *
 * An object owns its texts and its cause. Moving it into the table gives a handle; taking it out gives the
 * object back. One mutex guards the table and nothing is called under it. Reporting an error must not fail
 * for want of memory, so a static "out of memory" object, which is in no table, takes the place of what could
 * not be made.
 */
#include <zorvan_common.h>

#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "c_memory.h"
#include "handle_counter.h"
#include "never_destroyed.h"

using zorvan::common::CText;
using zorvan::common::HandleCounter;
using zorvan::common::kOutOfMemoryHandle;
using zorvan::common::NeverDestroyed;

struct zorvan_error_s {
    const zorvan_module_descriptor_t* module = nullptr;
    zorvan_error_t* cause = nullptr;
    int type = ZORVAN_ERROR_TYPE_GENERIC;
    int line = 0;
    int errno_value = 0;
    int ftp_code = 0;
    CText source_file;
    CText function;
    CText ftp_word;
    CText text;
};

namespace {

constexpr char kOutOfMemoryText[] = "out of memory";
constexpr char kUnknownErrorText[] = "unknown error";

constinit NeverDestroyed<zorvan_error_s> out_of_memory_object;

zorvan_error_t* out_of_memory() {
    return &out_of_memory_object.value;
}

bool is_out_of_memory(const zorvan_error_t* error) {
    return error == &out_of_memory_object.value;
}

struct Table {
    std::mutex mutex;
    std::unordered_map<zorvan_result_t, zorvan_error_t*> objects;
    HandleCounter handles;
};

Table& table() {
    static NeverDestroyed<Table> instance;
    return instance.value;
}

/** Copies `from` when there is something to copy. @return false when memory is exhausted */
bool copy_text(CText& to, const char* from) {
    to.reset(zorvan_libc_strdup(from));
    return from == nullptr || to != nullptr;
}

/** A new object that owns `cause` and has the formatted text, or the static object. */
zorvan_error_t* construct(const zorvan_module_descriptor_t* module, zorvan_error_t* cause, int type,
                          const char* format, va_list arguments) {
    auto* error = new (std::nothrow) zorvan_error_s;
    if (error == nullptr) {
        zorvan_error_free(cause);
        return out_of_memory();
    }
    error->module = module;
    error->cause = cause;
    error->type = type;
    if (format != nullptr) {
        error->text.reset(zorvan_common_v_create_string(format, arguments));
        if (!error->text) {
            zorvan_error_free(error);
            return out_of_memory();
        }
    }
    return error;
}

const char* text_of(const zorvan_error_t& error) {
    return is_out_of_memory(&error) ? kOutOfMemoryText : error.text.get();
}

/** The friendly line of one object, without its causes. */
std::string friendly_line(const zorvan_error_t& error) {
    const char* text = text_of(error);
    std::string line = text != nullptr ? text : "";
    if (error.type == ZORVAN_ERROR_TYPE_SYSTEM) {
        char buffer[256];
        const char* reason = ::strerror_r(error.errno_value, buffer, sizeof buffer);
        line += line.empty() ? "" : ": ";
        line += reason;
    } else if (error.type == ZORVAN_ERROR_TYPE_FTP_RESPONSE && text == nullptr) {
        line = std::to_string(error.ftp_code);
        if (error.ftp_word) line.append(" ").append(error.ftp_word.get());
    } else if (text == nullptr) {
        line = kUnknownErrorText;
    }
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    return line;
}

}  // namespace

zorvan_error_t* zorvan_error_construct_error(const zorvan_module_descriptor_t* module, zorvan_error_t* cause,
                                             int type, const char* source_file, const char* function,
                                             int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zorvan_error_t* error = construct(module, cause, type, format, arguments);
    va_end(arguments);
    if (is_out_of_memory(error)) return error;
    error->line = line;
    if (!copy_text(error->source_file, source_file) || !copy_text(error->function, function)) {
        zorvan_error_free(error);
        return out_of_memory();
    }
    return error;
}

zorvan_error_t* zorvan_i_gfs_error_system(zorvan_error_t* cause, int errno_value, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zorvan_error_t* error = construct(nullptr, cause, ZORVAN_ERROR_TYPE_SYSTEM, format, arguments);
    va_end(arguments);
    if (!is_out_of_memory(error)) error->errno_value = errno_value;
    return error;
}

zorvan_error_t* zorvan_gfs_ftp_response_error_construct(const zorvan_module_descriptor_t* module,
                                                        zorvan_error_t* cause, int code,
                                                        const char* error_type, const char* text_format,
                                                        ...) {
    va_list arguments;
    va_start(arguments, text_format);
    zorvan_error_t* error = construct(module, cause, ZORVAN_ERROR_TYPE_FTP_RESPONSE, text_format, arguments);
    va_end(arguments);
    if (is_out_of_memory(error)) return error;
    error->ftp_code = code;
    if (!copy_text(error->ftp_word, error_type)) {
        zorvan_error_free(error);
        return out_of_memory();
    }
    return error;
}

zorvan_result_t zorvan_error_put(zorvan_error_t* error) {
    if (error == nullptr) {
        error = zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, nullptr, nullptr, 0,
                                             nullptr);
    }
    if (is_out_of_memory(error)) return kOutOfMemoryHandle;
    try {
        Table& errors = table();
        const std::lock_guard lock(errors.mutex);
        const auto handle =
            errors.handles.next([&](zorvan_result_t value) { return errors.objects.contains(value); });
        errors.objects.emplace(handle, error);
        return handle;
    } catch (const std::bad_alloc&) {
        zorvan_error_free(error);
        return kOutOfMemoryHandle;
    }
}

zorvan_error_t* zorvan_error_peek(zorvan_result_t result) {
    if (result == kOutOfMemoryHandle) return out_of_memory();
    Table& errors = table();
    const std::lock_guard lock(errors.mutex);
    const auto found = errors.objects.find(result);
    return found != errors.objects.end() ? found->second : nullptr;
}

zorvan_error_t* zorvan_error_get(zorvan_result_t result) {
    if (result == kOutOfMemoryHandle) return out_of_memory();
    Table& errors = table();
    const std::lock_guard lock(errors.mutex);
    const auto found = errors.objects.find(result);
    if (found == errors.objects.end()) return nullptr;
    zorvan_error_t* error = found->second;
    errors.objects.erase(found);
    return error;
}

void zorvan_error_free(zorvan_error_t* error) {
    // A loop, not recursion: a chain of causes may be longer than a worker's stack is deep.
    while (error != nullptr && !is_out_of_memory(error)) {
        zorvan_error_t* cause = error->cause;
        delete error;
        error = cause;
    }
}

char* zorvan_error_print_friendly(const zorvan_error_t* error) {
    try {
        if (error == nullptr) return zorvan_libc_strdup(kUnknownErrorText);
        std::string lines = friendly_line(*error);
        for (error = error->cause; error != nullptr; error = error->cause) {
            lines.append("\n").append(friendly_line(*error));
        }
        return zorvan_libc_strdup(lines.c_str());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int zorvan_error_get_type(const zorvan_error_t* error) {
    return error != nullptr ? error->type : 0;
}

const zorvan_error_t* zorvan_error_get_cause(const zorvan_error_t* error) {
    return error != nullptr ? error->cause : nullptr;
}

const zorvan_module_descriptor_t* zorvan_error_get_module(const zorvan_error_t* error) {
    return error != nullptr ? error->module : nullptr;
}

const char* zorvan_error_get_source_file(const zorvan_error_t* error) {
    return error != nullptr ? error->source_file.get() : nullptr;
}

const char* zorvan_error_get_function(const zorvan_error_t* error) {
    return error != nullptr ? error->function.get() : nullptr;
}

int zorvan_error_get_line(const zorvan_error_t* error) {
    return error != nullptr ? error->line : 0;
}

const char* zorvan_error_get_text(const zorvan_error_t* error) {
    return error != nullptr ? text_of(*error) : nullptr;
}

int zorvan_error_get_errno(const zorvan_error_t* error) {
    return error != nullptr ? error->errno_value : 0;
}

int zorvan_error_get_ftp_code(const zorvan_error_t* error) {
    return error != nullptr ? error->ftp_code : 0;
}

const char* zorvan_error_get_ftp_word(const zorvan_error_t* error) {
    return error != nullptr ? error->ftp_word.get() : nullptr;
}

size_t zorvan_error_table_count(void) {
    Table& errors = table();
    const std::lock_guard lock(errors.mutex);
    return errors.objects.size();
}
