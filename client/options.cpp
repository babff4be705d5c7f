// Options and the help text; see options.h.
#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "failure.h"

namespace zorvan::copy {
namespace {

constexpr const char* description =
    "Copies files and folders between this host and an FTP server, with parallel streams, restart and "
    "checksums.";

constexpr const char* footer = R"(
Addresses
  Every SOURCE and the DESTINATION is a local path, file:///PATH, or ftp://[USER[:PASSWORD]@]HOST[:PORT]/PATH. One side
  is remote, the other one local. PATH begins at the server's root: ftp://host/bucket/key is /bucket/key. Other than
  letters, digits and -._~/ are best written as %XX. "-" is standard input or standard output.
  A DESTINATION that ends in "/", or is a folder of this host, gets the copies under their own names. With several
  SOURCEs it has to be such a folder. Folders are copied with --recursive, into such a folder under their own name,
  otherwise as DESTINATION. Folders that hold nothing are made; on the server the others come with their files.

Who logs in
  The password is taken from the address, then from the environment variable ZORVAN_COPY_PASSWORD, then from the netrc
  file, if one is asked for; on a terminal it is asked for at last. Without a user, "anonymous" logs in. FTP sends
  passwords and data in the clear.

Modes
  Stream mode moves a file over one connection. Extended mode (--parallel 2 and more, or --mode extended) moves blocks over
  several, reports what is stored for good, and verifies MD5 unless told otherwise. In downloads of extended mode the
  server connects to this host, so no firewall may stand in between; everywhere else this host connects, unless --active.

Complete or not
  An upload has succeeded when the server says that it is stored. A download is written to DESTINATION.part and takes its
  name when it is complete and verified. What broke off leaves a restart file: DESTINATION.restart for a download,
  SOURCE.restart for an upload in extended mode, where the server told what it stored for good. The same command with
  --resume goes on from there. If the source has changed, or the server has forgotten, it begins anew.

Exit status
    0  all is copied              2  wrong usage                   3  malformed address
    6  host not resolved          7  connection failed             8  weird answer of the server
    9  access denied             14  weird answer to EPSV, PASV   18  data ended too early
   19  download refused          21  a command was refused        23  writing here failed
   25  upload refused            26  reading here failed          28  timed out
   30  no port for the server    31  server cannot restart        55  sending failed
   56  receiving failed          67  login denied                 78  not found
  100  checksums differ         130  interrupted
  With several files the first failure counts; the others are still copied, unless the server cannot be reached.

Examples
  zorvan-copy --parallel 4 bigfile ftp://alice@host/bucket/bigfile
  zorvan-copy --parallel 4 --resume --retry 5 ftp://alice@host/bucket/bigfile .
  zorvan-copy --recursive results ftp://alice@host/bucket/2024/
  tar c folder | zorvan-copy - ftp://alice@host/bucket/folder.tar
)";

class help_format : public CLI::Formatter {
  public:
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: zorvan-copy [OPTIONS] SOURCE... DESTINATION\n";
    }
    std::string make_positionals(const CLI::App*) const override { return {}; }
};

[[noreturn]] void wrong(const std::string& text) {
    throw failure(exit_status::bad_usage, text + " (--help tells more)");
}

void check(settings& wanted, const std::string& mode) {
    const bool up = wanted.destination.remote();
    for (const auto& source : wanted.sources) {
        if (up && source.remote())
            wrong("one server cannot be copied to another one: one side has to be local");
        if (!up && !source.remote()) wrong("one side has to be an ftp:// address");
        if (source.path == "-" && wanted.sources.size() > 1)
            wrong("standard input cannot be one of several sources");
    }
    if (wanted.sources.size() > 1 && up && !wanted.destination.names_folder()) {
        wrong("several sources need a destination that ends in \"/\"");
    }
    if (wanted.destination.path == "-" && (wanted.sources.size() > 1 || wanted.recursive)) {
        wrong("only one file can go to standard output");
    }
    if (mode == "stream" && wanted.parallel > 1) wrong("parallel streams need extended mode");
    wanted.extended = mode == "extended" || wanted.parallel > 1;
    if (wanted.active && wanted.extended) {
        wrong("--active is for stream mode; in extended mode the side that sends the data connects");
    }
    if (!wanted.restart_file.empty()) {
        if (wanted.sources.size() > 1 || wanted.recursive) wrong("--restart-file is for one file");
        wanted.resume = true;
    }
}

}  // namespace

command_line parse_command_line(std::vector<std::string> arguments) {
    settings wanted;
    std::vector<std::string> paths;
    std::string mode;
    std::string checksum;
    std::string netrc_file;
    bool netrc = false;
    unsigned timeout = 120;
    unsigned completion = 1800;
    unsigned pause = 5;

    CLI::App app(description, "zorvan-copy");
    app.formatter(std::make_shared<help_format>());
    app.footer(footer);
    app.set_version_flag("--version", "zorvan-copy " ZORVAN_VERSION, "Print the version and end");
    app.add_option("paths", paths);
    app.add_option("-p,--parallel", wanted.parallel,
                   "Data connections; more than one means extended mode (default 1)")
        ->option_text("N")
        ->check(CLI::Range(1, 64));
    app.add_option("--mode", mode, "\"stream\" or \"extended\"")
        ->option_text("MODE")
        ->check(CLI::IsMember({"stream", "extended"}));
    app.add_option("--block-size", wanted.block_size, "Bytes of a block, say 256K or 4M (default 1M)")
        ->option_text("SIZE")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(std::size_t{4096}, std::size_t{64} << 20U));
    app.add_flag("--resume", wanted.resume, "Go on where an earlier run broke off");
    app.add_option("--restart-file", wanted.restart_file,
                   "Where the restart file of one file is; includes --resume")
        ->option_text("FILE");
    app.add_option("--checksum", checksum,
                   "Compare with the server's sum at the end: \"md5\" or \"none\" (default: md5 in extended "
                   "mode, if the "
                   "server can)")
        ->option_text("NAME")
        ->check(CLI::IsMember({"md5", "none"}));
    app.add_flag("-r,--recursive", wanted.recursive, "Copy folders with all that is in them");
    app.add_option("--retry", wanted.retries, "So many more tries after a failure that may pass (default 0)")
        ->option_text("N")
        ->check(CLI::Range(0, 1000000));
    app.add_option("--retry-pause", pause, "Seconds before another try (default 5)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0, 86400));
    app.add_option("--timeout", timeout,
                   "Seconds without an answer or a byte until a transfer fails (default 120)")
        ->option_text("SECONDS")
        ->check(CLI::Range(1, 86400));
    app.add_option("--final-timeout", completion,
                   "Seconds that the server may take to store the file, or to sum it, after the last byte "
                   "(default 1800)")
        ->option_text("SECONDS")
        ->check(CLI::Range(1, 86400));
    app.add_flag("--active", wanted.active, "Stream mode: have the server connect to this host");
    app.add_flag("-n,--netrc", netrc, "Take user and password from ~/.netrc");
    app.add_option("--netrc-file", netrc_file, "Take them from this file")->option_text("FILE");
    app.add_flag("--progress", wanted.show_progress, "Show progress also when standard error is no terminal");
    app.add_flag("--no-progress", wanted.no_progress, "Show no progress");
    app.add_flag("-q,--quiet", wanted.quiet, "Show errors alone");
    app.add_flag("-v,--verbose", wanted.verbose, "Show the dialogue with the server, but no password");

    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(arguments);
    } catch (const CLI::CallForHelp&) {
        return {std::nullopt, app.help()};
    } catch (const CLI::CallForVersion& version) {
        return {std::nullopt, std::string(version.what()) + "\n"};
    } catch (const CLI::ParseError& error) {
        wrong(error.what());
    }
    if (paths.size() < 2) wrong("a source and a destination are needed");
    for (const auto& path : paths) {
        wanted.sources.push_back(parse_location(path));
    }
    wanted.destination = std::move(wanted.sources.back());
    wanted.sources.pop_back();
    wanted.checksum = checksum.empty()    ? checksum_choice::automatic
                      : checksum == "md5" ? checksum_choice::md5
                                          : checksum_choice::none;
    wanted.limits.stall = std::chrono::seconds(timeout);
    wanted.limits.connect = std::min(wanted.limits.connect, wanted.limits.stall);
    wanted.limits.completion = std::chrono::seconds(completion);
    wanted.retry_pause = std::chrono::seconds(pause);
    if (!netrc_file.empty()) {
        wanted.netrc = netrc_file;
    } else if (netrc) {
        const char* const home = std::getenv("HOME");
        if (home == nullptr) wrong("--netrc needs the environment variable HOME");
        wanted.netrc = join(home, ".netrc");
    }
    check(wanted, mode);
    return {std::move(wanted), {}};
}

}  // namespace zorvan::copy
