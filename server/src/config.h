/*
 * The server's configuration: what the TOML file holds, checked while it is read.
 *
 * load_config() either gives a complete record or throws a config_error whose text is one line with file,
 * line and key. It opens nothing but the file itself; what the file names (users, policies, module) is opened
 * by those who use it. Plain values, read-only once the server runs, so that any thread may read them.
 */
#pragma once

#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zorvan::gridftp {

/** A configuration that cannot be used. what() is one line: "FILE:LINE: KEY: reason" as far as these are
 * known. */
class config_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/** An address to listen on. */
struct listen_address {
    boost::asio::ip::address address;
    std::uint16_t port = 0; /**< 0 = any free port */
};

/** [[collection]]: a storage policy and the names under which clients ask for it. */
struct collection_config {
    std::string name;
    std::vector<std::string> hosts; /**< host names for HOST, lower case */
    std::string policy;             /**< path of the JSON policy file; "" = a collection without a policy */
    bool is_default = false;        /**< taken by sessions that name no host */
};

/** Everything in the file, with the defaults. */
struct server_config {
    // [server]
    std::vector<listen_address> listen;
    std::string port_file; /**< where to write the bound addresses; "" = nowhere */
    unsigned threads = 0;  /**< network threads; 0 = one per processor */
    std::string banner = "Storage gateway ready.";
    std::optional<boost::asio::ip::address>
        public_address_v4;           /**< shown by PASV instead of the local address */
    std::uint16_t passive_first = 0; /**< 0 = any port */
    std::uint16_t passive_last = 0;
    std::size_t block_size = 262144;    /**< bytes */
    int concurrency = 4;                /**< blocks in flight per transfer */
    int update_interval = 5;            /**< seconds between progress replies; 0 = none */
    std::size_t checksums_per_user = 8; /**< checksums that run for one user at a time, over all sessions */
    std::size_t data_connections = 32;  /**< of one transfer in extended mode */

    // [backend]
    std::string backend_name = "ceph";
    std::string module_dir;                     /**< folder of the module */
    std::optional<std::string> backend_options; /**< handed to the back end as it is */
    bool root_holds_only_directories =
        true; /**< files directly below "/" are refused without asking the store */

    // [users]
    std::string users_file;

    // [spool]
    bool spool_enabled = true;
    std::string spool_directory = "/var/tmp";
    std::uint64_t spool_memory = 16ULL << 20U; /**< bytes, for the whole process */
    std::uint64_t spool_limit = 16ULL << 30U;  /**< bytes, for the whole process */

    // [log]
    std::string log_level = "info"; /**< error, warning, transfer, info, debug */
    std::string log_file;           /**< "" = standard error */

    // [timeouts], in seconds
    std::chrono::seconds login{60};
    std::chrono::seconds idle{600};
    std::chrono::seconds data_connect{60};
    std::chrono::seconds data_stall{300};
    std::chrono::seconds receive_wait{60};
    std::chrono::seconds shutdown{60};
    std::chrono::milliseconds held_up{200}; /**< extended mode: blocks far ahead wait so long for others */

    std::vector<collection_config> collections;
};

/**
 * Read and check a configuration file. `${...}` in file names is expanded and relative ones are taken from
 * the folder of the configuration file.
 * @throws config_error
 */
server_config load_config(const std::filesystem::path& file);

/** The same from a text. @param file  its name, for messages and relative names */
server_config parse_config(std::string_view text, const std::filesystem::path& file);

/** A size: a number of bytes with an optional unit KiB, MiB, GiB or TiB ("64MiB", "1 GiB"). Nothing for other
 * texts and for sizes of 2^63 bytes and more. */
std::optional<std::uint64_t> parse_size(std::string_view text);

/** "ADDRESS:PORT" or "[ADDRESS]:PORT" with a numeric address; nothing for anything else. */
std::optional<listen_address> parse_listen_address(std::string_view text);

/** Whether a text is one of the log levels. */
bool is_log_level(std::string_view text);

/** Expand `${...}` in a text. @throws config_error with the reason alone */
std::string expand_path(const std::string& text);

}  // namespace zorvan::gridftp
