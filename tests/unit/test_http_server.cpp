#include "test_http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cinttypes>
#include <cstdio>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "kel/text.h"

std::string TestHttpServer::Request::Header(const std::string& name) const {
    std::smatch match;
    const std::regex line("\r\n" + name + ": *([^\r]*)", std::regex::icase);
    return std::regex_search(head, match, line) ? match[1].str() : "";
}

KelContainer TestHttpServer::Request::Arguments() const {
    KelContainer arguments;
    if (!arguments.LoadFromXML(body)) throw std::runtime_error("an action call without a container");
    return arguments;
}

TestHttpServer::TestHttpServer(Script script, Access access)
    : script_(std::move(script)), access_(access), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, kAddress, &address.sin_addr);
    socklen_t length = sizeof(address);
    auto* const bound = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.Get(), bound, length) != 0 || listen(listener_.Get(), 64) != 0 ||
        getsockname(listener_.Get(), bound, &length) != 0)
        throw std::runtime_error("the test server cannot listen");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { Accept(); });
}

TestHttpServer::~TestHttpServer() {
    shutdown(listener_.Get(), SHUT_RDWR);  // ends the waits of the threads
    acceptor_.join();
    for (const RawConnection& connection : connections_)
        shutdown(connection.Fd(), SHUT_RDWR);
    threads_.clear();  // joins
}

std::vector<TestHttpServer::Request> TestHttpServer::Requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void TestHttpServer::Accept() {
    for (int number = 1;; ++number) {
        UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) return;
        RawConnection& connection = connections_.emplace_back(std::move(fd));
        threads_.emplace_back([this, &connection, number] { Serve(connection, number); });
    }
}

void TestHttpServer::Serve(RawConnection& connection, int number) {
    for (bool open = true; open;) {
        Request request;
        request.connection = number;
        if (!TakeRequest(connection, request)) break;
        if (IsChallenged(request)) {
            connection.Send(
                "HTTP/1.1 401 Unauthorized\r\nConnection: close\r\nContent-Length: 0\r\nWWW-Authenticate: "
                "Digest realm=\"tree\", nonce=\"00\", algorithm=SHA-256, qop=\"auth\"\r\n\r\n");
            break;
        }
        const Answer answer = RunScript(request);
        if (answer.status != 0)
            connection.Send("HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n" + answer.headers +
                            "Content-Length: " + std::to_string(answer.body.size()) + "\r\n\r\n");
        connection.Send(std::string_view(answer.body).substr(0, answer.cutAfter));
        open = answer.status != 0 && answer.cutAfter >= answer.body.size();
        if (answer.stalls) connection.Drain();
    }
    shutdown(connection.Fd(), SHUT_RDWR);
}

TestHttpServer::Answer TestHttpServer::RunScript(const Request& request) {
    const std::lock_guard oneAtATime(scriptMutex_);
    {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }
    return script_(request);
}

bool TestHttpServer::TakeRequest(RawConnection& connection, Request& request) const {
    auto head = connection.TakeHead();
    if (!head) return false;
    request.head = std::move(*head);
    std::istringstream(request.head) >> request.method >> request.target;
    if (!request.Header("expect").empty()) {
        if (IsChallenged(request)) return true;  // before its body comes
        connection.Send("HTTP/1.1 100 Continue\r\n\r\n");
    }
    auto body = connection.Take(ParseUint64(request.Header("content-length")).value_or(0));
    if (body) request.body = std::move(*body);
    return body.has_value();
}

bool TestHttpServer::IsChallenged(const Request& request) const {
    return access_ == Access::Digest && request.Header("authorization").empty();
}

TestHttpServer::Answer TestHttpServer::ActionResult(unsigned int result, const KelContainer& values) {
    return {200, "Content-Type: application/xml\r\nKel-Result: " + std::to_string(result) + "\r\n",
            values.SaveToXML()};
}

TestHttpServer::Script TestHttpServer::ActionScript(unsigned int result, const KelContainer& values) {
    return [answer = ActionResult(result, values)](const Request&) { return answer; };
}

TestHttpServer::Script TestHttpServer::FileScript(std::string content) {
    return [content = std::move(content)](const Request& request) -> Answer {
        std::uint64_t offset = 0;
        if (std::sscanf(request.Header("range").c_str(), "bytes=%" SCNu64 "-", &offset) != 1)
            return {200, "", content};
        if (offset >= content.size()) return {416};
        const std::string size = std::to_string(content.size()), last = std::to_string(content.size() - 1);
        const std::string range = std::to_string(offset) + "-" + last + "/" + size;
        return {206, "Content-Range: bytes " + range + "\r\n", content.substr(offset)};
    };
}
