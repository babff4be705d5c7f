/*
 * What the tests of the runtime share: a fixture that insists on an empty error table, environment variables
 * that are put back, temporary folders, and texts that free themselves.
 */
#ifndef ZORVAN_TESTS_COMMON_SUPPORT_H
#define ZORVAN_TESTS_COMMON_SUPPORT_H

#include <gtest/gtest.h>
#include <zorvan_common.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

namespace zorvan::test {

/** Fails a test that leaves error objects behind. */
class CommonTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(zorvan_error_table_count(), 0U); }
    void TearDown() override { EXPECT_EQ(zorvan_error_table_count(), 0U); }
};

/** Turns a malloc'd text into a string and frees it. */
inline std::string take(char* text) {
    if (text == nullptr) return "(null)";
    std::string taken = text;
    std::free(text);
    return taken;
}

/** The friendly text of an object that stays as it is. */
inline std::string friendly(const zorvan_error_t* error) {
    return take(zorvan_error_print_friendly(error));
}

/** The friendly text of a result, whose object is released. */
inline std::string consume(zorvan_result_t result) {
    zorvan_error_t* error = zorvan_error_get(result);
    std::string text = friendly(error);
    zorvan_error_free(error);
    return text;
}

/** A generic error with a text. */
inline zorvan_error_t* generic_error(const char* text, zorvan_error_t* cause = nullptr) {
    return zorvan_error_construct_error(nullptr, cause, ZORVAN_ERROR_TYPE_GENERIC, "file", "function", 1,
                                        "%s", text);
}

/** Sets (or, without a value, unsets) an environment variable until the end of the scope. */
class Environment {
  public:
    Environment(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str())) old_ = old;
        set(value);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { set(old_); }

  private:
    void set(const std::optional<std::string>& value) {
        if (value) {
            ::setenv(name_.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }

    std::string name_;
    std::optional<std::string> old_;
};

/** A folder that is removed at the end of the scope. */
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "zorvan-common-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) std::abort();
        path_ = name;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::filesystem::path operator/(const char* name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace zorvan::test

#endif
