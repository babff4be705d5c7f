// zorvan-devstore: reads its options, opens the store and its two ports, and
// serves on a pool of threads until SIGTERM or SIGINT. The store outlives the
// io_context, so that coroutines may borrow it to their end.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include "control.h"
#include "http_session.h"
#include "journal.h"
#include "options.h"
#include "text.h"

namespace {

namespace asio = boost::asio;
namespace devstore = zorvan::devstore;
using tcp = asio::ip::tcp;

// "host:port"; an IPv6 address stands in brackets.
tcp::endpoint endpoint_from(const std::string& text) {
    const auto colon = text.rfind(':');
    const auto port =
        colon == std::string::npos ? std::nullopt : devstore::parse_number(text.substr(colon + 1));
    if (!port || *port > 65535) throw std::invalid_argument("\"" + text + "\" is not address:port");
    auto host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host == "localhost") host = "127.0.0.1";
    return {asio::ip::make_address(host), static_cast<unsigned short>(*port)};
}

// Whoever waits for the file finds it complete.
void write_port_file(const std::string& path, unsigned port) {
    if (path.empty()) return;
    const auto beside = path + ".new";
    {
        std::ofstream out(beside, std::ios::trunc);
        out << port << "\n";
        out.flush();
        if (!out) throw std::runtime_error("cannot write " + beside);
    }
    std::filesystem::rename(beside, path);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), {}};
}

int run(devstore::options& wanted) {
    devstore::store data;
    data.config = wanted.config;
    for (auto& entry : wanted.users)
        data.users.put(std::move(entry));
    if (!wanted.users_file.empty()) data.users.load_json(read_file(wanted.users_file));

    // Destroyed before the index that holds its blobs: from then on no file is removed.
    std::unique_ptr<devstore::blob_store> memory;
    std::unique_ptr<devstore::journal> journal;
    if (wanted.data_dir == "memory") {
        memory = devstore::make_memory_blob_store();
        data.blobs = memory.get();
    } else {
        journal = std::make_unique<devstore::journal>(wanted.data_dir);
        data.index.attach(*journal);
        data.blobs = &journal->blobs();
    }

    const unsigned threads =
        wanted.threads > 0 ? wanted.threads : std::max(1U, std::thread::hardware_concurrency());
    asio::io_context context(static_cast<int>(threads));
    asio::signal_set signals(context, SIGTERM, SIGINT);
    signals.async_wait([&](const boost::system::error_code& error, int) {
        if (!error) context.stop();
    });

    tcp::acceptor acceptor(context, endpoint_from(wanted.listen));
    asio::co_spawn(context, devstore::serve(acceptor, data), asio::detached);
    std::optional<tcp::acceptor> control;
    if (!wanted.control.empty()) {
        control.emplace(context, endpoint_from(wanted.control));
        asio::co_spawn(context, devstore::serve_control(*control, data), asio::detached);
        write_port_file(wanted.control_port_file, control->local_endpoint().port());
    }
    std::cout << "listening on http://" << acceptor.local_endpoint() << std::endl;
    if (control) std::cout << "control on http://" << control->local_endpoint() << std::endl;
    write_port_file(wanted.port_file, acceptor.local_endpoint().port());

    std::vector<std::jthread> pool;
    for (unsigned i = 1; i < threads; ++i)
        pool.emplace_back([&] { context.run(); });
    context.run();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        int status = 0;
        auto wanted = devstore::parse_options(argc, argv, status);
        if (!wanted) return status;
        return run(*wanted);
    } catch (const std::exception& error) {
        std::cerr << "zorvan-devstore: " << error.what() << std::endl;
        return 1;
    }
}
