// Certificate checks, against a server on this machine whose certificate nobody vouches for.
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "loopback_listener.h"
#include "script_fixture.h"

namespace {

using s3test::Recorder;

template <auto Function>
struct Deleter {
    template <typename T>
    void operator()(T* object) const noexcept {
        Function(object);
    }
};
using KeyPair = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Context = std::unique_ptr<SSL_CTX, Deleter<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Deleter<SSL_free>>;

Certificate self_signed(EVP_PKEY* key) {
    Certificate certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("nobody"), -1,
                               -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_sign(certificate.get(), key, EVP_sha256());
    return certificate;
}

// Answers every request of a connection with an empty 200; one connection at a time.
class TlsServer {
  public:
    TlsServer() : key_(EVP_EC_gen("P-256")), context_(SSL_CTX_new(TLS_server_method())) {
        certificate_ = self_signed(key_.get());
        SSL_CTX_use_certificate(context_.get(), certificate_.get());
        SSL_CTX_use_PrivateKey(context_.get(), key_.get());
        thread_ = std::thread([this] { run(); });
    }
    ~TlsServer() {
        listener_.stop();
        thread_.join();
    }
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    int port() const { return listener_.port(); }
    int requests() const { return requests_; }

  private:
    void run() {
        for (;;) {
            const int socket = listener_.accept();
            if (socket < 0) return;
            Session session(SSL_new(context_.get()));
            SSL_set_fd(session.get(), socket);
            if (SSL_accept(session.get()) == 1) serve(session.get());
            close(socket);
        }
    }
    void serve(SSL* session) {
        std::string input;
        char buffer[4096];
        for (;;) {
            const int got = SSL_read(session, buffer, sizeof(buffer));
            if (got <= 0) return;
            input.append(buffer, static_cast<size_t>(got));
            if (input.find("\r\n\r\n") == std::string::npos) continue;
            input.clear();
            ++requests_;
            // One request per connection, so that the next client is not kept waiting.
            constexpr char kReply[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
            SSL_write(session, kReply, sizeof(kReply) - 1);
            SSL_shutdown(session);
            return;
        }
    }

    KeyPair key_;
    Context context_;
    Certificate certificate_;
    s3test::LoopbackListener listener_{16};
    std::atomic<int> requests_ = 0;
    std::thread thread_;
};

Recorder head(const std::string& host) {
    S3BucketContext where{};
    where.hostName = host.c_str();
    where.bucketName = "bucket";
    where.protocol = S3ProtocolHTTPS;
    where.uriStyle = S3UriStylePath;
    where.accessKeyId = "A";
    where.secretAccessKey = "S";
    Recorder recorder;
    S3_head_object(&where, "key", nullptr, 20000, &s3test::kResponse, &recorder);
    return recorder;
}

TEST(Tls, EachHostIsCheckedAsItWasSaidForIt) {
    TlsServer server;
    const std::string by_number = "127.0.0.1:" + std::to_string(server.port());
    const std::string by_name = "localhost:" + std::to_string(server.port());
    S3_deinitialize();
    ASSERT_EQ(S3_initialize("tls", S3_INIT_ALL | S3_INIT_VERIFY_PEER, by_name.c_str()), S3StatusOK);
    EXPECT_EQ(head(by_name).status, S3StatusServerFailedVerification);
    EXPECT_EQ(head(by_number).status, S3StatusServerFailedVerification) << "a host never named is checked";
    EXPECT_EQ(server.requests(), 0);
    ASSERT_EQ(S3_initialize("tls", S3_INIT_ALL, by_number.c_str()), S3StatusOK);
    EXPECT_EQ(head(by_number).status, S3StatusOK);
    EXPECT_EQ(head(by_name).status, S3StatusServerFailedVerification) << "weakened by another host's call";
    EXPECT_EQ(server.requests(), 1);
    // Checks that are asked for later count, and a connection made without them does not stand in for one
    // with them.
    ASSERT_EQ(S3_initialize("tls", S3_INIT_ALL | S3_INIT_VERIFY_PEER, by_number.c_str()), S3StatusOK);
    EXPECT_EQ(head(by_number).status, S3StatusServerFailedVerification);
    S3_deinitialize();
}

}  // namespace
