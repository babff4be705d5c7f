// One logged-in session at a storage back end: what the control channel calls to get things done.
//
// Every member is called on the session's strand, and every coroutine runs there; one operation at a time.
// Back-end code runs on the pool's threads, never on the strand, so control lines are read meanwhile. A
// coroutine returns when the back end has finished the operation, whatever the client does; abort() only
// makes that come sooner. The references given to a coroutine must live until it has returned.
#pragma once

#include <zorvan_gridftp_server.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "async.h"
#include "backend.h"
#include "data_stream.h"
#include "host.h"
#include "operation_error.h"
#include "range_list.h"

namespace zorvan::gridftp {

/// Who logs in, from where, to what.
struct session_record {
    std::string user_name;
    std::string client_address;
    std::string collection;                          ///< "" = the default one
    std::optional<std::string> certificate_subject;  ///< of the client's TLS certificate
    std::optional<std::string> policy;  ///< storage policy (JSON text); none = collection without one
};

/// One entry of a stat or listing, as zorvan_gridftp_server_stat_t.
struct stat_record {
    std::uint32_t mode = 0;
    std::uint32_t nlink = 0;
    std::string name;
    std::optional<std::string> symlink_target;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::int64_t size = 0;
    std::int64_t atime = -1;
    std::int64_t ctime = -1;
    std::int64_t mtime = -1;
    std::uint32_t dev = 0;
    std::uint32_t ino = 0;
};

/// Takes the entries of a stat, in order.
class stat_sink {
  public:
    virtual ~stat_sink() = default;
    /// One batch, never empty, good during the call. May suspend for a slow client: the back end's thread is
    /// held up once more than 1,024 entries wait. @return false: no further entries are wanted
    virtual task<bool> entries(std::span<const stat_record> batch) = 0;
};

/// A stat that collects everything; for the single entries.
class collecting_stat_sink final : public stat_sink {
  public:
    task<bool> entries(std::span<const stat_record> batch) override;
    std::vector<stat_record> records;
};

struct stat_outcome {
    std::optional<operation_error> error;
    bool aborted = false;  ///< abort() came before the end
    std::uint64_t entries = 0;
};

/// What to do to a name; see zorvan_gridftp_server_command_info_t.
struct command_request {
    int command = 0;
    std::string path;
    std::optional<std::string> from_path;
    std::int64_t checksum_offset = 0;
    std::int64_t checksum_length = -1;
    std::optional<std::string> checksum_algorithm;
    bool wants_progress = false;  ///< false: the back end's update interval is 0 and no progress is reported
};

/// Takes the preliminary texts of a command.
class progress_sink {
  public:
    virtual ~progress_sink() = default;
    /// A text of the back end, as it came. After abort() none come.
    virtual task<void> progress(std::string_view text) = 0;
};

struct command_outcome {
    std::optional<operation_error> error;
    bool aborted = false;             ///< abort() came before the end
    std::optional<std::string> text;  ///< checksum, or a reply of the back end's own
};

/// A piece of a file. Length -1 = to the end.
struct byte_range {
    std::int64_t offset = 0;
    std::int64_t length = -1;
};

struct send_request {
    std::string path;
    std::vector<byte_range> ranges{byte_range{}};  ///< at least one, in the order to send
    std::size_t connections = 0;     ///< extended mode: data connections to open; 0 = stream mode
    std::uint64_t offset_shift = 0;  ///< extended mode: the place that the client sees as offset 0
};

struct receive_request {
    std::string path;
    bool append = false;                          ///< APPE: where to write is found out by a stat of the path
    std::int64_t write_offset = 0;                ///< from REST or ESTO; 0 = an ordinary, truncating store
    std::optional<std::uint64_t> announced_size;  ///< bytes to come, above 0; none = find out first
    bool extended = false;                        ///< extended mode
    std::uint64_t offset_shift = 0;               ///< extended mode: added to the blocks' offsets
    std::optional<std::string> expected_checksum;   ///< of the bytes to come, hexadecimal
    std::string expected_checksum_algorithm;        ///< as the client wrote it
    std::optional<std::int64_t> modification_time;  ///< seconds since the epoch
};

/// How far a transfer in extended mode has come.
struct transfer_progress {
    std::uint64_t bytes = 0;       ///< moved; of an upload, that the back end has taken
    range_list durable;            ///< of an upload: ranges of the file that can be left out of a restart
    bool durable_changed = false;  ///< since the last report that was taken
};

/// What a transfer tells the session while it runs.
class transfer_events {
  public:
    virtual ~transfer_events() = default;
    /// Awaited once: before the first byte goes out, before a clean end without a byte, before the first byte
    /// of an upload is asked for. The late 150 goes out here. A transfer that fails earlier never calls it.
    virtual task<void> on_first_data() = 0;
    /// Asked at the clean end of an upload's data: is the control connection still there? A client that died
    /// ends its data connection as neatly as one that is done, so look at the socket (a peek), not only at
    /// what was read from it.
    virtual bool control_alive() noexcept { return true; }
    /// Extended mode: called at the update interval, after on_first_data() and not after the transfer's end.
    /// Must not wait for the client. @return false: not taken, the client has not read what was sent before
    virtual bool on_progress(const transfer_progress& /*progress*/) { return true; }
};

struct transfer_outcome {
    std::optional<operation_error> error;  ///< the worse of the back end's and the data channel's
    bool aborted = false;                  ///< abort() came before the end
    bool store_confirmed = false;          ///< the back end finished with success
    std::uint64_t bytes = 0;               ///< moved over the data connection
    /// Of a failed upload in extended mode: the durable ranges, if the client does not know of them yet.
    std::optional<range_list> restart;
};

class backend_session;

struct login_outcome {
    std::unique_ptr<backend_session> session;  ///< null: the log-in is refused
    operation_error error;                     ///< then, why
    std::string user_name;                     ///< to show
    std::string home_directory;                ///< absolute, to begin in
};

class backend_session {
  public:
    /// Log in. Run on the session's strand (`strand`); `module` and `shared` outlive the session.
    static task<login_outcome> start(backend& module, host& shared, asio::any_io_executor strand,
                                     session_record record);

    backend_session(const backend_session&) = delete;
    backend_session& operator=(const backend_session&) = delete;
    /// As close(). No coroutine may be running.
    ~backend_session();

    task<stat_outcome> stat(std::string path, bool file_only, stat_sink& sink);
    /// Checksums change nothing, so they are the exception to the rule above: after abort() the coroutine
    /// returns at once and the back end's work goes on unseen. How many run for one user at a time, those
    /// included, is limited: one too many is refused with 450.
    task<command_outcome> command(command_request request, progress_sink& sink);
    /// The connector is asked for a stream when the back end begins its transfer.
    task<transfer_outcome> send(send_request request, data_connector& connector, transfer_events& events);
    task<transfer_outcome> receive(receive_request request, data_connector& connector,
                                   transfer_events& events);

    /// ABOR: fail the data channel or drop further output. The running coroutine still returns only when the
    /// back end has finished. Without one: nothing.
    void abort() noexcept;

    /// The control connection is gone: as abort(), also for whatever is started later.
    void client_gone() noexcept;

    /// Let the back end destroy its session, once, as soon as its last operation has ended; returns at once.
    void close() noexcept;

    /// Is an operation's coroutine running?
    bool busy() const noexcept;

    class implementation;

  private:
    explicit backend_session(std::unique_ptr<implementation> made);
    std::unique_ptr<implementation> implementation_;
};

}  // namespace zorvan::gridftp
