// The configuration file and the collection storage policy.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>

#include "config_keys.h"
#include "module_fixture.h"

using namespace module_test;

namespace {

class ConfigParse : public ModuleTest {
  protected:
    // Activate with a configuration that must be refused; @return the error.
    ErrorView refused(const std::string& config) {
        const auto result = try_activate(config);
        EXPECT_NE(result, ZORVAN_SUCCESS);
        const auto view = view_result(result);
        release_result(result);
        zorvan_extension_handle_t handle = nullptr;
        EXPECT_EQ(zorvan_extension_registry_lookup(&handle, &zorvan_i_gfs_dsi_registry, "ceph"), nullptr);
        zorvan_extension_release(handle);
        return view;
    }
    void expect_refused(const std::string& config, const std::string& text_with_path) {
        auto text = text_with_path;
        if (const auto at = text.find("PATH"); at != std::string::npos)
            text.replace(at, 4, path_of("ceph.conf"));
        expect_generic(refused(config), "config_parse", text);
    }
    void expect_bool_refused(const std::string& value) {
        expect_refused(
            "use_https = " + value + "\n",
            "Error parsing PATH:1: unexpected value for boolean attribute use_https: \"" + value + "\"\n");
    }
    void expect_int_refused(const std::string& value) {
        expect_refused(
            "max_retries = " + value + "\n",
            "Error parsing PATH:1: unexpected value for integer attribute max_retries: \"" + value + "\"\n");
    }
    void expect_long_refused(const std::string& value) {
        expect_refused(
            "part_size = " + value + "\n",
            "Error parsing PATH:1: unexpected value for long long attribute part_size: \"" + value + "\"\n");
    }
};

TEST_F(ConfigParse, DefaultsStandWhenTheFileIsEmpty) {
    activate("");
    EXPECT_EQ(zorvan_i_s3_default_hostname, nullptr);
    EXPECT_EQ(zorvan_i_s3_default_region, nullptr);
    EXPECT_EQ(zorvan_i_s3_mime_type_file, nullptr);
    EXPECT_TRUE(zorvan_i_s3_https);
    EXPECT_FALSE(zorvan_i_s3_use_virtual_host);
    EXPECT_TRUE(zorvan_i_s3_verify_peer);
    EXPECT_EQ(zorvan_i_s3_max_retries, 1);
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 100);
    EXPECT_EQ(zorvan_i_s3_part_size, 0);
    EXPECT_EQ(zorvan_i_s3_restore_days, 4);
    EXPECT_EQ(zorvan_i_s3_restore_tier, nullptr);
    EXPECT_EQ(zorvan_i_s3_rg_admin_bucket, nullptr);
    EXPECT_EQ(zorvan_i_s3_rg_admin_access_key_id, nullptr);
    EXPECT_EQ(zorvan_i_s3_rg_admin_secret_access_key, nullptr);
}

TEST_F(ConfigParse, ProcessBeginsWithTheDefaults) {
    const auto defaults = defaults_of_the_process();
    EXPECT_TRUE(defaults.no_texts);
    EXPECT_TRUE(defaults.https);
    EXPECT_FALSE(defaults.virtual_host);
    EXPECT_TRUE(defaults.verify_peer);
    EXPECT_EQ(defaults.max_retries, 1);
    EXPECT_EQ(defaults.retry_delay_ms, 100);
    EXPECT_EQ(defaults.part_size, 0);
    EXPECT_EQ(defaults.restore_days, 4);
}

TEST_F(ConfigParse, LargestNumbersAreAccepted) {
    activate("max_retries = 2147483647\nretry_delay = 0\npart_size = 9223372036854775807\n");
    EXPECT_EQ(zorvan_i_s3_max_retries, 2147483647);
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 0);
    EXPECT_EQ(zorvan_i_s3_part_size, 9223372036854775807);
}

TEST_F(ConfigParse, IntegerBeyond32BitsIsRefused) {
    expect_int_refused("2147483648");
}

TEST_F(ConfigParse, ReadingIsTracedOnceTheLogIsOpen) {
    activate("host_name = h # a comment\n");
    ASSERT_EQ(zorvan_i_s3_config_parse(), ZORVAN_SUCCESS);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_config_parse", "parsing config file " + path_of("ceph.conf")));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_config_parse", "parsing line [1]: host_name = h # a comment\n"))
        << "the line is told with its own end: " << log_text();
}

TEST_F(ConfigParse, EveryKeyOfBothTablesIsStored) {
    const auto types = write_file("mime.types", "text/plain txt\n");
    activate("host_name = h.example:1\ndefault_region = r1\nmime_types_path = " + types +
             "\nuse_https = no\nuse_virtual_host = on\nverify_peer = 0\nmax_retries = 7\nretry_delay = 250\n"
             "part_size = 6000000\nrestore_days = 9\nrestore_tier = Bulk\nceph_rgw_admin_bucket = adm\n"
             "ceph_rgw_admin_access_key_id = AK\nceph_rgw_admin_secret_access_key = SK\n");
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "h.example:1");
    EXPECT_STREQ(zorvan_i_s3_default_region, "r1");
    EXPECT_EQ(types, zorvan_i_s3_mime_type_file);
    EXPECT_FALSE(zorvan_i_s3_https);
    EXPECT_TRUE(zorvan_i_s3_use_virtual_host);
    EXPECT_FALSE(zorvan_i_s3_verify_peer);
    EXPECT_EQ(zorvan_i_s3_max_retries, 7);
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 250);
    EXPECT_EQ(zorvan_i_s3_part_size, 6000000);
    EXPECT_EQ(zorvan_i_s3_restore_days, 9);
    EXPECT_STREQ(zorvan_i_s3_restore_tier, "Bulk");
    EXPECT_STREQ(zorvan_i_s3_rg_admin_bucket, "adm");
    EXPECT_STREQ(zorvan_i_s3_rg_admin_access_key_id, "AK");
    EXPECT_STREQ(zorvan_i_s3_rg_admin_secret_access_key, "SK");
}

TEST_F(ConfigParse, TrueWordsIgnoreCase) {
    int n = 0;
    for (const char* word : {"Yes", "TRUE", "true", "yes", "on", "On", "1"}) {
        zorvan_i_s3_https = false;
        activate(std::string("use_https = ") + word + "\n");
        EXPECT_TRUE(zorvan_i_s3_https) << word;
        deactivate();
        ++n;
    }
    EXPECT_EQ(n, 7);
}

TEST_F(ConfigParse, FalseWordsIgnoreCase) {
    for (const char* word : {"No", "FALSE", "false", "no", "off", "Off", "0"}) {
        zorvan_i_s3_https = true;
        activate(std::string("use_https = ") + word + "\n");
        EXPECT_FALSE(zorvan_i_s3_https) << word;
        deactivate();
    }
}

TEST_F(ConfigParse, OneLetterIsNoBoolean) {
    expect_bool_refused("y");
}
TEST_F(ConfigParse, TwoIsNoBoolean) {
    expect_bool_refused("2");
}
TEST_F(ConfigParse, NegativeIntegerIsRefused) {
    expect_int_refused("-1");
}
TEST_F(ConfigParse, IntegerWithTrailingLetterIsRefused) {
    expect_int_refused("3x");
}
TEST_F(ConfigParse, IntegerWithoutDigitsIsRefused) {
    expect_int_refused("many");
}
TEST_F(ConfigParse, IntegerBeyond64BitsIsRefused) {
    expect_int_refused("99999999999999999999999");
}
TEST_F(ConfigParse, HexadecimalIsRefused) {
    expect_int_refused("0x10");
}
TEST_F(ConfigParse, NegativeLongIsRefused) {
    expect_long_refused("-5");
}
TEST_F(ConfigParse, LongWithTrailingLetterIsRefused) {
    expect_long_refused("5M");
}
TEST_F(ConfigParse, LongBeyond64BitsIsRefused) {
    expect_long_refused("9223372036854775808");
}

TEST_F(ConfigParse, ConvertedIntegerIsStoredBeforeItIsJudged) {
    expect_int_refused("-1");
    EXPECT_EQ(zorvan_i_s3_max_retries, -1);
    expect_long_refused("-5");
    EXPECT_EQ(zorvan_i_s3_part_size, -5);
}

TEST_F(ConfigParse, LongTakesMoreThan32Bits) {
    activate("part_size = 5368709120\n");
    EXPECT_EQ(zorvan_i_s3_part_size, 5368709120);
}

TEST_F(ConfigParse, KeyGluedToTheEqualsSignIsInvalid) {
    expect_refused("host_name=value\n", "Error parsing PATH:1: invalid line\n");
}

TEST_F(ConfigParse, KeyAloneIsInvalid) {
    expect_refused("\nhost_name\n", "Error parsing PATH:2: invalid line\n");
}

TEST_F(ConfigParse, KeyWithEqualsSignButNoValueIsInvalid) {
    expect_refused("host_name =\n", "Error parsing PATH:1: invalid line\n");
}

TEST_F(ConfigParse, ValueGluedToTheEqualsSignIsValid) {
    activate("host_name =value\n");
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "value");
}

TEST_F(ConfigParse, SecondTokenOfTheValueIsLeftOut) {
    activate("host_name = one two\n");
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "one");
}

TEST_F(ConfigParse, BlankAndCommentLinesAreSkippedButCounted) {
    expect_refused("# a comment\n\n   \t # only blanks and a comment\n \v\f\r\nnonsense = 1\n",
                   "Error parsing PATH:5: unknown option \"nonsense\"\n");
}

TEST_F(ConfigParse, CommentBehindTheValueIsCut) {
    activate("  retry_delay = 50 # milliseconds\n");
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 50);
}

TEST_F(ConfigParse, CommentInsideTheValueCutsIt) {
    activate("default_region = abc#def\n");
    EXPECT_STREQ(zorvan_i_s3_default_region, "abc");
}

TEST_F(ConfigParse, UnknownKeyNamesKeyAndLine) {
    expect_refused("max_retries = 1\nno_such_key = x\n",
                   "Error parsing PATH:2: unknown option \"no_such_key\"\n");
}

TEST_F(ConfigParse, KeysAreCaseSensitive) {
    expect_refused("Host_Name = x\n", "Error parsing PATH:1: unknown option \"Host_Name\"\n");
}

TEST_F(ConfigParse, ReadingStopsAtTheFirstError) {
    expect_refused("nonsense = 1\nretry_delay = 77\n", "Error parsing PATH:1: unknown option \"nonsense\"\n");
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 100);
}

TEST_F(ConfigParse, LastOfTwoValuesStands) {
    activate("host_name = first\nhost_name = second\nmax_retries = 1\nmax_retries = 5\n");
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "second");
    EXPECT_EQ(zorvan_i_s3_max_retries, 5);
}

TEST_F(ConfigParse, EqualStringIsLeftAlone) {
    activate("host_name = same\n");
    const auto allocations_of_a_reading = [] {
        const InModule inside;
        fail_allocation(0);
        EXPECT_EQ(zorvan_i_s3_config_parse(), ZORVAN_SUCCESS);
        return allocations_made();
    };
    const auto again = allocations_of_a_reading();
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "same");
    std::free(zorvan_i_s3_default_hostname);
    zorvan_i_s3_default_hostname = strdup("other");
    EXPECT_EQ(allocations_of_a_reading(), again + 1) << "a copy of what differs, none of what is equal";
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "same");
}

TEST_F(ConfigParse, LastLineNeedsNoNewline) {
    activate("retry_delay = 33");
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 33);
}

TEST_F(ConfigParse, LineLongerThanTheBufferIsReadAsTwo) {
    // 255 characters fit a read; what follows is a line of its own.
    const std::string first = "host_name = h" + std::string(255 - 13, ' ');
    expect_refused(first + "retry_delay = 42\nbroken\n", "Error parsing PATH:3: invalid line\n");
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "h");
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, 42);
}

TEST_F(ConfigParse, LongestValueOfOneLineIsKeptWhole) {
    const std::string value(255 - 13, 'v');
    activate("host_name = " + value + "\n");
    EXPECT_EQ(value, zorvan_i_s3_default_hostname);
}

TEST_F(ConfigParse, MissingFileNamesItAndTheErrno) {
    host_set_config_string(path_of("absent.conf"));
    const auto result = zorvan_module_activate(&zorvan_gridftp_server_ceph_module);
    expect_system(view_result(result), "Error loading config file " + path_of("absent.conf") + ": ", ENOENT);
    release_result(result);
    EXPECT_EQ(host_config_string_queries(), 1);
}

TEST_F(ConfigParse, MissingFileWithoutMemoryForItsNameIsTheMallocError) {
    host_set_config_string(path_of("absent.conf"));
    const auto with_name = "System error in Error loading config file " + path_of("absent.conf") + ": ";
    int without_name = 0;
    for (long nth = 1; nth < 20; ++nth) {
        fail_allocation(nth);
        zorvan_result_t result = ZORVAN_SUCCESS;
        {
            const InModule inside;
            result = zorvan_module_activate(&zorvan_gridftp_server_ceph_module);
        }
        const bool failed = allocation_failed();
        fail_allocation(0);
        const auto error = view_result(result);
        release_result(result);
        without_name += error.text == "System error in malloc";
        EXPECT_TRUE(error.text == "System error in malloc" || error.text == with_name ||
                    error.text == "out of memory")
            << error.text.value_or("(none)");
        if (!failed) break;
    }
    EXPECT_GE(without_name, 1);
}

TEST_F(ConfigParse, WithoutAHostStringTheDefaultPathIsUsed) {
    setenv("ZORVAN_PREFIX", path_of("nowhere").c_str(), 1);
    char* expected = nullptr;
    ASSERT_EQ(zorvan_eval_path("${sysconfdir}/zorvan/zorvan-gridftp-server-ceph.conf", &expected),
              ZORVAN_SUCCESS);
    const auto result = zorvan_module_activate(&zorvan_gridftp_server_ceph_module);
    unsetenv("ZORVAN_PREFIX");
    const auto view = view_result(result);
    expect_system(view, std::string("Error loading config file ") + expected + ": ", ENOENT);
    EXPECT_EQ(view.text->find("System error in Error loading config file "), 0u);
    std::free(expected);
    release_result(result);
}

TEST_F(ConfigParse, FileAtTheDefaultPathIsRead) {
    setenv("ZORVAN_PREFIX", path_of("prefix").c_str(), 1);
    char* path = nullptr;
    ASSERT_EQ(zorvan_eval_path("${sysconfdir}/zorvan/zorvan-gridftp-server-ceph.conf", &path),
              ZORVAN_SUCCESS);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << "host_name = of-the-default-path\n";
    std::free(path);
    EXPECT_EQ(zorvan_i_s3_config_parse(), ZORVAN_SUCCESS);
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "of-the-default-path");

    // Its evaluation is the first to ask for memory.
    zorvan_result_t result = 0;
    {
        const InModule inside;
        fail_allocation(1);
        result = zorvan_i_s3_config_parse();
        fail_allocation(0);
    }
    unsetenv("ZORVAN_PREFIX");
    const auto view = view_result(result);
    EXPECT_TRUE(view.present);
    EXPECT_EQ(view.friendly.find("config file"), std::string::npos) << view.friendly;
    release_result(result);
}

// The configuration file as it is shipped; with its commented keys in force too if so wanted.
std::string shipped_config(bool with_comments) {
    std::ifstream file(ZORVAN_PACKAGING_DIR "/zorvan-gridftp-server-ceph.conf");
    EXPECT_TRUE(file.is_open());
    const std::regex commented("#[a-z_]+ = [^ ]+");
    std::string text;
    for (std::string line; std::getline(file, line);) {
        EXPECT_LT(line.size(), 255u) << "it would be read as two: " << line;
        text += (with_comments && std::regex_match(line, commented) ? line.substr(1) : line) + "\n";
    }
    return text;
}

TEST_F(ConfigParse, ShippedFileIsAccepted) {
    activate(shipped_config(false));
    EXPECT_STREQ(zorvan_i_s3_default_hostname, "localhost:7480");
    EXPECT_NE(zorvan_i_s3_rg_admin_access_key_id, nullptr);
    EXPECT_NE(zorvan_i_s3_rg_admin_secret_access_key, nullptr);
}

TEST_F(ConfigParse, ShippedFileNamesEveryKeyAndItsDefault) {
    host_set_config_string(write_file("ceph.conf", shipped_config(true)));
    zorvan_i_s3_https = zorvan_i_s3_verify_peer = false;
    zorvan_i_s3_use_virtual_host = true;
    zorvan_i_s3_max_retries = zorvan_i_s3_retry_delay_ms = zorvan_i_s3_restore_days = -1;
    zorvan_i_s3_part_size = -1;
    ASSERT_EQ(zorvan_i_s3_config_parse(), ZORVAN_SUCCESS);
    for (const char* text : {zorvan_i_s3_default_hostname, zorvan_i_s3_default_region,
                             zorvan_i_s3_mime_type_file, zorvan_i_s3_restore_tier,
                             zorvan_i_s3_rg_admin_access_key_id, zorvan_i_s3_rg_admin_secret_access_key})
        EXPECT_NE(text, nullptr);
    EXPECT_STREQ(zorvan_i_s3_rg_admin_bucket, "admin");
    const auto defaults = defaults_of_the_process();
    EXPECT_EQ(zorvan_i_s3_https, defaults.https);
    EXPECT_EQ(zorvan_i_s3_verify_peer, defaults.verify_peer);
    EXPECT_EQ(zorvan_i_s3_use_virtual_host, defaults.virtual_host);
    EXPECT_EQ(zorvan_i_s3_max_retries, defaults.max_retries);
    EXPECT_EQ(zorvan_i_s3_retry_delay_ms, defaults.retry_delay_ms);
    EXPECT_EQ(zorvan_i_s3_restore_days, defaults.restore_days);
    EXPECT_GT(zorvan_i_s3_part_size, 0);
}

TEST_F(ConfigParse, FolderInPlaceOfTheFileIsNoConfiguration) {
    host_set_config_string(path_of("."));
    const auto result = zorvan_module_activate(&zorvan_gridftp_server_ceph_module);
    expect_system(view_result(result), "Error loading config file " + path_of(".") + ": ", EISDIR);
    release_result(result);
}

TEST_F(ConfigParse, FileIsClosedAfterReading) {
    const auto open_files = [this] {
        int count = 0;
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            count += std::filesystem::read_symlink(entry.path(), ignored) == path_of("ceph.conf");
        return count;
    };
    expect_refused("nonsense = 1\n", "Error parsing PATH:1: unknown option \"nonsense\"\n");
    EXPECT_EQ(open_files(), 0);
    activate();
    EXPECT_EQ(open_files(), 0);
}

// ------------------------------------------------------------------------------------ tables of keys

class ConfigKeys : public ModuleTest {
  protected:
    using Key = zorvan_i_s3_config_key_t;
    static void SetText(char*& setting, const char* text) {
        std::free(setting);
        setting = text == nullptr ? nullptr : strdup(text);
    }
    void TearDown() override {
        SetText(first, nullptr);
        SetText(second, nullptr);
        ModuleTest::TearDown();
    }
    char* first = nullptr;
    char* second = nullptr;
    int number = 0;
    const Key keys[5] = {
        {.name = "free", .string_value = &first},
        {.value_type = ZORVAN_S3_CONFIG_INT, .name = "count", .int_value = &number, .required = true},
        {.name = "one", .string_value = &first, .required = true},
        {.name = "two", .string_value = &second, .required = true},
        {},
    };
};

TEST_F(ConfigKeys, FirstRequiredStringWithoutAValueIsNamed) {
    auto result = zorvan_l_s3_config_check_required("/a/file", keys);
    expect_generic(view_result(result), "config_parse", "Required config \"one\" not set in /a/file\n");
    release_result(result);
    SetText(first, "value");
    result = zorvan_l_s3_config_check_required("/a/file", keys);
    expect_generic(view_result(result), "config_parse", "Required config \"two\" not set in /a/file\n");
    release_result(result);
    SetText(second, "");
    EXPECT_EQ(zorvan_l_s3_config_check_required("/a/file", keys), ZORVAN_SUCCESS) << "empty is not unset";
}

TEST_F(ConfigKeys, NothingIsAskedOfKeysThatAreNotRequired) {
    EXPECT_EQ(zorvan_l_s3_config_check_required("/a/file", keys + 4), ZORVAN_SUCCESS);
    const Key optional[2] = {keys[0], {}};
    EXPECT_EQ(zorvan_l_s3_config_check_required("/a/file", optional), ZORVAN_SUCCESS);
}

TEST_F(ConfigKeys, KeyIsFoundInItsTableAlone) {
    bool found = false;
    EXPECT_EQ(zorvan_l_s3_config_parse_key("/a/file", 7, "two", "v", keys, &found), ZORVAN_SUCCESS);
    EXPECT_TRUE(found);
    EXPECT_EQ(first, nullptr);
    EXPECT_STREQ(second, "v");
    found = false;
    EXPECT_EQ(zorvan_l_s3_config_parse_key("/a/file", 7, "Two", "w", keys, &found), ZORVAN_SUCCESS);
    EXPECT_FALSE(found);
    EXPECT_STREQ(second, "v");
    const auto result = zorvan_l_s3_config_parse_key("/a/file", 7, "count", "-3", keys, &found);
    EXPECT_TRUE(found);
    expect_generic(view_result(result), "config_parse",
                   "Error parsing /a/file:7: unexpected value for integer attribute count: \"-3\"\n");
    release_result(result);
    EXPECT_EQ(number, -3);
}

TEST_F(ConfigKeys, BothTablesAreCheckedAtTheEndOfTheFile) {
    activate("host_name = h\nceph_rgw_admin_access_key_id = A\nceph_rgw_admin_secret_access_key = S\n");
    ASSERT_EQ(zorvan_i_s3_config_parse(), ZORVAN_SUCCESS);
    int checks = 0;
    int reads = 0;
    for (const auto& line : log_lines()) {
        checks += line.function == "zorvan_l_s3_config_check_required" && line.message == "enter";
        reads += line.function == "zorvan_l_s3_config_parse_key" && line.message == "enter";
        if (line.function == "zorvan_l_s3_config_parse_key") {
            EXPECT_EQ(checks, 0);
        }
    }
    EXPECT_EQ(checks, 2);
    EXPECT_EQ(reads, 5) << "the general table is looked through first";
}

// ------------------------------------------------------------------------------------ exhausted memory

TEST_F(ConfigParse, EveryAllocationThatFailsRefusesOrIsHarmless) {
    bool malloc_error_seen = false;
    bool went_through = false;
    for (long n = 1; n < 500 && !went_through; ++n) {
        fail_allocation(n);
        const auto result = try_activate("host_name = somewhere\n");
        went_through = !allocation_failed();
        fail_allocation(0);
        if (result == ZORVAN_SUCCESS) {
            EXPECT_EQ(zorvan_module_deactivate(&zorvan_gridftp_server_ceph_module), ZORVAN_SUCCESS);
            continue;
        }
        malloc_error_seen = malloc_error_seen || view_result(result).text == "System error in malloc";
        release_result(result);
    }
    EXPECT_TRUE(went_through);
    EXPECT_TRUE(malloc_error_seen);
}

// ---------------------------------------------------------------------------------------- storage policy

class Policy : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    void TearDown() override {
        std::free(endpoint);
        std::free(id);
        std::free(secret);
        if (buckets != nullptr)
            for (char** bucket = buckets; *bucket != nullptr; ++bucket)
                std::free(*bucket);
        std::free(buckets);
        ModuleTest::TearDown();
    }
    zorvan_result_t parse(const char* json) {
        return zorvan_i_s3_config_parse_json(json, &endpoint, &buckets, &id, &secret);
    }
    ErrorView refused(const char* json) {
        const auto result = parse(json);
        EXPECT_NE(result, ZORVAN_SUCCESS);
        EXPECT_EQ(endpoint, nullptr);
        EXPECT_EQ(buckets, nullptr);
        EXPECT_EQ(id, nullptr);
        EXPECT_EQ(secret, nullptr);
        const auto view = view_result(result);
        EXPECT_TRUE(logged("ERROR", "zorvan_i_s3_config_parse_json",
                           "result=" + result_text(result) + " message=" + view.friendly))
            << log_text();
        release_result(result);
        EXPECT_EQ(view.type, 6);
        EXPECT_EQ(view.source_file, "config_parse");
        return view;
    }
    static bool begins(const ErrorView& error, const std::string& text) {
        return error.text && error.text->starts_with(text) && error.text->size() > text.size() + 1 &&
               error.text->back() == '\n';
    }

    char* endpoint = nullptr;
    char* id = nullptr;
    char* secret = nullptr;
    char** buckets = nullptr;
};

TEST_F(Policy, AllMembersAreTaken) {
    ASSERT_EQ(parse(R"({"s3_endpoint":"https://a.b:7","ceph_admin_key_id":"K","ceph_admin_secret_key":"S",
                        "s3_buckets":["one","two"],"other":3})"),
              ZORVAN_SUCCESS);
    EXPECT_STREQ(endpoint, "https://a.b:7");
    EXPECT_STREQ(id, "K");
    EXPECT_STREQ(secret, "S");
    ASSERT_NE(buckets, nullptr);
    EXPECT_STREQ(buckets[0], "one");
    EXPECT_STREQ(buckets[1], "two");
    EXPECT_EQ(buckets[2], nullptr);
}

TEST_F(Policy, TrailingSlashesOfTheEndpointAreRemoved) {
    ASSERT_EQ(parse(R"({"s3_endpoint":"http://a.b/","ceph_admin_key_id":"K","ceph_admin_secret_key":"S"})"),
              ZORVAN_SUCCESS);
    EXPECT_STREQ(endpoint, "http://a.b");
}

TEST_F(Policy, ManyTrailingSlashesOfTheEndpointAreRemoved) {
    ASSERT_EQ(
        parse(R"({"s3_endpoint":"http://a.b////","ceph_admin_key_id":"K","ceph_admin_secret_key":"S"})"),
        ZORVAN_SUCCESS);
    EXPECT_STREQ(endpoint, "http://a.b");
}

TEST_F(Policy, EndpointOfSlashesAloneBecomesEmpty) {
    ASSERT_EQ(parse(R"({"s3_endpoint":"///","ceph_admin_key_id":"K","ceph_admin_secret_key":"S"})"),
              ZORVAN_SUCCESS);
    EXPECT_STREQ(endpoint, "");
}

TEST_F(Policy, NoBucketMemberAllowsAll) {
    ASSERT_EQ(parse(R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K","ceph_admin_secret_key":"S"})"),
              ZORVAN_SUCCESS);
    EXPECT_EQ(buckets, nullptr);
}

TEST_F(Policy, EmptyBucketArrayAllowsAll) {
    ASSERT_EQ(parse(R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K","ceph_admin_secret_key":"S",
                        "s3_buckets":[]})"),
              ZORVAN_SUCCESS);
    EXPECT_EQ(buckets, nullptr);
}

TEST_F(Policy, BucketMemberThatIsNoArrayAllowsAll) {
    ASSERT_EQ(parse(R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K","ceph_admin_secret_key":"S",
                        "s3_buckets":"data"})"),
              ZORVAN_SUCCESS);
    EXPECT_EQ(buckets, nullptr);
}

TEST_F(Policy, BucketArrayWithANumberIsRefused) {
    const auto error = refused(
        R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K","ceph_admin_secret_key":"S","s3_buckets":["a",7]})");
    EXPECT_EQ(error.text, "Error unpacking allowed bucket list.");
}

TEST_F(Policy, BucketArrayWithNullIsRefused) {
    const auto error = refused(
        R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K","ceph_admin_secret_key":"S","s3_buckets":[null]})");
    EXPECT_EQ(error.text, "Error unpacking allowed bucket list.");
}

TEST_F(Policy, TextThatIsNoJsonIsRefused) {
    EXPECT_TRUE(begins(refused("{\"s3_endpoint\":"), "Error loading collection storage policy: "));
}

TEST_F(Policy, EmptyTextIsRefused) {
    EXPECT_TRUE(begins(refused(""), "Error loading collection storage policy: "));
}

TEST_F(Policy, ArrayIsRefused) {
    EXPECT_TRUE(begins(refused("[]"), "Error unpacking collection storage policy: "));
}

TEST_F(Policy, MissingSecretIsRefused) {
    EXPECT_TRUE(begins(refused(R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K"})"),
                       "Error unpacking collection storage policy: "));
}

TEST_F(Policy, MissingKeyIdIsRefused) {
    EXPECT_TRUE(begins(refused(R"({"s3_endpoint":"http://a","ceph_admin_secret_key":"K"})"),
                       "Error unpacking collection storage policy: "));
}

TEST_F(Policy, MissingEndpointIsRefused) {
    EXPECT_TRUE(begins(refused(R"({"ceph_admin_key_id":"http://a","ceph_admin_secret_key":"K"})"),
                       "Error unpacking collection storage policy: "));
}

TEST_F(Policy, NumberInPlaceOfAStringIsRefused) {
    EXPECT_TRUE(begins(refused(R"({"s3_endpoint":4,"ceph_admin_key_id":"K","ceph_admin_secret_key":"S"})"),
                       "Error unpacking collection storage policy: "));
}

TEST_F(Policy, EveryAllocationThatFailsIsAnErrorWithoutOutputs) {
    const char* json = R"({"s3_endpoint":"http://a/","ceph_admin_key_id":"K","ceph_admin_secret_key":"S",
                           "s3_buckets":["one","two"]})";
    int failures = 0;
    for (long n = 1; n < 200; ++n) {
        zorvan_result_t result = 0;
        {
            const InModule inside;
            fail_allocation(n);
            result = parse(json);
            fail_allocation(0);
        }
        if (result == ZORVAN_SUCCESS) break;
        ++failures;
        release_result(result);
        EXPECT_EQ(endpoint, nullptr);
        EXPECT_EQ(buckets, nullptr);
        EXPECT_EQ(id, nullptr);
        EXPECT_EQ(secret, nullptr);
    }
    EXPECT_GE(failures, 5);
    ASSERT_NE(buckets, nullptr);
    EXPECT_STREQ(buckets[1], "two");
}

}  // namespace
