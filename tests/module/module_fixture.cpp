// The surroundings of the back end's tests, see module_fixture.h.
#include "module_fixture.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace module_test {

const char* const standard_config =
    "host_name = rgw.example.org:8080\n"
    "use_https = false\n"
    "ceph_rgw_admin_access_key_id = ADMINKEY\n"
    "ceph_rgw_admin_secret_access_key = adminsecret\n";

struct ModuleTest::Records {
    template <typename Info>
    struct Record {
        std::string path, checksum, algorithm;
        Info info{};
    };
    std::deque<std::unique_ptr<Record<zorvan_gridftp_server_stat_info_t>>> stats;
    std::deque<std::unique_ptr<Record<zorvan_gridftp_server_transfer_info_t>>> transfers;
    std::deque<std::unique_ptr<Record<zorvan_gridftp_server_session_info_t>>> sessions;
    std::deque<std::unique_ptr<Record<zorvan_gridftp_server_command_info_t>>> commands;
};

namespace {

void set_back(char*& text) {
    std::free(text);
    text = nullptr;
}

Defaults read_settings() {
    return {zorvan_i_s3_default_hostname == nullptr && zorvan_i_s3_default_region == nullptr &&
                zorvan_i_s3_mime_type_file == nullptr && zorvan_i_s3_restore_tier == nullptr &&
                zorvan_i_s3_rg_admin_bucket == nullptr && zorvan_i_s3_rg_admin_access_key_id == nullptr &&
                zorvan_i_s3_rg_admin_secret_access_key == nullptr,
            zorvan_i_s3_https,
            zorvan_i_s3_use_virtual_host,
            zorvan_i_s3_verify_peer,
            zorvan_i_s3_max_retries,
            zorvan_i_s3_retry_delay_ms,
            zorvan_i_s3_restore_days,
            zorvan_i_s3_part_size};
}

// Read before main(): every test sets the settings back.
const Defaults first_settings = read_settings();

// Settings as they stand before the first activation of a process.
void reset_settings() {
    set_back(zorvan_i_s3_default_hostname);
    set_back(zorvan_i_s3_default_region);
    set_back(zorvan_i_s3_mime_type_file);
    set_back(zorvan_i_s3_restore_tier);
    set_back(zorvan_i_s3_rg_admin_bucket);
    set_back(zorvan_i_s3_rg_admin_access_key_id);
    set_back(zorvan_i_s3_rg_admin_secret_access_key);
    zorvan_i_s3_https = true;
    zorvan_i_s3_use_virtual_host = false;
    zorvan_i_s3_verify_peer = true;
    zorvan_i_s3_max_retries = 1;
    zorvan_i_s3_retry_delay_ms = 100;
    zorvan_i_s3_part_size = 0;
    zorvan_i_s3_restore_days = 4;
}

}  // namespace

Defaults defaults_of_the_process() {
    return first_settings;
}

ModuleTest::ModuleTest() : records_(std::make_unique<Records>()) {}
ModuleTest::~ModuleTest() = default;

void ModuleTest::SetUp() {
    folder_ = (std::filesystem::temp_directory_path() / "zorvan-module-XXXXXX").string();
    ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    log_path_ = path_of("debug.log");
    trace_reset();
    faults_reset();
    host_reset();
    s3_reset();
    reset_settings();
    unsetenv("ZORVAN_S3_DEBUG");
    errors_before_ = zorvan_error_table_count();
}

void ModuleTest::TearDown() {
    faults_reset();
    EXPECT_EQ(zorvan_thread_wait_all(20000), 1) << "a worker thread is still running";
    EXPECT_EQ(zorvan_thread_count(), 0u);
    destroy_session();
    if (active_) deactivate();
    EXPECT_EQ(zorvan_error_table_count(), errors_before_) << "an error object was not released";
    reset_settings();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string ModuleTest::write_file(const std::string& name, const std::string& content) {
    const auto path = path_of(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

zorvan_result_t ModuleTest::try_activate(const std::string& config) {
    host_set_config_string(write_file("ceph.conf", config));
    if (debug_value) {
        auto value = *debug_value;
        if (const auto at = value.find("%s"); at != std::string::npos) value.replace(at, 2, log_path_);
        setenv("ZORVAN_S3_DEBUG", value.c_str(), 1);
    }
    const InModule inside;
    return zorvan_module_activate(&zorvan_gridftp_server_ceph_module);
}

void ModuleTest::activate(const std::string& config) {
    const auto result = try_activate(config);
    ASSERT_EQ(result, ZORVAN_SUCCESS) << view_result(result).friendly;
    active_ = true;
    iface = static_cast<const zorvan_gridftp_server_dsi_t*>(
        zorvan_extension_registry_lookup(&registration_, &zorvan_i_gfs_dsi_registry, "ceph"));
    ASSERT_NE(iface, nullptr);
}

void ModuleTest::deactivate() {
    zorvan_extension_release(registration_);
    registration_ = nullptr;
    iface = nullptr;
    active_ = false;
    EXPECT_EQ(zorvan_module_deactivate(&zorvan_gridftp_server_ceph_module), ZORVAN_SUCCESS);
}

void ModuleTest::start(Operation& op, const std::string& user) {
    auto record = std::make_unique<Records::Record<zorvan_gridftp_server_session_info_t>>();
    record->path = user;
    record->info = {record->path.c_str(), "192.0.2.7", "", nullptr};
    const auto* info = &record->info;
    records_->sessions.push_back(std::move(record));
    const InModule inside;
    iface->session_start(&op, info);
}

zorvan_i_s3_handle_t* ModuleTest::login(const std::string& user, const std::optional<std::string>& policy) {
    s3_user(user, {{user, "AK-" + user, "secret-" + user}});
    Operation op;
    op.config_data = policy;
    start(op, user);
    EXPECT_TRUE(op.wait_finished());
    EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS) << op.finish().error.friendly;
    session = static_cast<zorvan_i_s3_handle_t*>(op.finish().session_handle);
    EXPECT_NE(session, nullptr);
    op.close();
    EXPECT_EQ(zorvan_thread_wait_all(20000), 1);
    trace_reset();
    return session;
}

void ModuleTest::destroy_session() {
    if (session == nullptr) return;
    iface->session_destroy(session);
    session = nullptr;
}

void ModuleTest::call_stat(Operation& op, const std::string& path, bool file_only) {
    auto record = std::make_unique<Records::Record<zorvan_gridftp_server_stat_info_t>>();
    record->path = path;
    record->info = {record->path.c_str(), file_only ? 1 : 0};
    const auto* info = &record->info;
    records_->stats.push_back(std::move(record));
    const InModule inside;
    iface->stat(&op, info, session);
}

void ModuleTest::call_send(Operation& op, const std::string& path) {
    auto record = std::make_unique<Records::Record<zorvan_gridftp_server_transfer_info_t>>();
    record->path = path;
    record->info = {record->path.c_str(), 0, 0, nullptr, nullptr, 1};
    const auto* info = &record->info;
    records_->transfers.push_back(std::move(record));
    const InModule inside;
    iface->send(&op, info, session);
}

const zorvan_gridftp_server_transfer_info_t* ModuleTest::transfer_record(
    const std::string& path, int64_t alloc_size, bool truncate, const std::optional<std::string>& checksum,
    const std::optional<std::string>& algorithm) {
    auto record = std::make_unique<Records::Record<zorvan_gridftp_server_transfer_info_t>>();
    record->path = path;
    record->checksum = checksum.value_or("");
    record->algorithm = algorithm.value_or("");
    record->info = {record->path.c_str(),
                    truncate ? 1 : 0,
                    alloc_size,
                    checksum ? record->checksum.c_str() : nullptr,
                    algorithm ? record->algorithm.c_str() : nullptr,
                    1};
    records_->transfers.push_back(std::move(record));
    return &records_->transfers.back()->info;
}

void ModuleTest::call_recv(Operation& op, const std::string& path, int64_t alloc_size, bool truncate,
                           const std::optional<std::string>& checksum,
                           const std::optional<std::string>& algorithm) {
    const auto* info = transfer_record(path, alloc_size, truncate, checksum, algorithm);
    const InModule inside;
    iface->recv(&op, info, session);
}

void ModuleTest::call_recv_multipart(Operation& op, const std::string& path, int64_t alloc_size,
                                     uint64_t total_size, uint64_t part_size, bool resume,
                                     const std::optional<std::string>& checksum,
                                     const std::optional<std::string>& algorithm) {
    const auto* info = transfer_record(path, alloc_size, !resume, checksum, algorithm);
    const InModule inside;
    static_cast<void>(zorvan_i_s3_recv_multipart(&op, info, total_size, part_size, resume, session));
}

void ModuleTest::call_command(Operation& op, int code, const std::optional<std::string>& path,
                              const std::optional<std::string>& from,
                              const std::optional<std::string>& algorithm, int64_t offset, int64_t length) {
    auto record = std::make_unique<Records::Record<zorvan_gridftp_server_command_info_t>>();
    record->path = path.value_or("");
    record->checksum = from.value_or("");
    record->algorithm = algorithm.value_or("");
    record->info = {
        code,   path ? record->path.c_str() : nullptr,           offset,
        length, algorithm ? record->algorithm.c_str() : nullptr, from ? record->checksum.c_str() : nullptr};
    const auto* info = &record->info;
    records_->commands.push_back(std::move(record));
    const InModule inside;
    iface->command(&op, info, session);
}

void ModuleTest::release_records() {
    records_ = std::make_unique<Records>();
}

std::string ModuleTest::log_text() {
    if (zorvan_i_ZORVAN_S3_debug_handle.file != nullptr) std::fflush(zorvan_i_ZORVAN_S3_debug_handle.file);
    std::ostringstream text;
    text << std::ifstream(log_path_).rdbuf();
    return text.str();
}

std::vector<LogLine> ModuleTest::log_lines() {
    static const std::regex header("s3: ( *[A-Z]+): ([^:]*): (.*)");
    std::vector<LogLine> lines;
    std::istringstream text(log_text());
    for (std::string line; std::getline(text, line);) {
        std::smatch match;
        if (std::regex_match(line, match, header))
            lines.push_back(
                {match[1].str().substr(match[1].str().find_first_not_of(' ')), match[2], match[3]});
        else if (!lines.empty())
            lines.back().message += "\n" + line;
    }
    return lines;
}

bool ModuleTest::logged(std::string_view level, std::string_view message) {
    for (const auto& line : log_lines())
        if (line.level == level && line.message == message) return true;
    return false;
}

bool ModuleTest::logged(std::string_view level, std::string_view function, std::string_view message) {
    for (const auto& line : log_lines())
        if (line.level == level && line.function == function && line.message == message) return true;
    return false;
}

bool ModuleTest::log_holds(std::string_view part) {
    return log_text().find(part) != std::string::npos;
}

bool ModuleTest::log_says(std::string_view message) {
    const auto log = log_text();
    for (auto at = log.find(message); at != std::string::npos; at = log.find(message, at + 1)) {
        // It follows its header, or the line of a thread that came in between.
        if (at == 0 || log[at - 1] == '\n') return true;
        if (at >= 2 && log.compare(at - 2, 2, ": ") == 0) return true;
    }
    return false;
}

void ModuleTest::expect_handlers_told() {
    for (const auto& line : log_lines()) {
        const bool handler = line.function.ends_with("_complete") || line.function.ends_with("_properties");
        EXPECT_FALSE(handler && line.message == "exit") << line.function;
    }
}

int ModuleTest::host_logged(int level, const std::string& text) {
    int count = 0;
    for (const auto& line : host_log())
        count += line.level == level && line.text == text;
    return count;
}

uint32_t hash_of(const std::string& text) {
    return static_cast<uint32_t>(zorvan_hashtable_string_hash(text.c_str(), 0x7FFFFFFF));
}

std::string pointer_text(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

std::string result_text(zorvan_result_t result) {
    char text[32];
    std::snprintf(text, sizeof text, "%#x", result);
    return text;
}

void expect_generic(const ErrorView& error, const std::string& source_file, const std::string& text) {
    EXPECT_TRUE(error.present);
    EXPECT_EQ(error.type, 6) << error.friendly;
    EXPECT_EQ(error.source_file, source_file) << error.friendly;
    EXPECT_EQ(error.text.value_or("(none)"), text);
    EXPECT_FALSE(error.function.empty());
    EXPECT_GT(error.line, 0);
    EXPECT_EQ(error.cause, nullptr);
}

void expect_system(const ErrorView& error, const std::string& call, int errno_value) {
    EXPECT_TRUE(error.present);
    EXPECT_EQ(error.type, ZORVAN_ERROR_TYPE_SYSTEM) << error.friendly;
    EXPECT_EQ(error.text.value_or("(none)"), "System error in " + call);
    EXPECT_EQ(error.errno_value, errno_value);
}

void expect_ftp(const ErrorView& error, int code, const std::string& word, const Text& text) {
    EXPECT_TRUE(error.present);
    EXPECT_EQ(error.type, ZORVAN_ERROR_TYPE_FTP_RESPONSE) << error.friendly;
    EXPECT_EQ(error.ftp_code, code) << error.friendly;
    EXPECT_EQ(error.ftp_word, word);
    EXPECT_EQ(error.text, text);
}

void expect_s3(const ErrorView& error, const std::string& text) {
    EXPECT_TRUE(error.present);
    EXPECT_EQ(error.type, 1) << error.friendly;
    EXPECT_EQ(error.source_file, "module_base");
    EXPECT_EQ(error.function, "zorvan_i_S3Error_to_error");
    EXPECT_GT(error.line, 0);
    EXPECT_EQ(error.module, "zorvan_gridftp_server_s3_base");
    EXPECT_EQ(error.text.value_or("(none)"), text);
    EXPECT_EQ(error.ftp_code, 0);
}

std::string s3_text(const std::string& resource, S3Status status, const Text& message,
                    const std::string& further) {
    const std::string name = S3_get_status_name(status);
    return "S3 Error accessing \"" + resource + "\": " + name + ": " + message.value_or(name) + ": " +
           further;
}

}  // namespace module_test
