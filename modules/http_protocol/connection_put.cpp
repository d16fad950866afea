// Uploads (PUT) of the class Connection: AcceptPut decides whether one is accepted, the rest moves its body
// to the file workers.

#include <chrono>
#include <optional>
#include <utility>

#include "kelcore/http/answer_sink.h"
#include "modules/http_protocol/connection.h"
#include "modules/http_protocol/protected_files.h"
#include "modules/http_protocol/request_path.h"

namespace kelhttp {
namespace {

constexpr std::uint64_t kChunkBytes = 1 << 20;
/// What comes slowly is written after so long: a process that is killed loses no more.
constexpr std::chrono::milliseconds kChunkTime{100};

/// Where the body of `length` bytes belongs: 0 without Content-Range, otherwise behind what came earlier, up
/// to the end of the file. Nothing for any other range.
std::optional<std::uint64_t> FirstOfBody(const RequestHead& request, std::uint64_t length) {
    const std::string_view field = request.Field("Content-Range");
    if (field.empty()) return 0;
    const auto range = ParseContentRange(field);
    if (!range || !range->size || range->last + 1 != *range->size || *range->size - range->first != length)
        return std::nullopt;
    return range->first;
}

}  // namespace

/// A PUT is accepted when its length is announced and its path lies beneath a writable alias. Whether the
/// folder exists and the name is free to use is checked by PutUpload::Begin on a file worker.
void Connection::AcceptPut(const RequestHead& request) {
    if (request.chunked || !request.contentLength) return RespondError(411);
    // RFC 9110, section 14.5: a part must not be mistaken for the whole.
    const std::optional<std::uint64_t> first = FirstOfBody(request, bodyLeft_);
    if (!first) return RespondError(400, "Content-Range has to reach to the end of the file\n");
    std::optional<KelString> path = DecodeRequestPath(request.target);
    std::optional<AliasMatch> place = path ? context_.aliases.Find(*path) : std::nullopt;
    if (!place) return RespondError(404);
    if (!place->writable || !IsServableName(place->rest)) return RespondError(403);
    upload_ = std::make_shared<PutUpload>(
        PutUpload::Request{std::move(*path), SenderName(), *first, *first + bodyLeft_, sender_},
        std::move(*place), context_.log);
    RunUploadStep([](PutUpload& upload) { return upload.Begin(); }, &Connection::OnUploadBegun);
}

/// Runs `step` on a file worker, then `then` with its result here.
template <class Step>
void Connection::RunUploadStep(Step step, void (Connection::*then)(unsigned int)) {
    Enter(State::Working);
    BeginWork();
    const auto task = [connection = weak_from_this(), &loop = loop_, upload = upload_, step, then]() mutable {
        const unsigned int status = step(*upload);
        upload.reset();
        loop.Post([connection, status, then] {
            const auto self = connection.lock();
            if (!self || self->state_ != State::Working) return;
            (self.get()->*then)(status);
            self->ProcessInput();
        });
    };
    if (!context_.files.TryPost(task)) RespondError(503);
}

/// Gives up the upload; what has come of it is written first, because it may be kept. Freeing the blocks of a
/// large file takes time, so a file worker does it.
void Connection::DropUpload() {
    if (!upload_) return;
    const std::size_t used = std::exchange(chunkUsed_, 0);
    WorkerPool::Task drop = [upload = std::exchange(upload_, nullptr), chunk = chunk_, used]() mutable {
        if (used > 0) upload->WriteLast(std::string_view(chunk.get(), used));
        upload.reset();
    };
    context_.files.TryPost(std::move(drop));
}

void Connection::FailUpload(unsigned int status) {
    DropUpload();
    RespondError(status);
}

void Connection::OnUploadBegun(unsigned int status) {
    if (status != 0) return FailUpload(status);
    chunkSize_ = std::min(std::max<std::uint64_t>(bodyLeft_, 1), kChunkBytes);
    chunk_ = std::make_shared_for_overwrite<char[]>(chunkSize_);
    chunkUsed_ = 0;
    chunkBegun_ = uploadMeasured_ = Clock::now();
    uploadLeft_ = bodyLeft_;
    AcceptBody(State::PutBody);
}

/// Moves the body from the input to the chunk; false when more of it must be read.
bool Connection::TakePutBody() {
    const std::size_t count =
        std::min<std::uint64_t>({bodyLeft_, input_.size(), std::uint64_t{chunkSize_ - chunkUsed_}});
    input_.copy(chunk_.get() + chunkUsed_, count);
    input_.erase(0, count);
    chunkUsed_ += count;
    bodyLeft_ -= count;
    const bool isDue = chunkUsed_ > 0 && Clock::now() > chunkBegun_ + kChunkTime;
    if (chunkUsed_ < chunkSize_ && bodyLeft_ > 0 && !isDue) return false;
    // The task shares the chunk, because the connection may be destroyed while the worker uses it. The
    // connection uses it again only after the task.
    const std::size_t used = std::exchange(chunkUsed_, 0);
    RunUploadStep([chunk = chunk_,
                   used](PutUpload& upload) { return upload.Write(std::string_view(chunk.get(), used)); },
                  &Connection::OnUploadWritten);
    return true;
}

void Connection::OnUploadWritten(unsigned int status) {
    if (status != 0) return FailUpload(status);
    if (bodyLeft_ == 0)
        return RunUploadStep([](PutUpload& upload) { return upload.Commit(); },
                             &Connection::OnUploadCommitted);
    chunkBegun_ = Clock::now();
    Enter(State::PutBody);
}

void Connection::OnUploadCommitted(unsigned int status) {
    if (status != 0) return FailUpload(status);
    if (upload_->IsNew()) return Respond(201, "Content-Length: 0\r\n", {});
    Respond(204, {}, {});
}

/// Answers HEAD for a file that is not there: how much of it an interrupted upload of this peer has left.
void Connection::AnswerKeptLength(KelString path, AliasMatch place) {
    upload_ = std::make_shared<PutUpload>(PutUpload::Request{std::move(path), SenderName()}, std::move(place),
                                          context_.log);
    RunUploadStep([](PutUpload& upload) { return upload.FindKept(); }, &Connection::OnKeptFound);
}

void Connection::OnKeptFound(unsigned int status) {
    KelString headers = "Content-Length: 0\r\n";
    if (status == 0) headers += "Upload-Offset: " + std::to_string(upload_->KeptBytes()) + "\r\n";
    Respond(status == 503 ? 503 : 404, headers, {});
}

}  // namespace kelhttp
