// The frame around every public call: exceptions end here, the note for S3_status_is_retryable is kept, and
// the complete callback runs exactly once.
#pragma once

#include <libs3.h>

#include <exception>
#include <new>
#include <string>

#include "checks.h"
#include "error_body.h"
#include "request.h"
#include "status.h"

namespace s3 {

/// How a call ends.
struct CallResult {
    S3Status status = S3StatusInternalError;
    ErrorInfo error;
    /// Bytes came from the caller's put-data callback.
    bool took_body_bytes = false;
};

/// Takes over what an exchange says about the end.
void set_result(CallResult& call, ExchangeResult&& result);

/// Fails the call with words of the library's own.
void fail(CallResult& call, S3Status status, std::string message);

/// Runs the properties callback, if there is one.
S3Status deliver_properties(const S3ResponseHandler& handler, void* callback_data,
                            const ResponseHeaders& headers);

/// Notes the end and runs the complete callback. Never throws.
void finish_call(const S3ResponseHandler& handler, void* callback_data, const CallResult& call) noexcept;

/// Runs work(call), which fills the result and may throw, then finishes the call.
template <typename Work>
void run_call(const S3ResponseHandler& handler, void* callback_data, Work&& work) noexcept {
    CallResult call;
    note_request_begin();
    try {
        work(call);
    } catch (const Refusal& refusal) {
        call.status = refusal.status;
    } catch (const std::bad_alloc&) {
        call.status = S3StatusOutOfMemory;
    } catch (const std::exception&) {
        call.status = S3StatusInternalError;
    }
    finish_call(handler, callback_data, call);
}

/// The usual simple request: perform the plan, deliver properties on success, take the result over. A success
/// whose body is an error document is that error.
void perform_simple(RequestPlan& plan, const S3ResponseHandler& handler, void* callback_data,
                    CallResult& call);

}  // namespace s3
