/*
 * One control connection: reads command lines, runs their handlers, sends replies.
 *
 * Flow: a reader coroutine takes lines from the connection and queues them; run() takes them one by one and
 * calls the handlers, each of which awaits its operation at the back end. While one runs, the reader itself
 * answers NOOP and STAT and acts on ABOR; everything else waits in its order. A watchdog coroutine ends what
 * is too slow. Threads: everything runs on the session's strand, so nothing here is locked. Ownership: the
 * coroutines hold the session; it is gone when the connection is closed and its last operation has ended.
 */
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "async.h"
#include "backend_session.h"
#include "config.h"
#include "control_line.h"
#include "data_listener.h"
#include "error_reply.h"
#include "listing.h"
#include "path.h"
#include "range_list.h"
#include "users_file.h"

namespace zorvan::gridftp {

/** What all sessions share. Everything in it outlives them. */
struct session_environment {
    const server_config& config;
    const users_file& users;
    backend& module;
    host& shared;
    asio::thread_pool& login_threads; /**< where passwords are hashed */
};

/** Representation type (RFC 959, 3.1.1). File data pass unchanged in both: objects are byte strings, and a
 * store that rewrote line ends would break checksums and restarts. Listings always have CRLF. */
enum class representation_type : std::uint8_t { ascii, image };

/** What a client has set up; REIN puts all of it back. */
struct session_parameters {
    std::string user;        /**< named by USER */
    std::string shown_user;  /**< as the back end names it */
    bool user_given = false; /**< USER came, PASS is awaited or has come */
    std::string directory = "/";
    representation_type type = representation_type::ascii;
    std::unique_ptr<data_connector> connector; /**< of the next transfer */
    bool only_epsv = false;                    /**< EPSV ALL came */
    bool extended_mode = false;                /**< MODE E */
    std::size_t parallelism = 1;               /**< data connections of a download in extended mode */
    range_list restart;                        /**< REST, for the next transfer: what is there already */
    std::uint64_t announced_size = 0;          /**< ALLO, for the next STOR; 0 = none */
    std::string time_path;                     /**< MFMT before STOR: of this path ... */
    std::int64_t time_value = -1;              /**< ... this time */
    std::string checksum_algorithm;            /**< SCKS, for the next STOR; "" = none */
    std::string checksum_value;
    std::optional<std::string> rename_from;
    unsigned facts = fact_all;
    std::size_t buffer_size = 0; /**< SBUF */
};

/** A control connection and everything that belongs to it. */
class session : public std::enable_shared_from_this<session> {
  public:
    /** @param socket  connected, on the strand on which everything of this session runs */
    session(const session_environment& environment, asio::ip::tcp::socket socket);
    ~session();
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    /** Serve the connection to its end. */
    task<void> run();

    /** Any thread: begin no further command; say 421 as soon as the running one has ended. */
    void drain();

    /** Any thread: fail the running operation's data channel and close the connection. */
    void cut();

    // ---- for the command handlers; all of it on the strand

    const session_environment& environment() const { return environment_; }
    const server_config& config() const { return environment_.config; }
    session_parameters& parameters() { return parameters_; }
    bool logged_in() const { return storage_ != nullptr; }
    const asio::any_io_executor& executor() const { return executor_; }

    /** Numeric addresses of both ends of the control connection; IPv4 in its own form. */
    const asio::ip::address& client_address() const { return client_address_; }
    const asio::ip::address& local_address() const { return local_address_; }

    /** Send a reply text (with its CRLFs). Suspends while much is unsent. */
    task<void> send(std::string text);
    /** Send a reply of one line. */
    task<void> answer(int code, std::string_view text);
    /** Send a reply if nothing else is being sent, without waiting. @return whether it was taken */
    bool offer(std::string text);

    /** End the session after this command. */
    void close_after_reply() { closing_ = true; }

    /** Resolve a path; answers 553 (or `code`) when it cannot be one. */
    task<std::optional<resolved_path>> resolve(std::string_view typed, int code);
    /** The same for the name of a file: refuses names of directories and names below the root. */
    task<std::optional<resolved_path>> resolve_file(std::string_view typed, int code);

    /** Check a password. Suspends for the time of a hash. */
    task<bool> check_password(std::string password);
    /** Open the storage session and answer PASS. */
    task<void> log_in();
    /** Give the storage session back and forget everything that the client has set up. */
    void reset();
    /** Choose the collection by a host name. @return false when no collection has it */
    bool choose_collection(std::string_view host);

    /** Stat one name; no entry at all counts as not found. On failure `error` is set and nothing is returned.
     */
    task<std::optional<stat_record>> stat_one(std::string path, operation_error& error);
    /** List (or stat) into a sink. @param uses_data  the entries go over a data connection */
    task<stat_outcome> list(std::string path, stat_sink& sink, bool uses_data);
    /** Run a back-end command; its progress goes out through `progress`. */
    task<command_outcome> command(command_request request, progress_sink& progress);
    /** The same without progress; answers errors itself. @return nothing when it has */
    task<std::optional<command_outcome>> simple_command(int code, std::string path,
                                                        std::optional<std::string> from = std::nullopt);

    /** Take the data connector that PASV and its kin have left, for a listing; answers 425 when there is
     * none, and 504 in extended mode, in which no listings are sent. */
    task<std::unique_ptr<data_connector>> take_connector();
    /** Run a transfer and answer for it. The REST offset is used up before. */
    task<void> download(send_request request);
    task<void> upload(receive_request request);
    /** Say 150. From here on the client knows that a transfer runs, and NOOP and STAT are answered at once.
     */
    task<void> announce_data();
    /** Let ABOR, and the end of the client, reach this connector and stream too, until it is called with
     * null. */
    void watch_data(data_connector* connector, data_stream* stream);
    /** What a data connection of this session must obey. */
    data_connection_rules data_rules() const;

    /** Text lines of STAT without an argument. */
    std::vector<std::string> status_lines() const;

    /** Write a line about this session to the log. */
    void log(int level, std::string_view text) const;

  private:
    class operation_scope;
    class first_data;

    task<void> read_lines();
    task<void> watch();
    task<void> serve();
    task<void> dispatch(std::string line);
    task<void> take_line(std::string line, bool too_long);
    task<void> write_output();
    task<void> wait_for_output(std::size_t most);
    void wake_senders();
    void start_helper(task<void> body);
    void end(std::string_view reason);
    void note_activity();
    bool end_late_login();
    task<std::unique_ptr<data_connector>> take_file_connector(bool uploads);
    void keep_connector(std::unique_ptr<data_connector> connector, const transfer_outcome& outcome);
    task<void> finish_transfer(std::string_view verb, const std::string& path,
                               const transfer_outcome& outcome, first_data& events);
    void input_ended(bool lost);
    bool client_is_there() const noexcept;
    void abort_operation();
    std::optional<session_record> make_session_record(std::string& refusal) const;

    struct waiting_line {
        std::string text;
        bool too_long = false;
    };

    const session_environment& environment_;
    asio::any_io_executor executor_;
    int control_socket_; /**< of control_, for a look at its state alone; good as long as `lost_` is not set
                          */
    std::unique_ptr<data_stream> control_;
    asio::ip::address client_address_;
    asio::ip::address local_address_;

    session_parameters parameters_;
    const collection_config* collection_ = nullptr;
    std::unique_ptr<backend_session> storage_;

    std::deque<waiting_line> waiting_;
    async_event line_event_;         /**< a line was queued, or the input's or the session's end came */
    async_event room_event_;         /**< a line was taken from the queue */
    async_event helper_event_;       /**< a helper has ended */
    std::list<async_event> senders_; /**< of the coroutines that wait until the output goes down */
    asio::steady_timer watchdog_;

    std::string output_;
    bool writing_ = false;
    std::chrono::steady_clock::time_point write_began_;

    bool operation_running_ = false;
    bool data_announced_ = false; /**< the running operation's 150 is out */
    bool data_running_ = false;   /**< the running operation uses a data connection */
    data_connector* watched_connector_ = nullptr;
    data_stream* watched_stream_ = nullptr;

    bool handling_ = false; /**< a command is being handled */
    bool closing_ = false;
    bool draining_ = false;
    bool input_ended_ = false;
    bool lost_ = false;     /**< nothing can be sent any more */
    bool done_ = false;     /**< the last reply is out; what still arrives is dropped */
    unsigned helpers_ = 0;  /**< coroutines beside run() that still run: reader, watchdog, writer */
    std::string end_reply_; /**< the 421 to end with; "" = none */
    unsigned bad_commands_ = 0;
    std::chrono::steady_clock::time_point began_;
    std::chrono::steady_clock::time_point last_activity_;
    std::chrono::steady_clock::time_point linger_until_;
};

}  // namespace zorvan::gridftp
