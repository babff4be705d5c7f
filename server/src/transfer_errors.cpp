// Codes and texts; see transfer_errors.h.
#include "transfer_errors.h"

#include <fmt/format.h>

#include "data_stream.h"

namespace zorvan::gridftp::transfer_errors {

operation_error aborted() {
    return operation_error::channel(426, "Transfer aborted. Data connection closed.");
}

operation_error stalled() {
    return operation_error::channel(426, "Data connection timed out. Transfer aborted.");
}

operation_error broken_off() {
    return operation_error::channel(426,
                                    "Data connection broken before the end of the data. Transfer aborted.");
}

operation_error closed_by_client() {
    return operation_error::channel(426, "Data connection closed by the client. Transfer aborted.");
}

operation_error control_lost() {
    return operation_error::channel(426, "Control connection lost. Transfer aborted.");
}

operation_error not_connected(const connect_result& failure) {
    return operation_error::channel(failure.reply_code,
                                    failure.error.empty() ? "Can't open data connection." : failure.error);
}

operation_error too_many_connections(int code, std::size_t most) {
    return operation_error::channel(
        code, fmt::format("More than {} data connections are not allowed. Transfer aborted.", most));
}

operation_error no_room_for_unknown_size() {
    return operation_error::server(552, {}, "No room to receive an upload of unknown size.");
}

operation_error storage_ended_early() {
    return operation_error::server(451, {}, "The storage ended the transfer before the end of the data.");
}

operation_error wrong_checksum() {
    return operation_error::server(550, "INCORRECT_CHECKSUM",
                                   "The data do not have the checksum that was announced for them.");
}

}  // namespace zorvan::gridftp::transfer_errors
