#include "kelcore/action_db_remote.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

#include "kel/text.h"
#include "kelcore/agent.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/client.h"
#include "kelcore/http/url.h"
#include "kelcore/local_socket.h"

namespace {

constexpr int kDefaultConnectTimeout = 10;  // seconds
constexpr int kDefaultCallTimeout = 60;     // seconds

// Between the tries of a call that the device is too busy for.
constexpr std::chrono::milliseconds kFirstPause{250};
constexpr std::chrono::milliseconds kLastPause{1000};

void SetUp(HttpClient& client, const UrlInet& url) {
    client.SetDebugContext(CoreLog());
    client.SetServer(url.host, url.port);
    client.SetAuthentification(url.user, url.password);
    client.EnableAgentSecurity(url.scheme == "https");
    client.ExpectDevice(GuidOfDevice("device" + url.path));
}

unsigned int ErrorOfExchange(unsigned int exchange) {
    switch (exchange) {
        case kHttpBadRequest:
            return kKelErrorBadInput;
        case kHttpBadAnswer:
            return kKelErrorBadAnswer;
        default:
            return kKelErrorUnreachable;
    }
}

unsigned int ErrorOfStatus(unsigned int status) {
    switch (status) {
        case kHttpStatusUnauthorized:
            return kKelErrorCredentials;
        case kHttpStatusNotFound:
            return kKelErrorUnknownAction;
        case kHttpStatusUnavailable:
            return kKelErrorNotAvailable;
        default:
            return kKelErrorBadAnswer;
    }
}

std::optional<unsigned int> ActionResult(const HttpMessage& answer) {
    const std::optional<std::uint64_t> result = ParseUint64(answer.GetHeader("kel-result"));
    if (!result || *result > std::numeric_limits<unsigned int>::max()) return std::nullopt;
    return static_cast<unsigned int>(*result);
}

unsigned int TakeAnswer(const HttpMessage& answer, const KelString& callee, KelContainer& container) {
    if (answer.GetStatus() != kHttpStatusOk) {
        const unsigned int error = ErrorOfStatus(answer.GetStatus());
        CoreLog().Warning("Call of %S refused with HTTP status %u, error %u.\n", callee, answer.GetStatus(),
                          error);
        return error;
    }
    const std::optional<unsigned int> result = ActionResult(answer);
    if (!result) {
        CoreLog().Warning("Call of %S: the answer holds no action result; is the peer an agent?\n", callee);
        return kKelErrorBadAnswer;
    }
    KelContainer results;
    if (const KelStatus loaded = results.LoadFromXML(answer.GetBody()); !loaded) {
        CoreLog().Warning("Call of %S: unreadable answer: %S\n", callee, loaded.Error().message);
        return kKelErrorBadAnswer;
    }
    container = std::move(results);
    return *result;
}

}  // namespace

unsigned int ActionDbInvokeRemote(const KelString& source, const KelString& deviceUrl,
                                  const KelString& actionName, KelContainer& container, int connectTimeout,
                                  int callTimeout, IpAddress* localAddress) {
    UrlInet url;
    if (!UrlParseInet(deviceUrl, url)) {
        // The text may hold a password, so it stays out of the log.
        CoreLog().Warning("Call of %S: the device URL is malformed.\n", actionName);
        return kKelErrorUnreachable;
    }
    const int connectSeconds = connectTimeout < 0 ? kDefaultConnectTimeout : connectTimeout;
    const int answerSeconds = callTimeout < 0 ? kDefaultCallTimeout : callTimeout;
    HttpClient client(connectSeconds, connectSeconds + answerSeconds);
    SetUp(client, url);
    const KelString callee =
        KelFormat("%S on %S:%u", actionName, url.host, static_cast<unsigned int>(url.port));
    const unsigned int result = ActionDbCallThrough(client, source, actionName, callee, container);
    const IpAddress local = client.GetLocalAddress();
    if (localAddress != nullptr && local != IpAddress()) *localAddress = local;
    return result;
}

unsigned int ActionDbInvokeOnSocket(const KelString& source, const KelString& socketFolder,
                                    const KelString& actionName, KelContainer& container, int callTimeout) {
    const KelSocketPath socket(socketFolder, kAgentSocketName);
    if (socket.Text().empty()) return kKelErrorUnreachable;
    HttpClient client(kDefaultConnectTimeout, callTimeout < 0 ? kDefaultCallTimeout : callTimeout);
    client.SetDebugContext(CoreLog());
    client.SetServer("localhost", 80);
    client.SetSocket(socket.Text());
    return ActionDbCallThrough(client, source, actionName, actionName + " on " + socketFolder, container);
}

unsigned int ActionDbCallThrough(HttpClient& client, const KelString& source, const KelString& actionName,
                                 const KelString& callee, KelContainer& container) {
    HttpMessage request;
    request.SetMethod(HttpMethod::Post);
    request.SetResourcePath("/Action/" + actionName);
    request.SetBody(container.SaveToXML(), "application/xml");
    if (!HasControlCharacter(source)) request.SetHeader("kel-caller", source);
    HttpMessage answer;
    unsigned int exchange = client.SendAndRecv(request, answer);
    // The device was too busy to begin: after a large publication all of its children call at once.
    for (auto pause = kFirstPause;
         exchange == kHttpCompleted && answer.GetStatus() == kHttpStatusUnavailable && pause <= kLastPause;
         pause *= 2) {
        std::this_thread::sleep_for(pause);
        answer = HttpMessage();
        exchange = client.SendAndRecv(request, answer);
    }
    if (!client.GetRefusal().empty())  // the client has logged it
        return kKelErrorCredentials;
    if (exchange == kHttpCompleted) return TakeAnswer(answer, callee, container);
    // Callers log a warning with the device's name; the reason is known only here.
    CoreLog().Detail("Call of %S failed: %S\n", callee, client.GetErrorText());
    return ErrorOfExchange(exchange);
}
