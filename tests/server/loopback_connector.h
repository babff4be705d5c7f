// Data connections on loopback whose streams a test looks into: a connector and a stream that let everything
// through, to derive from.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "data_listener.h"

namespace zorvan::gridftp::testing_support {

/// Passes every call on to the stream that it owns.
class passing_stream : public data_stream {
  public:
    explicit passing_stream(std::unique_ptr<data_stream> inner) : inner_(std::move(inner)) {}
    task<io_result> read_some(asio::mutable_buffer buffer) override { return inner_->read_some(buffer); }
    task<io_result> write_some(std::span<const asio::const_buffer> buffers) override {
        return inner_->write_some(buffers);
    }
    task<boost::system::error_code> shutdown() override { return inner_->shutdown(); }
    void cancel_io() noexcept override { inner_->cancel_io(); }
    void reset() noexcept override { inner_->reset(); }
    void close() noexcept override { inner_->close(); }
    bool quiet() noexcept override { return inner_->quiet(); }
    void set_buffer_sizes(std::size_t receive, std::size_t send) noexcept override {
        inner_->set_buffer_sizes(receive, send);
    }

  protected:
    data_stream& inner() noexcept { return *inner_; }

  private:
    std::unique_ptr<data_stream> inner_;
};

/// A passive listener on loopback; what it accepts further goes through wrap().
class loopback_connector : public data_connector {
  public:
    explicit loopback_connector(const asio::any_io_executor& strand) {
        data_connection_rules rules;
        rules.client = rules.local = asio::ip::address_v4::loopback();
        boost::system::error_code error;
        listener_ = passive_listener::open(strand, rules, error);
        EXPECT_FALSE(error) << error.message();
    }
    std::uint16_t port() const { return listener_->port(); }
    /// On the strand.
    void close() { listener_.reset(); }

    task<connect_result> connect() override { return listener_->connect(); }
    task<connect_result> connect_more(bool limited) override {
        auto result = co_await listener_->connect_more(limited);
        if (result.stream) {
            result.stream = wrap(std::move(result.stream));
        }
        co_return result;
    }
    void stop_connecting() noexcept override { listener_->stop_connecting(); }
    void cancel() noexcept override { listener_->cancel(); }

  protected:
    virtual std::unique_ptr<data_stream> wrap(std::unique_ptr<data_stream> stream) = 0;

  private:
    std::unique_ptr<passive_listener> listener_;
};

}  // namespace zorvan::gridftp::testing_support
