// A load generator: keep-alive connections on one thread, each with one request at a time; bodies are
// thrown away. Prints "requests seconds bytes".
//
//   bench_http_load PORT digest|basic CONNECTIONS REQUESTS METHOD TARGET [COUNT]
//
// With COUNT, "%d" in TARGET is replaced by 0 … COUNT-1 in turn. METHOD "IDLE" opens the connections with one
// request each and holds them until its input ends.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
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
#include <string>
#include <vector>

#include "kel/base64.h"

namespace {

constexpr const char* kUser = "bench";
constexpr const char* kPassword = "bench-password";

[[noreturn]] void Die(const std::string& text) {
    std::cerr << "bench_http_load: " << text << "\n";
    std::exit(1);
}

std::string Sha256(const std::string& text) {
    static EVP_MD* const kDigest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    static EVP_MD_CTX* const kContext = EVP_MD_CTX_new();
    unsigned char bytes[32];
    EVP_DigestInit_ex2(kContext, kDigest, nullptr);
    EVP_DigestUpdate(kContext, text.data(), text.size());
    EVP_DigestFinal_ex(kContext, bytes, nullptr);
    std::string hex(64, '0');
    for (int i = 0; i < 32; ++i) {
        hex[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
        hex[2 * i + 1] = "0123456789abcdef"[bytes[i] & 15];
    }
    return hex;
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

class Requests {
  public:
    Requests(int port, bool digest, std::string method, std::string target, int names)
        : digest_(digest), method_(std::move(method)), target_(std::move(target)), names_(names) {
        if (digest_)
            FetchNonce(port);
        else
            basic_ = Base64Encode(std::string(kUser) + ":" + kPassword);
    }

    std::string Next() {
        std::string target = target_;
        if (const std::size_t mark = target.find("%d"); mark != std::string::npos)
            target.replace(mark, 2, std::to_string(made_ % names_));
        ++made_;
        std::string text = method_ + " " + target + " HTTP/1.1\r\nHost: bench\r\nAuthorization: ";
        text += digest_ ? Digest(target) : "Basic " + basic_;
        if (method_ == "POST") text += "\r\nContent-Length: 0";
        return text + "\r\n\r\n";
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
        secret_ = Sha256(std::string(kUser) + ":kel:" + kPassword);
    }

    std::string Digest(const std::string& target) {
        char count[9];
        std::snprintf(count, sizeof count, "%08x", static_cast<unsigned int>(made_ & 0xFFFFFFFF));
        const std::string response =
            Sha256(secret_ + ":" + nonce_ + ":" + count + ":c:auth:" + Sha256(method_ + ":" + target));
        return std::string("Digest username=\"") + kUser + "\", realm=\"kel\", nonce=\"" + nonce_ +
               "\", uri=\"" + target + "\", algorithm=SHA-256, qop=auth, nc=" + count +
               ", cnonce=\"c\", response=\"" + response + "\"";
    }

    bool digest_;
    std::string method_, target_, nonce_, secret_, basic_;
    int names_;
    long made_ = 0;
};

struct Connection {
    int fd = -1;
    std::string head;
    long long bodyLeft = -1;  ///< -1: in the head
};

/// Reads what is there; true when an answer is complete.
bool ReadAnswer(Connection& connection, long long& bytes) {
    static std::vector<char> buffer(64 << 10);
    if (connection.bodyLeft > 0) {
        // MSG_TRUNC: the bytes are dropped without a copy, so that the server is what is measured.
        const ssize_t count =
            ::recv(connection.fd, nullptr, std::min<long long>(connection.bodyLeft, 4 << 20), MSG_TRUNC);
        if (count <= 0) Die("connection lost in a body");
        connection.bodyLeft -= count;
        bytes += count;
        return connection.bodyLeft == 0;
    }
    const ssize_t count = ::recv(connection.fd, buffer.data(), buffer.size(), 0);
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
    if (::send(connection.fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        Die("cannot send");
}

void HoldIdle(int port, Requests& requests, int connections) {
    std::vector<Connection> held(static_cast<std::size_t>(connections));
    long long bytes = 0;
    for (Connection& connection : held) {
        connection.fd = Connect(port);
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
        connection.fd = Connect(port);
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
            if (!ReadAnswer(connection, bytes)) continue;
            ++done;
            if (sent++ < total) SendNext(connection, requests);
        }
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::cout << done << " " << took.count() << " " << bytes << std::endl;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 7) Die("usage: PORT digest|basic CONNECTIONS REQUESTS METHOD TARGET [COUNT]");
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int port = std::atoi(arguments[1]);
    const int connections = std::atoi(arguments[3]);
    const std::string method = arguments[5];
    const bool idle = method == "IDLE";
    Requests requests(port, std::strcmp(arguments[2], "digest") == 0, idle ? "GET" : method, arguments[6],
                      count > 7 ? std::atoi(arguments[7]) : 1);
    if (idle)
        HoldIdle(port, requests, connections);
    else
        Measure(port, requests, connections, std::atol(arguments[4]));
    return 0;
}
