// Requests of the class Connection, except for uploads.

#include <algorithm>
#include <ctime>
#include <utility>

#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/distrust.h"
#include "kelcore/keys/transition.h"
#include "kelcore/security.h"
#include "modules/http_protocol/connection.h"
#include "modules/http_protocol/protected_files.h"
#include "modules/http_protocol/request_path.h"

namespace kelhttp {
namespace {

constexpr std::string_view kActionPrefix = "/Action/";
constexpr std::string_view kMetricsPath = "/metrics";
/// The most that is reserved for an announced body before its bytes come.
constexpr std::uint64_t kFirstReserve = 256 << 10;
/// The largest call of a device without a certificate, which asks for one.
constexpr std::uint64_t kMaxStrangerBytes = 16 << 10;
/// Empty lines before a request are skipped up to this size.
constexpr std::size_t kMaxBlankBytes = 1024;

/// What the subscribers say about a download.
unsigned int TriggerGet(const KelPeer& sender, const KelString& path) {
    KelContainer arguments;
    arguments.SetString("URL", path);
    SetCallOrigin(JudgePeer(sender, KelCallers::Child), arguments);
    KelContainer results;
    return CallbackDbTrigger("HttpProtocolCallbackGet", arguments, results);
}

/// No method begins with a control character, but a TLS record does: its sender learns at once that this port
/// is a plain one.
bool IsNoRequest(std::string_view input) {
    return !input.empty() && static_cast<unsigned char>(input.front()) < ' ' && !input.starts_with('\r');
}

}  // namespace

/// Removes the empty lines before a request, which some clients send after a body (RFC 9112, section 2.2);
/// false when there are too many.
bool Connection::SkipBlankLines() {
    std::size_t count = 0;
    while (std::string_view(input_).substr(count).starts_with("\r\n"))
        count += 2;
    input_.erase(0, count);
    blankBytes_ += count;
    return blankBytes_ <= kMaxBlankBytes;
}

/// Takes a request from the input; false when more of it must be read.
bool Connection::TakeHead() {
    bodyLeft_ = 0;
    hasExpectation_ = false;
    if (!SkipBlankLines() || IsNoRequest(input_)) return RefuseHead(400);
    const std::size_t end = FindHeadEnd(input_, headSearched_);
    // A line end among the last two bytes may turn out to be the end of the head.
    headSearched_ = input_.size() - std::min<std::size_t>(input_.size(), 2);
    if (std::min(end, input_.size()) > static_cast<std::size_t>(context_.settings.maxHeaderBytes))
        return RefuseHead(431);
    if (end == std::string_view::npos) return false;

    RequestHead request;
    const unsigned int status = ParseRequestHead(std::string_view(input_).substr(0, end), request);
    version11_ = request.version11;
    keepAlive_ = request.keepAlive && status == 0 && !request.chunked;
    bodyLeft_ = request.contentLength.value_or(0);
    hasExpectation_ = request.expectContinue;
    if (status != 0) {
        bodyLeft_ = 0;
        RespondError(status);
    } else {
        Route(request);
    }
    input_.erase(0, end);
    return true;
}

/// Answers a request whose head cannot be read to its end; nothing behind it can be understood either.
bool Connection::RefuseHead(unsigned int status) {
    keepAlive_ = false;
    RespondError(status);
    return true;
}

void Connection::Route(const RequestHead& request) {
    if (!Authenticate(request)) return;
    switch (request.method) {
        case Method::Get:
        case Method::Head:
            return AnswerGet(request);
        case Method::Post:
            return AcceptAction(request);
        case Method::Put:
            return AcceptPut(request);
        case Method::Other:
            return Respond(405, "Allow: GET, HEAD, POST, PUT\r\nContent-Length: 0\r\n", {});
    }
}

/// Logs whoever calls with a certificate that proves nothing; the request is one of a stranger.
void Connection::NoteCertificate() {
    const KelTlsPeer* const peer = channel_->TlsPeer();
    if (peer == nullptr) return;
    const KelString key = "certificate " + peer_.ToText();
    if (!peer->problem.empty())
        context_.failures.Failed(KelDebugLevel::Warning, key,
                                 KelFormat("The certificate of a caller at %S is not accepted: %S",
                                           peer_.ToText(), peer->problem));
    else if (peer->isVerified)
        context_.failures.Succeeded(key,
                                    "Certificates of callers at " + peer_.ToText() + " are accepted again");
}

/// False once the certificate of the peer has been revoked. True where nothing was proved.
bool Connection::IsPeerTrusted() {
    const KelTlsPeer* const peer = channel_->TlsPeer();
    const std::uint64_t id = AgentSecurityKeysId();
    if (peer == nullptr || !peer->isVerified || keysId_ == id) return true;
    const AgentSecurityKeys keys = AgentSecurityGetKeys();
    if (!keys || !keys->IsStillTrusted(*peer)) return false;
    keysId_ = id;
    return true;
}

bool Connection::AuthenticatePeer() {
    if (IsPeerTrusted()) return isAuthenticated_ || AdmitAuthenticated();
    RefuseCertificate("the certificate of " + sender_.deviceGuid + " was revoked");
    return false;
}

/// Tells a device what is wrong with the certificate that it has presented: its clock may be the reason.
void Connection::RefuseCertificate(const KelString& problem) {
    keepAlive_ = false;
    const KelString line = CertificateProblemLine(problem);
    Respond(
        401,
        (line.empty() ? KelString() : "Kel-Certificate-Problem: " + line + "\r\n") + "Content-Length: 0\r\n",
        {});
}

/// A device without a certificate may only call what says so. Everything else is refused before its body is
/// read, and the body of such a call is short.
bool Connection::AdmitStranger(const RequestHead& request) {
    keepAlive_ = false;
    const std::optional<KelString> path = DecodeRequestPath(request.target);
    const bool isForStrangers = request.method == Method::Post && path && path->starts_with(kActionPrefix) &&
                                ActionDbAdmits(path->substr(kActionPrefix.size()), KelCallers::Stranger);
    if (!isForStrangers) {
        const KelTlsPeer* const peer = channel_->TlsPeer();
        RefuseCertificate(peer != nullptr ? peer->problem : KelString());
        return false;
    }
    if (context_.guesses.IsExceeded(peer_, Clock::now())) {
        RespondError(429, "Too many requests that were refused; try again later\n");
        return false;
    }
    if (bodyLeft_ > kMaxStrangerBytes) {
        RespondError(413);
        return false;
    }
    return true;
}

/// The port of the metrics serves nothing else. Its connections do not stay, so that they take no places that
/// others need who have not proved anything yet.
bool Connection::AdmitScraper(const RequestHead& request) {
    keepAlive_ = false;
    if (request.method == Method::Get && bodyLeft_ == 0 && DecodeRequestPath(request.target) == kMetricsPath)
        return true;
    RespondError(404);
    return false;
}

/// False when the request was answered with 401, or is going to be.
bool Connection::Authenticate(const RequestHead& request) {
    switch (sender_.proof) {
        case KelPeer::Proof::Socket:
            return isAuthenticated_ || AdmitAuthenticated();
        case KelPeer::Proof::Certificate:
            return AuthenticatePeer();
        case KelPeer::Proof::None:
            return AdmitStranger(request);
        case KelPeer::Proof::MetricsPort:
            return AdmitScraper(request);
        case KelPeer::Proof::Password:
            break;
    }
    if (Transition().AcceptsPassword()) return CheckCredentials(request);
    keepAlive_ = false;  // it was accepted when the connection was made
    RespondError(401);
    return false;
}

bool Connection::CheckCredentials(const RequestHead& request) {
    const Clock::time_point now = Clock::now();
    const std::string_view authorization = request.Field("Authorization");
    if (authorization.empty()) {
        RefuseCredentials(false);
        return false;
    }
    // Where others have valid credentials, a guess cannot be told from their request before it is examined.
    if (!isAuthenticated_ && context_.guesses.IsExceeded(peer_, now) && !context_.peers.IsKnown(peer_)) {
        keepAlive_ = false;
        RespondError(429, "Too many requests with wrong credentials; try again later\n");
        return false;
    }
    const DigestAuth::Verdict verdict =
        context_.auth.Check({request.methodName, request.target, authorization, peer_,
                             channel_->IsEncrypted(), request.Field("Kel-Password") == "both"},
                            authMemory_, now);
    if (verdict == DigestAuth::Verdict::Granted) return isAuthenticated_ || AdmitAuthenticated();
    if (verdict == DigestAuth::Verdict::Refused && NoteWrongCredentials(now)) {
        Enter(State::Delayed);
        return false;
    }
    RefuseCredentials(verdict == DigestAuth::Verdict::Stale);
    return false;
}

bool Connection::AdmitAuthenticated() {
    if (!context_.peers.Authenticated(place_)) {
        context_.failures.Failed(KelDebugLevel::Warning, "connections " + peer_.ToText(),
                                 KelFormat("Request from %S refused: too many connections from there; raise "
                                           "MaxConnectionsPerAddress if many devices have this address",
                                           peer_.ToText()));
        keepAlive_ = false;
        RespondError(503);
        return false;
    }
    isAuthenticated_ = true;
    NoteMember();
    context_.failures.Succeeded("credentials " + peer_.ToText(),
                                "Requests from " + peer_.ToText() + " have the right credentials again");
    return true;
}

/// In a tree on its way to keys, it is kept in mind who has them and who has not.
void Connection::NoteMember() {
    if (sender_.proof == KelPeer::Proof::Socket || peer_ == IpAddress::Parse(KelAgentGetAddress())) return;
    Transition().NoteKeys(sender_.deviceGuid);
    Transition().NoteCaller(peer_, sender_.proof == KelPeer::Proof::Password, std::time(nullptr));
}

void Connection::RefuseCredentials(bool isStale) {
    Respond(401,
            context_.auth.Challenge(peer_, channel_->IsEncrypted(), isStale, Clock::now()) +
                "Content-Length: 0\r\n",
            {});
}

/// True when the answer is to be delayed, because there were too many.
bool Connection::NoteWrongCredentials(Clock::time_point now) {
    context_.failures.Failed(
        KelDebugLevel::Warning, "credentials " + peer_.ToText(),
        KelFormat("Request from %S with wrong credentials refused. Check name and password on that device.",
                  peer_.ToText()));
    context_.guesses.NoteFailure(peer_, now);
    return context_.guesses.IsExceeded(peer_, now);
}

void Connection::AnswerGet(const RequestHead& request) {
    std::optional<KelString> path = DecodeRequestPath(request.target);
    if (path == kMetricsPath && request.method == Method::Get && bodyLeft_ == 0) return AnswerMetrics();
    std::optional<AliasMatch> place = path ? context_.aliases.Find(*path) : std::nullopt;
    ServedFile file;
    if (place) file = OpenServedFile(*place, request);
    if (file.status == 404 || bodyLeft_ > 0) {
        const bool isSender = request.method == Method::Head && bodyLeft_ == 0 && place && place->writable &&
                              IsServableName(place->rest);
        if (isSender) return AnswerKeptLength(std::move(*path), std::move(*place));
        const unsigned int status = file.status == 404 ? 404 : 400;
        return Respond(status, "Content-Length: 0\r\n", {});
    }
    if (MayReadAll()) return RespondFile(std::move(file));
    AskWhetherFor(*path, std::move(file));
}

/// Without a certificate, a member cannot be told from others; those above look into the device anyway.
bool Connection::MayReadAll() {
    if (sender_.proof != KelPeer::Proof::Certificate) return true;
    const std::uint64_t id = AgentSecurityKeysId();
    if (judgedKeysId_ != id) {
        mayReadAll_ = Includes(JudgePeer(sender_, KelCallers::Unstated).callers, KelCallers::Observer);
        judgedKeysId_ = id;
    }
    return mayReadAll_;
}

/// Sends the file when a subscriber of the event says that it is for the device that asks.
void Connection::AskWhetherFor(const KelString& path, ServedFile file) {
    Enter(State::Working);
    BeginWork();
    file_ = std::move(file);
    const auto task = [connection = weak_from_this(), &loop = loop_, sender = sender_, path] {
        const unsigned int answer = TriggerGet(sender, path);
        loop.Post([connection, answer] {
            const auto self = connection.lock();
            if (!self || self->state_ != State::Working) return;
            ServedFile found = std::exchange(self->file_, {});
            if (answer == kKelAnswerExpected)
                self->RespondFile(std::move(found));
            else
                self->RespondError(answer == kKelAnswerNotExpected || answer == kKelOk ? 403 : 503);
            self->ProcessInput();
        });
    };
    if (context_.files.TryPost(task)) return;
    file_ = {};
    RespondError(503);
}

/// A call of the action that gives them, which says who may have them.
void Connection::AnswerMetrics() {
    call_ = std::make_unique<ActionCall>();
    call_->name = "AgentGetMetrics";
    call_->answerFormat = BodyFormat::Metrics;
    call_->peer = sender_;
    CallAction();
}

void Connection::AcceptAction(const RequestHead& request) {
    if (request.chunked) return RespondError(411);
    const std::optional<KelString> path = DecodeRequestPath(request.target);
    if (!path || !path->starts_with(kActionPrefix)) return RespondError(404);
    const std::optional<BodyFormat> format = FormatOfContentType(request.Field("Content-Type"));
    if (!format) return RespondError(415);
    const ServerSettings& settings = context_.settings;
    const int most = *format == BodyFormat::Json ? std::min(settings.maxJsonBytes, settings.maxActionBytes)
                                                 : settings.maxActionBytes;
    if (bodyLeft_ > static_cast<std::uint64_t>(most)) return RespondError(413);
    call_ = std::make_unique<ActionCall>();
    call_->name = path->substr(kActionPrefix.size());
    call_->bodyFormat = *format;
    call_->answerFormat = FormatOfAccept(request.Field("Accept"));
    call_->peer = sender_;
    call_->caller = request.Field("Kel-Caller");
    call_->body.reserve(std::min(bodyLeft_, kFirstReserve));
    AcceptBody(State::ActionBody);
}

/// What tells senders apart.
KelString Connection::SenderName() const {
    return sender_.deviceGuid.empty() ? peer_.ToText() : sender_.deviceGuid;
}

/// Goes on to `state`, which reads the body; a peer that waits for 100 (Continue) is sent that first.
void Connection::AcceptBody(State state) {
    if (!hasExpectation_ || bodyLeft_ == 0) return Enter(state);
    hasExpectation_ = false;
    afterContinue_ = state;
    output_ = "HTTP/1.1 100 Continue\r\n\r\n";
    Enter(State::Continuing);
    const Channel::Outcome outcome = channel_->Write(output_, shared_from_this());
    if (outcome == Channel::Outcome::Failed) return Close();
    if (outcome == Channel::Outcome::Done) Enter(state);
}

/// Moves the body from the input to the call; false when more of it must be read.
bool Connection::TakeActionBody() {
    const std::size_t count = std::min<std::uint64_t>(bodyLeft_, input_.size());
    call_->body.append(input_, 0, count);
    input_.erase(0, count);
    bodyLeft_ -= count;
    if (bodyLeft_ > 0) return false;
    CallAction();
    return true;
}

void Connection::CallAction() {
    Enter(State::Working);
    BeginWork();
    const auto task = [connection = weak_from_this(), &loop = loop_,
                       call = std::shared_ptr<ActionCall>(std::move(call_))] {
        const auto answer = std::make_shared<ActionAnswer>(RunActionCall(*call));
        loop.Post([connection, answer] {
            if (const auto self = connection.lock()) self->FinishAction(*answer);
        });
    };
    if (!context_.actions.TryPost(task)) {
        context_.log.Warning("Action call from %S refused: all workers are busy and the queue is full.\n",
                             peer_.ToText());
        RespondError(503);
    }
}

void Connection::FinishAction(ActionAnswer& answer) {
    if (state_ != State::Working) return;
    const bool isStranger = sender_.proof == KelPeer::Proof::None;
    if (isStranger && (answer.status != 200 || answer.result == kKelErrorBadInput))
        context_.guesses.NoteFailure(peer_, Clock::now());
    if (answer.status != 200) {
        RespondError(answer.status, answer.body);
    } else {
        Respond(200,
                KelString("Kel-Result: ") + std::to_string(answer.result) + "\r\nContent-Type: " +
                    answer.contentType + "\r\nContent-Length: " + std::to_string(answer.body.size()) + "\r\n",
                answer.body);
    }
    ProcessInput();
}

}  // namespace kelhttp
