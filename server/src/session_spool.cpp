// Uploads whose size nobody announced: received into a spool first, in either mode, so that the back end is
// then asked to receive a measured one. Whatever goes wrong here, the back end has seen nothing of the
// upload.
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "data_drain.h"
#include "digest.h"
#include "pool_wait.h"
#include "session_implementation.h"
#include "spooling_intake.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

constexpr std::size_t file_piece = 1 << 20;

/// Ends reads of a client that sends nothing for too long.
class stall_timer {
  public:
    stall_timer(const asio::any_io_executor& strand, data_stream& stream, std::chrono::milliseconds limit)
        : timer_(strand), stream_(stream), limit_(limit) {}
    stall_timer(const stall_timer&) = delete;
    stall_timer& operator=(const stall_timer&) = delete;
    task<io_result> read(asio::mutable_buffer buffer) {
        timer_.expires_after(limit_);
        // An expiry that is queued when the read ends is none of the next read's.
        timer_.async_wait([this, alive = alive_, number = ++reads_](const boost::system::error_code& error) {
            if (!error && *alive && reading_ && number == reads_) {
                stalled_ = true;
                stream_.reset();
            }
        });
        reading_ = true;
        auto result = co_await stream_.read_some(buffer);
        reading_ = false;
        timer_.cancel();
        co_return result;
    }
    ~stall_timer() {
        *alive_ = false;
        timer_.cancel();
    }
    bool stalled() const noexcept { return stalled_; }

  private:
    asio::steady_timer timer_;
    data_stream& stream_;
    std::chrono::milliseconds limit_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    bool stalled_ = false;
    bool reading_ = false;
    std::uint64_t reads_ = 0;
};

std::string bucket_path(const std::string& path) {
    const auto end = path.find('/', 1);
    return end == std::string::npos ? path : path.substr(0, end);
}

}  // namespace

task<std::optional<operation_error>> backend_session::implementation::check_bucket(const std::string& path) {
    collecting_stat_sink sink;
    auto outcome = co_await stat(bucket_path(path), true, sink);
    co_return outcome.error;
}

task<void> backend_session::implementation::announce(transfer_events& events) {
    try {
        co_await events.on_first_data();
    } catch (const std::exception&) {
        gone = true;
    }
}

task<backend_session::implementation::spooled> backend_session::implementation::spool_upload(
    const receive_request& request, data_connector& connector, transfer_events& events) {
    const auto& config = core->shared.config();
    spooled result;
    interrupt_hook hook(*this);
    // The client may be one that connects only after the preliminary reply.
    co_await announce(events);
    hook.set([&connector] { connector.cancel(); });
    connect_result connected;
    if (!stopped()) {
        connected = co_await connector.connect();
    }
    hook.clear();
    if (!connected.stream) {
        result.error = stopped() ? transfer_errors::aborted() : transfer_errors::not_connected(connected);
        co_return result;
    }
    auto stream = std::move(connected.stream);
    stream->set_buffer_sizes(config.block_size * static_cast<std::size_t>(config.concurrency), 0);
    hook.set([raw = stream.get()] { raw->reset(); });
    auto data = std::make_shared<spool>(core->shared.spool(), config.spool);
    std::optional<md5_digest> digest;
    if (request.expected_checksum && is_md5(request.expected_checksum_algorithm)) {
        digest.emplace();
    }
    stall_timer reader(strand, *stream, config.data_stall);
    std::vector<unsigned char> piece;
    bool ended = false;
    while (!ended && !result.error) {
        auto room = data->memory_room();
        const bool in_memory = !room.empty();
        if (!in_memory && piece.empty()) {
            // Before a long upload takes disk space, see whether there is a place for it at all.
            result.error = co_await check_bucket(request.path);
            int reason = 0;
            if (!result.error) {
                co_await on_pool(core->shared, strand, [&] { reason = data->open_file(); });
            }
            if (reason != 0) {
                result.error = transfer_errors::no_room_for_unknown_size();
            }
            if (result.error || stopped()) {
                break;
            }
            piece.resize(file_piece);
        }
        std::size_t filled = 0;
        // Fill the whole room of a piece, so that the file is written in large pieces.
        auto target = in_memory ? room : std::span<unsigned char>(piece);
        while (filled < target.size() && !ended) {
            const auto read =
                co_await reader.read(asio::buffer(target.data() + filled, target.size() - filled));
            if (digest) {
                digest->update(std::span<const unsigned char>(target.data() + filled, read.bytes));
            }
            filled += read.bytes;
            result.bytes += read.bytes;
            ended = read.error.failed();
            if (ended && (stopped() || read.error != asio::error::eof)) {
                result.error = stopped()          ? transfer_errors::aborted()
                               : reader.stalled() ? transfer_errors::stalled()
                                                  : transfer_errors::broken_off();
            }
        }
        if (in_memory) {
            data->memory_filled(filled);
        } else if (!result.error && filled > 0) {
            int reason = 0;
            co_await on_pool(core->shared, strand,
                             [&] { reason = data->append_to_file(std::span(piece).first(filled)); });
            if (reason != 0) {
                result.error = transfer_errors::no_room_for_unknown_size();
            }
        }
    }
    hook.clear();
    if (!result.error && !stopped() && !events.control_alive()) {
        result.error = transfer_errors::control_lost();
    }
    if (stopped()) {
        result.error = transfer_errors::aborted();
    }
    if (!result.error && digest && !same_checksum(digest->finish(), *request.expected_checksum)) {
        result.error = transfer_errors::wrong_checksum();
    }
    if (!result.error) {
        result.data = std::move(data);
        stream->close();
    } else if (stopped() || ended) {
        stream->reset();
    } else {
        drain_in_background(std::move(stream), config, strand);
    }
    co_return result;
}

task<backend_session::implementation::spooled> backend_session::implementation::spool_blocks(
    const receive_request& request, data_connector& connector, progress_reporter& events) {
    spooled result;
    interrupt_hook hook(*this);
    co_await announce(events);
    const block_intake::bounds limits{request.offset_shift, static_cast<std::uint64_t>(request.write_offset),
                                      std::nullopt};
    const auto intake = std::make_shared<spooling_intake>(core->shared, strand, connector, event, limits);
    hook.set([intake] { intake->abort(); });
    if (stopped()) {
        intake->abort();
    }
    const spooling_intake::check_place check = [this, &request]() -> task<std::optional<operation_error>> {
        auto refusal = co_await check_bucket(request.path);
        co_return refusal;
    };
    const std::function<bool()> alive = [&events] { return events.control_alive(); };
    events.look_at([intake] { return transfer_progress{intake->bytes(), {}, false}; });
    result.error = co_await intake->run(check, alive);
    hook.clear();
    result.bytes = intake->bytes();
    events.look_at([bytes = result.bytes] { return transfer_progress{bytes, {}, false}; });
    if (stopped()) {
        result.error = transfer_errors::aborted();
    }
    if (!result.error) {
        result.data = intake->data();
    }
    co_return result;
}

}  // namespace zorvan::gridftp
