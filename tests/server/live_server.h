// The real server, in this process, on the in-memory back end; for tests that talk to it over sockets. Each
// test has a server of its own; the back end is loaded once. When the server goes, everything that it and the
// back end made must be gone too.
#pragma once

#include <crypt.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zorvan_common.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "backend.h"
#include "ftp_client.h"
#include "memory_backend.h"
#include "server.h"
#include "server_log.h"

namespace ftp_test {

/// The store behind the server, to look into.
inline const zorvan_memory_backend_s& store() {
    static const auto* table = [] {
        const std::string file = std::string(ZORVAN_TEST_MODULE_DIR) + "/libzorvan_gridftp_server_memory.so";
        void* module = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
        return static_cast<const zorvan_memory_backend_s*>(::dlsym(module, "zorvan_memory_backend"));
    }();
    return *table;
}

inline void put(const std::string& path, std::string_view content) {
    store().put(path.c_str(), content.data(), content.size());
}

/// Is there an object?
inline bool stored(const std::string& path) {
    return store().get(path.c_str(), nullptr, 0) >= 0;
}

/// An object's bytes; "<none>" when there is none.
inline std::string content(const std::string& path) {
    const std::int64_t size = store().get(path.c_str(), nullptr, 0);
    if (size < 0) return "<none>";
    std::string data(static_cast<std::size_t>(size), '\0');
    store().get(path.c_str(), data.data(), data.size());
    return data;
}

/// Bytes that differ from place to place.
inline std::string pattern(std::size_t size) {
    std::string data(size, '\0');
    std::uint32_t state = 12345;
    for (char& byte : data) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return data;
}

/// Wait for a condition, for a minute at most.
template <class Condition>
bool eventually(Condition condition) {
    for (int round = 0; round < 6000; ++round) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class LiveServer {
  public:
    /// @param extra  lines of TOML in front of the [users] table
    explicit LiveServer(const std::string& extra = "") {
        // Loaded once: a back end stays in memory, and its activation is no business of these tests.
        static const std::unique_ptr<zorvan::gridftp::backend> module = [] {
            std::string error;
            zorvan::gridftp::configure_log("error", "", error);
            auto loaded =
                zorvan::gridftp::backend::load(ZORVAN_TEST_MODULE_DIR, "memory", std::nullopt, error);
            if (!loaded) throw std::runtime_error(error);
            return loaded;
        }();
        store().clear();
        store().set_batch(100);
        config_ = zorvan::gridftp::parse_config(extra + "\n[users]\nfile = \"/unused\"\n", "/tmp/s.toml");
        config_.listen = {{boost::asio::ip::make_address("127.0.0.1"), 0}};
        if (has_ipv6()) config_.listen.push_back({boost::asio::ip::make_address("::1"), 0});
        config_.threads = 2;
        server_ = std::make_unique<zorvan::gridftp::server>(config_, users(), *module);
        std::string error;
        if (!server_->start(error)) throw std::runtime_error(error);
        port_ = server_->endpoints().at(0).port();
        if (has_ipv6()) port_v6_ = server_->endpoints().at(1).port();
        runner_ = std::thread([this] { idle_ = server_->run(); });
    }

    /// Stop and check that nothing is left over.
    ~LiveServer() {
        stop();
        const auto counters = server_->counters();
        EXPECT_TRUE(idle_);
        EXPECT_EQ(counters.sessions, 0U);
        EXPECT_EQ(counters.operations, 0U);
        EXPECT_EQ(counters.callbacks, 0U);
        EXPECT_EQ(counters.spool_bytes, 0U);
        EXPECT_EQ(counters.receive_locks, 0U);
        EXPECT_EQ(counters.checksums, 0U);
        EXPECT_EQ(store().open_sessions(), 0U);
        server_.reset();
        EXPECT_EQ(zorvan_error_table_count(), 0U);
    }
    LiveServer(const LiveServer&) = delete;
    LiveServer& operator=(const LiveServer&) = delete;

    /// Ask it to end, without waiting.
    void ask_to_stop() { server_->stop(); }
    /// Ask it to end, and wait.
    void stop() {
        server_->stop();
        if (runner_.joinable()) runner_.join();
    }

    std::uint16_t port() const { return port_; }
    std::uint16_t port_v6() const { return port_v6_; }
    zorvan::gridftp::host_counters counters() const { return server_->counters(); }

    Client client() const { return Client::logged_in(port_); }

  private:
    static const zorvan::gridftp::users_file& users() {
        static const auto made = [] {
            // A cheap hash: these tests log in hundreds of times.
            crypt_data data{};
            const std::string hash = ::crypt_r("secret", "$5$rounds=1000$saltsalt$", &data);
            return zorvan::gridftp::users_file::parse(
                "alice:" + hash + "\nbob:" + hash + "\nrefused:" + hash + "\nnosession:" + hash + "\n",
                "users");
        }();
        return made;
    }

    zorvan::gridftp::server_config config_;
    std::unique_ptr<zorvan::gridftp::server> server_;
    std::thread runner_;
    bool idle_ = false;
    std::uint16_t port_ = 0;
    std::uint16_t port_v6_ = 0;
};

}  // namespace ftp_test
