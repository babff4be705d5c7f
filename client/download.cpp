// Downloads; see download.h.
#include "download.h"

#include <algorithm>
#include <array>
#include <limits>
#include <list>
#include <vector>

#include "block_codec.h"
#include "data_port.h"
#include "transfer.h"

namespace zorvan::copy {
namespace {

constexpr std::size_t piece_size = 1U << 20U;
constexpr std::uint64_t most_connections = 4096;

failure broken(const std::string& what) {
    return {exit_status::partial_file, "download failed: " + what, true};
}

failure weird_block(const std::string& what) {
    return {exit_status::weird_reply, "weird data from the server: " + what};
}

/// What the lanes of a download in extended mode share.
class block_taker {
  public:
    block_taker(part_file& target, const download_request& request)
        : target_(target), size_(request.size), received_(*request.received), claimed_(received_) {}

    /// Take blocks until the connection's end of data.
    void serve(const descriptor& data, transfer& moving, const stop_flags& stop) {
        std::vector<unsigned char> buffer(piece_size);
        for (;;) {
            std::array<unsigned char, gridftp::block_header_size> head{};
            read_exactly(data, head, stop);
            const auto header = gridftp::decode(head);
            check(header);
            for (std::uint64_t done = 0; done < header.count;) {
                const auto wanted =
                    static_cast<std::size_t>(std::min<std::uint64_t>(piece_size, header.count - done));
                const auto count = receive(data.fd(), std::span(buffer).first(wanted), std::nullopt, stop);
                if (count == 0) throw broken("a data connection ended inside a block");
                target_.write_at(header.offset + done, std::span(buffer).first(count));
                note(header.offset + done, count);
                done += count;
                moving.moved(count);
            }
            if ((header.bits & gridftp::block_end_of_data) != 0) {
                const std::lock_guard held(mutex_);
                ++ended_;
                return;
            }
        }
    }

    /// Whether every announced end of data has come.
    bool complete() {
        const std::lock_guard held(mutex_);
        if (announced_ && ended_ > *announced_) throw weird_block("more ends of data than were announced");
        return announced_ && ended_ == *announced_;
    }

    gridftp::range_list received() {
        const std::lock_guard held(mutex_);
        return received_;
    }

    /// Give what came back to the request's owner. After the lanes' end.
    void hand_back(gridftp::range_list& owner) { owner = received_; }

  private:
    static void read_exactly(const descriptor& data, std::span<unsigned char> into, const stop_flags& stop) {
        while (!into.empty()) {
            const auto count = receive(data.fd(), into, std::nullopt, stop);
            if (count == 0) throw broken("a data connection ended before its end of data");
            into = into.subspan(count);
        }
    }

    void check(const gridftp::block_header& header) {
        if (gridftp::judge(header) != gridftp::header_verdict::good)
            throw weird_block("a block's header is wrong");
        const std::lock_guard held(mutex_);
        if ((header.bits & gridftp::block_end_of_file) != 0) {
            if (announced_ || header.offset == 0 || header.offset > most_connections) {
                throw weird_block("the end of the file is announced wrongly");
            }
            announced_ = header.offset;
        }
        if (header.count == 0) return;
        const auto end = header.offset + header.count;
        if (size_ && end > *size_) throw weird_block("a block beyond the end of the file");
        if (!claimed_.add_new(header.offset, end)) throw weird_block("a part of the file came twice");
    }

    void note(std::uint64_t offset, std::size_t count) {
        const std::lock_guard held(mutex_);
        received_.add(offset, offset + count);
    }

    part_file& target_;
    std::optional<std::uint64_t> size_;
    std::mutex mutex_;  // guards what follows
    gridftp::range_list received_;
    gridftp::range_list claimed_;
    std::optional<std::uint64_t> announced_;
    std::uint64_t ended_ = 0;
};

void expect_more(const reply& answer) {
    if (!answer.wants_more())
        throw refusal(answer, exit_status::restart_refused, "the server cannot restart");
}

void fetch_blocks(session& with, part_file& target, const download_request& request) {
    auto& control = with.control();
    with.set_extended(true);
    with.set_parallelism(request.connections);
    const auto port = data_port::listening(with, static_cast<int>(request.connections));
    if (!request.received->empty()) expect_more(control.command("REST", request.received->text()));

    block_taker taker(target, request);
    std::list<descriptor> data;
    struct hand_back {
        block_taker& from;
        gridftp::range_list& to;
        ~hand_back() { from.hand_back(to); }
    } const at_last{taker, *request.received};
    transfer moving(control);
    transfer::events handlers;
    handlers.listener = port.fd();
    handlers.connected = [&](descriptor connection) {
        if (data.size() >= most_connections) throw weird_block("too many connections");
        data.push_back(std::move(connection));
        moving.start_lane([&taker, &moving, &mine = data.back()](const stop_flags& stop) {
            taker.serve(mine, moving, stop);
        });
    };
    handlers.complete = [&] { return taker.complete(); };
    handlers.tick = [&](std::uint64_t) {
        if (request.tick) request.tick(taker.received());
    };
    control.send("RETR", request.path);
    moving.run(handlers, exit_status::download_refused, "download failed");
}

/// A download over one connection, whose bytes go where `take` puts them.
void fetch_stream(session& with, const download_request& request, std::uint64_t offset,
                  const std::function<void(std::span<const unsigned char>, const stop_flags&)>& take,
                  const std::function<void(std::uint64_t)>& tick) {
    auto& control = with.control();
    with.set_extended(false);
    descriptor data;
    data_port port;
    if (request.active) {
        port = data_port::listening(with, 1);
    } else {
        data = connect_to(with.passive(), control.limits().connect, {&control.interrupt(), nullptr});
    }
    if (offset > 0) expect_more(control.command("REST", std::to_string(offset)));

    bool ended = false;
    transfer moving(control);
    const auto start_lane = [&] {
        moving.start_lane([&](const stop_flags& stop) {
            std::vector<unsigned char> buffer(piece_size);
            while (const auto count = receive(data.fd(), buffer, std::nullopt, stop)) {
                take(std::span(buffer).first(count), stop);
                moving.moved(count);
            }
            ended = true;
        });
    };
    transfer::events handlers;
    handlers.listener = port.fd();
    handlers.connected = [&](descriptor connection) {
        if (data) return;
        data = std::move(connection);
        start_lane();
    };
    handlers.begun = [&] {
        if (!request.active) start_lane();
    };
    // Read only when the lane has ended.
    handlers.complete = [&] { return ended; };
    handlers.tick = tick;
    control.send("RETR", request.path);
    moving.run(handlers, exit_status::download_refused, "download failed");
}

}  // namespace

void download(session& with, part_file& target, const download_request& request) {
    auto& received = *request.received;
    if (request.extended) {
        fetch_blocks(with, target, request);
    } else {
        const auto begin = received.run_end(0);
        std::atomic<std::uint64_t> end = begin;
        struct note {
            gridftp::range_list& ranges;
            std::uint64_t begin;
            const std::atomic<std::uint64_t>& end;
            ~note() { ranges.add(begin, end); }
        } const at_last{received, begin, end};
        fetch_stream(
            with, request, begin,
            [&](std::span<const unsigned char> bytes, const stop_flags&) {
                if (request.size && bytes.size() > *request.size - end) {
                    throw weird_block("more bytes than the file has");
                }
                target.write_at(end, bytes);
                end += bytes.size();
            },
            [&](std::uint64_t) {
                if (!request.tick) return;
                auto now = received;
                now.add(begin, end);
                request.tick(now);
            });
    }
    const auto size = received.empty() ? 0 : received.ranges().back().second;
    if (received.bytes() != size || (request.size && size != *request.size)) {
        throw broken("the data ended before the end of the file");
    }
    target.truncate(size);
}

std::uint64_t download(session& with, output_stream& target, const download_request& request,
                       const std::function<void(std::uint64_t)>& tick) {
    std::uint64_t bytes = 0;
    fetch_stream(
        with, request, 0,
        [&](std::span<const unsigned char> piece, const stop_flags& stop) {
            target.write(piece, stop);
            bytes += piece.size();
        },
        tick);
    if (request.size && bytes != *request.size) throw broken("the data ended before the end of the file");
    return bytes;
}

}  // namespace zorvan::copy
