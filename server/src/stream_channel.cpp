// Connecting beside the transfer; see stream_channel.h.
#include "stream_channel.h"

#include <boost/asio/co_spawn.hpp>

#include "transfer_errors.h"

namespace zorvan::gridftp {

void stream_channel::reset_connections() noexcept {
    if (aborted_ && connect_started_ && !connect_done_) {
        connector_.cancel();
    }
    if (stream_) {
        stream_->reset();
    }
}

void stream_channel::start_connect() {
    if (connect_started_) {
        return;
    }
    connect_started_ = true;
    try {
        asio::co_spawn(strand_, connect(), [this, alive = kept()](const std::exception_ptr& error) {
            if (error) {
                connect_error_ = operation_error::out_of_memory();
                connect_done_ = true;
                op_.event().notify();
            }
        });
    } catch (...) {
        // It has not begun and will not end.
        connect_started_ = false;
        throw;
    }
}

task<void> stream_channel::connect() {
    connect_result result;
    try {
        result = co_await connector_.connect();
    } catch (const std::exception&) {
        result.stream.reset();
    }
    if (result.stream) {
        stream_ = std::move(result.stream);
        if (op_.kind() == operation_kind::receive) {
            // The client's data come in while the back end has no read registered. What is sent needs no more
            // room than the kernel finds by itself.
            stream_->set_buffer_sizes(config_.block_size * static_cast<std::size_t>(config_.concurrency), 0);
        }
        if (aborted_) {
            stream_->reset();
        }
    } else {
        connect_error_ = transfer_errors::not_connected(result);
    }
    // Only now: an outcome without stream and reason would be asked for again and again.
    connect_done_ = true;
    op_.event().notify();
}

task<void> stream_channel::end_connect() {
    if (connect_started_ && !connect_done_) {
        connector_.cancel();
        while (!connect_done_) {
            co_await op_.event().wait();
        }
    }
}

void stream_channel::note_failures_locked() {
    if (aborted_) {
        op_.fail_channel_locked(transfer_errors::aborted());
    }
    if (connect_error_) {
        op_.fail_channel_locked(*connect_error_);
    }
}

}  // namespace zorvan::gridftp
