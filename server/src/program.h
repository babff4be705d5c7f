// The program, as a function: the executable is a shell around it, so that server and back ends share the one
// copy of the server's library.
#pragma once

#include <zorvan_common.h>

/// Run the server with a command line until it is told to end. Called once, from main().
/// @return the exit status: 0 after an orderly end, 1 after one line on standard error
extern "C" ZORVAN_API int zorvan_gridftp_server_main(int count, char** arguments);
