// How the bytes of one transfer move between a back end's buffers and wherever they come from or go to.
//
// An operation owns its channel and calls the on_* members with its mutex held, from any thread; they take
// note and never block. run() and abort() belong to the session's strand. Which kind of channel moves a
// transfer is decided when the transfer starts.
#pragma once

#include "operation.h"

namespace zorvan::gridftp {

class transfer_channel {
  public:
    explicit transfer_channel(operation& op) : op_(op) {}
    transfer_channel(const transfer_channel&) = delete;
    transfer_channel& operator=(const transfer_channel&) = delete;
    virtual ~transfer_channel() = default;

    /// The back end began its transfer.
    virtual void on_begin_locked() {}
    /// A read to serve; it is accepted already.
    virtual void on_read_locked(const read_request& request) = 0;
    /// A write to serve. @return false: refused
    virtual bool on_write_locked(const write_request& request) = 0;
    /// The operation was finished: what is still registered must be called back soon.
    virtual void on_finish_locked() {}

    /// Move the data. Returns once the operation is finished and no request waits for a callback that has not
    /// been queued.
    virtual task<void> run() = 0;
    /// Fail the transfer from the client's side (ABOR, control connection gone).
    virtual void abort() noexcept = 0;
    /// Bytes moved over the data connection.
    virtual std::uint64_t bytes() const noexcept = 0;

  protected:
    operation& op_;
};

/// A read's callback without data, for its end: clean or failed.
completion ended_read(const read_request& request, bool failed, std::uint64_t bytes_in_all);
/// A read's callback with data.
completion filled_read(const read_request& request, std::size_t bytes, std::int64_t offset, bool eof);
/// A write's callback.
completion ended_write(const write_request& request, bool failed);

}  // namespace zorvan::gridftp
