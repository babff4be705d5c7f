// Uploads; see upload.h.
#include "upload.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "block_codec.h"
#include "data_port.h"
#include "transfer.h"

namespace zorvan::copy {
namespace {

using gridftp::block_header;

constexpr auto head_size = gridftp::block_header_size;

/// Whether it arrived is for the server to say: it may have closed the connection already.
void end_sending(int fd) {
    ::shutdown(fd, SHUT_WR);
}

void send_stream(const descriptor& data, source_file& source, std::size_t piece_size, transfer& moving,
                 const stop_flags& stop) {
    std::vector<unsigned char> buffer(piece_size);
    while (const auto piece = source.next(buffer, stop).size) {
        send_all(data.fd(), std::span(buffer).first(piece), std::nullopt, stop);
        moving.moved(piece);
    }
    end_sending(data.fd());
}

/// @param ends  0, or the number of connections that it announces
void send_blocks(const descriptor& data, source_file& source, std::size_t block_size, std::uint64_t ends,
                 transfer& moving, const stop_flags& stop) {
    // Header and data leave in one piece.
    std::vector<unsigned char> buffer(head_size + block_size);
    const auto send_header = [&](const block_header& header) {
        const auto head = gridftp::encode(header);
        std::memcpy(buffer.data(), head.data(), head_size);
        send_all(data.fd(), std::span(buffer).first(head_size + header.count), std::nullopt, stop);
    };
    for (;;) {
        const auto piece = source.next(std::span(buffer).subspan(head_size), stop);
        if (piece.size == 0) break;
        send_header({0, piece.size, piece.offset});
        moving.moved(piece.size);
    }
    block_header last{gridftp::block_end_of_data | gridftp::block_closes, 0, 0};
    if (ends > 0) {
        last.bits |= gridftp::block_end_of_file;
        last.offset = ends;
    }
    send_header(last);
    end_sending(data.fd());
}

void announce(control_connection& control, const source_file& source, std::uint64_t offset) {
    const auto size = source.size();
    if (!size || *size == offset) return;
    // A server that has no use for the size says so, or nothing; either is well.
    control.command("ALLO", std::to_string(*size - offset));
}

void restart(control_connection& control, std::uint64_t offset) {
    if (offset == 0) return;
    const auto answer = control.command("REST", "0-" + std::to_string(offset));
    if (!answer.wants_more()) throw cannot_resume(exit_status::restart_refused, answer.summary());
}

/// The connections of a transfer. Those of one that failed are reset: the server must not take their end for
/// the file's.
struct connections {
    std::vector<descriptor> all;
    bool good = false;
    connections() = default;
    connections(const connections&) = delete;
    connections& operator=(const connections&) = delete;
    ~connections() {
        if (good) return;
        const linger reset{1, 0};
        for (const auto& each : all) {
            ::setsockopt(each.fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
    }
};

}  // namespace

void upload(session& with, source_file& source, const upload_request& request) {
    auto& control = with.control();
    const auto context = std::string("upload failed");
    with.set_extended(request.extended);
    source.start(request.offset, request.summed, {&control.interrupt(), nullptr});

    connections data;
    data_port port;
    if (request.active && !request.extended) {
        port = data_port::listening(with, 1);
    } else {
        const auto where = with.passive();
        const unsigned count = request.extended ? request.connections : 1;
        for (unsigned i = 0; i < count; ++i) {
            data.all.push_back(connect_to(where, control.limits().connect, {&control.interrupt(), nullptr}));
        }
    }
    announce(control, source, request.offset);
    restart(control, request.offset);

    // After the connections: its lanes end before those are closed.
    transfer moving(control);
    bool begun = false;
    bool started = false;
    const auto start_lanes = [&] {
        if (!begun || started || data.all.empty()) return;
        started = true;
        const auto count = data.all.size();
        for (std::size_t i = 0; i < count; ++i) {
            const auto& connection = data.all[i];
            if (request.extended) {
                const std::uint64_t ends = i == 0 ? count : 0;
                moving.start_lane(
                    [&connection, &source, &moving, size = request.block_size, ends](const auto& stop) {
                        send_blocks(connection, source, size, ends, moving, stop);
                    });
            } else {
                moving.start_lane(
                    [&connection, &source, &moving, size = request.block_size](const auto& stop) {
                        send_stream(connection, source, size, moving, stop);
                    });
            }
        }
    };
    transfer::events handlers;
    handlers.listener = port.fd();
    handlers.begun = [&] {
        begun = true;
        start_lanes();
    };
    handlers.connected = [&](descriptor connection) {
        if (data.all.empty()) data.all.push_back(std::move(connection));
        start_lanes();
    };
    handlers.complete = [&] { return started; };
    handlers.preliminary = [&](const reply& line) {
        const auto ranges = range_marker(line);
        if (ranges && request.stored) request.stored(*ranges);
    };
    handlers.tick = [&](std::uint64_t bytes) {
        if (request.tick) request.tick(request.offset + bytes);
    };
    control.send("STOR", request.path);
    try {
        moving.run(handlers, exit_status::upload_refused, context);
    } catch (const failure& error) {
        const bool refused = error.status() == exit_status::restart_refused || (!started && !error.passing());
        if (request.offset > 0 && refused && error.status() != exit_status::interrupted) {
            throw cannot_resume(exit_status::restart_refused, error.what());
        }
        throw;
    }
    data.good = true;
}

}  // namespace zorvan::copy
