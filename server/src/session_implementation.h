// Inside of backend_session: what its operations share on the session's strand.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "backend_session.h"
#include "operation.h"
#include "progress_reporter.h"
#include "spool.h"
#include "transfer_channel.h"

namespace zorvan::gridftp {

class backend_session::implementation {
  public:
    implementation(std::shared_ptr<session_core> session, asio::any_io_executor on_strand);

    std::shared_ptr<session_core> core;
    asio::any_io_executor strand;
    async_event event;                   ///< of everything that an operation's coroutine waits for
    std::weak_ptr<operation> last;       ///< its entry may still be running; not kept for that
    std::shared_ptr<operation> running;  ///< what abort() is for
    std::function<void()> on_interrupt;  ///< what else abort() ends: see interrupt_hook
    bool busy = false;
    bool aborted = false;  ///< the operation
    bool gone = false;     ///< the client

    bool stopped() const noexcept { return aborted || gone; }
    void interrupt() noexcept;

    task<std::shared_ptr<operation>> begin(operation_kind kind);
    task<void> wait_finished(operation& op);
    task<stat_outcome> stat(std::string path, bool file_only, stat_sink& sink);

    static operation_error unsupported();

    /// An upload that is put into a spool: what came of it.
    struct spooled {
        std::shared_ptr<spooled_data> data;  ///< complete; null: see error
        std::optional<operation_error> error;
        std::uint64_t bytes = 0;
    };
    /// In stream mode.
    task<spooled> spool_upload(const receive_request& request, data_connector& connector,
                               transfer_events& events);
    /// In extended mode.
    task<spooled> spool_blocks(const receive_request& request, data_connector& connector,
                               progress_reporter& events);
    /// Tell the client that its data are waited for. One that cannot be told is gone.
    task<void> announce(transfer_events& events);
    /// Is there a bucket for an upload to this path?
    task<std::optional<operation_error>> check_bucket(const std::string& path);
    /// @param reporter  of a transfer in extended mode; null: stream mode
    task<transfer_outcome> transfer(std::shared_ptr<operation> op, progress_reporter* reporter);
    /// @param kept  bytes in front of what an upload brings
    std::shared_ptr<progress_reporter> make_reporter(transfer_events& events, std::uint64_t kept);

    /// Marks the time of one operation's coroutine.
    class operation_scope {
      public:
        explicit operation_scope(implementation& self) : self_(self) {
            self_.busy = true;
            self_.aborted = false;
        }
        operation_scope(const operation_scope&) = delete;
        operation_scope& operator=(const operation_scope&) = delete;
        ~operation_scope() { self_.busy = false; }

      private:
        implementation& self_;
    };

    /// What abort() ends before there is an operation: a connect, a read. Must not outlive the coroutine that
    /// has these, however it ends.
    class interrupt_hook {
      public:
        explicit interrupt_hook(implementation& self) : self_(self) {}
        interrupt_hook(const interrupt_hook&) = delete;
        interrupt_hook& operator=(const interrupt_hook&) = delete;
        ~interrupt_hook() { clear(); }
        void set(std::function<void()> end) { self_.on_interrupt = std::move(end); }
        void clear() noexcept { self_.on_interrupt = nullptr; }

      private:
        implementation& self_;
    };

    /// Makes an operation the one that abort() is for.
    class running_operation {
      public:
        running_operation(implementation& self, std::shared_ptr<operation> op) : self_(self) {
            self_.running = std::move(op);
        }
        running_operation(const running_operation&) = delete;
        running_operation& operator=(const running_operation&) = delete;
        ~running_operation() {
            if (!self_.running->channel) {
                // Normally all of it has been taken; after an exception nobody will.
                self_.running->drop_output();
            }
            self_.running.reset();
        }

      private:
        implementation& self_;
    };
};

}  // namespace zorvan::gridftp
