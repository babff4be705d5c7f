/*
 * The data storage interface (DSI): how the GridFTP server and a storage back end talk.
 *
 * A back end is a shared object libzorvan_gridftp_server_NAME.so in the server's module folder that exports
 * one symbol, the module descriptor zorvan_gridftp_server_NAME_module. Its activation adds an interface table
 * under NAME to zorvan_i_gfs_dsi_registry.
 *
 * Laws of this interface
 *  1. An operation handle is good from the call of an interface-table entry until the entry has returned, the
 *     operation is finished and every accepted read and write has been called back.
 *  2. Every operation is finished by one zorvan_gridftp_server_finished_* call, from any thread, also from
 * inside the entry. Any of them may end any operation. The first counts; a later one changes nothing.
 *  3. Every accepted read or write is called back exactly once. Between the two the buffer is the server's.
 *  4. Callbacks never run inside the call that caused them. Those of one operation run one at a time, in
 * completion order, on a thread that serves nothing else meanwhile; they may block for as long as they need.
 *  5. Entries may block too. Those of one session are called one at a time, each on any thread.
 *  6. Records and strings handed to an entry live unchanged as long as the operation. Strings and arrays
 * handed to the server are copied before the call returns. Strings that a query hands out are malloc'd for
 * the caller.
 *  7. finished_* hands its error result over to the server. An error result that the server itself returned
 * from a register call or passed to a callback stays the server's; handing it back or releasing it is
 * harmless.
 *  8. A failing query returns ZORVAN_FAILURE without an error object.
 */
#ifndef ZORVAN_GRIDFTP_SERVER_H
#define ZORVAN_GRIDFTP_SERVER_H

#include <zorvan_common.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A file offset or length in bytes; -1 where it says so. */
typedef int64_t zorvan_off_t;

/** One operation: a session start, stat, command, send or receive. Opaque. */
typedef struct zorvan_gridftp_server_operation_s* zorvan_gridftp_server_operation_t;

/* ------------------------------------------------------------------ records */

/** Who logs in. */
typedef struct zorvan_gridftp_server_session_info_s {
    const char* user_name;           /**< the user that the server authenticated */
    const char* client_address;      /**< numeric address of the client */
    const char* collection;          /**< name of the collection; "" for the default one */
    const char* certificate_subject; /**< subject of the client's TLS certificate, or null */
} zorvan_gridftp_server_session_info_t;

/** One entry of a stat or a listing. Times are seconds since the epoch, -1 = unknown. */
typedef struct zorvan_gridftp_server_stat_s {
    uint32_t mode;              /**< POSIX file type and permission bits */
    uint32_t nlink;             /**< link count */
    const char* name;           /**< last component of the name; "." for the directory itself */
    const char* symlink_target; /**< or null */
    uint32_t uid;
    uint32_t gid;
    int64_t size; /**< bytes */
    int64_t atime;
    int64_t ctime;
    int64_t mtime;
    uint32_t dev;
    uint32_t ino;
    uintptr_t reserved; /**< zero */
} zorvan_gridftp_server_stat_t;

/** What to stat. */
typedef struct zorvan_gridftp_server_stat_info_s {
    const char* pathname; /**< absolute path, no trailing "/" except the root's own */
    int file_only;        /**< non-zero: this entry alone; zero: list it when it is a directory */
} zorvan_gridftp_server_stat_info_t;

/** What to send or receive. */
typedef struct zorvan_gridftp_server_transfer_info_s {
    const char* pathname; /**< absolute path */
    int truncate;         /**< receive: non-zero = a new file; zero = append or restart */
    int64_t alloc_size;   /**< receive: bytes announced (to come, on a restart); 0 = none announced */
    const char* expected_checksum;           /**< receive: what the client says the data sum up to, or null */
    const char* expected_checksum_algorithm; /**< its algorithm as the client wrote it, or null */
    int stripe_count;                        /**< 1 */
} zorvan_gridftp_server_transfer_info_t;

/** Codes of the command operation. Those from ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM on are the back end's own.
 */
enum zorvan_gridftp_server_command_e {
    ZORVAN_GRIDFTP_SERVER_COMMAND_MKD = 1,
    ZORVAN_GRIDFTP_SERVER_COMMAND_RMD = 2,
    ZORVAN_GRIDFTP_SERVER_COMMAND_DELE = 3,
    ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO = 6,
    ZORVAN_GRIDFTP_SERVER_COMMAND_RNFR = 7,
    ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM = 8,
    ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM = 4096 /**< SITE STAGE */
};

/** What to do to a name. */
typedef struct zorvan_gridftp_server_command_info_s {
    int command;               /**< zorvan_gridftp_server_command_e */
    const char* pathname;      /**< absolute path; of a rename, the destination */
    int64_t cksm_offset;       /**< checksum: first byte */
    int64_t cksm_length;       /**< checksum: number of bytes, -1 = to the end */
    const char* cksm_alg;      /**< checksum: algorithm as the client wrote it, or null */
    const char* from_pathname; /**< rename: the source, or null */
} zorvan_gridftp_server_command_info_t;

/* ---------------------------------------------------------- interface table */

/** Bits of the descriptor slot. */
enum zorvan_gridftp_server_dsi_flag_e {
    ZORVAN_GRIDFTP_SERVER_DSI_SENDER = 1 << 0,          /**< moves file data through the register calls */
    ZORVAN_GRIDFTP_SERVER_DSI_OWN_THREADS = 1 << 1,     /**< completes operations from threads of its own */
    ZORVAN_GRIDFTP_SERVER_DSI_SLASHED_FOLDERS = 1 << 2, /**< wants directory names with a trailing "/" */
    ZORVAN_GRIDFTP_SERVER_DSI_DURABLE_RANGES = 1 << 3   /**< update_range_recvd reports durable ranges */
};

/** A back end: 15 slots. An empty entry answers "not supported". */
typedef struct zorvan_gridftp_server_dsi_s {
    uintptr_t descriptor; /**< slot 0: zorvan_gridftp_server_dsi_flag_e */
    void (*session_start)(zorvan_gridftp_server_operation_t op,
                          const zorvan_gridftp_server_session_info_t* session_info); /**< slot 1 */
    void (*session_destroy)(void* session_handle); /**< slot 2: once, after the session's last operation */
    void* reserved_3;
    void (*send)(zorvan_gridftp_server_operation_t op,
                 const zorvan_gridftp_server_transfer_info_t* transfer_info,
                 void* session_handle); /**< slot 4: download */
    void (*recv)(zorvan_gridftp_server_operation_t op,
                 const zorvan_gridftp_server_transfer_info_t* transfer_info,
                 void* session_handle); /**< slot 5: upload */
    void* reserved_6;
    void* reserved_7;
    void* reserved_8;
    void* reserved_9;
    void (*command)(zorvan_gridftp_server_operation_t op,
                    const zorvan_gridftp_server_command_info_t* command_info,
                    void* session_handle); /**< slot 10 */
    void (*stat)(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_stat_info_t* stat_info,
                 void* session_handle); /**< slot 11 */
    void* reserved_12;
    void* reserved_13;
    void* reserved_14;
} zorvan_gridftp_server_dsi_t;

/* -------------------------------------------------------------- completions */

/**
 * End a session start. Success with a handle logs the user in; success without one refuses the log-in (530).
 * A failure with a handle: the server calls session_destroy on it.
 * @param user_name       the name to show, copied; null = the one that logged in
 * @param home_directory  the working directory to begin in, copied; null = "/"
 */
ZORVAN_API void zorvan_gridftp_server_finished_session_start(zorvan_gridftp_server_operation_t op,
                                                             zorvan_result_t result, void* session_handle,
                                                             const char* user_name,
                                                             const char* home_directory);

/** End a command. @param text  the checksum, or a whole reply of the back end's own; null = none */
ZORVAN_API void zorvan_gridftp_server_finished_command(zorvan_gridftp_server_operation_t op,
                                                       zorvan_result_t result, const char* text);

/** Report the progress of a command; `text` goes out as a preliminary reply. */
ZORVAN_API void zorvan_gridftp_server_intermediate_command(zorvan_gridftp_server_operation_t op,
                                                           zorvan_result_t result, const char* text);

/** End a stat with the last entries (there may be none). */
ZORVAN_API void zorvan_gridftp_server_finished_stat(zorvan_gridftp_server_operation_t op,
                                                    zorvan_result_t result,
                                                    const zorvan_gridftp_server_stat_t* stats, int count);

/** Hand entries over before the end. Blocks the caller while more than 1,024 entries wait for the client;
 * returns at once and drops them when the client is gone. */
ZORVAN_API void zorvan_gridftp_server_finished_stat_partial(zorvan_gridftp_server_operation_t op,
                                                            zorvan_result_t result,
                                                            const zorvan_gridftp_server_stat_t* stats,
                                                            int count);

/* ------------------------------------------------------------ data transfer */

/** A read has ended.
 *  @param nbytes  bytes received into `buffer`; 0 only together with eof
 *  @param offset  file offset of the first byte; of a callback without bytes the number of bytes received in
 * all (0 after an error)
 *  @param eof     non-zero only when the server holds no further byte of the upload */
typedef void (*zorvan_gridftp_server_read_callback_t)(zorvan_gridftp_server_operation_t op,
                                                      zorvan_result_t result, unsigned char* buffer,
                                                      size_t nbytes, zorvan_off_t offset, int eof,
                                                      void* user_argument);

/** A write has ended. */
typedef void (*zorvan_gridftp_server_write_callback_t)(zorvan_gridftp_server_operation_t op,
                                                       zorvan_result_t result, unsigned char* buffer,
                                                       size_t nbytes, void* user_argument);

/** Open the data connections; returns at once. One that cannot be opened shows in the registered reads and
 * writes. */
ZORVAN_API void zorvan_gridftp_server_begin_transfer(zorvan_gridftp_server_operation_t op, int event_mask,
                                                     void* event_argument);

/** End a send or receive. */
ZORVAN_API void zorvan_gridftp_server_finished_transfer(zorvan_gridftp_server_operation_t op,
                                                        zorvan_result_t result);

/** Lend the server a buffer to receive into. Offsets are file offsets; in stream mode they begin at the write
 * range's. Not refused on an unfinished operation, also after the data channel failed. */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_register_read(zorvan_gridftp_server_operation_t op,
                                                               unsigned char* buffer, size_t length,
                                                               zorvan_gridftp_server_read_callback_t callback,
                                                               void* user_argument);

/** Lend the server a buffer to send. Stream mode sends in the order of registration. Refused once the channel
 * failed.
 *  @param offset  file offset of the first byte   @param stripe  -1 */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_register_write(
    zorvan_gridftp_server_operation_t op, unsigned char* buffer, size_t length, zorvan_off_t offset,
    int stripe, zorvan_gridftp_server_write_callback_t callback, void* user_argument);

/** So many bytes arrived at that offset: feeds performance markers. */
ZORVAN_API void zorvan_gridftp_server_update_bytes_recvd(zorvan_gridftp_server_operation_t op,
                                                         zorvan_off_t nbytes, zorvan_off_t offset);

/** That range is stored durably: feeds restart markers. */
ZORVAN_API void zorvan_gridftp_server_update_range_recvd(zorvan_gridftp_server_operation_t op,
                                                         zorvan_off_t offset, zorvan_off_t length);

/* ------------------------------------------------------------------ queries */

/** The next range to send; length -1 = to the end, 0 = there is no further range. Always succeeds on a send.
 */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_read_range(zorvan_gridftp_server_operation_t op,
                                                                zorvan_off_t* offset, zorvan_off_t* length);
/** The range to receive; length -1 = to the end. */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_write_range(zorvan_gridftp_server_operation_t op,
                                                                 zorvan_off_t* offset, zorvan_off_t* length);
/** The size in bytes that reads and writes should have: at least 1, constant for an operation. */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_block_size(zorvan_gridftp_server_operation_t op,
                                                                size_t* size);
/** How many reads or writes should be outstanding: at least 1, constant for an operation. */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_optimal_concurrency(zorvan_gridftp_server_operation_t op,
                                                                         int* count);
/** The time that the client set for the file, seconds since the epoch; fails, or gives -1, when it set none.
 */
ZORVAN_API zorvan_result_t
zorvan_gridftp_server_get_recv_modification_time(zorvan_gridftp_server_operation_t op, int64_t* time);
/** Seconds between progress replies of a command; 0 = none are wanted. */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_update_interval(zorvan_gridftp_server_operation_t op,
                                                                     int* seconds);
/** The option string of the back end from the server's configuration; null when there is none.
 *  @param op  null: this is asked during activation */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_config_string(zorvan_gridftp_server_operation_t op,
                                                                   char** out);
/** Configuration data of the session's collection. Key "config": its storage policy; null when it has none.
 */
ZORVAN_API zorvan_result_t zorvan_gridftp_server_get_config_data(zorvan_gridftp_server_operation_t op,
                                                                 const char* key, char** out);

/* ---------------------------------------------------------------------- log */

enum zorvan_gfs_log_level_e {
    ZORVAN_GFS_LOG_ERROR = 1,
    ZORVAN_GFS_LOG_WARNING = 2,
    ZORVAN_GFS_LOG_TRANSFER = 4,
    ZORVAN_GFS_LOG_INFO = 8,
    ZORVAN_GFS_LOG_DEBUG = 16
};

/** Write a line to the server's log. Works before any back end is activated: errors then go to standard
 * error. */
ZORVAN_API void zorvan_gfs_log_message(int level, const char* format, ...) ZORVAN_PRINTF(2, 3);

#ifdef __cplusplus
}
#endif

#endif
