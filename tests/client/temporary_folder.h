// A folder of a test's own, gone at its end.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace zorvan::copy {

class temporary_folder {
  public:
    temporary_folder() {
        std::string name = testing::TempDir() + "zorvan-copy-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
        folder_ = name;
    }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    ~temporary_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    const std::string& path() const { return folder_; }
    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    void write(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
        file << content;
        ASSERT_TRUE(file.flush().good());
    }
    bool has(const std::string& name) const { return std::filesystem::exists(path(name)); }
    std::string read(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        EXPECT_TRUE(file.good()) << name;
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            found.push_back(entry.path().filename());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

  private:
    std::string folder_;
};

}  // namespace zorvan::copy
