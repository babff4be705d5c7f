// A connected data connection, and the thing that connects one.
//
// The session layer makes a data_connector from PASV, EPSV, PORT or EPRT; the core asks it for a stream when
// the back end begins its transfer, and owns that stream from then on. All calls run on the session's strand;
// at most one read and one write are in progress at a time. reset() and cancel() end what is in progress.
#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "async.h"

namespace zorvan::gridftp {

/// What a read or write came to. A clean end of data is `asio::error::eof` on a read; a peer that vanished, a
/// TLS end without its close alert, reset() and cancel_io() are other errors.
struct io_result {
    boost::system::error_code error;
    std::size_t bytes = 0;  ///< bytes moved, also when an error is set
};

/// One data connection, plain or TLS.
class data_stream {
  public:
    data_stream() = default;
    data_stream(const data_stream&) = delete;
    data_stream& operator=(const data_stream&) = delete;
    virtual ~data_stream() = default;

    /// Read at least one byte, at most `buffer.size()`. The buffer stays the caller's and must live on until
    /// the call has returned.
    virtual task<io_result> read_some(asio::mutable_buffer buffer) = 0;

    /// Write at least one byte of the given buffers, in order.
    virtual task<io_result> write_some(std::span<const asio::const_buffer> buffers) = 0;

    /// End the sending direction in good order (TLS: the close alert first), after a download.
    virtual task<boost::system::error_code> shutdown() = 0;

    /// Make the read or write in progress end with asio::error::operation_aborted; nothing is lost and the
    /// stream stays usable.
    virtual void cancel_io() noexcept = 0;

    /// Close at once, the peer sees a reset; what is in progress ends with an error. May be called again.
    virtual void reset() noexcept = 0;

    /// Close without a reset (as far as unread bytes allow). May be called again.
    virtual void close() noexcept = 0;

    /// Has nothing come from the peer that was not read, neither bytes nor an end? A look at the socket.
    virtual bool quiet() noexcept { return true; }

    /// Room in the kernel's buffers, bytes; a hint, errors are ignored.
    virtual void set_buffer_sizes(std::size_t receive, std::size_t send) noexcept = 0;
};

/// A data connection over plain TCP. The socket must live on the session's strand.
std::unique_ptr<data_stream> make_tcp_stream(asio::ip::tcp::socket socket);

/// Outcome of a connect: a stream, or why there is none.
struct connect_result {
    std::unique_ptr<data_stream> stream;
    int reply_code = 425;  ///< FTP reply code when there is no stream
    std::string error;     ///< one line for the reply; says nothing internal
};

/// Opens the data connection of one transfer; in extended mode all connections of several transfers.
class data_connector {
  public:
    data_connector() = default;
    data_connector(const data_connector&) = delete;
    data_connector& operator=(const data_connector&) = delete;
    virtual ~data_connector() = default;

    /// Accept or connect; called once. The connector bounds its own time. Outlives the transfer coroutine
    /// that it was given to.
    virtual task<connect_result> connect() = 0;

    /// End a connect() in progress, which then returns without a stream. May be called at any time, on the
    /// strand.
    virtual void cancel() noexcept = 0;

    /// Extended mode: accept or make one more connection. Called again and again, one call at a time, and
    /// not together with connect(). A connector that knows no extended mode has none.
    /// @param limited  bound the time as for connect(), or wait for ever
    virtual task<connect_result> connect_more(bool /*limited*/) { co_return connect_result{}; }

    /// End a connect_more() in progress, which then returns without a stream; later ones are possible.
    virtual void stop_connecting() noexcept {}

    /// Is it the client that connects? In extended mode the sender of the data does.
    virtual bool accepts() const noexcept { return true; }

    /// Extended mode: connections that the former transfer has left for the next one.
    std::vector<std::unique_ptr<data_stream>> kept;
};

}  // namespace zorvan::gridftp
