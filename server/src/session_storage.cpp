/*
 * What a session does at the back end: log-in, stats, commands and transfers, and the replies to transfers;
 * see session.h. Each call awaits one operation at a time; operation_scope tells the reader that one is
 * running.
 */
#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <fstream>
#include <sstream>

#include "data_address.h"
#include "host.h"
#include "replies.h"
#include "server_log.h"
#include "session.h"
#include "text.h"

namespace zorvan::gridftp {

namespace {

/** A policy is a page of JSON; a file beyond this is a mistake. */
constexpr std::uintmax_t longest_policy = 1U << 20U;

class silent_progress final : public progress_sink {
  public:
    task<void> progress(std::string_view) override { co_return; }
};

/** Read a storage policy. @return nothing, with a reason, when it is not to be had or empty */
std::optional<std::string> read_policy(const std::string& file, std::string& reason) {
    std::ifstream stream(file, std::ios::binary | std::ios::ate);
    if (!stream) {
        reason = "cannot be opened";
        return std::nullopt;
    }
    const auto size = stream.tellg();
    if (size <= 0 || static_cast<std::uintmax_t>(size) > longest_policy) {
        reason = size == 0 ? "is empty" : "is no policy file";
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(size), '\0');
    stream.seekg(0);
    if (!stream.read(text.data(), size)) {
        reason = "cannot be read";
        return std::nullopt;
    }
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        reason = "is empty";
        return std::nullopt;
    }
    return text;
}

}  // namespace

/** Marks the time in which an operation runs at the back end. */
class session::operation_scope {
  public:
    operation_scope(session& owner, bool uses_data) : owner_(owner) {
        owner_.operation_running_ = true;
        owner_.data_running_ = uses_data;
        // The end of the input is the end of the client for everything that needs one at the other end.
        if (owner_.storage_ && (owner_.lost_ || (uses_data && owner_.input_ended_)))
            owner_.storage_->client_gone();
    }
    ~operation_scope() {
        owner_.operation_running_ = false;
        owner_.data_running_ = false;
        if (owner_.watched_connector_ == nullptr) owner_.data_announced_ = false;
    }
    operation_scope(const operation_scope&) = delete;
    operation_scope& operator=(const operation_scope&) = delete;

  private:
    session& owner_;
};

/** Sends the 150 when the first data come. */
class session::first_data final : public transfer_events {
  public:
    explicit first_data(session& owner) : owner_(owner) {}

    task<void> on_first_data() override {
        if (sent_) co_return;
        sent_ = true;
        co_await owner_.announce_data();
    }
    bool control_alive() noexcept override { return owner_.client_is_there(); }
    bool on_progress(const transfer_progress& progress) override {
        std::string markers;
        if (progress.durable_changed) markers = range_marker(progress.durable.text());
        markers += performance_marker(std::chrono::system_clock::now(), progress.bytes);
        return owner_.offer(std::move(markers));
    }

  private:
    session& owner_;
    bool sent_ = false;
};

// ------------------------------------------------------------------------------ log-in

bool session::choose_collection(std::string_view host) {
    if (config().collections.empty()) return true;
    std::string name = ascii_lower(trim(host));
    if (name.size() >= 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
    for (const collection_config& collection : config().collections) {
        for (const std::string& known : collection.hosts) {
            if (known != name) continue;
            collection_ = &collection;
            return true;
        }
    }
    return false;
}

std::optional<session_record> session::make_session_record(std::string& refusal) const {
    session_record record;
    record.user_name = parameters_.user;
    record.client_address = client_address_.to_string();
    if (collection_ == nullptr) {
        if (config().collections.empty()) return record;
        refusal = texts::need_host;
        return std::nullopt;
    }
    record.collection = collection_->name;
    if (collection_->policy.empty()) return record;
    std::string reason;
    record.policy = read_policy(collection_->policy, reason);
    if (!record.policy) {
        log(ZORVAN_GFS_LOG_ERROR, fmt::format("log-in refused: the policy {} of collection \"{}\" {}",
                                              collection_->policy, printable(collection_->name), reason));
        refusal = texts::storage_unavailable;
        return std::nullopt;
    }
    return record;
}

task<bool> session::check_password(std::string password) {
    const users_file& users = environment_.users;
    const std::string user = parameters_.user;
    // On a thread of its own: a hash costs more processor time than all else that a session does.
    auto check = [&users, &user, &password]() -> task<bool> { co_return users.check(user, password); };
    const bool good =
        co_await asio::co_spawn(environment_.login_threads.get_executor(), check, asio::use_awaitable);
    ::explicit_bzero(password.data(), password.size());
    co_return good;
}

task<void> session::log_in() {
    std::string refusal;
    std::optional<session_record> record = make_session_record(refusal);
    if (!record) {
        co_await answer(530, refusal);
        co_return;
    }
    session_record wanted = std::move(*record);
    login_outcome outcome;
    {
        const operation_scope scope(*this, false);
        outcome = co_await backend_session::start(environment_.module, environment_.shared, executor_,
                                                  std::move(wanted));
    }
    if (!outcome.session) {
        log(ZORVAN_GFS_LOG_WARNING, "log-in refused by the storage");
        co_await send(error_reply(outcome.error, error_context::login));
        co_return;
    }
    storage_ = std::move(outcome.session);
    parameters_.shown_user = outcome.user_name.empty() ? parameters_.user : outcome.user_name;
    const auto home = resolve_path("/", outcome.home_directory);
    parameters_.directory = home ? home->path : "/";
    if (lost_) storage_->client_gone();
    log(ZORVAN_GFS_LOG_INFO, "logged in");
    co_await answer(230, texts::logged_in);
}

void session::reset() {
    storage_.reset();
    parameters_ = session_parameters{};
    began_ = std::chrono::steady_clock::now();
    collection_ = nullptr;
    for (const collection_config& collection : config().collections) {
        if (collection.is_default) collection_ = &collection;
    }
}

// ------------------------------------------------------------------------ stats, commands

task<std::optional<resolved_path>> session::resolve(std::string_view typed, int code) {
    std::optional<resolved_path> path = resolve_path(parameters_.directory, typed);
    if (!path) co_await answer(code, texts::bad_path);
    co_return path;
}

task<std::optional<resolved_path>> session::resolve_file(std::string_view typed, int code) {
    std::optional<resolved_path> path = co_await resolve(typed, code);
    if (!path) co_return std::nullopt;
    if (path->names_directory) {
        co_await answer(code, texts::names_directory);
        co_return std::nullopt;
    }
    if (config().root_holds_only_directories && path->is_below_root()) {
        co_await answer(code, texts::below_root);
        co_return std::nullopt;
    }
    co_return path;
}

task<stat_outcome> session::list(std::string path, stat_sink& sink, bool uses_data) {
    const operation_scope scope(*this, uses_data);
    co_return co_await storage_->stat(std::move(path), false, sink);
}

task<std::optional<stat_record>> session::stat_one(std::string path, operation_error& error) {
    collecting_stat_sink sink;
    stat_outcome outcome;
    {
        const operation_scope scope(*this, false);
        outcome = co_await storage_->stat(std::move(path), true, sink);
    }
    if (outcome.error) {
        error = std::move(*outcome.error);
        co_return std::nullopt;
    }
    if (outcome.aborted) {
        error = operation_error::server(426, "", texts::transfer_aborted);
        co_return std::nullopt;
    }
    if (sink.records.empty()) {
        error = operation_error::server(550, "", texts::no_such_file);
        co_return std::nullopt;
    }
    co_return std::move(sink.records.front());
}

task<command_outcome> session::command(command_request request, progress_sink& progress) {
    const operation_scope scope(*this, false);
    co_return co_await storage_->command(std::move(request), progress);
}

task<std::optional<command_outcome>> session::simple_command(int code, std::string path,
                                                             std::optional<std::string> from) {
    command_request request;
    request.command = code;
    request.path = std::move(path);
    request.from_path = std::move(from);
    silent_progress progress;
    command_outcome outcome = co_await command(std::move(request), progress);
    if (outcome.error) {
        co_await send(error_reply(*outcome.error, error_context::command));
        co_return std::nullopt;
    }
    co_return outcome;
}

// --------------------------------------------------------------------------- transfers

data_connection_rules session::data_rules() const {
    data_connection_rules rules;
    rules.client = client_address_;
    rules.local = local_address_;
    rules.timeout = config().data_connect;
    rules.first_port = config().passive_first;
    rules.last_port = config().passive_last;
    rules.buffer_size = parameters_.buffer_size;
    return rules;
}

task<std::unique_ptr<data_connector>> session::take_connector() {
    if (parameters_.extended_mode) {
        co_await answer(504, texts::no_extended_listing);
        co_return nullptr;
    }
    std::unique_ptr<data_connector> connector = std::move(parameters_.connector);
    if (!connector) co_await answer(425, texts::need_data_connection);
    co_return connector;
}

task<std::unique_ptr<data_connector>> session::take_file_connector(bool uploads) {
    if (!parameters_.extended_mode) {
        auto connector = co_await take_connector();
        co_return connector;
    }
    std::unique_ptr<data_connector> connector = std::move(parameters_.connector);
    // Who sends connects: an order of the sender's own on each connection would be of no use otherwise.
    const bool good = connector && connector->accepts() == uploads;
    if (!good) {
        connector.reset();
        co_await answer(425, uploads ? texts::extended_upload_passive : texts::extended_download_active);
    }
    co_return connector;
}

void session::keep_connector(std::unique_ptr<data_connector> connector, const transfer_outcome& outcome) {
    const bool good = parameters_.extended_mode && !outcome.error && !outcome.aborted;
    if (good) parameters_.connector = std::move(connector);
}

task<void> session::announce_data() {
    data_announced_ = true;
    co_await answer(150, texts::opening_data);
}

void session::watch_data(data_connector* connector, data_stream* stream) {
    watched_connector_ = connector;
    watched_stream_ = stream;
    if (connector == nullptr) data_announced_ = false;
}

task<void> session::download(send_request request) {
    std::unique_ptr<data_connector> connector = co_await take_file_connector(false);
    if (!connector) co_return;
    if (parameters_.extended_mode) {
        request.connections =
            std::min(parameters_.parallelism, environment_.shared.config().most_connections);
    }
    const std::string path = request.path;
    first_data events(*this);
    transfer_outcome outcome;
    {
        const operation_scope scope(*this, true);
        outcome = co_await storage_->send(std::move(request), *connector, events);
    }
    keep_connector(std::move(connector), outcome);
    co_await finish_transfer("sent", path, outcome, events);
}

task<void> session::upload(receive_request request) {
    std::unique_ptr<data_connector> connector = co_await take_file_connector(true);
    if (!connector) co_return;
    request.extended = parameters_.extended_mode;
    const std::string path = request.path;
    first_data events(*this);
    transfer_outcome outcome;
    {
        const operation_scope scope(*this, true);
        outcome = co_await storage_->receive(std::move(request), *connector, events);
    }
    keep_connector(std::move(connector), outcome);
    co_await finish_transfer("received", path, outcome, events);
}

task<void> session::finish_transfer(std::string_view verb, const std::string& path,
                                    const transfer_outcome& outcome, first_data& events) {
    std::string text;
    if (outcome.error && outcome.aborted && outcome.error->origin != error_origin::back_end) {
        text = reply(426, texts::transfer_aborted);
    } else if (outcome.error) {
        text = error_reply(*outcome.error, error_context::transfer);
    } else if (outcome.aborted && !outcome.store_confirmed) {
        text = reply(426, texts::transfer_aborted);
    } else {
        co_await events.on_first_data();
        text = reply(226, texts::transfer_complete);
    }
    log(ZORVAN_GFS_LOG_TRANSFER,
        fmt::format("{} {} bytes={} reply={}", verb, printable(path), outcome.bytes, text.substr(0, 3)));
    if (outcome.restart) text.insert(0, range_marker(outcome.restart->text()));
    co_await send(std::move(text));
}

// ------------------------------------------------------------------------------ status

std::vector<std::string> session::status_lines() const {
    std::vector<std::string> lines;
    lines.push_back("Connected to " + client_address_.to_string());
    lines.push_back(logged_in() ? "Logged in as " + printable(parameters_.shown_user)
                                : std::string("Not logged in"));
    lines.push_back(fmt::format("TYPE: {}, STRUcture: File, MODE: {}",
                                parameters_.type == representation_type::ascii ? "ASCII" : "Image",
                                parameters_.extended_mode ? "Extended" : "Stream"));
    lines.emplace_back(data_running_        ? "A transfer is in progress"
                       : operation_running_ ? "A command is in progress"
                                            : "No data connection");
    return lines;
}

}  // namespace zorvan::gridftp
