/*
 * The program: command line, configuration, log, back end, server, and their end in the reverse order.
 * Everything that goes wrong before the server runs is one line on standard error and exit status 1.
 */
#include "program.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zorvan_common.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "config.h"
#include "server.h"
#include "server_log.h"

namespace {

using namespace zorvan::gridftp;

struct options {
    std::string config;
    std::string log_level;
    std::string module_dir;
    std::string backend_options;
    bool check = false;
};

int fail(const std::string& text) {
    std::fprintf(stderr, "zorvan-gridftp-server: %s\n", text.c_str());
    return 1;
}

// A session takes up to half a dozen descriptors; the usual soft limit of 1024 is made for programs that use
// select().
void raise_descriptor_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    // A refusal leaves things as they are.
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

int serve(const options& wanted) {
    server_config config = load_config(wanted.config);
    if (!wanted.log_level.empty()) config.log_level = wanted.log_level;
    if (!wanted.module_dir.empty()) config.module_dir = wanted.module_dir;
    if (!wanted.backend_options.empty()) config.backend_options = wanted.backend_options;

    const users_file users = users_file::load(config.users_file);
    std::string error;
    if (!configure_log(config.log_level, config.log_file, error)) return fail(error);

    const std::unique_ptr<backend> module =
        backend::load(config.module_dir, config.backend_name, config.backend_options, error);
    if (!module) return fail(error);
    if (wanted.check) {
        module->deactivate();
        std::printf("%s: good\n", wanted.config.c_str());
        return 0;
    }

    bool idle = false;
    {
        server service(config, users, *module);
        service.handle_signals();
        if (!service.start(error)) {
            // Nothing has run yet, so the back end can go.
            const int status = fail(error);
            module->deactivate();
            return status;
        }
        idle = service.run();
        if (!idle) {
            log_line(ZORVAN_GFS_LOG_WARNING, "ending with back-end work still running");
            ::_exit(0);
        }
    }
    module->deactivate();
    if (const std::size_t left = zorvan_error_table_count(); left > 0)
        log_line(ZORVAN_GFS_LOG_WARNING, fmt::format("{} error objects were not released", left));
    log_line(ZORVAN_GFS_LOG_INFO, "ended");
    return 0;
}

}  // namespace

int zorvan_gridftp_server_main(int count, char** arguments) {
    // A client that is gone shows as an error of the write, and so does a file that may not grow.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    raise_descriptor_limit();
    options wanted;
    CLI::App app("FTP and GridFTP gateway to object stores", "zorvan-gridftp-server");
    app.add_option("--config", wanted.config, "configuration file (TOML)")->required();
    app.add_flag("--check", wanted.check, "check configuration, users file and back end, then end");
    app.add_option("--log-level", wanted.log_level, "error, warning, transfer, info or debug")
        ->check(CLI::IsMember({"error", "warning", "transfer", "info", "debug"}));
    app.add_option("--module-dir", wanted.module_dir, "folder of the back-end module");
    app.add_option("--backend-options", wanted.backend_options, "option string for the back end");
    app.set_version_flag("--version", "zorvan-gridftp-server " ZORVAN_VERSION);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    try {
        return serve(wanted);
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
