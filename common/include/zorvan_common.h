/*
 * The common runtime: what the server and every back end share.
 *
 * Laws of this interface
 *  1. Plain C: fixed-width integers, NUL-terminated UTF-8 strings, no exceptions.
 *  2. Every call may be made from any thread at any time unless it says otherwise.
 *  3. What a call returns by `malloc` is freed by the caller with `free`; this is said at the call.
 *  4. A result is 0 for success, otherwise the handle of an error object in the process-wide error
 *     table, or ZORVAN_FAILURE, which stands for "failed" and has no object.
 *  5. Whoever holds an error result owns its object: it hands the result on, or releases it with
 *     zorvan_error_free(zorvan_error_get(result)).
 *  6. There is one copy of this library, and so of its tables, in a process.
 */
#ifndef ZORVAN_COMMON_H
#define ZORVAN_COMMON_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZORVAN_API __attribute__((visibility("default")))
#define ZORVAN_PRINTF(format_index, first_argument) \
    __attribute__((format(printf, format_index, first_argument)))

/* ------------------------------------------------------------------ results */

/** Outcome of a call: ZORVAN_SUCCESS, ZORVAN_FAILURE or the handle of an error object. */
typedef uint32_t zorvan_result_t;

#define ZORVAN_SUCCESS ((zorvan_result_t)0)
/** The plain failure (-1): there is no error object behind it. */
#define ZORVAN_FAILURE ((zorvan_result_t)0xffffffffu)

/* ------------------------------------------------------------------ modules */

/** Version of a module. */
typedef struct zorvan_version_s {
    int major;
    int minor;
} zorvan_version_t;

/** Activation or deactivation entry of a module: a result, see law 4. */
typedef zorvan_result_t (*zorvan_module_entry_t)(void);

/** What a module says of itself. The record is borrowed for the life of the process. */
typedef struct zorvan_module_descriptor_s {
    const char* name;                 /**< unique name, for messages */
    zorvan_module_entry_t activate;   /**< run by the first activation; null = nothing to do */
    zorvan_module_entry_t deactivate; /**< run by the last deactivation; null = nothing to do */
    void* reserved_1;                 /**< null */
    void* reserved_2;                 /**< null */
    const zorvan_version_t* version;  /**< null = not versioned */
} zorvan_module_descriptor_t;

/**
 * Activate a module. Counted per descriptor: only the first call runs `activate`; a failed first call
 * leaves the module inactive and the count at zero. Concurrent calls for one descriptor wait for each other;
 * a module may activate other modules from its own `activate`.
 * @return the entry's result, or ZORVAN_SUCCESS when the module was active already
 */
ZORVAN_API zorvan_result_t zorvan_module_activate(const zorvan_module_descriptor_t* descriptor);

/**
 * Give one activation back; the last one runs `deactivate`.
 * @return the entry's result, ZORVAN_SUCCESS while other users remain, ZORVAN_FAILURE when it was not active
 */
ZORVAN_API zorvan_result_t zorvan_module_deactivate(const zorvan_module_descriptor_t* descriptor);

/* ------------------------------------------------------------------- errors */

/** An error object. Owned by whoever holds the pointer, or by the error table after zorvan_error_put. */
typedef struct zorvan_error_s zorvan_error_t;

/** Kinds of error objects. The numbers are the modules' own except those named here. */
enum zorvan_error_type_e {
    ZORVAN_ERROR_TYPE_S3 = 1,           /**< an object store answered with an error */
    ZORVAN_ERROR_TYPE_SYSTEM = 2,       /**< made by zorvan_i_gfs_error_system */
    ZORVAN_ERROR_TYPE_FTP_RESPONSE = 3, /**< made by zorvan_gfs_ftp_response_error_construct */
    ZORVAN_ERROR_TYPE_GENERIC = 6       /**< a module's generic error */
};

/**
 * Make an error object. Never fails: out of memory, a static object stands in (freeing it is harmless).
 * @param module      the module that reports, borrowed; may be null
 * @param cause       owned by the new object from here on; may be null
 * @param source_file, function  where it was raised; copied; may be null
 * @param format      printf format of the object's text; may be null (no text)
 */
ZORVAN_API zorvan_error_t* zorvan_error_construct_error(const zorvan_module_descriptor_t* module,
                                                        zorvan_error_t* cause, int type,
                                                        const char* source_file, const char* function,
                                                        int line, const char* format, ...)
    ZORVAN_PRINTF(7, 8);

/**
 * Make a system error (type ZORVAN_ERROR_TYPE_SYSTEM). Its friendly line is the text, ": " and the text of
 * the errno value. Never fails, as above.
 */
ZORVAN_API zorvan_error_t* zorvan_i_gfs_error_system(zorvan_error_t* cause, int errno_value,
                                                     const char* format, ...) ZORVAN_PRINTF(3, 4);

/**
 * Make an error that carries an FTP reply code and an error-type word such as "PATH_NOT_FOUND"
 * (type ZORVAN_ERROR_TYPE_FTP_RESPONSE). Its text may have several lines. Never fails, as above.
 * @param code        FTP reply code, 400 to 599
 * @param error_type  the word; copied
 * @param text_format printf format of the text; may be null (no text)
 */
ZORVAN_API zorvan_error_t* zorvan_gfs_ftp_response_error_construct(const zorvan_module_descriptor_t* module,
                                                                   zorvan_error_t* cause, int code,
                                                                   const char* error_type,
                                                                   const char* text_format, ...)
    ZORVAN_PRINTF(5, 6);

/**
 * Move an object into the process-wide table.
 * @param error  null is put as an error without a text
 * @return its handle: never 0, never ZORVAN_FAILURE, and not given out again soon after its release. Never
 * fails: out of memory the object is freed and the handle of the static object is returned. That handle is
 * always good: it is in no table, is not counted, and may be taken and released any number of times.
 */
ZORVAN_API zorvan_result_t zorvan_error_put(zorvan_error_t* error);

/** Borrow the object behind a handle; it stays in the table. Null for an unknown handle, 0 and
 * ZORVAN_FAILURE. The pointer is good until somebody takes the object out with zorvan_error_get. */
ZORVAN_API zorvan_error_t* zorvan_error_peek(zorvan_result_t result);

/** Take the object behind a handle out of the table; the caller owns it. Null as for zorvan_error_peek. */
ZORVAN_API zorvan_error_t* zorvan_error_get(zorvan_result_t result);

/** Free an object and its causes. Null is ignored. */
ZORVAN_API void zorvan_error_free(zorvan_error_t* error);

/**
 * The friendly text of an object and then of each of its causes, one line each without a final newline.
 * An FTP response without a text shows its code and word. Null gives "unknown error".
 * @return malloc'd text, to be freed with `free`; the object is not touched. Null only when memory is
 * exhausted.
 */
ZORVAN_API char* zorvan_error_print_friendly(const zorvan_error_t* error);

/* Read accessors. All take null and then answer 0 or null; strings are borrowed from the object. */
ZORVAN_API int zorvan_error_get_type(const zorvan_error_t* error);
ZORVAN_API const zorvan_error_t* zorvan_error_get_cause(const zorvan_error_t* error);
ZORVAN_API const zorvan_module_descriptor_t* zorvan_error_get_module(const zorvan_error_t* error);
ZORVAN_API const char* zorvan_error_get_source_file(const zorvan_error_t* error);
ZORVAN_API const char* zorvan_error_get_function(const zorvan_error_t* error);
ZORVAN_API int zorvan_error_get_line(const zorvan_error_t* error);
/** The text without errno or cause; null when the object has none. */
ZORVAN_API const char* zorvan_error_get_text(const zorvan_error_t* error);
/** The errno value of a system error, else 0. */
ZORVAN_API int zorvan_error_get_errno(const zorvan_error_t* error);
/** The FTP reply code of an FTP response error, else 0. */
ZORVAN_API int zorvan_error_get_ftp_code(const zorvan_error_t* error);
/** The error-type word of an FTP response error, else null. */
ZORVAN_API const char* zorvan_error_get_ftp_word(const zorvan_error_t* error);

/** How many objects are in the table now: zero when everybody released what they held. */
ZORVAN_API size_t zorvan_error_table_count(void);

/* --------------------------------------------------------------- assertions */

/** Print "Assertion %s failed in file %s at line %d\n" on standard error and abort the process. */
ZORVAN_API void zorvan_i_assertion_failed(const char* text, const char* file, int line)
    __attribute__((noreturn));

/** Part of the behaviour: compiled in whatever the build type. */
#define zorvan_assert(condition) \
    ((condition) ? (void)0 : zorvan_i_assertion_failed(#condition, __FILE__, __LINE__))

/** The same with a text, file name and line of one's own. */
#define zorvan_assert_at(condition, text, file, line) \
    ((condition) ? (void)0 : zorvan_i_assertion_failed(text, file, line))

/* ----------------------------------------------------------------- registry */

/** A table of named extensions. */
typedef struct zorvan_extension_registry_s zorvan_extension_registry_t;

/** One use of a registry entry. */
typedef struct zorvan_extension_handle_s* zorvan_extension_handle_t;

/** The registry of storage back ends: name to interface table. The only registry. */
extern ZORVAN_API zorvan_extension_registry_t zorvan_i_gfs_dsi_registry;

/**
 * Add an entry. `name` is copied; `descriptor` and `data` are borrowed until the entry is gone.
 * @return an error when the name is taken (generic error that names it) or an argument is null
 */
ZORVAN_API zorvan_result_t zorvan_extension_registry_add(zorvan_extension_registry_t* registry,
                                                         const char* name,
                                                         const zorvan_module_descriptor_t* descriptor,
                                                         void* data);

/** Remove an entry: no later lookup finds it; it lives on for those who hold it.
 *  @return the entry's data, or null when there is none of that name */
ZORVAN_API void* zorvan_extension_registry_remove(zorvan_extension_registry_t* registry, const char* name);

/** Find an entry and count a use of it.
 *  @param handle  receives the use, to be returned with zorvan_extension_release; null when nothing was found
 *  @return the entry's data, or null */
ZORVAN_API void* zorvan_extension_registry_lookup(zorvan_extension_handle_t* handle,
                                                  zorvan_extension_registry_t* registry, const char* name);

/** Return a use. Null is ignored. */
ZORVAN_API void zorvan_extension_release(zorvan_extension_handle_t handle);

/* -------------------------------------------------------------------- debug */

/** Where and what a component logs for its developers. */
typedef struct zorvan_debug_handle_s {
    uint32_t levels;           /**< mask of the enabled levels */
    uint32_t timestamp_levels; /**< mask of the levels whose lines carry a time */
    FILE* file;                /**< output; null = logging is off */
    int thread_ids;            /**< non-zero: lines begin with the thread's id */
    int using_file;            /**< non-zero: `file` was opened here and is closed by the component */
} zorvan_debug_handle_t;

/**
 * Fill a debug handle from an environment variable of the form LEVELS[,FILE[,FLAGS[,TIMESTAMP_LEVELS]]].
 * LEVELS and TIMESTAMP_LEVELS: decimal masks, level words or ALL joined by "|"; a leading "^" inverts the
 * whole. FILE: empty or absent = standard error; a leading "#" appends instead of truncating. FLAGS: bit 1
 * (value 1) = thread ids, bit 2 (value 2) = a time on every enabled level. An unset or empty variable, or a
 * mask of 0, leaves logging off. An unreadable value or a file that cannot be opened leaves it off and says
 * so on standard error, once per process and value.
 * @param level_names  the level words separated by blanks, bit 0 first; words match ignoring case
 * @return 0 when logging is on, -1 when it is off
 */
ZORVAN_API int zorvan_debug_init(zorvan_debug_handle_t* handle, const char* environment_variable,
                                 const char* level_names);

/* -------------------------------------------------------------------- paths */

/**
 * Expand ${sysconfdir}, ${localstatedir}, ${datadir}, ${bindir}, ${libdir} and ${prefix} (install-time
 * values, moved by the environment variable ZORVAN_PREFIX) and any other ${NAME} from the environment.
 * @param out  receives a malloc'd text; null on failure
 * @return a generic error that names the unset name or the unclosed "${"
 */
ZORVAN_API zorvan_result_t zorvan_eval_path(const char* text, char** out);

/* ------------------------------------------------------------------ threads */

typedef unsigned long zorvan_thread_t;
typedef struct zorvan_threadattr_s zorvan_threadattr_t; /* reserved: pass null */

/**
 * Start a detached thread, counted until `function` has returned and the destructors of its thread-specific
 * values have run.
 * @param thread  receives an id for messages; may be null
 * @return 0, or an errno value (EAGAIN: no thread to be had)
 */
ZORVAN_API int zorvan_thread_create(zorvan_thread_t* thread, const zorvan_threadattr_t* attr,
                                    void* (*function)(void*), void* argument);

/** How many threads made by zorvan_thread_create are running. */
ZORVAN_API size_t zorvan_thread_count(void);

/** Wait until that number is zero, at most `milliseconds` (negative: without bound).
 *  @return 1 when it is zero, 0 after the time */
ZORVAN_API int zorvan_thread_wait_all(int64_t milliseconds);

/** Sleep for so many microseconds; zero and negative values return at once. Signals do not shorten it. */
ZORVAN_API void zorvan_libc_usleep(int64_t microseconds);

/* ------------------------------------------------------------------ strings */

/** A malloc'd copy, null when memory is exhausted or `text` is null. */
ZORVAN_API char* zorvan_libc_strdup(const char* text);

/** A malloc'd text made with printf, null when memory is exhausted. */
ZORVAN_API char* zorvan_common_create_string(const char* format, ...) ZORVAN_PRINTF(1, 2);
ZORVAN_API char* zorvan_common_v_create_string(const char* format, va_list arguments) ZORVAN_PRINTF(1, 0);

/* ------------------------------------------------------------------- tables */

/** Hash of a key, 0 <= hash < limit. */
typedef int (*zorvan_hashtable_hash_t)(const void* key, int limit);
/** Non-zero when two keys are equal. */
typedef int (*zorvan_hashtable_keyeq_t)(const void* left, const void* right);
/** Destroys one datum. */
typedef void (*zorvan_hashtable_destructor_t)(void* datum);

/** A chained hash table of borrowed keys and data. Not synchronised: the owner guards it. */
typedef struct zorvan_hashtable_s* zorvan_hashtable_t;

/** Make an empty table with so many buckets (at least 1). @return 0, or -1 (no memory, bad argument) */
ZORVAN_API int zorvan_hashtable_init(zorvan_hashtable_t* table, int buckets, zorvan_hashtable_hash_t hash,
                                     zorvan_hashtable_keyeq_t keyeq);
/** @return 0; -1 when the key exists already or memory is exhausted (nothing changed) */
ZORVAN_API int zorvan_hashtable_insert(zorvan_hashtable_t* table, const void* key, void* datum);
/** @return the datum of the key or null */
ZORVAN_API void* zorvan_hashtable_lookup(const zorvan_hashtable_t* table, const void* key);
/** Take a key out. @return its datum or null */
ZORVAN_API void* zorvan_hashtable_remove(zorvan_hashtable_t* table, const void* key);
/** How many keys it holds. */
ZORVAN_API size_t zorvan_hashtable_size(const zorvan_hashtable_t* table);
/** Destroy the table, not its data; `*table` becomes null. A null table is ignored. */
ZORVAN_API void zorvan_hashtable_destroy(zorvan_hashtable_t* table);
/** The same after calling `destructor` for every datum. */
ZORVAN_API void zorvan_hashtable_destroy_all(zorvan_hashtable_t* table,
                                             zorvan_hashtable_destructor_t destructor);

/** FNV-1a (32 bit, offset basis 2166136261, prime 16777619) of the string's bytes, reduced to 0..limit-1.
 *  The same on every run and machine. */
ZORVAN_API int zorvan_hashtable_string_hash(const void* string, int limit);
ZORVAN_API int zorvan_hashtable_string_keyeq(const void* left, const void* right);

/** A singly linked list of borrowed data; null is the empty list. Not synchronised. */
typedef struct zorvan_list_s {
    void* data;
    struct zorvan_list_s* next;
} zorvan_list_t;

/** Put a datum in front. @return 0, or -1 when memory is exhausted */
ZORVAN_API int zorvan_list_insert(zorvan_list_t** list, void* data);
/** Put a datum at the end. @return 0, or -1 when memory is exhausted */
ZORVAN_API int zorvan_list_append(zorvan_list_t** list, void* data);
/** Take the first cell out of the list and free it. @return its datum, null for the empty list */
ZORVAN_API void* zorvan_list_pop(zorvan_list_t** list);
ZORVAN_API size_t zorvan_list_size(const zorvan_list_t* list);
/** Free the cells, not the data. Null is ignored. */
ZORVAN_API void zorvan_list_free(zorvan_list_t* list);
/** The same after calling `destructor` for every datum. */
ZORVAN_API void zorvan_list_destroy_all(zorvan_list_t* list, void (*destructor)(void*));

#ifdef __cplusplus
}
#endif

#endif
