// Uploads (PUT) of the class Connection: AcceptPut decides whether one is accepted, the rest moves its body
// to the file workers.

#include <utility>

#include "modules/http_protocol/connection.h"
#include "modules/http_protocol/protected_files.h"
#include "modules/http_protocol/request_path.h"

namespace kelhttp {
namespace {

constexpr std::uint64_t kChunkBytes = 1 << 20;

}  // namespace

/// A PUT is accepted when its length is announced and its path lies beneath a writable alias. Whether the
/// folder exists and the name is free to use is checked by PutUpload::Begin on a file worker.
void Connection::AcceptPut(const RequestHead& request) {
    if (request.chunked || !request.contentLength) return RespondError(411);
    // RFC 9110, section 14.5: a part must not be mistaken for the whole.
    if (!request.Field("Content-Range").empty())
        return RespondError(400, "Content-Range is not supported in PUT\n");
    std::optional<KelString> path = DecodeRequestPath(request.target);
    std::optional<AliasMatch> place = path ? context_.aliases.Find(*path) : std::nullopt;
    if (!place) return RespondError(404);
    if (!place->writable || !IsServableName(place->rest)) return RespondError(403);
    upload_ = std::make_shared<PutUpload>(std::move(*path), std::move(*place), bodyLeft_, context_.log);
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

/// Gives up the upload. Freeing the blocks of a large file takes time, so a file worker does it.
void Connection::DropUpload() {
    if (!upload_) return;
    WorkerPool::Task drop = [upload = std::exchange(upload_, nullptr)]() mutable { upload.reset(); };
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
    if (chunkUsed_ < chunkSize_ && bodyLeft_ > 0) return false;
    // The task shares the chunk, because the connection may be destroyed while the worker uses it. The
    // connection uses it again only after the task.
    const std::size_t used = chunkUsed_;
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
    chunkUsed_ = 0;
    Enter(State::PutBody);
}

void Connection::OnUploadCommitted(unsigned int status) {
    if (status != 0) return FailUpload(status);
    if (upload_->IsNew()) return Respond(201, "Content-Length: 0\r\n", {});
    Respond(204, {}, {});
}

}  // namespace kelhttp
