// The forwarding back end. The table is filled before the first session and constant while one lives.
#include "promise_backend.h"

extern "C" {
extern ZORVAN_API zorvan_promise_entries_s zorvan_promise_entries;
zorvan_promise_entries_s zorvan_promise_entries = {};
extern ZORVAN_API const zorvan_module_descriptor_t zorvan_gridftp_server_promise_module;
}

namespace {

zorvan_gridftp_server_dsi_t interface_table() {
    zorvan_gridftp_server_dsi_t table{};
    table.descriptor = ZORVAN_GRIDFTP_SERVER_DSI_SENDER | ZORVAN_GRIDFTP_SERVER_DSI_OWN_THREADS;
    table.session_start = [](auto op, auto info) { zorvan_promise_entries.session_start(op, info); };
    table.session_destroy = [](void* session) { zorvan_promise_entries.session_destroy(session); };
    table.send = [](auto op, auto info, void* session) { zorvan_promise_entries.send(op, info, session); };
    table.recv = [](auto op, auto info, void* session) { zorvan_promise_entries.recv(op, info, session); };
    table.command = [](auto op, auto info, void* session) {
        zorvan_promise_entries.command(op, info, session);
    };
    table.stat = [](auto op, auto info, void* session) { zorvan_promise_entries.stat(op, info, session); };
    return table;
}

zorvan_gridftp_server_dsi_t the_table = interface_table();

zorvan_result_t activate() {
    return zorvan_extension_registry_add(&zorvan_i_gfs_dsi_registry, "promise",
                                         &zorvan_gridftp_server_promise_module, &the_table);
}

zorvan_result_t deactivate() {
    (void)zorvan_extension_registry_remove(&zorvan_i_gfs_dsi_registry, "promise");
    return ZORVAN_SUCCESS;
}

}  // namespace

extern "C" const zorvan_module_descriptor_t zorvan_gridftp_server_promise_module = {
    "zorvan_gridftp_server_promise", activate, deactivate, nullptr, nullptr, nullptr};
