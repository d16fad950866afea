#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <memory>

#include "http_server_fixture.h"
#include "kel/base64.h"

namespace {

template <auto Free>
struct Freed {
    void operator()(auto* thing) const { Free(thing); }
};
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Settings = std::unique_ptr<SSL_CTX, Freed<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Freed<SSL_free>>;
using OpenFile = std::unique_ptr<FILE, Freed<std::fclose>>;

class TlsTest : public HttpServerFixture {
  protected:
    void StartWithCertificate() {
        const Key key(EVP_EC_gen("P-256"));
        X509_gmtime_adj(X509_getm_notBefore(certificate_.get()), -3600);
        X509_gmtime_adj(X509_getm_notAfter(certificate_.get()), 3600);
        X509_set_pubkey(certificate_.get(), key.get());
        ASSERT_NE(X509_sign(certificate_.get(), key.get(), EVP_sha256()), 0);
        const OpenFile keyFile(std::fopen((root_ / "key.pem").c_str(), "w"));
        const OpenFile file(std::fopen((root_ / "certificate.pem").c_str(), "w"));
        PEM_write_PrivateKey(keyFile.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        PEM_write_X509(file.get(), certificate_.get());
        std::fflush(nullptr);
        Start("[Ssl]\nCertificateFile=" + root_ / "certificate.pem" + "\nKeyFile=" + root_ / "key.pem");
    }
    std::uint16_t SslPort() { return (*module_)->SslPort(); }

    /// The whole answer to a request with basic credentials, on a connection of its own.
    std::string Ask(const std::string& password, const std::string& fields, long lowest = TLS1_2_VERSION,
                    long highest = 0) {
        const Settings settings(SSL_CTX_new(TLS_client_method()));
        SSL_CTX_set_min_proto_version(settings.get(), lowest);
        SSL_CTX_set_max_proto_version(settings.get(), highest);
        X509_STORE_add_cert(SSL_CTX_get_cert_store(settings.get()), certificate_.get());
        SSL_CTX_set_verify(settings.get(), SSL_VERIFY_PEER, nullptr);
        const HttpTestClient client(SslPort());
        const Session session(SSL_new(settings.get()));
        SSL_set_fd(session.get(), client.Fd());
        if (SSL_connect(session.get()) != 1) return "no session";
        const std::string request = "GET /Files/data HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + fields +
                                    "Authorization: Basic " + Base64Encode("tree:" + password) + "\r\n\r\n";
        SSL_write(session.get(), request.data(), static_cast<int>(request.size()));
        std::string answer;
        char bytes[16384];
        for (int count = 0; (count = SSL_read(session.get(), bytes, sizeof bytes)) > 0;)
            answer.append(bytes, static_cast<std::size_t>(count));
        return answer;
    }

  private:
    Certificate certificate_{X509_new()};
};

TEST_F(TlsTest, BasicCredentialsAndRangesOverTls) {
    StartWithCertificate();
    const std::string content = PatternBytes(3 << 20);
    WriteFile("data", content);
    EXPECT_TRUE(Ask("secret", "").ends_with("\r\n\r\n" + content));
    const std::string part = Ask("secret", "Range: bytes=100000-2999999\r\n");
    EXPECT_TRUE(part.starts_with("HTTP/1.1 206 "));
    EXPECT_TRUE(part.ends_with("\r\n\r\n" + content.substr(100000, 2900000)));
    const std::string refused = Ask("wrong", "");
    EXPECT_TRUE(refused.starts_with("HTTP/1.1 401 ")) << refused;
    EXPECT_NE(refused.find("WWW-Authenticate: Basic"), std::string::npos);
    EXPECT_EQ(Ask("secret", "", TLS1_VERSION, TLS1_1_VERSION), "no session");

    HttpTestClient plain(SslPort());
    plain.Send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(plain.WaitForClose());
}

}  // namespace
