// The surroundings of every test of the storage back end: activation, log-in, the debug log, closing checks.
//
// A test activates the back end with a configuration text, logs in, makes operations and runs entries of the
// interface table that the back end put into the registry. At the end of every test the error table is empty
// and no worker thread runs.
#pragma once

#include <gtest/gtest.h>
#include <zorvan_common.h>
#include <zorvan_gridftp_server.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "call_trace.h"
#include "error_view.h"
#include "faults.h"
#include "scripted_host.h"
#include "scripted_s3.h"
#include "zorvan_s3.h"

namespace module_test {

/// A configuration with which log-in works.
extern const char* const standard_config;

/// The settings that a process begins with.
struct Defaults {
    bool no_texts, https, virtual_host, verify_peer;
    int max_retries, retry_delay_ms, restore_days;
    long long part_size;
};
Defaults defaults_of_the_process();

/// One statement of the debug log.
struct LogLine {
    std::string level;
    std::string function;
    std::string message;  ///< without the final newline
};

class ModuleTest : public ::testing::Test {
  protected:
    ModuleTest();
    ~ModuleTest() override;
    void SetUp() override;
    void TearDown() override;

    /// Make a file of this test's own; @return its path.
    std::string write_file(const std::string& name, const std::string& content);
    std::string path_of(const std::string& name) const { return folder_ + "/" + name; }

    /// Value of ZORVAN_S3_DEBUG for the next activation; %s stands for the log file. None = unset.
    std::optional<std::string> debug_value = "ALL,%s";

    /// Activate with that configuration text. @return the result, owned by the test
    zorvan_result_t try_activate(const std::string& config);
    /// The same; it must succeed.
    void activate(const std::string& config = standard_config);
    void deactivate();

    /// Log a user in, by the entry; the session is destroyed at the end of the test.
    zorvan_i_s3_handle_t* login(const std::string& user = "alice",
                                const std::optional<std::string>& policy = std::nullopt);
    void destroy_session();
    /// Start a session for a user and wait for its end.
    void start(Operation& op, const std::string& user = "alice");

    /// Call entries of the interface table; the records live until the end of the test.
    void call_stat(Operation& op, const std::string& path, bool file_only);
    void call_send(Operation& op, const std::string& path);
    void call_recv(Operation& op, const std::string& path, int64_t alloc_size, bool truncate = true,
                   const std::optional<std::string>& checksum = std::nullopt,
                   const std::optional<std::string>& algorithm = std::nullopt);
    /// A multipart upload, without the choice of the entry: parts may be smaller than it allows.
    void call_recv_multipart(Operation& op, const std::string& path, int64_t alloc_size, uint64_t total_size,
                             uint64_t part_size, bool resume,
                             const std::optional<std::string>& checksum = std::nullopt,
                             const std::optional<std::string>& algorithm = std::nullopt);
    /// A command; absent texts are null.
    void call_command(Operation& op, int code, const std::optional<std::string>& path,
                      const std::optional<std::string>& from = std::nullopt,
                      const std::optional<std::string>& algorithm = std::nullopt, int64_t offset = 0,
                      int64_t length = -1);
    /// Release the records of entry calls now.
    void release_records();

    /// All that the debug log holds. No thread of the back end may be running for line-wise reading.
    std::string log_text();
    std::vector<LogLine> log_lines();
    /// Whether there is such a statement.
    bool logged(std::string_view level, std::string_view message);
    bool logged(std::string_view level, std::string_view function, std::string_view message);
    /// Whether these characters stand anywhere in the log.
    bool log_holds(std::string_view part);
    /// Whether a message begins like this; also when several threads log at once.
    bool log_says(std::string_view message);
    /// That every handler of a request told its status at its end. No two threads have logged at once.
    void expect_handlers_told();
    /// Host log lines of that level and text.
    static int host_logged(int level, const std::string& text);

    const zorvan_gridftp_server_dsi_t* iface = nullptr;
    zorvan_i_s3_handle_t* session = nullptr;

  private:
    struct Records;
    const zorvan_gridftp_server_transfer_info_t* transfer_record(const std::string& path, int64_t alloc_size,
                                                                 bool truncate,
                                                                 const std::optional<std::string>& checksum,
                                                                 const std::optional<std::string>& algorithm);
    std::string folder_;
    std::string log_path_;
    bool active_ = false;
    zorvan_extension_handle_t registration_ = nullptr;
    std::unique_ptr<Records> records_;
    size_t errors_before_ = 0;
};

/// The value that the stat records carry for a text.
uint32_t hash_of(const std::string& text);
/// A pointer as the log prints it.
std::string pointer_text(const void* pointer);
/// A result as the log prints it.
std::string result_text(zorvan_result_t result);

/// Expectations about errors; each names what it found.
void expect_generic(const ErrorView& error, const std::string& source_file, const std::string& text);
void expect_system(const ErrorView& error, const std::string& call, int errno_value);
void expect_ftp(const ErrorView& error, int code, const std::string& word, const Text& text);
/// An S3 error of the base module with exactly this text.
void expect_s3(const ErrorView& error, const std::string& text);

/// "S3 Error accessing ..." as the mapping words it.
std::string s3_text(const std::string& resource, S3Status status, const Text& message = std::nullopt,
                    const std::string& further = "");

}  // namespace module_test
