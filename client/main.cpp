// zorvan-copy: copies files and folders between this host and an FTP server.
#include <csignal>
#include <cstdio>
#include <exception>

#include "copier.h"
#include "failure.h"
#include "options.h"

namespace {

using zorvan::copy::exit_status;

const zorvan::copy::flag* interrupt_flag = nullptr;

extern "C" void on_interrupt(int) {
    interrupt_flag->raise();
}

void catch_signals(const zorvan::copy::flag& interrupt) {
    interrupt_flag = &interrupt;
    struct sigaction action{};
    action.sa_handler = on_interrupt;
    // The second one ends the program wherever it is.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int fail(exit_status status, const char* text) {
    std::fprintf(stderr, "zorvan-copy: (%d) %s\n", static_cast<int>(status), text);
    return static_cast<int>(status);
}

}  // namespace

int main(int count, char** arguments) {
    try {
        auto line = zorvan::copy::parse_command_line({arguments + 1, arguments + count});
        if (!line.wanted) {
            std::fputs(line.text.c_str(), stdout);
            return 0;
        }
        // It is never destroyed: a signal may come until the end.
        static const zorvan::copy::flag interrupt;
        catch_signals(interrupt);
        return static_cast<int>(zorvan::copy::copier(std::move(*line.wanted), interrupt).run());
    } catch (const zorvan::copy::failure& error) {
        return fail(error.status(), error.what());
    } catch (const std::exception& error) {
        // Out of memory, of descriptors, of threads.
        return fail(exit_status::read_failed, error.what());
    }
}
