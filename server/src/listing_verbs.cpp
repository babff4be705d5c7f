/*
 * Verbs that list: LIST, NLST and MLSD over a data connection, MLST and STAT on the control connection.
 *
 * Entries go out while later ones are still being fetched: data_listing formats each batch of the back end
 * and sends it, and suspends with a slow client, which holds the back end up. The data connection is opened,
 * and the 150 sent, with the first batch or before the 226, so that a failed listing answers with its error
 * alone; the 150 does not wait for a client that connects only after it.
 */
#include <fmt/format.h>
#include <sys/stat.h>

#include <array>
#include <boost/asio/steady_timer.hpp>

#include "connect_beside.h"
#include "ftp_time.h"
#include "replies.h"
#include "server_log.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

/** Formatted entries are sent in pieces of this size, bytes; the first batch goes out at once. */
constexpr std::size_t piece_size = 32768;

enum class listing_form : std::uint8_t { long_lines, names, facts };

listing_entry make_entry(const stat_record& record) {
    listing_entry entry;
    entry.name = record.name;
    if (record.symlink_target) entry.symlink_target = *record.symlink_target;
    entry.mode = record.mode;
    entry.nlink = record.nlink;
    entry.uid = record.uid;
    entry.gid = record.gid;
    entry.size = record.size;
    entry.mtime = record.mtime;
    return entry;
}

/** Turns records into lines. The first record of a directory is ".", that of a file never is. */
class line_writer {
  public:
    line_writer(session& client, listing_form form, std::string_view typed)
        : client_(client), form_(form), typed_(typed), now_(current_time()) {}

    /** Append the lines of a batch. */
    void write(std::span<const stat_record> batch, std::string& out) {
        for (const stat_record& record : batch) {
            if (first_) lists_file_ = record.name != ".";
            first_ = false;
            if (!is_shown(record.name)) continue;
            listing_entry entry = make_entry(record);
            // The name that the client asked for is the one that it can use again.
            if (lists_file_ && form_ == listing_form::names && !typed_.empty()) entry.name = typed_;
            bool replaced = false;
            out += line(entry, record.name == ".", replaced);
            out += "\r\n";
            if (replaced)
                client_.log(ZORVAN_GFS_LOG_WARNING, "listed with bytes replaced: " + printable(entry.name));
        }
    }
    bool lists_file() const { return lists_file_; }

  private:
    bool is_shown(std::string_view name) const {
        if (name == ".") return form_ == listing_form::facts;
        // No path leads to an entry of this name.
        return !name.empty() && name != "..";
    }

    std::string line(const listing_entry& entry, bool is_self, bool& replaced) const {
        switch (form_) {
            case listing_form::long_lines:
                return long_line(entry, now_, replaced);
            case listing_form::facts:
                return facts_line(entry, client_.parameters().facts, is_self, replaced);
            case listing_form::names:
                break;
        }
        return single_line(entry.name, &replaced);
    }

    session& client_;
    listing_form form_;
    std::string_view typed_;
    std::int64_t now_;
    bool first_ = true;
    bool lists_file_ = false;
};

/** Sends a listing over a data connection. */
class data_listing final : public stat_sink {
  public:
    data_listing(session& client, data_connector& connector, listing_form form, std::string_view typed)
        : client_(client),
          connector_(connector),
          writer_(client, form, typed),
          only_directories_(form == listing_form::facts),
          stall_timer_(client.executor()) {
        client_.watch_data(&connector_, nullptr);
    }
    ~data_listing() override { client_.watch_data(nullptr, nullptr); }
    data_listing(const data_listing&) = delete;
    data_listing& operator=(const data_listing&) = delete;

    task<bool> entries(std::span<const stat_record> batch) override {
        if (refused_ || failed_code_ != 0) co_return false;
        writer_.write(batch, text_);
        if (only_directories_ && writer_.lists_file()) {
            refused_ = true;
            co_return false;
        }
        const bool first = !stream_;
        co_await open();
        if (first || text_.size() >= piece_size) co_await flush();
        co_return failed_code_ == 0;
    }

    /** The last lines, and the end of the data. */
    task<void> finish() {
        co_await open();
        co_await flush();
        if (failed_code_ == 0) {
            const boost::system::error_code error = co_await stream_->shutdown();
            if (error) failed_code_ = 426;
        }
        if (stream_) stream_->close();
    }

    /** A listing that breaks off: what was formatted goes out, the client learns of the failure from the
     * reply. */
    task<void> break_off() {
        if (stream_) co_await flush();
        if (stream_) stream_->close();
    }

    /** Not a directory, though one was asked for. */
    bool refused() const { return refused_; }
    /** 425 or 426 when the data connection failed, else 0. */
    int failed_code() const { return failed_code_; }
    std::uint64_t bytes() const { return bytes_; }

  private:
    task<void> open() {
        if (stream_ || failed_code_ != 0) co_return;
        connect_beside connecting(client_.executor(), connector_);
        // A connect that fails at once is the whole reply; else the client may be one that connects only
        // after the 150.
        const bool settled = co_await connecting.settles_at_once();
        bool told = true;
        try {
            if (!settled || connecting.succeeded()) co_await client_.announce_data();
        } catch (const std::exception&) {
            // The connect uses the connector until it has returned.
            told = false;
            connector_.cancel();
        }
        connect_result result = co_await connecting.result();
        if (!told) result.stream.reset();
        if (!result.stream) {
            failed_code_ = result.reply_code;
            co_return;
        }
        stream_ = std::move(result.stream);
        client_.watch_data(&connector_, stream_.get());
    }

    task<void> flush() {
        std::size_t done = 0;
        while (done < text_.size() && failed_code_ == 0) {
            const std::array<asio::const_buffer, 1> buffers{
                asio::const_buffer(text_.data() + done, text_.size() - done)};
            data_stream* stream = stream_.get();
            stall_timer_.expires_after(client_.config().data_stall);
            stall_timer_.async_wait([stream, waiting = waiting_](const boost::system::error_code& error) {
                if (!error && *waiting) stream->reset();
            });
            *waiting_ = true;
            const io_result result = co_await stream_->write_some(buffers);
            *waiting_ = false;
            stall_timer_.cancel();
            done += result.bytes;
            bytes_ += result.bytes;
            if (result.error) failed_code_ = 426;
        }
        text_.clear();
    }

    session& client_;
    data_connector& connector_;
    line_writer writer_;
    bool only_directories_;
    asio::steady_timer stall_timer_;
    std::shared_ptr<bool> waiting_ = std::make_shared<bool>(false);
    std::unique_ptr<data_stream> stream_;
    std::string text_;
    std::uint64_t bytes_ = 0;
    bool refused_ = false;
    int failed_code_ = 0;
};

task<void> list_over_data(session& client, std::string_view typed, listing_form form) {
    client.parameters().restart = {};
    const std::optional<resolved_path> target = co_await client.resolve(typed, 550);
    if (!target) co_return;
    const std::unique_ptr<data_connector> connector = co_await client.take_connector();
    if (!connector) co_return;

    data_listing sink(client, *connector, form, typed);
    const stat_outcome outcome = co_await client.list(target->path, sink, true);
    std::string text;
    if (sink.refused()) {
        text = reply(501, texts::not_a_listing);
    } else if (!outcome.error && !outcome.aborted) {
        co_await sink.finish();
    } else {
        co_await sink.break_off();
    }
    if (text.empty()) {
        if (outcome.aborted) {
            text = reply(426, texts::listing_aborted);
        } else if (sink.failed_code() != 0) {
            text = reply(sink.failed_code(),
                         sink.failed_code() == 425 ? texts::cannot_open_data : texts::data_failed);
        } else if (outcome.error) {
            text = error_reply(*outcome.error, error_context::command);
        } else {
            text = reply(226, texts::transfer_complete);
        }
    }
    client.log(ZORVAN_GFS_LOG_TRANSFER, fmt::format("listed {} bytes={} reply={}", printable(target->path),
                                                    sink.bytes(), text.substr(0, 3)));
    co_await client.send(std::move(text));
}

/** Sends a listing as the middle of a reply. */
class control_listing final : public stat_sink {
  public:
    control_listing(session& client, std::string_view typed)
        : client_(client), typed_(typed), writer_(client, listing_form::long_lines, typed) {}

    task<bool> entries(std::span<const stat_record> batch) override {
        co_await begin();
        std::string text;
        writer_.write(batch, text);
        co_await client_.send(std::move(text));
        co_return true;
    }

    task<void> begin() {
        if (begun_) co_return;
        begun_ = true;
        co_await client_.send("213-Status of " + single_line(typed_) + ":\r\n");
    }
    bool begun() const { return begun_; }

  private:
    session& client_;
    std::string_view typed_;
    line_writer writer_;
    bool begun_ = false;
};

}  // namespace

task<void> handle_list(session& client, std::string_view argument) {
    co_await list_over_data(client, without_list_options(argument), listing_form::long_lines);
}

task<void> handle_nlst(session& client, std::string_view argument) {
    co_await list_over_data(client, without_list_options(argument), listing_form::names);
}

task<void> handle_mlsd(session& client, std::string_view argument) {
    co_await list_over_data(client, argument, listing_form::facts);
}

task<void> handle_mlst(session& client, std::string_view argument) {
    const std::optional<resolved_path> target = co_await client.resolve(argument, 550);
    if (!target) co_return;
    operation_error error;
    const std::optional<stat_record> record = co_await client.stat_one(target->path, error);
    if (!record) {
        co_await client.send(error_reply(error, error_context::command));
        co_return;
    }
    listing_entry entry = make_entry(*record);
    entry.name = argument.empty() ? std::string_view(target->path) : argument;
    bool replaced = false;
    const std::vector<std::string> lines = {facts_line(entry, client.parameters().facts, false, replaced)};
    co_await client.send(multi_line_reply(250, "Listing " + std::string(entry.name), lines, "End"));
}

task<void> handle_stat(session& client, std::string_view argument) {
    const std::string_view typed = without_list_options(argument);
    if (typed.empty() && trim(argument).empty()) {
        co_await client.send(
            multi_line_reply(211, "Status of the server:", client.status_lines(), "End of status."));
        co_return;
    }
    const std::optional<resolved_path> target = co_await client.resolve(typed, 550);
    if (!target) co_return;
    control_listing sink(client, typed.empty() ? std::string_view(".") : typed);
    const stat_outcome outcome = co_await client.list(target->path, sink, false);
    if (outcome.error && !sink.begun()) {
        co_await client.send(error_reply(*outcome.error, error_context::command));
        co_return;
    }
    co_await sink.begin();
    // The code stands in the lines already sent; only the text can still tell of a failure.
    const bool whole = !outcome.error && !outcome.aborted;
    co_await client.answer(213, whole ? "End of status." : "End of status; the listing is incomplete.");
}

}  // namespace zorvan::gridftp
