// A load generator: keep-alive connections on one thread, each with one request at a time; bodies are
// discarded. Prints "requests seconds bytes".
//
//   bench_http_load PORT digest|basic|FOLDER CONNECTIONS REQUESTS METHOD TARGET [COUNT]
//
// With a FOLDER, the connections use TLS 1.3 with client.pem and client_key.pem from there, and no password.
// With COUNT, "%d" in TARGET is replaced by 0 … COUNT-1 in turn. METHOD "IDLE" opens the connections with one
// request each and holds them until standard input ends; "OPEN" makes REQUESTS full handshakes, CONNECTIONS
// at a time, and counts these.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kel/base64.h"

namespace {

constexpr const char* kUser = "bench";
constexpr const char* kPassword = "bench-password";

[[noreturn]] void Die(const std::string& text) {
    std::cerr << "bench_http_load: " << text << "\n";
    std::exit(1);
}

/// SHA-256 digests of texts with a common beginning, which is hashed only once.
class Digester {
  public:
    explicit Digester(const std::string& begin) {
        static EVP_MD* const kDigest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
        EVP_DigestInit_ex2(begun_.get(), kDigest, nullptr);
        EVP_DigestUpdate(begun_.get(), begin.data(), begin.size());
    }

    std::string Finish(const std::string& end) {
        unsigned char bytes[32];
        EVP_MD_CTX_copy_ex(work_.get(), begun_.get());
        EVP_DigestUpdate(work_.get(), end.data(), end.size());
        EVP_DigestFinal_ex(work_.get(), bytes, nullptr);
        std::string hex(64, '0');
        for (int i = 0; i < 32; ++i) {
            hex[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
            hex[2 * i + 1] = "0123456789abcdef"[bytes[i] & 15];
        }
        return hex;
    }

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> begun_{EVP_MD_CTX_new()};
    std::unique_ptr<EVP_MD_CTX, Free> work_{EVP_MD_CTX_new()};
};

std::string Sha256(const std::string& text) {
    return Digester(text).Finish("");
}

int Connect(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die("cannot connect");
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

/// How a client shows who it is: certificate, digests or basic credentials.
enum class Proof { Certificate, Digest, Basic };

SSL_CTX* tls = nullptr;

/// As a device of the tree does, so that the server sends its own certificate only.
bool NameAuthority(const std::string& file) {
    STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(file.c_str());
    SSL_CTX_set0_CA_list(tls, names);
    return names != nullptr;
}

void UseCertificate(const std::string& folder) {
    tls = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_min_proto_version(tls, TLS1_3_VERSION);
    SSL_CTX_set_session_cache_mode(tls, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(tls, SSL_MODE_RELEASE_BUFFERS);
    if (SSL_CTX_use_certificate_file(tls, (folder + "/client.pem").c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls, (folder + "/client_key.pem").c_str(), SSL_FILETYPE_PEM) != 1 ||
        !NameAuthority(folder + "/authority.pem"))
        Die("no certificate in " + folder);
}

class Requests {
  public:
    Requests(int port, Proof proof, std::string method, std::string target, int names)
        : proof_(proof), digest_(proof == Proof::Digest), method_(std::move(method)) {
        if (digest_)
            FetchNonce(port);
        else if (proof == Proof::Basic)
            basic_ = Base64Encode(std::string(kUser) + ":" + kPassword);
        // What depends only on the name is computed once, as in any client that asks for a name repeatedly.
        const std::size_t mark = target.find("%d");
        for (int i = 0; i < (mark == std::string::npos ? 1 : names); ++i) {
            std::string path = target;
            if (mark != std::string::npos) path.replace(mark, 2, std::to_string(i));
            targets_.push_back({Sha256(method_ + ":" + path), HeadOf(path)});
        }
    }

    std::string Next() {
        const Target& target = targets_[static_cast<std::size_t>(made_) % targets_.size()];
        ++made_;
        std::string text;
        text.reserve(512);
        text += target.head;
        if (digest_) {
            char count[9];
            std::snprintf(count, sizeof count, "%08x", static_cast<unsigned int>(made_ & 0xFFFFFFFF));
            text.append(count).append(", response=\"");
            text += digester_->Finish(std::string(count) + ":c:auth:" + target.digest);
            text += '"';
        }
        return text += method_ == "POST" ? "\r\nContent-Length: 0\r\n\r\n" : "\r\n\r\n";
    }

  private:
    void FetchNonce(int port) {
        const int fd = Connect(port);
        const std::string request = "GET / HTTP/1.1\r\nHost: bench\r\n\r\n";
        char answer[4096];
        if (::send(fd, request.data(), request.size(), 0) < 0) Die("cannot send");
        const ssize_t size = ::recv(fd, answer, sizeof answer, 0);
        ::close(fd);
        const std::string text(answer, size > 0 ? static_cast<std::size_t>(size) : 0);
        const std::size_t start = text.find("nonce=\"");
        if (start == std::string::npos) Die("no nonce");
        nonce_ = text.substr(start + 7, text.find('"', start + 7) - start - 7);
        digester_.emplace(Sha256(std::string(kUser) + ":kel:" + kPassword) + ":" + nonce_ + ":");
    }

    std::string HeadOf(const std::string& path) const {
        std::string head = method_ + " " + path + " HTTP/1.1\r\nHost: bench";
        if (proof_ == Proof::Certificate) return head;
        head += "\r\nAuthorization: ";
        if (!digest_) return head + "Basic " + basic_;
        return head + "Digest username=\"" + kUser + "\", realm=\"kel\", nonce=\"" + nonce_ + "\", uri=\"" +
               path + "\", algorithm=SHA-256, qop=auth, cnonce=\"c\", nc=";
    }

    struct Target {
        std::string digest;  ///< of method and path
        std::string head;    ///< the part of the request that is always the same
    };

    Proof proof_;
    bool digest_;
    std::string method_, nonce_, basic_;
    std::optional<Digester> digester_;
    std::vector<Target> targets_;
    long made_ = 0;
};

struct Connection {
    int fd = -1;
    SSL* ssl = nullptr;
    std::string head;
    long long bodyLeft = -1;  ///< bytes; -1: the head is not complete yet
};

void Open(Connection& connection, int port) {
    connection.fd = Connect(port);
    if (tls == nullptr) return;
    connection.ssl = SSL_new(tls);
    SSL_set_fd(connection.ssl, connection.fd);
    if (SSL_connect(connection.ssl) != 1) Die("the handshake fails");
}

void Close(Connection& connection) {
    SSL_free(std::exchange(connection.ssl, nullptr));
    ::close(connection.fd);
}

ssize_t Receive(Connection& connection, char* data, std::size_t size, int flags) {
    if (connection.ssl == nullptr) return ::recv(connection.fd, data, size, flags);
    static std::vector<char> dropped(64 << 10);
    if (data == nullptr) size = std::min(size, dropped.size());
    return SSL_read(connection.ssl, data != nullptr ? data : dropped.data(), static_cast<int>(size));
}

/// Reads what has arrived; true when an answer is complete.
bool ReadAnswer(Connection& connection, long long& bytes) {
    static std::vector<char> buffer(64 << 10);
    if (connection.bodyLeft > 0) {
        // MSG_TRUNC: the bytes are dropped without a copy, so that the server's speed is measured and not
        // ours.
        const ssize_t count =
            Receive(connection, nullptr, std::min<long long>(connection.bodyLeft, 4 << 20), MSG_TRUNC);
        if (count <= 0) Die("connection lost in a body");
        connection.bodyLeft -= count;
        bytes += count;
        return connection.bodyLeft == 0;
    }
    const ssize_t count = Receive(connection, buffer.data(), buffer.size(), 0);
    if (count <= 0) Die("connection lost");
    connection.head.append(buffer.data(), static_cast<std::size_t>(count));
    const std::size_t end = connection.head.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    if (connection.head.compare(9, 1, "2") != 0) Die("answer " + connection.head.substr(0, end));
    const std::size_t length = connection.head.find("Content-Length: ");
    if (length == std::string::npos) Die("an answer without length");
    connection.bodyLeft = std::atoll(connection.head.c_str() + length + 16);
    const auto behind = static_cast<long long>(connection.head.size() - end - 4);
    bytes += behind;
    connection.bodyLeft -= behind;
    connection.head.clear();
    return connection.bodyLeft == 0;
}

void SendNext(Connection& connection, Requests& requests) {
    const std::string text = requests.Next();
    connection.bodyLeft = -1;
    const ssize_t sent = connection.ssl != nullptr
                             ? SSL_write(connection.ssl, text.data(), static_cast<int>(text.size()))
                             : ::send(connection.fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(text.size())) Die("cannot send");
}

void HoldIdle(int port, Requests& requests, int connections) {
    std::vector<Connection> held(static_cast<std::size_t>(connections));
    long long bytes = 0;
    for (Connection& connection : held) {
        Open(connection, port);
        SendNext(connection, requests);
        while (!ReadAnswer(connection, bytes))
            continue;
    }
    std::cout << "held" << std::endl;
    std::string line;
    while (std::getline(std::cin, line))
        continue;
}

void Measure(int port, Requests& requests, int connections, long total) {
    std::vector<Connection> all(static_cast<std::size_t>(connections));
    const int poll = ::epoll_create1(0);
    long sent = 0, done = 0;
    long long bytes = 0;
    for (Connection& connection : all) {
        Open(connection, port);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &connection;
        ::epoll_ctl(poll, EPOLL_CTL_ADD, connection.fd, &event);
    }
    const auto start = std::chrono::steady_clock::now();
    for (Connection& connection : all) {
        if (sent++ < total) SendNext(connection, requests);
    }
    std::vector<epoll_event> events(all.size());
    while (done < total) {
        const int ready = ::epoll_wait(poll, events.data(), static_cast<int>(events.size()), 10000);
        if (ready <= 0) Die("no answer for 10 seconds");
        for (int i = 0; i < ready; ++i) {
            auto& connection = *static_cast<Connection*>(events[static_cast<std::size_t>(i)].data.ptr);
            bool isDone = ReadAnswer(connection, bytes);
            // The socket does not become readable for what OpenSSL has read of it already.
            while (!isDone && connection.ssl != nullptr && SSL_pending(connection.ssl) > 0)
                isDone = ReadAnswer(connection, bytes);
            if (!isDone) continue;
            ++done;
            if (sent++ < total) SendNext(connection, requests);
        }
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::cout << done << " " << took.count() << " " << bytes << std::endl;
}

/// One request on each connection, because the server answers only after the whole handshake.
void MeasureHandshakes(int port, Requests& requests, int connections, long total) {
    std::vector<Connection> all(static_cast<std::size_t>(connections));
    long done = 0;
    long long bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    while (done < total) {
        for (Connection& connection : all) {
            Open(connection, port);
            SendNext(connection, requests);
        }
        for (Connection& connection : all) {
            while (!ReadAnswer(connection, bytes))
                continue;
            Close(connection);
            ++done;
        }
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::cout << done << " " << took.count() << " " << bytes << std::endl;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 7) Die("usage: PORT digest|basic|FOLDER CONNECTIONS REQUESTS METHOD TARGET [COUNT]");
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int port = std::atoi(arguments[1]);
    const int connections = std::atoi(arguments[3]);
    const std::string method = arguments[5];
    const bool idle = method == "IDLE";
    const bool handshakes = method == "OPEN";
    const std::string credentials = arguments[2];
    const Proof proof = credentials == "digest"  ? Proof::Digest
                        : credentials == "basic" ? Proof::Basic
                                                 : Proof::Certificate;
    if (proof == Proof::Certificate) UseCertificate(credentials);
    Requests requests(port, proof, idle || handshakes ? "GET" : method, arguments[6],
                      count > 7 ? std::atoi(arguments[7]) : 1);
    if (idle)
        HoldIdle(port, requests, connections);
    else if (handshakes)
        MeasureHandshakes(port, requests, connections, std::atol(arguments[4]));
    else
        Measure(port, requests, connections, std::atol(arguments[4]));
    return 0;
}
