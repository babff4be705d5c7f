// Why a transfer failed, for the reasons that more than one way of moving data knows: one place for each code
// and text, so that a client reads the same whichever way its file took. What only one of them can say stands
// there.
//
// Any thread. Each makes a new value, which needs memory.
#pragma once

#include <cstddef>

#include "operation_error.h"

namespace zorvan::gridftp {

struct connect_result;

namespace transfer_errors {

/// The client, or the end of its session, gave the transfer up.
operation_error aborted();

/// The client moved nothing for longer than `data_stall`.
operation_error stalled();

/// The client's data broke off: reset, or TLS without its close.
operation_error broken_off();

/// The client closed the connection over which it was being sent to.
operation_error closed_by_client();

/// The data came whole, but nobody is there any more who would read the reply.
operation_error control_lost();

/// There is no data connection. @param failure  without a stream
operation_error not_connected(const connect_result& failure);

/// Extended mode: more connections than there may be.
/// @param code  of the reply: 426 for connections that were made, 550 for those that were only announced
/// @param most  as many as there may be
operation_error too_many_connections(int code, std::size_t most);

/// Neither memory nor a file for an upload whose size nobody announced.
operation_error no_room_for_unknown_size();

/// The back end says that it has what has not been delivered to it yet.
operation_error storage_ended_early();

/// The data are not those that SCKS announced.
operation_error wrong_checksum();

}  // namespace transfer_errors
}  // namespace zorvan::gridftp
