// A back end whose entries are whatever a test puts into its table: it forwards each call to a function of
// the test program. Exported by the module as zorvan_promise_entries.
#pragma once

#include <zorvan_gridftp_server.h>

extern "C" {
struct zorvan_promise_entries_s {
    void (*session_start)(zorvan_gridftp_server_operation_t, const zorvan_gridftp_server_session_info_t*);
    void (*session_destroy)(void*);
    void (*send)(zorvan_gridftp_server_operation_t, const zorvan_gridftp_server_transfer_info_t*, void*);
    void (*recv)(zorvan_gridftp_server_operation_t, const zorvan_gridftp_server_transfer_info_t*, void*);
    void (*command)(zorvan_gridftp_server_operation_t, const zorvan_gridftp_server_command_info_t*, void*);
    void (*stat)(zorvan_gridftp_server_operation_t, const zorvan_gridftp_server_stat_info_t*, void*);
};
}
