// Life of an operation: the table of handles, the finish, the queue of callbacks, the release.
#include "operation.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <unordered_map>
#include <utility>

#include "out_of_memory.h"
#include "transfer_channel.h"

namespace zorvan::gridftp {
namespace {

// Handles are numbers in a pointer's clothes: a multiple of 16, never given out twice.
constexpr std::uint64_t handle_step = 16;

std::uint64_t next_id() {
    static std::atomic<std::uint64_t> last{0};
    return (last.fetch_add(1) + 1) * handle_step;
}

// Split, because every registration of every transfer comes through here.
class operation_table {
  public:
    void add(std::uint64_t id, std::shared_ptr<operation> op) {
        auto& shard = part_of(id);
        const std::lock_guard lock(shard.mutex);
        shard.operations.emplace(id, std::move(op));
    }
    std::shared_ptr<operation> find(std::uint64_t id) {
        auto& shard = part_of(id);
        const std::lock_guard lock(shard.mutex);
        const auto position = shard.operations.find(id);
        return position == shard.operations.end() ? nullptr : position->second;
    }
    std::shared_ptr<operation> remove(std::uint64_t id) {
        auto& shard = part_of(id);
        const std::lock_guard lock(shard.mutex);
        const auto position = shard.operations.find(id);
        if (position == shard.operations.end()) {
            return nullptr;
        }
        auto op = std::move(position->second);
        shard.operations.erase(position);
        return op;
    }

  private:
    struct part {
        std::mutex mutex;
        std::unordered_map<std::uint64_t, std::shared_ptr<operation>> operations;
    };
    part& part_of(std::uint64_t id) { return parts_[id / handle_step % parts_.size()]; }
    std::array<part, 16> parts_;
};

// Never destroyed: a back end's thread may still call when the process ends.
operation_table& table() {
    static auto* the_table = new operation_table;
    return *the_table;
}

}  // namespace

completion ended_read(const read_request& request, bool failed, std::uint64_t bytes_in_all) {
    completion due;
    due.read_callback = request.callback;
    due.buffer = request.buffer;
    due.argument = request.argument;
    due.eof = true;
    due.failed = failed;
    due.offset = failed ? 0 : static_cast<std::int64_t>(bytes_in_all);
    return due;
}

completion filled_read(const read_request& request, std::size_t bytes, std::int64_t offset, bool eof) {
    completion due;
    due.read_callback = request.callback;
    due.buffer = request.buffer;
    due.argument = request.argument;
    due.bytes = bytes;
    due.offset = offset;
    due.eof = eof;
    return due;
}

completion ended_write(const write_request& request, bool failed) {
    completion due;
    due.write_callback = request.callback;
    due.buffer = request.buffer;
    due.argument = request.argument;
    due.bytes = failed ? 0 : request.length;
    due.failed = failed;
    return due;
}

session_core::session_core(backend& loaded, host& process, session_record who)
    : module(loaded), shared(process), record(std::move(who)) {
    shared.gauges().count_session(+1);
}

session_core::~session_core() {
    auto* destroy = module.table().session_destroy;
    if (handle == nullptr || destroy == nullptr) {
        shared.gauges().count_session(-1);
        return;
    }
    // It may block, and this may be any thread.
    run_until_memory([&] {
        shared.pool().submit([destroy, destroyed = handle, process = &shared] {
            destroy(destroyed);
            process->gauges().count_session(-1);
        });
    });
}

std::shared_ptr<operation> operation::create(operation_kind kind, std::shared_ptr<session_core> session,
                                             async_event event) {
    return std::make_shared<operation>(kind, std::move(session), std::move(event));
}

std::shared_ptr<operation> operation::find(zorvan_gridftp_server_operation_t handle) noexcept {
    return table().find(reinterpret_cast<std::uintptr_t>(handle));
}

operation::operation(operation_kind kind, std::shared_ptr<session_core> session, async_event event)
    : life_(session->shared.gauges()),
      kind_(kind),
      id_(next_id()),
      event_(std::move(event)),
      session_(std::move(session)) {}

operation::~operation() {
    release_result(channel_result_);
    release_result(memory_result_);
    // The session counts as alive until it is destroyed: what the channel holds of the spool goes back before
    // that.
    channel.reset();
}

zorvan_gridftp_server_operation_t operation::handle() const noexcept {
    // A handle is a number, which nobody follows. NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<zorvan_gridftp_server_operation_t>(static_cast<std::uintptr_t>(id_));
}

operation::guard::~guard() {
    const bool wake = std::exchange(op_.wake_due_, false);
    const bool kick = std::exchange(op_.kick_due_, false);
    const bool release = !op_.released_ && op_.entry_returned_ && op_.finished_ && op_.outstanding_ == 0;
    std::shared_ptr<operation> kept;
    if (wake || kick || release) {
        // The last reference but this one may be the table's.
        kept = op_.shared_from_this();
    }
    op_.released_ = op_.released_ || release;
    lock_.unlock();
    if (kick) {
        kept->session_->shared.pool().submit(kept);
    }
    if (wake) {
        kept->event_.notify();
    }
    if (release) {
        kept->release();
    }
}

void operation::start(std::function<void(zorvan_gridftp_server_operation_t)> entry) {
    auto kept = shared_from_this();
    entry_.function = std::move(entry);
    table().add(id_, kept);
    started_ = true;
    session_->shared.pool().submit(std::shared_ptr<pool_task>(kept, &entry_));
}

void operation::run_entry() noexcept {
    entry_.function(handle());
    guard held(*this);
    entry_returned_ = true;
    // Mostly it is the finish that is waited for, and the coroutine need not be woken twice.
    if (entry_awaited_) {
        wake_locked();
    }
}

bool operation::is_own_locked(zorvan_result_t result) const noexcept {
    return result != ZORVAN_SUCCESS && (result == channel_result_ || result == memory_result_);
}

void operation::keep_error_locked(zorvan_result_t result) noexcept {
    const bool copied = run_without_throwing([&] {
        // An error of the server's that came back says what the server knows already, and stays.
        if (is_own_locked(result)) {
            error_ =
                result == channel_result_ && channel_error_ ? *channel_error_ : operation_error::peek(result);
        } else {
            error_ = operation_error::take(result);
        }
    });
    if (!copied) {
        error_ = operation_error::out_of_memory();
    }
}

void operation::keep_entries_locked(std::vector<stat_record>& entries) noexcept {
    if (entries_.empty()) {
        entries_.swap(entries);
    } else if (!run_without_throwing([&] { entries_.reserve(entries_.size() + entries.size()); })) {
        listing_error_ = operation_error::out_of_memory();
        return;
    } else {
        std::move(entries.begin(), entries.end(), std::back_inserter(entries_));
    }
}

void operation::finish(zorvan_result_t result, finish_values values) noexcept {
    receive_locks::holder unlocked;
    zorvan_result_t given_up = ZORVAN_SUCCESS;
    {
        guard held(*this);
        if (finished_) {
            given_up = is_own_locked(result) ? ZORVAN_SUCCESS : result;
        } else {
            finished_ = true;
            if (!output_dropped_ && !values.entries.empty()) {
                waiting_entries_ += values.entries.size();
                keep_entries_locked(values.entries);
            }
            values.entries.clear();
            if (result != ZORVAN_SUCCESS) {
                keep_error_locked(result);
            } else if (listing_error_) {
                error_ = std::move(listing_error_);
            } else if (values.incomplete) {
                error_ = operation_error::out_of_memory();
            }
            if (kind_ == operation_kind::session_start) {
                session_->handle = values.session_handle;
            }
            values_ = std::move(values);
            unlocked = std::move(receive_lock_);
            // Before the client hears of the end: it may ask for the next one at once.
            place_.release();
            if (channel) {
                channel->on_finish_locked();
            }
            wake_locked();
            room_.notify_all();
        }
    }
    release_result(given_up);
}

void operation::add_entries(zorvan_result_t result, std::vector<stat_record> entries,
                            bool incomplete) noexcept {
    std::optional<operation_error> failure;
    if (result != ZORVAN_SUCCESS && !run_without_throwing([&] { failure = operation_error::take(result); })) {
        failure = operation_error::out_of_memory();
    }
    if (!failure && incomplete) {
        failure = operation_error::out_of_memory();
    }
    {
        guard held(*this);
        if (kind_ != operation_kind::stat || finished_) {
            return;
        }
        if (failure && !listing_error_) {
            listing_error_ = std::move(failure);
        }
        if (output_dropped_ || entries.empty()) {
            return;
        }
        waiting_entries_ += entries.size();
        keep_entries_locked(entries);
        wake_locked();
    }
    // The coroutine was woken above, so the wait below has somebody to end it.
    std::unique_lock lock(mutex_);
    room_.wait(lock,
               [this] { return waiting_entries_ <= waiting_entries_limit || output_dropped_ || finished_; });
}

void operation::add_progress(std::string text) {
    guard held(*this);
    if (finished_ || output_dropped_) {
        return;
    }
    progress_.push_back(std::move(text));
    wake_locked();
}

void operation::begin_transfer() {
    guard held(*this);
    if (channel && !finished_) {
        channel->on_begin_locked();
        wake_locked();
    }
}

template <class Take>
zorvan_result_t operation::accept_locked(Take take) noexcept {
    if (!run_without_throwing([&] { places_.emplace_back(); })) {
        return memory_result_locked();
    }
    ++outstanding_;
    bool taken = false;
    const bool had_memory = run_without_throwing([&] { taken = take(); });
    if (taken) {
        ++session_->shared.gauges().callbacks;
        return ZORVAN_SUCCESS;
    }
    --outstanding_;
    places_.pop_back();
    return had_memory ? channel_result_locked() : memory_result_locked();
}

zorvan_result_t operation::register_read(const read_request& request) noexcept {
    guard held(*this);
    if (finished_ || kind_ != operation_kind::receive || !channel || request.callback == nullptr ||
        request.length == 0) {
        return channel_result_locked();
    }
    return accept_locked([&] {
        channel->on_read_locked(request);
        return true;
    });
}

zorvan_result_t operation::register_write(const write_request& request) noexcept {
    guard held(*this);
    if (finished_ || kind_ != operation_kind::send || !channel || request.callback == nullptr) {
        return channel_result_locked();
    }
    return accept_locked([&] { return channel->on_write_locked(request); });
}

void operation::count_received(std::int64_t bytes) {
    guard held(*this);
    received_ += bytes > 0 ? static_cast<std::uint64_t>(bytes) : 0;
}

void operation::add_durable_range(std::int64_t offset, std::int64_t length) {
    guard held(*this);
    const auto begin = static_cast<std::uint64_t>(offset);
    durable_.add(begin, begin + static_cast<std::uint64_t>(length));
}

transfer_progress operation::progress_of_receive() {
    guard held(*this);
    return {received_, durable_, false};
}

int operation::concurrency() const noexcept {
    // One more than there are connections, so that the slowest of them never holds the last buffer.
    const int least = records.connections > 0 ? static_cast<int>(records.connections) + 1 : 1;
    const auto& config = session_->shared.config();
    std::uint64_t most = static_cast<std::uint64_t>(std::max(1, config.concurrency));
    const std::int64_t announced = records.transfer_info.alloc_size;
    if (kind_ == operation_kind::receive && announced > 0 && config.block_size > 0) {
        // No more buffers than there will be blocks: a small file's empty ones would each cost a callback
        // between the store's answer and the reply.
        most = std::min(most, (static_cast<std::uint64_t>(announced) - 1) / config.block_size + 1);
    }
    return std::max(least, static_cast<int>(most));
}

byte_range operation::next_read_range() {
    guard held(*this);
    if (next_range_ >= records.ranges.size()) {
        return {0, 0};
    }
    return records.ranges[next_range_++];
}

std::optional<byte_range> operation::write_range() {
    if (kind_ != operation_kind::receive || records.ranges.empty()) {
        return std::nullopt;
    }
    return records.ranges.front();
}

void operation::fail_channel_locked(operation_error error) {
    if (!channel_error_) {
        channel_error_ = std::move(error);
        channel_failed_first_ = !finished_;
    }
}

zorvan_result_t operation::channel_result_locked() noexcept {
    if (channel_result_ == ZORVAN_SUCCESS && !run_without_throwing([this] {
            channel_result_ =
                channel_error_
                    ? channel_error_->to_result()
                    : operation_error::channel(426, "The transfer has ended or is not possible.").to_result();
        })) {
        return memory_result_locked();
    }
    return channel_result_;
}

zorvan_result_t operation::memory_result_locked() noexcept {
    if (memory_result_ == ZORVAN_SUCCESS) {
        memory_result_ = zorvan_error_put(zorvan_i_gfs_error_system(nullptr, ENOMEM, "malloc"));
    }
    return memory_result_;
}

void operation::complete_locked(const completion& due) noexcept {
    places_.front() = due;
    due_.splice(due_.end(), places_, places_.begin());
    if (!callbacks_running_) {
        callbacks_running_ = true;
        kick_due_ = true;
    }
}

void operation::run() noexcept {
    for (;;) {
        zorvan_result_t failure = ZORVAN_SUCCESS;
        {
            guard held(*this);
            batch_.clear();
            if (due_.empty()) {
                callbacks_running_ = false;
                wake_due_ = wake_due_ || std::exchange(wake_when_idle_, false);
                return;
            }
            batch_.splice(batch_.end(), due_);
            if (std::any_of(batch_.begin(), batch_.end(), [](const completion& c) { return c.failed; })) {
                failure = channel_result_locked();
            }
        }
        for (auto& due : batch_) {
            if (due.source != nullptr && !due.failed &&
                !due.source->fill(due.buffer, due.bytes, due.source_offset)) {
                due.failed = true;
                due.bytes = 0;
                due.offset = 0;
                due.eof = true;
                guard held(*this);
                failure = channel_result_locked();
            }
            const zorvan_result_t result = due.failed ? failure : ZORVAN_SUCCESS;
            if (due.read_callback != nullptr) {
                due.read_callback(handle(), result, due.buffer, due.bytes, due.offset, due.eof ? 1 : 0,
                                  due.argument);
            } else {
                due.write_callback(handle(), result, due.buffer, due.bytes, due.argument);
            }
            --session_->shared.gauges().callbacks;
            guard held(*this);
            --outstanding_;
        }
    }
}

void operation::release() noexcept {
    // Out of the table first: from here on the handle is unknown.
    auto kept = table().remove(id_);
    receive_locks::holder unlocked;
    std::array<zorvan_result_t, 2> results{};
    {
        const std::lock_guard lock(mutex_);
        results = {std::exchange(channel_result_, ZORVAN_SUCCESS),
                   std::exchange(memory_result_, ZORVAN_SUCCESS)};
        unlocked = std::move(receive_lock_);
    }
    for (const auto result : results) {
        release_result(result);
    }
}

bool operation::finished() {
    const std::lock_guard lock(mutex_);
    return finished_;
}

bool operation::entry_over() {
    const std::lock_guard lock(mutex_);
    const bool over = !started_ || entry_returned_;
    entry_awaited_ = !over;
    return over;
}

void operation::drop_output() {
    guard held(*this);
    output_dropped_ = true;
    waiting_entries_ = 0;
    entries_.clear();
    progress_.clear();
    room_.notify_all();
}

void operation::abandon() {
    drop_output();
    guard held(*this);
    life_.abandoned = true;
    session_->shared.gauges().count_abandoned(+1);
}

std::vector<stat_record> operation::take_entries() {
    guard held(*this);
    return std::exchange(entries_, {});
}

void operation::entries_written(std::size_t count) {
    guard held(*this);
    waiting_entries_ -= std::min(count, waiting_entries_);
    room_.notify_all();
}

std::vector<std::string> operation::take_progress() {
    guard held(*this);
    return std::exchange(progress_, {});
}

std::optional<operation_error> operation::error() {
    guard held(*this);
    return error_;
}

operation::finish_values operation::take_values() {
    guard held(*this);
    return std::move(values_);
}

void operation::hold(receive_locks::holder lock) {
    guard held(*this);
    receive_lock_ = std::move(lock);
}

void operation::hold(user_limit::place place) {
    guard held(*this);
    place_ = std::move(place);
}

}  // namespace zorvan::gridftp
