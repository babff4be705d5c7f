// Reads and drops, up to a time and a number of bytes; see data_drain.h.
#include "data_drain.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <vector>

#include "out_of_memory.h"

namespace zorvan::gridftp {

void drain_in_background(std::unique_ptr<data_stream> stream, const host_config& config,
                         const asio::any_io_executor& strand) noexcept {
    const auto drain = [&] {
        asio::co_spawn(
            strand,
            [drained = std::shared_ptr<data_stream>(std::move(stream)), strand, limit = config.drain_bytes,
             time = config.drain_time]() -> task<void> {
                asio::steady_timer timer(strand, time);
                timer.async_wait([drained](const boost::system::error_code& error) {
                    if (!error) {
                        drained->reset();
                    }
                });
                std::vector<unsigned char> dropped(65536);
                std::uint64_t total = 0;
                while (total < limit) {
                    const auto result = co_await drained->read_some(asio::buffer(dropped));
                    total += result.bytes;
                    if (result.error) {
                        break;
                    }
                }
                timer.cancel();
                drained->close();
            },
            asio::detached);
    };
    // Without memory the stream is closed as it is.
    (void)run_without_throwing(drain);
}

}  // namespace zorvan::gridftp
