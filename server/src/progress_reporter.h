// The progress of one transfer in extended mode, reported to the session at the update interval (GFD.20: 111
// and 112 markers).
//
// Stands between the transfer's channel and the session's transfer_events: nothing is reported before the
// session has announced the data, nothing after stop(). A session that does not take a report, because its
// client has not read the former one, is asked again an interval later, so that one report at most waits and
// none holds the data up. Strand only. Its timer keeps it alive, so make it with std::make_shared.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "backend_session.h"
#include "range_list.h"

namespace zorvan::gridftp {

class progress_reporter final : public transfer_events,
                                public std::enable_shared_from_this<progress_reporter> {
  public:
    /// @param interval  between two reports; 0 = none but the last one of a failed transfer
    /// @param kept      bytes of the file that are there already, in front of what comes
    /// @param silent    asked before each report: does the client want none any more?
    progress_reporter(const asio::any_io_executor& strand, transfer_events& events,
                      std::chrono::milliseconds interval, std::uint64_t kept, std::function<bool()> silent);

    /// How far the transfer has come, from here on. `durable` need not hold what was kept.
    void look_at(std::function<transfer_progress()> source) { source_ = std::move(source); }
    /// No report from here on; `events` is not used any more.
    void stop() noexcept;
    /// The durable ranges, with what was kept in front, if they have changed since the last report.
    std::optional<range_list> unreported() const;

    task<void> on_first_data() override;
    bool control_alive() noexcept override { return events_.control_alive(); }
    /// Ends what the transfer's owner holds of it, also when that ends by an exception.
    class scope {
      public:
        explicit scope(std::shared_ptr<progress_reporter> reporter) : reporter_(std::move(reporter)) {}
        scope(const scope&) = delete;
        scope& operator=(const scope&) = delete;
        ~scope() {
            if (reporter_) {
                reporter_->stop();
            }
        }

      private:
        std::shared_ptr<progress_reporter> reporter_;
    };

  private:
    void arm() noexcept;
    void arm_timer();
    void report();

    transfer_events& events_;
    asio::steady_timer timer_;
    const std::chrono::milliseconds interval_;
    const std::uint64_t kept_;
    const std::function<bool()> silent_;
    std::function<transfer_progress()> source_;
    std::uint64_t bytes_ = 0;  // the most that was seen: storing a spooled upload begins anew
    range_list reported_;      // that the client knows of
    bool announced_ = false;
    bool stopped_ = false;
};

}  // namespace zorvan::gridftp
