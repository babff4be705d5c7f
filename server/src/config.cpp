/*
 * Reading the configuration; see config.h.
 *
 * Each table of the file is read through a table_reader, which remembers the keys that were asked for: what
 * is left at the end is unknown and refused, so that a misspelt key is never ignored in silence.
 */
#include "config.h"

// toml++ asserts what its next lines check: a mistake in the file is to be reported by debug builds, too.
#define TOML_ASSERT(expr) static_assert(true)

#include <fmt/format.h>
#include <toml++/toml.h>
#include <zorvan_common.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include "data_address.h"
#include "text.h"

namespace zorvan::gridftp {

namespace {

namespace fs = std::filesystem;

std::string_view kind_name(toml::node_type kind) {
    switch (kind) {
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "a whole number";
        case toml::node_type::boolean:
            return "a boolean";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::table:
            return "a table";
        case toml::node_type::floating_point:
            return "a fraction";
        default:
            return "a date or time";
    }
}

class table_reader {
  public:
    table_reader(const toml::table& table, std::string name, const fs::path& file)
        : table_(table), name_(std::move(name)), file_(file) {}

    [[noreturn]] void fail(const toml::node& node, std::string_view key, std::string_view reason) const {
        throw config_error(
            fmt::format("{}:{}: {}: {}", file_.string(), node.source().begin.line, full(key), reason));
    }

    const toml::node* find(std::string_view key) {
        known_.emplace(key);
        return table_.get(key);
    }

    std::optional<std::string> text(std::string_view key) {
        const toml::node* node = find(key);
        if (node == nullptr) return std::nullopt;
        if (!node->is_string()) wrong_type(*node, key, "a string");
        return node->as_string()->get();
    }

    void read(std::string_view key, std::string& out) {
        if (auto value = text(key)) out = std::move(*value);
    }

    /** A file name: expanded, and relative to the folder of the configuration file. */
    void read_path(std::string_view key, std::string& out) {
        auto value = text(key);
        if (!value) return;
        if (!value->empty()) value = absolute(*table_.get(key), key, *value);
        out = std::move(*value);
    }

    void read(std::string_view key, bool& out) {
        const toml::node* node = find(key);
        if (node == nullptr) return;
        if (!node->is_boolean()) wrong_type(*node, key, "a boolean");
        out = node->as_boolean()->get();
    }

    std::optional<std::int64_t> number(std::string_view key, std::int64_t low, std::int64_t high) {
        const toml::node* node = find(key);
        if (node == nullptr) return std::nullopt;
        if (!node->is_integer()) wrong_type(*node, key, "a whole number");
        const std::int64_t value = node->as_integer()->get();
        if (value < low || value > high) {
            fail(*node, key, fmt::format("{} is not between {} and {}", value, low, high));
        }
        return value;
    }

    void read_seconds(std::string_view key, std::chrono::seconds& out) {
        constexpr std::int64_t a_week = 7LL * 24 * 3600;
        if (const auto value = number(key, 1, a_week)) out = std::chrono::seconds{*value};
    }

    std::optional<std::uint64_t> size(std::string_view key) {
        const toml::node* node = find(key);
        if (node == nullptr) return std::nullopt;
        if (node->is_integer()) {
            const std::int64_t value = node->as_integer()->get();
            if (value < 0) fail(*node, key, "a size cannot be negative");
            return static_cast<std::uint64_t>(value);
        }
        if (!node->is_string()) wrong_type(*node, key, "a size (a number of bytes or a text like \"64MiB\")");
        const auto value = parse_size(node->as_string()->get());
        if (!value)
            fail(*node, key, fmt::format("\"{}\" is not a size", printable(node->as_string()->get())));
        return value;
    }

    std::vector<std::string> texts(std::string_view key) {
        const toml::node* node = find(key);
        if (node == nullptr) return {};
        if (!node->is_array()) wrong_type(*node, key, "an array of strings");
        std::vector<std::string> values;
        for (const toml::node& element : *node->as_array()) {
            if (!element.is_string()) wrong_type(element, key, "an array of strings");
            values.push_back(element.as_string()->get());
        }
        return values;
    }

    const toml::table* table(std::string_view key) {
        const toml::node* node = find(key);
        if (node == nullptr) return nullptr;
        if (!node->is_table()) wrong_type(*node, key, "a table");
        return node->as_table();
    }

    /** Refuse the keys that nobody asked for. */
    void end() const {
        for (const auto& [key, node] : table_) {
            if (known_.contains(key.str())) continue;
            throw config_error(fmt::format("{}:{}: {}: unknown key", file_.string(), key.source().begin.line,
                                           full(key.str())));
        }
    }

    [[noreturn]] void wrong_type(const toml::node& node, std::string_view key,
                                 std::string_view wanted) const {
        fail(node, key, fmt::format("must be {}, not {}", wanted, kind_name(node.type())));
    }

  private:
    std::string full(std::string_view key) const {
        // A quoted key of TOML may hold anything, a line end included.
        return name_.empty() ? printable(key) : fmt::format("{}.{}", name_, printable(key));
    }

    std::string absolute(const toml::node& node, std::string_view key, const std::string& value) const {
        try {
            const fs::path path = expand_path(value);
            return path.is_absolute() ? path.string() : (fs::absolute(file_).parent_path() / path).string();
        } catch (const config_error& error) {
            fail(node, key, error.what());
        }
    }

    const toml::table& table_;
    std::string name_;
    const fs::path& file_;
    std::set<std::string, std::less<>> known_;
};

void read_passive_ports(table_reader& reader, server_config& config) {
    const auto value = reader.text("passive_ports");
    if (!value || value->empty()) return;
    const std::string_view range = *value;
    const std::size_t dash = range.find('-');
    const auto first = parse_decimal(trim(range.substr(0, dash)));
    const auto last = dash == std::string_view::npos ? first : parse_decimal(trim(range.substr(dash + 1)));
    if (!first || !last || *first < 1024 || *last > 65535 || *first > *last) {
        reader.fail(*reader.find("passive_ports"), "passive_ports",
                    fmt::format("\"{}\" is not a range of ports like \"50000-51000\" between 1024 and 65535",
                                printable(range)));
    }
    config.passive_first = static_cast<std::uint16_t>(*first);
    config.passive_last = static_cast<std::uint16_t>(*last);
}

void read_server(const toml::table& table, const fs::path& file, server_config& config) {
    table_reader reader(table, "server", file);
    if (const toml::node* node = reader.find("listen")) {
        config.listen.clear();
        for (const std::string& text : reader.texts("listen")) {
            const auto address = parse_listen_address(text);
            if (!address) {
                reader.fail(
                    *node, "listen",
                    fmt::format("\"{}\" is not of the form \"ADDRESS:PORT\" or \"[ADDRESS]:PORT\" with a "
                                "numeric address",
                                printable(text)));
            }
            config.listen.push_back(*address);
        }
        if (config.listen.empty()) reader.fail(*node, "listen", "at least one address is needed");
    }
    reader.read_path("port_file", config.port_file);
    if (const auto value = reader.number("threads", 0, 1024)) config.threads = static_cast<unsigned>(*value);
    reader.read("banner", config.banner);
    if (const auto value = reader.text("public_address"); value && !value->empty()) {
        const auto address = parse_address(*value);
        if (!address || !address->is_v4()) {
            reader.fail(*reader.find("public_address"), "public_address",
                        fmt::format("\"{}\" is not a numeric IPv4 address", printable(*value)));
        }
        config.public_address_v4 = address;
    }
    read_passive_ports(reader, config);
    if (const auto value = reader.size("block_size")) {
        constexpr std::uint64_t smallest = 1024;
        constexpr std::uint64_t largest = 1ULL << 30U;
        if (*value < smallest || *value > largest) {
            reader.fail(*reader.find("block_size"), "block_size", "must be between 1 KiB and 1 GiB");
        }
        config.block_size = static_cast<std::size_t>(*value);
    }
    if (const auto value = reader.number("concurrency", 1, 1024))
        config.concurrency = static_cast<int>(*value);
    if (const auto value = reader.number("update_interval", 0, 86400)) {
        config.update_interval = static_cast<int>(*value);
    }
    if (const auto value = reader.number("checksums_per_user", 1, 10000)) {
        config.checksums_per_user = static_cast<std::size_t>(*value);
    }
    if (const auto value = reader.number("data_connections", 1, 1024)) {
        config.data_connections = static_cast<std::size_t>(*value);
    }
    reader.end();
}

void read_backend(const toml::table& table, const fs::path& file, server_config& config) {
    table_reader reader(table, "backend", file);
    reader.read("name", config.backend_name);
    const bool plain = std::all_of(config.backend_name.begin(), config.backend_name.end(), [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '_';
    });
    if (config.backend_name.empty() || !plain) {
        reader.fail(*reader.find("name"), "name", "must be a word of letters, digits and underscores");
    }
    reader.read_path("module_dir", config.module_dir);
    if (reader.find("options") != nullptr) {
        std::string options;
        reader.read_path("options", options);
        if (!options.empty()) config.backend_options = options;
    }
    reader.read("root_holds_only_directories", config.root_holds_only_directories);
    reader.end();
}

void read_spool(const toml::table& table, const fs::path& file, server_config& config) {
    table_reader reader(table, "spool", file);
    reader.read("enabled", config.spool_enabled);
    reader.read_path("directory", config.spool_directory);
    if (const auto value = reader.size("memory")) config.spool_memory = *value;
    if (const auto value = reader.size("limit")) config.spool_limit = *value;
    reader.end();
}

void read_log(const toml::table& table, const fs::path& file, server_config& config) {
    table_reader reader(table, "log", file);
    reader.read("level", config.log_level);
    if (!is_log_level(config.log_level)) {
        reader.fail(*reader.find("level"), "level",
                    "must be \"error\", \"warning\", \"transfer\", \"info\" or \"debug\"");
    }
    reader.read_path("file", config.log_file);
    reader.end();
}

void read_timeouts(const toml::table& table, const fs::path& file, server_config& config) {
    table_reader reader(table, "timeouts", file);
    reader.read_seconds("login", config.login);
    reader.read_seconds("idle", config.idle);
    reader.read_seconds("data_connect", config.data_connect);
    reader.read_seconds("data_stall", config.data_stall);
    reader.read_seconds("receive_wait", config.receive_wait);
    reader.read_seconds("shutdown", config.shutdown);
    if (const auto value = reader.number("held_up_ms", 1, 60000)) {
        config.held_up = std::chrono::milliseconds{*value};
    }
    reader.end();
}

void read_collections(table_reader& root, const fs::path& file, server_config& config) {
    const toml::node* node = root.find("collection");
    if (node == nullptr) return;
    if (!node->is_array()) root.wrong_type(*node, "collection", "an array of tables ([[collection]])");
    std::set<std::string> names;
    std::set<std::string> hosts;
    bool default_seen = false;
    for (const toml::node& element : *node->as_array()) {
        if (!element.is_table())
            root.wrong_type(element, "collection", "an array of tables ([[collection]])");
        table_reader reader(*element.as_table(), "collection", file);
        collection_config collection;
        reader.read("name", collection.name);
        if (collection.name.empty()) reader.fail(element, "name", "every collection needs a name");
        if (!names.insert(collection.name).second) {
            reader.fail(element, "name", fmt::format("\"{}\" is given twice", printable(collection.name)));
        }
        for (const std::string& host : reader.texts("hosts")) {
            collection.hosts.push_back(ascii_lower(host));
            if (!hosts.insert(collection.hosts.back()).second) {
                reader.fail(*reader.find("hosts"), "hosts",
                            fmt::format("\"{}\" belongs to two collections", printable(host)));
            }
        }
        reader.read_path("policy", collection.policy);
        reader.read("default", collection.is_default);
        if (collection.is_default && default_seen) {
            reader.fail(*reader.find("default"), "default", "only one collection can be the default");
        }
        default_seen = default_seen || collection.is_default;
        reader.end();
        config.collections.push_back(std::move(collection));
    }
}

/** Take a string of one line off the front. @return false when there is none */
bool take_string(std::string_view& line) {
    if (line.empty() || (line[0] != '"' && line[0] != '\'')) return false;
    const char quote = line[0];
    for (std::size_t at = 1; at < line.size(); ++at) {
        if (line[at] == '\\' && quote == '"') {
            ++at;
        } else if (line[at] == quote) {
            line.remove_prefix(at + 1);
            return line.empty() || line[0] != quote;  // three quotes begin a string of several lines
        }
    }
    return false;
}

/** Is this a comment, or a key of plain letters with one string or an array of strings on the same line? */
bool holds_strings_alone(std::string_view line) {
    constexpr std::string_view bare = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    line = trim(line);
    if (line.empty() || line[0] == '#') return true;
    const std::size_t key = line.find_first_not_of(bare);
    if (key == 0 || key == std::string_view::npos) return false;
    line = trim(line.substr(key));
    if (!line.starts_with('=')) return false;
    line = trim(line.substr(1));
    const bool array = line.starts_with('[');
    if (array) line = trim(line.substr(1));
    if (!take_string(line)) return false;
    line = trim(line);
    while (array && line.starts_with(',')) {
        line = trim(line.substr(1));
        if (!take_string(line)) return false;
        line = trim(line);
    }
    if (array) {
        if (!line.starts_with(']')) return false;
        line = trim(line.substr(1));
    }
    return line.empty() || line[0] == '#';
}

/**
 * Find a letter beyond ASCII where this file needs none. toml++ 3.3 has undefined behaviour at some of them
 * when it looks for Unicode blanks, so they reach it only where it looks for none: in comments and in strings
 * of one line.
 * @return the number of its line, counted from 1; 0 if there is none
 */
std::size_t line_of_stray_letter(std::string_view text) {
    constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
    if (text.starts_with(byte_order_mark)) text.remove_prefix(byte_order_mark.size());
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        const bool ascii = std::all_of(line.begin(), line.end(),
                                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
        if (!ascii && !holds_strings_alone(line)) return number;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return 0;
}

}  // namespace

std::string expand_path(const std::string& text) {
    char* expanded = nullptr;
    const zorvan_result_t result = zorvan_eval_path(text.c_str(), &expanded);
    if (result == ZORVAN_SUCCESS && expanded != nullptr) {
        std::string path = expanded;
        std::free(expanded);
        return path;
    }
    zorvan_error_t* error = zorvan_error_get(result);
    char* friendly = zorvan_error_print_friendly(error);
    std::string reason = friendly == nullptr ? "cannot be expanded" : friendly;
    std::free(friendly);
    zorvan_error_free(error);
    throw config_error(single_line(reason));
}

std::optional<std::uint64_t> parse_size(std::string_view text) {
    text = trim(text);
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = parse_decimal(text.substr(0, digits));
    if (!number) return std::nullopt;
    const std::string unit = ascii_lower(trim(text.substr(digits)));
    unsigned shift = 0;
    if (unit == "kib") {
        shift = 10;
    } else if (unit == "mib") {
        shift = 20;
    } else if (unit == "gib") {
        shift = 30;
    } else if (unit == "tib") {
        shift = 40;
    } else if (!unit.empty()) {
        return std::nullopt;
    }
    if (*number > (std::numeric_limits<std::int64_t>::max() >> shift)) return std::nullopt;
    return static_cast<std::uint64_t>(*number) << shift;
}

std::optional<listen_address> parse_listen_address(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) host = host.substr(1, host.size() - 2);
    const auto address = parse_address(host);
    const auto port = parse_decimal(text.substr(colon + 1));
    if (!address || !port || *port > 65535 || address->is_v6() != bracketed) return std::nullopt;
    return listen_address{*address, static_cast<std::uint16_t>(*port)};
}

bool is_log_level(std::string_view text) {
    return text == "error" || text == "warning" || text == "transfer" || text == "info" || text == "debug";
}

server_config parse_config(std::string_view text, const fs::path& file) {
    if (const std::size_t line = line_of_stray_letter(text)) {
        throw config_error(
            fmt::format("{}:{}: letters beyond ASCII may stand only in comments and in strings of one line",
                        file.string(), line));
    }
    toml::table root;
    try {
        root = toml::parse(text, file.string());
    } catch (const toml::parse_error& error) {
        throw config_error(fmt::format("{}:{}: {}", file.string(), error.source().begin.line,
                                       single_line(error.description())));
    }
    server_config config;
    config.listen = {listen_address{boost::asio::ip::make_address("127.0.0.1"), 2811}};

    table_reader reader(root, "", file);
    if (const auto* table = reader.table("server")) read_server(*table, file, config);
    if (const auto* table = reader.table("backend")) read_backend(*table, file, config);
    if (const auto* table = reader.table("users")) {
        table_reader users(*table, "users", file);
        users.read_path("file", config.users_file);
        users.end();
    }
    if (const auto* table = reader.table("spool")) read_spool(*table, file, config);
    if (const auto* table = reader.table("log")) read_log(*table, file, config);
    if (const auto* table = reader.table("timeouts")) read_timeouts(*table, file, config);
    read_collections(reader, file, config);
    reader.end();

    if (config.users_file.empty()) {
        throw config_error(fmt::format("{}: users.file: is missing: nobody could log in", file.string()));
    }
    if (config.module_dir.empty()) {
        try {
            config.module_dir = expand_path("${libdir}/zorvan");
        } catch (const config_error& error) {
            throw config_error(fmt::format("{}: backend.module_dir: {}", file.string(), error.what()));
        }
    }
    return config;
}

server_config load_config(const fs::path& file) {
    std::error_code status;
    if (fs::is_directory(file, status)) throw config_error(fmt::format("{}: is a directory", file.string()));
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw config_error(fmt::format("{}: {}", file.string(), std::strerror(errno)));
    std::ostringstream text;
    text << stream.rdbuf();
    if (stream.bad() || text.fail()) throw config_error(fmt::format("{}: cannot be read", file.string()));
    return parse_config(text.str(), file);
}

}  // namespace zorvan::gridftp
