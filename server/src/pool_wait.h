// Waiting, in a coroutine, for something that blocks.
#pragma once

#include <functional>

#include "async.h"
#include "host.h"

namespace zorvan::gridftp {

/// Run a blocking function on the pool and wait for it. What it throws is thrown here.
task<void> on_pool(host& shared, const asio::any_io_executor& strand, std::function<void()> function);

}  // namespace zorvan::gridftp
