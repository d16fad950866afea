#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "kel/ip_address.h"
#include "modules/http_protocol/action_call.h"
#include "modules/http_protocol/channel.h"
#include "modules/http_protocol/io_loop.h"
#include "modules/http_protocol/put_upload.h"
#include "modules/http_protocol/request_head.h"
#include "modules/http_protocol/served_file.h"
#include "modules/http_protocol/server_context.h"

namespace kelhttp {

/// One connection of a client. It processes its requests one after the other; further ones wait in the socket
/// or in the input buffer. Everything runs on the thread of its loop; workers post their results to the loop.
///
/// Opening -> Head -> (Continuing ->) ActionBody | PutBody <-> Working -> Sending -> Discarding -> Head ...
///                 -> (Delayed ->) Sending                             -> Lingering -> Closed
/// Closed can be reached from every state. Exactly one read is in progress in Head, ActionBody, PutBody,
/// Discarding and Lingering once their input is used up, none in the other states.
class Connection final : public ChannelUser,
                         public LoopMember,
                         public std::enable_shared_from_this<Connection> {
  public:
    /// `place`: in the context's table of peers.
    Connection(ServerContext& context, IoLoop& loop, std::unique_ptr<Channel> channel,
               PeerTable::Place place);
    ~Connection() override;

    void Start();

    void OnOpened(bool ok) override;
    void OnRead(bool ok, std::size_t count) override;
    void OnWritten(bool ok) override;
    void OnTick(Clock::time_point now) override;
    void Abort() override { Close(); }

  private:
    enum class State : unsigned char {
        Opening,
        Head,
        Delayed,
        Continuing,
        ActionBody,
        PutBody,
        Working,
        Sending,
        Discarding,
        Lingering,
        Closed
    };

    void Enter(State state);
    void ProcessInput();
    void ReadMore();
    void Close();

    // Requests (connection_requests.cpp). Each ends in a response or another state.
    bool SkipBlankLines();
    bool TakeHead();
    bool RefuseHead(unsigned int status);
    void Route(const RequestHead& request);
    bool Authenticate(const RequestHead& request);
    bool AuthenticatePeer();
    void RefuseCertificate(const KelString& problem);
    bool IsPeerTrusted();
    void NoteCertificate();
    bool AdmitStranger(const RequestHead& request);
    bool CheckCredentials(const RequestHead& request);
    void NoteMember();
    bool AdmitAuthenticated();
    void RefuseCredentials(bool isStale);
    bool NoteWrongCredentials(Clock::time_point now);
    bool AdmitScraper(const RequestHead& request);
    void AnswerGet(const RequestHead& request);
    bool MayReadAll();
    void AskWhetherFor(const KelString& path, ServedFile file);
    void AnswerMetrics();
    void AcceptAction(const RequestHead& request);
    void AcceptBody(State state);
    KelString SenderName() const;
    bool TakeActionBody();
    void CallAction();
    void FinishAction(ActionAnswer& answer);

    // Uploads (connection_put.cpp).
    void AcceptPut(const RequestHead& request);
    bool TakePutBody();
    template <class Step>
    void RunUploadStep(Step step, void (Connection::*then)(unsigned int));
    void DropUpload();
    void FailUpload(unsigned int status);
    void OnUploadBegun(unsigned int status);
    void OnUploadWritten(unsigned int status);
    void OnUploadCommitted(unsigned int status);
    void AnswerKeptLength(KelString path, AliasMatch place);
    void OnKeptFound(unsigned int status);

    // Responses (connection_response.cpp).
    KelString MakeHead(unsigned int status, std::string_view headers) const;
    void Respond(unsigned int status, std::string_view headers, std::string_view body);
    /// A response with the body `text`, or the reason phrase of the status.
    void RespondError(unsigned int status, std::string_view text = {});
    void RespondFile(ServedFile file);
    void Advance(Channel::Outcome outcome);
    void FinishResponse();
    void Linger();
    std::string_view ConnectionField() const;

    void NoteProgress(Clock::time_point now);
    bool MeasureBodyRate(Clock::time_point now, int leastRate);
    bool MeasureUploadRate(Clock::time_point now);
    void BeginWork();
    void EndWork();

    ServerContext& context_;
    IoLoop& loop_;
    std::unique_ptr<Channel> channel_;
    PeerTable::Place place_;  ///< until it is closed
    const IpAddress peer_;
    KelPeer sender_;  ///< from Head on
    State state_ = State::Opening;
    State afterContinue_ = State::Head;
    bool keepAlive_ = false;
    bool version11_ = true;
    bool served_ = false;           ///< a request has been answered
    bool headBegun_ = false;        ///< in Head: a byte has come since the previous request
    bool isAuthenticated_ = false;  ///< a request had valid credentials
    bool working_ = false;          ///< counted as working in the table of peers
    bool isSendingFile_ = false;    ///< in Sending
    DigestAuth::Memory authMemory_;
    std::uint64_t keysId_ = 0;        ///< of the keys by which the peer was found to be trusted last
    std::uint64_t judgedKeysId_ = 0;  ///< of those by which mayReadAll_ was found
    bool mayReadAll_ = false;

    KelString input_;  ///< received and not used yet
    KelString output_;
    ServedFile file_;
    std::uint64_t bodyLeft_ = 0;    ///< bytes of the request's body still to come (those in input_ included)
    bool hasExpectation_ = false;   ///< the peer waits for 100 (Continue) before it sends the body
    std::size_t blankBytes_ = 0;    ///< in Head: bytes of empty lines skipped so far
    std::size_t headSearched_ = 0;  ///< in Head: bytes of input_ in which the head does not end

    std::unique_ptr<ActionCall> call_;
    std::shared_ptr<PutUpload> upload_;
    std::shared_ptr<char[]> chunk_;  ///< body bytes for the upload; a worker may outlive the connection
    std::size_t chunkSize_ = 0;
    std::size_t chunkUsed_ = 0;
    Clock::time_point uploadMeasured_;  ///< when the rate of the upload was measured last
    std::uint64_t uploadLeft_ = 0;      ///< bytes that were still to come then
    Clock::time_point chunkBegun_;      ///< when the body was asked for that it takes

    Clock::time_point since_;  ///< start of the state, the head, or the window in which progress is measured
    std::uint64_t windowBytes_ = 0;
};

}  // namespace kelhttp
