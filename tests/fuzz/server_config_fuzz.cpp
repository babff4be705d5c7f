// The server's configuration file: either one line that names the file and says what is wrong, or a record
// within its bounds, and the same one every time.
#include "config.h"

#include "fuzz.h"

namespace {

using namespace zorvan::gridftp;

constexpr const char* file_name = "/etc/server.toml";

void check(const server_config& config) {
    FUZZ_CHECK(!config.listen.empty());
    for (const listen_address& listen : config.listen) {
        const std::string host = listen.address.to_string();
        const std::string text =
            (listen.address.is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(listen.port);
        const auto again = parse_listen_address(text);
        FUZZ_CHECK(again && again->address == listen.address && again->port == listen.port);
    }
    FUZZ_CHECK(config.threads <= 1024);
    FUZZ_CHECK(!config.public_address_v4 || config.public_address_v4->is_v4());
    FUZZ_CHECK((config.passive_first == 0) == (config.passive_last == 0));
    FUZZ_CHECK(config.passive_first == 0 || config.passive_first >= 1024);
    FUZZ_CHECK(config.passive_first <= config.passive_last);
    FUZZ_CHECK(config.block_size >= 1024 && config.block_size <= 1U << 30U);
    FUZZ_CHECK(config.concurrency >= 1 && config.concurrency <= 1024);
    FUZZ_CHECK(config.update_interval >= 0);
    FUZZ_CHECK(!config.backend_name.empty() && config.backend_name.find('/') == std::string::npos);
    FUZZ_CHECK(!config.users_file.empty());
    FUZZ_CHECK(is_log_level(config.log_level));
    for (const std::string* path : {&config.users_file, &config.module_dir})
        FUZZ_CHECK(path->starts_with('/') && path->find("${") == std::string::npos);
    for (const auto time : {config.login, config.idle, config.data_connect, config.data_stall,
                            config.receive_wait, config.shutdown})
        FUZZ_CHECK(time.count() >= 1);
    int defaults = 0;
    for (const collection_config& collection : config.collections) {
        FUZZ_CHECK(!collection.name.empty());
        defaults += collection.is_default ? 1 : 0;
    }
    FUZZ_CHECK(defaults <= 1);
}

/// @return the message of a refusal, "" for a good file
std::string parse(std::string_view text) {
    try {
        check(parse_config(text, file_name));
        return {};
    } catch (const config_error& error) {
        return error.what();
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    const std::string message = parse(text);
    FUZZ_CHECK(!fuzz::breaks_a_line(message));
    FUZZ_CHECK(message.empty() || message.starts_with(file_name));
    FUZZ_CHECK(parse(text) == message);
    if (const auto bytes = parse_size(text)) {
        FUZZ_CHECK(*bytes <= static_cast<std::uint64_t>(INT64_MAX));
        FUZZ_CHECK(parse_size(std::to_string(*bytes)) == bytes);
    }
    return 0;
}
