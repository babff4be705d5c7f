// Hearing a client out whose upload was refused.
#pragma once

#include <memory>

#include "data_stream.h"
#include "host_config.h"

namespace zorvan::gridftp {

/// Read and drop what a client still sends after its upload was refused, so that it sees the reply and not a
/// reset; bounded by the configuration. Returns at once, the stream lives until that is over. When there is
/// no memory for it, the stream is closed at once.
void drain_in_background(std::unique_ptr<data_stream> stream, const host_config& config,
                         const asio::any_io_executor& strand) noexcept;

}  // namespace zorvan::gridftp
