// Command line; see options.h. The help text is complete: there is no other
// page about the options.
#include "options.h"

#include <CLI/CLI.hpp>
#include <stdexcept>

#include "control.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

user user_from(const std::string& text) {
    // name:access:secret; the secret may hold colons.
    const auto first = text.find(':');
    const auto second = first == std::string::npos ? first : text.find(':', first + 1);
    if (second == std::string::npos || first == 0 || second == first + 1)
        throw CLI::ValidationError("--user", "expects name:access-key:secret");
    user out;
    out.uid = text.substr(0, first);
    out.display_name = out.uid;
    out.keys.push_back({text.substr(first + 1, second - first - 1), text.substr(second + 1)});
    return out;
}

// Repeated --user options of one name give that user several keys.
void add_user(std::vector<user>& list, user entry) {
    for (auto& known : list) {
        if (known.uid != entry.uid) continue;
        known.keys.insert(known.keys.end(), entry.keys.begin(), entry.keys.end());
        return;
    }
    list.push_back(std::move(entry));
}

}  // namespace

std::optional<options> parse_options(int argc, const char* const* argv, int& status) {
    options out;
    out.config.storage_classes = {"STANDARD", "REDUCED_REDUNDANCY", "STANDARD_IA",  "ONEZONE_IA",
                                  "GLACIER",  "GLACIER_IR",         "DEEP_ARCHIVE", "INTELLIGENT_TIERING"};
    std::vector<std::string> users;
    std::string admin_key;
    std::string admin_secret;
    std::string region_mode = "rgw";
    std::string restore = "off";
    std::uint64_t idle = 65;

    CLI::App app(
        "A small S3-compatible store for demonstrations and tests: Signature V4 is verified, large empty "
        "objects take "
        "no space, and a control port sets the clock, shows the requests seen and scripts faults. It behaves "
        "like a "
        "Ceph RADOS Gateway, on request like Amazon S3. Canned ACLs are accepted and not enforced: a bucket "
        "is its "
        "owner's alone.",
        "zorvan-devstore");
    app.set_version_flag("--version", "zorvan-devstore " ZORVAN_DEVSTORE_VERSION);
    app.add_option("--listen", out.listen, "Address and port of the S3 interface; port 0 takes a free one")
        ->capture_default_str();
    app.add_option("--port-file", out.port_file, "Write the S3 port's number here once it is open");
    app.add_option("--control", out.control,
                   "Address and port of the control interface (none without this option)");
    app.add_option("--control-port-file", out.control_port_file, "Write the control port's number here");
    app.add_option("--data-dir", out.data_dir, "Directory that keeps the data over restarts, or \"memory\"")
        ->capture_default_str();
    app.add_option("--admin-key", admin_key,
                   "Access key of the user \"admin\", who may use the user administration");
    app.add_option("--admin-secret", admin_secret, "Secret of that key");
    app.add_option("--user", users, "A user as name:access-key:secret; repeat it for more users or keys")
        ->allow_extra_args(false)
        ->take_all();
    app.add_option("--users-file", out.users_file,
                   "Users as JSON: {\"users\":[{\"uid\":\"alice\",\"display_name\":\"Alice\",\"email\":\"\","
                   "\"keys\":[[\"ACCESS\",\"SECRET\"]],\"admin\":false,\"suspended\":false}]}");
    app.add_option("--dns-name", out.config.dns_name,
                   "Suffix of virtual-host style addresses, such as s3.localhost (path style works always)");
    app.add_option("--admin-entry", out.config.admin_entry,
                   "Path of the user administration, may hold slashes")
        ->capture_default_str();
    app.add_option(
           "--region-mode", region_mode,
           "rgw: one zone group, any region is signed for; aws: buckets have regions, x-amz-bucket-region is "
           "sent, a request signed for another region gets 301, and replies follow Amazon S3 where the two "
           "differ")
        ->check(CLI::IsMember({"rgw", "aws"}))
        ->capture_default_str();
    app.add_option("--region", out.config.region,
                   "Region of buckets made without a location, with --region-mode aws")
        ->capture_default_str();
    app.add_flag(
        "--complete-etag", out.config.complete_etag,
        "Name the ETag in the first reply to CompleteMultipartUpload (the RADOS Gateway leaves it empty)");
    app.add_option("--min-part-size", out.config.min_part_size, "Smallest part but the last, in bytes")
        ->capture_default_str();
    app.add_option("--max-put-size", out.config.max_put_size, "Largest body of one PUT, in bytes")
        ->capture_default_str();
    app.add_option(
           "--restore", restore,
           "off: POST ?restore answers 501 and archived objects can be read, as on the RADOS Gateway; a "
           "number: a restore takes so many seconds of the store's clock, and unrestored objects of the "
           "classes GLACIER and DEEP_ARCHIVE answer 403 InvalidObjectState")
        ->capture_default_str();
    app.add_option("--storage-class", out.config.storage_classes,
                   "Storage classes that are known; any other is refused (repeatable, replaces the defaults)")
        ->allow_extra_args(false)
        ->take_all()
        ->capture_default_str();
    app.add_option("--idle-timeout", idle, "Seconds without progress after which a connection is closed")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option(
           "--socket-buffer", out.config.socket_buffer,
           "Socket buffers in bytes; 0 leaves the kernel's automatic sizes, which grow larger than what an "
           "unprivileged program may set")
        ->capture_default_str();
    app.add_option("--threads", out.threads, "Threads that serve requests; 0: one per processor")
        ->capture_default_str();
    app.footer("\n" + std::string(control_help()));

    try {
        app.parse(argc, argv);
        for (const auto& text : users)
            add_user(out.users, user_from(text));
        if (admin_key.empty() != admin_secret.empty())
            throw CLI::ValidationError("--admin-key", "needs --admin-secret and the other way round");
        if (!admin_key.empty())
            out.users.push_back({"admin", "Admin", "", true, false, {{admin_key, admin_secret}}});
        if (restore != "off") {
            out.config.restore_seconds = parse_number(restore);
            if (!out.config.restore_seconds)
                throw CLI::ValidationError("--restore", "expects off or seconds");
        }
    } catch (const CLI::ParseError& error) {
        status = app.exit(error);
        return std::nullopt;
    }
    out.config.aws = region_mode == "aws";
    out.config.idle_timeout = std::chrono::seconds(idle);
    return out;
}

}  // namespace zorvan::devstore
