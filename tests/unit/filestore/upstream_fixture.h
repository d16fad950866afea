#pragma once

#include <memory>

#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"
#include "kelcore/callback_db.h"

/// Files on their way up: rows with content in the upstream store, and a parent that follows a script.
class UpstreamTest : public TransferTest {
  protected:
    using Outcome = FileStorePushThread::Outcome;

    /// A push thread that is not started; the test runs its step.
    struct Push : FileStorePushThread {
        using FileStorePushThread::DoWork;
    };

    /// A consumer of an event for the time of a test.
    class Consumer {
      public:
        Consumer(KelString event, KelString signature)
            : event_(std::move(event)), signature_(std::move(signature)) {
            CallbackDbRegisterAction(event_, signature_, "", 0);
        }
        ~Consumer() { CallbackDbDeleteAction(event_, signature_, ""); }
        Consumer(const Consumer&) = delete;
        Consumer& operator=(const Consumer&) = delete;

      private:
        KelString event_;
        KelString signature_;
    };

    static constexpr const char* kChild = "127.0.1.9:1610/0A1B0000-0000-4000-8000-0000000000C1";

    ~UpstreamTest() override { FileStore::strArchiveFilePath.clear(); }

    void AnswerAsParent(ScriptedServer::Script script);
    /// A parent that accepts every offer and every PUT.
    void AcceptAll();
    const ScriptedServer& Parent() const { return *parent_; }
    KelVector<KelString> OfferedNames() const;

    /// A row of the upstream database whose content lies in the store; the content is its name.
    static unsigned long AddStored(const KelString& name, const KelString& status,
                                   const std::function<void(FileStoreEntry&)>& change = {});
    static FileStoreEntry Load(bool upstream, unsigned long fileId);
    static KelString StatusOf(bool upstream, unsigned long fileId);
    static KelString PathOf(bool upstream, const FileStoreEntry& entry);
    static bool JustNow(std::int64_t time);

  private:
    std::unique_ptr<ScriptedServer> parent_;
};
