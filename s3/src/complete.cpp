// The frame around every public call.
#include "complete.h"

namespace s3 {

void set_result(CallResult& call, ExchangeResult&& result) {
    call.status = result.status;
    call.error = std::move(result.error);
}

void fail(CallResult& call, S3Status status, std::string message) {
    call.status = status;
    call.error = ErrorInfo{};
    call.error.message = std::move(message);
}

S3Status deliver_properties(const S3ResponseHandler& handler, void* callback_data,
                            const ResponseHeaders& headers) {
    if (handler.propertiesCallback == nullptr) return S3StatusOK;
    const PropertiesView view(headers);
    return handler.propertiesCallback(view.get(), callback_data);
}

void finish_call(const S3ResponseHandler& handler, void* callback_data, const CallResult& call) noexcept {
    note_request_end(call.status, call.took_body_bytes);
    if (handler.completeCallback == nullptr) return;
    bool told = false;
    if (!call.error.empty()) {
        try {
            const ErrorDetailsView details(call.error);
            told = true;
            handler.completeCallback(call.status, details.get(), callback_data);
        } catch (...) {
            // Only the view can throw: without memory the status goes out alone.
        }
    }
    if (!told) handler.completeCallback(call.status, nullptr, callback_data);
    // Again, for a complete callback that made requests of its own.
    note_request_end(call.status, call.took_body_bytes);
}

void perform_simple(RequestPlan& plan, const S3ResponseHandler& handler, void* callback_data,
                    CallResult& call) {
    ExchangeResult result = perform(plan);
    if (result.status == S3StatusOK) {
        // Stores that began their reply too early can tell of a failure in its body alone.
        if (auto error = error_inside_success(result.body)) {
            result.status = error->status;
            result.error = std::move(error->info);
        } else {
            result.status = deliver_properties(handler, callback_data, result.headers);
        }
    }
    set_result(call, std::move(result));
}

}  // namespace s3
