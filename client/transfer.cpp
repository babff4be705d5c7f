// The loop of a transfer; see transfer.h.
#include "transfer.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace zorvan::copy {
namespace {

constexpr milliseconds tick_length{200};
// A server whose data connection broke says why, if it lives.
constexpr milliseconds last_words{10'000};

}  // namespace

struct transfer::outcome {
    bool begun = false;
    std::optional<reply> final;
};

transfer::~transfer() {
    cancel();
}

void transfer::cancel() noexcept {
    cancel_.raise();
    for (auto& lane : lanes_) {
        lane.join();
    }
    lanes_.clear();
}

void transfer::start_lane(std::function<void(const stop_flags&)> body) {
    ++running_;
    try {
        lanes_.emplace_back([this, body = std::move(body)] {
            try {
                body(stop_flags{nullptr, &cancel_});
            } catch (const cancelled&) {
                // The loop knows.
            } catch (...) {
                const std::lock_guard held(mutex_);
                if (!error_) error_ = std::current_exception();
            }
            --running_;
            wake_.raise();
        });
    } catch (...) {
        --running_;
        throw;
    }
}

std::exception_ptr transfer::lane_error() {
    const std::lock_guard held(mutex_);
    return error_;
}

void transfer::watch_replies(const events& handlers, outcome& state) {
    while (auto next = control_.take_reply()) {
        if (!next->preliminary()) {
            state.final = std::move(next);
            return;
        }
        if (handlers.preliminary) handlers.preliminary(*next);
        if (!state.begun && (next->code == 150 || next->code == 125)) {
            state.begun = true;
            if (handlers.begun) handlers.begun();
        }
    }
}

void transfer::accept_all(const events& handlers) {
    for (;;) {
        endpoint from;
        auto data = accept_one(handlers.listener, from);
        if (!data) return;
        // Anybody can find the port; only the server is meant.
        if (from.same_host(control_.peer())) handlers.connected(std::move(data));
    }
}

void transfer::wait(const events& handlers, const outcome& state, clock::time_point until) {
    const auto left = std::chrono::ceil<milliseconds>(until - clock::now()).count();
    // After its last word on this transfer the server may do as it likes.
    std::array<pollfd, 4> wanted{pollfd{state.final ? -1 : control_.fd(), POLLIN, 0},
                                 pollfd{control_.interrupt().fd(), POLLIN, 0}, pollfd{wake_.fd(), POLLIN, 0},
                                 pollfd{handlers.listener, POLLIN, 0}};
    const int count = ::poll(wanted.data(), wanted.size(), static_cast<int>(std::max<std::int64_t>(left, 0)));
    if (count <= 0) return;
    if (wanted[1].revents != 0) throw failure(exit_status::interrupted, "interrupted");
    if (wanted[2].revents != 0) wake_.lower();
    if (wanted[3].revents != 0) accept_all(handlers);
    if (wanted[0].revents != 0) control_.receive_some(clock::now());
}

void transfer::give_up(const events& handlers, outcome& state, exit_status refused,
                       const std::string& context) {
    cancel();
    const auto reason = lane_error();
    const auto until = clock::now() + last_words;
    // Markers among the last words count as any others; no lane begins any more.
    events last;
    last.preliminary = handlers.preliminary;
    bool own_fault = false;
    try {
        std::rethrow_exception(reason);
    } catch (const failure& error) {
        // What is wrong on this side needs no explanation by the other.
        own_fault = error.status() != exit_status::send_failed &&
                    error.status() != exit_status::receive_failed &&
                    error.status() != exit_status::partial_file;
    } catch (const std::exception&) {
        own_fault = true;
    }
    try {
        while (!own_fault && !state.final && clock::now() < until) {
            control_.receive_some(until);
            watch_replies(last, state);
        }
    } catch (const failure& error) {
        if (error.status() == exit_status::interrupted) throw;
        // It says nothing more.
    }
    if (state.final && !state.final->good()) throw refusal(*state.final, refused, context);
    std::rethrow_exception(reason);
}

void transfer::run(const events& handlers, exit_status refused, const std::string& context) {
    outcome state;
    const auto& limits = control_.limits();
    auto last_change = clock::now();
    std::uint64_t last_bytes = 0;
    bool were_running = false;
    auto next_tick = clock::now();
    for (;;) {
        watch_replies(handlers, state);
        if (state.final && !state.final->good()) {
            cancel();
            throw refusal(*state.final, refused, context);
        }
        const bool running = running_ > 0;
        if (lane_error()) give_up(handlers, state, refused, context);
        const bool complete = !running && (!handlers.complete || handlers.complete());
        if (complete && state.final) break;
        if (state.final && !running) {
            // All that was sent has arrived here; connections may still wait to be accepted.
            if (handlers.listener >= 0) accept_all(handlers);
            if (running_ == 0) {
                throw failure(exit_status::partial_file,
                              context + ": the data ended before the end of the file", true);
            }
        }

        const auto now = clock::now();
        if (moved_ != last_bytes || running != were_running) {
            last_bytes = moved_;
            were_running = running;
            last_change = now;
        }
        // Once all data have passed, the server may be busy with them for as long as the store takes.
        const auto limit = state.begun && complete && !state.final ? limits.completion : limits.stall;
        if (now - last_change >= limit) {
            throw failure(exit_status::timed_out,
                          context + ": timed out after " + std::to_string(limit.count() / 1000) +
                              " seconds without progress",
                          true);
        }
        if (now >= next_tick) {
            if (handlers.tick) handlers.tick(moved_);
            next_tick = now + tick_length;
        }
        wait(handlers, state, std::min(next_tick, last_change + limit));
    }
    cancel();
    if (handlers.tick) handlers.tick(moved_);
}

}  // namespace zorvan::copy
