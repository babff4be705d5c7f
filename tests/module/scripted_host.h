// A server that does what a test says: the other side of the data storage interface.
//
// A test makes an Operation, sets what the host shall answer, calls an entry of the back end with it, waits
// for the finished call and looks at what was recorded. Callbacks are delivered one at a time by a thread of
// the operation's own, in the order and number that the test allows. close() checks what every operation must
// keep to: one outcome, every accepted read and write called back, no error object lost.
// Ownership: the test owns its operations and destroys them after the back end is through with them.
#pragma once

#include <zorvan_gridftp_server.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "error_view.h"

namespace module_test {

/// Which finished call it was.
enum class Ending { session_start, command, stat, transfer };

/// One finished call as it was made.
struct Finish {
    Ending kind{};
    zorvan_result_t result = 0;
    ErrorView error;
    void* session_handle = nullptr;
    std::optional<std::string> text;       ///< command text or user name
    std::optional<std::string> directory;  ///< home directory
};

/// A stat record with texts of its own.
struct StatEntry {
    uint32_t mode = 0;
    uint32_t nlink = 0;
    std::string name;
    std::optional<std::string> symlink_target;
    uint32_t uid = 0;
    uint32_t gid = 0;
    int64_t size = 0;
    int64_t atime = 0;
    int64_t ctime = 0;
    int64_t mtime = 0;
    uint32_t dev = 0;
    uint32_t ino = 0;
    uintptr_t reserved = 0;
};

/// A block of an upload as the data channel brings it.
struct Block {
    int64_t offset = 0;
    std::string data;
};

/// A registered write that was delivered.
struct Written {
    int64_t offset = 0;
    std::string data;
};

/// Which of several outstanding buffers is called back next.
enum class Pick { oldest, newest, scattered };

/// One line of the host's log.
struct HostLogLine {
    int level = 0;
    std::string text;
};

/// Forget log lines and configuration.
void host_reset();
/// What get_config_string answers; none = null.
void host_set_config_string(std::optional<std::string> path);
/// How often get_config_string was asked, with a null operation.
int host_config_string_queries();
std::vector<HostLogLine> host_log();

}  // namespace module_test

/// One operation of the scripted host.
struct zorvan_gridftp_server_operation_s {
    zorvan_gridftp_server_operation_s();
    ~zorvan_gridftp_server_operation_s();
    zorvan_gridftp_server_operation_s(const zorvan_gridftp_server_operation_s&) = delete;
    zorvan_gridftp_server_operation_s& operator=(const zorvan_gridftp_server_operation_s&) = delete;

    // ---- what the host answers; set before the entry is called
    size_t block_size = 64;
    int concurrency = 2;
    int update_interval = 0;
    std::optional<std::string> config_data;
    std::optional<int64_t> modification_time;  ///< none: the query fails
    std::deque<std::pair<int64_t, int64_t>> read_ranges{{0, -1}};
    std::optional<std::pair<int64_t, int64_t>> write_range{{0, -1}};  ///< none: the query fails
    std::function<void()> on_finished;  ///< runs inside the first finished call, after it was recorded

    /// From the nth callback (from 1) on the data channel is broken: each brings an error. 0 = none.
    int fail_callback = 0;

    // ---- writes (downloads)
    module_test::Pick write_pick = module_test::Pick::oldest;
    int refuse_write = 0;                         ///< from the nth registration on all are refused; 0 = none
    std::optional<int64_t> channel_breaks_after;  ///< so many registered bytes later all writes fail

    // ---- reads (uploads)
    module_test::Pick read_pick = module_test::Pick::oldest;
    int refuse_read = 0;                    ///< the nth registration is refused; 0 = none
    std::deque<module_test::Block> upload;  ///< what the client sends, in order of arrival
    bool upload_fails = false;              ///< after the blocks the channel breaks instead of ending
    bool eof_with_data = false;             ///< the last block carries the end mark itself

    /// Deliver callbacks only as granted; false (the beginning) = as they come.
    void hold();
    /// Allow so many more callbacks.
    void grant(int callbacks);
    /// Deliver everything from now on.
    void release();
    /// Block until so many callbacks in all have returned. @return false after 20 seconds
    bool wait_delivered(int callbacks);
    /// Block until so many reads or writes are outstanding. @return false after 20 seconds
    bool wait_outstanding(int registrations);

    /// Block until a finished call was made. @return false after 20 seconds
    bool wait_finished();
    /// Wait for all callbacks, stop delivering, check the rules and release the results. Called once.
    void close();

    // ---- what was recorded; read after wait_finished() or close()
    std::vector<module_test::Finish> finishes;
    std::vector<module_test::StatEntry> entries;
    std::vector<int> partial_batches;  ///< sizes of the partial stat calls
    int last_batch = -1;               ///< size of the final stat call
    std::vector<std::string> config_keys;
    std::vector<std::pair<zorvan_result_t, std::string>> intermediate;
    int begin_transfers = 0;
    std::vector<module_test::Written> registered_writes;  ///< in order of registration, as registered
    std::vector<module_test::Written> writes;             ///< in order of delivery
    std::vector<size_t> read_lengths;
    std::vector<std::pair<int64_t, int64_t>> bytes_updates;  ///< (bytes, offset)
    std::vector<std::pair<int64_t, int64_t>> range_updates;  ///< (offset, length)
    int max_outstanding = 0;
    int accepted = 0;             ///< registrations that were accepted
    int delivered = 0;            ///< callbacks that have returned
    int finish_at_callback = -1;  ///< callbacks that had begun when the first finished call came

    /// The first finished call; asserts that there was one.
    const module_test::Finish& finish() const;
    /// The delivered bytes put together by offset; a hole is filled with "?".
    std::string content() const;
    /// Cut data into blocks of the block size and append them to the upload, from an offset on.
    void send_in_blocks(const std::string& data, int64_t offset = 0);

    // ---- the interface's side
    void record_finish(module_test::Finish finish);
    zorvan_result_t add_write(unsigned char* buffer, size_t length, int64_t offset, int stripe,
                              zorvan_gridftp_server_write_callback_t callback, void* argument);
    zorvan_result_t add_read(unsigned char* buffer, size_t length,
                             zorvan_gridftp_server_read_callback_t callback, void* argument);
    mutable std::mutex mutex;

  private:
    struct Write {
        unsigned char* buffer;
        size_t length;
        int64_t offset;
        std::string copy;
        bool fails;
        zorvan_gridftp_server_write_callback_t callback;
        void* argument;
    };
    struct Read {
        unsigned char* buffer;
        size_t length;
        zorvan_gridftp_server_read_callback_t callback;
        void* argument;
    };

    void start_delivery();
    void deliver();
    bool deliverable() const;
    size_t pick(module_test::Pick how, size_t count);
    void deliver_write(std::unique_lock<std::mutex>& lock);
    void deliver_read(std::unique_lock<std::mutex>& lock);
    zorvan_result_t own_error(const char* text);
    void check_rules();

    std::condition_variable changed_;
    std::deque<Write> pending_writes_;
    std::deque<Read> pending_reads_;
    std::vector<zorvan_result_t> own_errors_;
    std::thread delivery_;
    int64_t bytes_registered_ = 0;
    int64_t bytes_received_ = 0;
    bool broken_ = false;
    bool held_ = false;
    int granted_ = 0;
    int begun_ = 0;
    bool closing_ = false;
    bool closed_ = false;
    uint32_t random_ = 12345;
    int write_registrations_ = 0;
    int read_registrations_ = 0;
};

namespace module_test {
using Operation = zorvan_gridftp_server_operation_s;
}  // namespace module_test
