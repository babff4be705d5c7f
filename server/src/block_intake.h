// The receiving end of extended mode (GFD.20): the data connections of one upload, the headers on them, and
// the count of announced and received ends of data.
//
// Every connection has a coroutine that reads header after header; what becomes of the data is the derived
// class's business. Everything runs on the session's strand. Blocks are checked before a byte of them is
// read: no byte of the file twice, none outside its bounds. The data have ended when every announced end of
// data has come and every connection has come to rest between two blocks; whatever else a connection does is
// a failure, and the first one stays.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "block_codec.h"
#include "data_stream.h"
#include "host_config.h"
#include "operation_error.h"
#include "range_list.h"

namespace zorvan::gridftp {

class block_intake {
  public:
    /// What an upload's blocks may cover.
    struct bounds {
        std::uint64_t shift = 0;           ///< added to every block's offset (ESTO A)
        std::uint64_t begin = 0;           ///< first byte that may come, after the shift
        std::optional<std::uint64_t> end;  ///< end of what was announced
    };

    /// A data connection in this transfer.
    struct connection {
        connection(std::unique_ptr<data_stream> connected, const asio::any_io_executor& strand)
            : stream(std::move(connected)), turn(strand) {}
        virtual ~connection() = default;
        std::unique_ptr<data_stream> stream;
        async_event turn;        ///< for whoever holds its coroutine up
        bool reading = false;    ///< a read is in progress
        bool sent_data = false;  ///< file data, in this transfer
        bool ended = false;      ///< its end of data has come
        bool closed = false;     ///< by the client, or announced so
        std::size_t header_bytes = 0;
        std::array<unsigned char, block_header_size> header{};
    };

    /// `connector` is used until stop() has returned. Its kept connections take part.
    block_intake(asio::any_io_executor strand, const host_config& config, data_connector& connector,
                 async_event changed, const bounds& limits);
    block_intake(const block_intake&) = delete;
    block_intake& operator=(const block_intake&) = delete;

  protected:
    virtual ~block_intake() = default;

    /// Begin to accept and to read. Only the first call counts.
    void start_intake();
    /// All announced ends of data have come and nothing is under way any more, or the intake has failed and
    /// nothing is under way any more. Raises `changed`.
    bool at_rest() const noexcept { return started_ && (ending_ || error_) && running_ == 0; }
    const std::optional<operation_error>& intake_error() const noexcept { return error_; }
    /// Let every coroutine come to its end. The first reason stays.
    void fail_intake(operation_error reason) noexcept;
    /// The same with a reason that takes memory to make; when there is none, that is the reason.
    void fail_intake(operation_error (*reason)()) noexcept;
    /// Reads shall end, and no data come any more.
    bool over() const noexcept { return ending_ || error_; }
    /// The client shall see a reset.
    void reset_connections() noexcept;
    /// End everything and wait until it has. A good transfer's connections are kept with the connector, a
    /// failed one's are read to their end or reset.
    task<void> stop(bool reset);

    /// Read some of a block's data. @return what came; an error only when the block cannot be gone on with
    task<std::size_t> read_data(connection& from, asio::mutable_buffer buffer);
    const range_list& claimed() const noexcept { return claimed_; }
    const std::vector<std::unique_ptr<connection>>& connections() const noexcept { return connections_; }
    bool any_connection() const noexcept { return !connections_.empty(); }

    /// Read the data of a block: all of them, unless over().
    virtual task<void> take_block(connection& from, std::uint64_t offset, std::uint64_t count) = 0;
    /// A connection's end of data has come.
    virtual void connection_ended(connection& /*which*/) {}
    /// Bytes have come over a connection.
    virtual void client_moved() noexcept = 0;
    virtual std::unique_ptr<connection> make_connection(std::unique_ptr<data_stream> stream);
    /// What keeps this object alive.
    virtual std::shared_ptr<void> kept_alive() = 0;

    const asio::any_io_executor intake_strand_;
    const host_config& intake_config_;

  private:
    void add(std::unique_ptr<data_stream> stream);
    void spawn(task<void> body);
    task<void> accept_all();
    task<void> serve(connection& from);
    task<bool> read_header(connection& from);
    bool check(connection& from, const block_header& header);
    bool check_end_of_file(std::uint64_t announced);
    void count_end(connection& from);
    void wind_up() noexcept;
    void refuse(const char* text);

    data_connector& source_;
    const async_event changed_;
    const bounds bounds_;
    std::vector<std::unique_ptr<connection>> connections_;
    range_list claimed_;
    std::optional<std::uint64_t> announced_ends_;
    std::uint64_t ends_ = 0;
    std::size_t running_ = 0;  // coroutines
    bool started_ = false;
    bool accepting_ = false;
    bool ending_ = false;
    bool wound_up_ = false;  // no read begins any more
    std::optional<operation_error> error_;
};

}  // namespace zorvan::gridftp
