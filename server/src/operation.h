// One operation at a back end: what the opaque handle of the DSI stands for.
//
// A coroutine of the session creates it and starts its entry on the callback pool; the back end's calls find
// it by its handle in a process-wide table, so that a stale handle is an unknown one and never a dangling
// pointer. It leaves the table, and lets session and lock go, once its entry has returned, it is finished,
// and every accepted read and write was called back. One mutex guards it and its transfer channel; no lock is
// held while back-end code runs.
#pragma once

#include <zorvan_gridftp_server.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "async.h"
#include "backend_session.h"
#include "callback_pool.h"
#include "receive_locks.h"
#include "user_limit.h"

namespace zorvan::gridftp {

class operation;
class transfer_channel;

/// A session as its operations see it. Destroys the back end's session when the last of them has gone.
class session_core {
  public:
    session_core(backend& module, host& shared, session_record record);
    session_core(const session_core&) = delete;
    session_core& operator=(const session_core&) = delete;
    ~session_core();

    backend& module;
    host& shared;
    const session_record record;
    /// Set once, by the finish of the session start, before any other operation exists.
    void* handle = nullptr;
};

/// A buffer that a back end lent for receiving.
struct read_request {
    unsigned char* buffer = nullptr;
    std::size_t length = 0;
    zorvan_gridftp_server_read_callback_t callback = nullptr;
    void* argument = nullptr;
};

/// A buffer that a back end lent for sending.
struct write_request {
    unsigned char* buffer = nullptr;
    std::size_t length = 0;
    std::int64_t offset = 0;
    zorvan_gridftp_server_write_callback_t callback = nullptr;
    void* argument = nullptr;
};

/// Bytes that are fetched on the callback's own thread, just before the callback.
class late_source {
  public:
    virtual ~late_source() = default;
    /// Fill the buffer with bytes from `offset` of the source. @return false: they cannot be had any more
    virtual bool fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept = 0;
};

/// A callback that is due.
struct completion {
    zorvan_gridftp_server_read_callback_t read_callback = nullptr;
    zorvan_gridftp_server_write_callback_t write_callback = nullptr;
    unsigned char* buffer = nullptr;
    std::size_t bytes = 0;
    std::int64_t offset = 0;
    bool eof = false;
    bool failed = false;  ///< result: the operation's channel error
    void* argument = nullptr;
    late_source* source = nullptr;  ///< if set, fills the buffer from source_offset first
    std::uint64_t source_offset = 0;
};

enum class operation_kind { session_start, stat, command, send, receive };

/// What an operation is about; the records point into the strings, all unchanged while the handle lives.
struct operation_records {
    std::string path;
    std::optional<std::string> from_path;
    std::optional<std::string> checksum;
    std::optional<std::string> algorithm;
    zorvan_gridftp_server_session_info_t session_info{};
    zorvan_gridftp_server_stat_info_t stat_info{};
    zorvan_gridftp_server_transfer_info_t transfer_info{};
    zorvan_gridftp_server_command_info_t command_info{};
    std::vector<byte_range> ranges;                 ///< to send, or the one to receive
    std::optional<std::int64_t> modification_time;  ///< that the client set
    bool wants_progress = false;
    std::size_t connections = 0;  ///< extended mode: data connections that there may be; 0 = stream mode
};

class operation final : public pool_task, public std::enable_shared_from_this<operation> {
  public:
    /// A new operation. `event` is notified of everything its coroutine may wait for.
    static std::shared_ptr<operation> create(operation_kind kind, std::shared_ptr<session_core> session,
                                             async_event event);

    /// The operation of a handle, or null when there is none (any more). Any thread.
    static std::shared_ptr<operation> find(zorvan_gridftp_server_operation_t handle) noexcept;

    operation(operation_kind kind, std::shared_ptr<session_core> session, async_event event);
    ~operation() override;

    /// Holds the mutex; when it goes, it unlocks and then wakes the coroutine, starts due callbacks and
    /// releases the operation as far as each is called for.
    class guard {
      public:
        explicit guard(operation& op) : op_(op), lock_(op.mutex_) {}
        guard(const guard&) = delete;
        guard& operator=(const guard&) = delete;
        ~guard();
        std::unique_lock<std::mutex>& lock() noexcept { return lock_; }

      private:
        operation& op_;
        std::unique_lock<std::mutex> lock_;
    };

    zorvan_gridftp_server_operation_t handle() const noexcept;
    operation_kind kind() const noexcept { return kind_; }
    const async_event& event() const noexcept { return event_; }

    /// To be filled before start(), constant afterwards.
    operation_records records;
    std::shared_ptr<transfer_channel> channel;

    /// Give it its handle and run the interface-table entry on the pool. When this throws the back end knows
    /// nothing of it.
    void start(std::function<void(zorvan_gridftp_server_operation_t)> entry);

    // --- from the back end, any thread, mutex not held ---

    /// What a finish call brought besides its result.
    struct finish_values {
        void* session_handle = nullptr;
        std::optional<std::string> user_name;
        std::optional<std::string> home_directory;
        std::optional<std::string> text;
        std::vector<stat_record> entries;
        bool incomplete = false;  ///< not all of it could be copied, for want of memory
    };
    /// The first one is the outcome; a later one only gives its error object up.
    void finish(zorvan_result_t result, finish_values values) noexcept;

    /// Entries before the end: waits while too many are waiting. With an error result, or when the entries
    /// could not be had, the listing can no longer succeed.
    void add_entries(zorvan_result_t result, std::vector<stat_record> entries, bool incomplete) noexcept;
    void add_progress(std::string text);

    void begin_transfer();
    zorvan_result_t register_read(const read_request& request) noexcept;
    zorvan_result_t register_write(const write_request& request) noexcept;
    void count_received(std::int64_t bytes);
    /// @param offset, length  neither negative
    void add_durable_range(std::int64_t offset, std::int64_t length);
    /// How far an upload has come at its back end.
    transfer_progress progress_of_receive();
    /// What get_optimal_concurrency says: as configured, but not above the number of blocks that an announced
    /// upload has. Constant once the operation was started.
    int concurrency() const noexcept;
    byte_range next_read_range();
    std::optional<byte_range> write_range();
    const std::shared_ptr<session_core>& session() const noexcept { return session_; }

    // --- with the mutex held (see guard) ---

    bool finished_locked() const noexcept { return finished_; }
    bool succeeded_locked() const noexcept { return finished_ && !error_; }
    const std::optional<operation_error>& error_locked() const noexcept { return error_; }
    /// Keep the server's own first failure of the transfer.
    void fail_channel_locked(operation_error error);
    const std::optional<operation_error>& channel_error_locked() const noexcept { return channel_error_; }
    /// Did the channel fail before the finish?
    bool channel_failed_first_locked() const noexcept { return channel_failed_first_; }
    /// The result for refusals and failed callbacks; it stays the operation's.
    zorvan_result_t channel_result_locked() noexcept;
    /// Queue a callback; its request must have been accepted. Needs no memory.
    void complete_locked(const completion& due) noexcept;
    /// No callback runs or is due.
    bool callbacks_idle_locked() const noexcept { return !callbacks_running_; }
    /// Wake the coroutine when that comes true.
    void wake_when_idle_locked() noexcept { wake_when_idle_ = true; }
    void wake_locked() noexcept { wake_due_ = true; }

    // --- from the coroutine ---

    bool finished();
    /// Is no entry of the back end inside it? If one is, its return raises the event.
    bool entry_over();
    /// Drop what is still to come for the client, and let a held-up back end go on.
    void drop_output();
    /// Nobody waits for the outcome any more: it runs to its end unseen, and a shutdown does not wait for it.
    void abandon();
    /// Take the entries that wait; they count as waiting until entries_written().
    std::vector<stat_record> take_entries();
    void entries_written(std::size_t count);
    std::vector<std::string> take_progress();
    std::optional<operation_error> error();
    finish_values take_values();
    /// Held until the finish.
    void hold(receive_locks::holder lock);
    void hold(user_limit::place place);

  private:
    friend class guard;
    void run() noexcept override;  // the callbacks that are due
    void run_entry() noexcept;
    void release() noexcept;
    // Accept a request, if `take` does, with all the memory that its callback will need.
    template <class Take>
    zorvan_result_t accept_locked(Take take) noexcept;
    zorvan_result_t memory_result_locked() noexcept;
    bool is_own_locked(zorvan_result_t result) const noexcept;
    void keep_error_locked(zorvan_result_t result) noexcept;
    void keep_entries_locked(std::vector<stat_record>& entries) noexcept;

    // The interface-table entry's turn on the pool.
    struct entry_task final : pool_task {
        explicit entry_task(operation& owner) : op(owner) {}
        void run() noexcept override { op.run_entry(); }
        operation& op;
        std::function<void(zorvan_gridftp_server_operation_t)> function;
    };

    static constexpr std::size_t waiting_entries_limit = 1024;

    // Counts the operation as alive until everything that it holds has gone: declared first, destroyed last.
    struct life {
        explicit life(host_gauges& counted) : gauges(counted) { gauges.count_operation(+1); }
        life(const life&) = delete;
        life& operator=(const life&) = delete;
        ~life() {
            if (abandoned) gauges.count_abandoned(-1);
            gauges.count_operation(-1);
        }
        host_gauges& gauges;
        bool abandoned = false;  // by the coroutine, once
    };
    life life_;
    const operation_kind kind_;
    const std::uint64_t id_;
    const async_event event_;
    std::shared_ptr<session_core> session_;

    std::mutex mutex_;
    std::condition_variable room_;
    entry_task entry_{*this};
    bool started_ = false;
    bool entry_returned_ = false;
    bool entry_awaited_ = false;  // the coroutine was told that it is still inside
    bool finished_ = false;
    bool released_ = false;
    bool output_dropped_ = false;
    bool callbacks_running_ = false;
    // What a guard has to see to when it goes.
    bool wake_due_ = false;
    bool kick_due_ = false;
    bool wake_when_idle_ = false;

    std::size_t outstanding_ = 0;  // accepted, not yet called back
    // Every accepted request has a place in one of these: its callback must not fail for want of memory.
    std::list<completion> places_;
    std::list<completion> due_;
    std::list<completion> batch_;  // of the thread that runs callbacks

    std::optional<operation_error> error_;
    std::optional<operation_error> channel_error_;
    bool channel_failed_first_ = false;
    // The server's own results: they live as long as the operation.
    zorvan_result_t channel_result_ = ZORVAN_SUCCESS;
    zorvan_result_t memory_result_ = ZORVAN_SUCCESS;
    finish_values values_;
    receive_locks::holder receive_lock_;
    user_limit::place place_;

    std::vector<stat_record> entries_;
    std::size_t waiting_entries_ = 0;
    std::optional<operation_error> listing_error_;  // before the end
    std::vector<std::string> progress_;

    std::size_t next_range_ = 0;
    std::uint64_t received_ = 0;
    range_list durable_;
};

}  // namespace zorvan::gridftp
