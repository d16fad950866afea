#pragma once

#include <ctime>
#include <memory>
#include <tuple>

#include "filestore/file_store_fixture.h"
#include "filestore/scripted_server.h"

/// The rows of a table-driven test.
template <class... Columns>
using Table = KelVector<std::tuple<Columns...>>;

/// A worker thread that is not started; a test runs its steps.
template <class Thread>
struct Exposed : Thread {
    using Thread::DoWork;
};

/// The initialised module beside a parent that answers at a given port of 127.0.1.1, and helpers for offers,
/// target trees and rows. The threads are not started: tests run their steps.
class TransferTest : public FileStoreTest {
  protected:
    static constexpr const char* kOwnUrl = "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A";
    static constexpr const char* kOwnPathName =
        "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A/02-00-7F-00-01-07/127.0.1.7/255.0.0.0";

    void SetUp() override;
    void SetParent(const KelString& name, std::uint16_t port);

    /// Calls a handler the way the action database does.
    static unsigned int Receive(KelContainer& offer) {
        return FileStore::ActionHandler_FileStoreReceiveFile(&offer);
    }

    /// A file in the test's root; its path.
    KelString MakeFile(const KelString& name, const KelString& content);
    static KelString Content(const KelString& path);  ///< "(none)" when it cannot be read

    /// An offer of the key type/l/n/checksum.
    static KelContainer Offer(const KelString& type = "t", const KelString& checksum = "c") {
        return Make({{"FileType", type}, {"FileLabel", "l"}, {"FileName", "n"}, {"FileChecksum", checksum}});
    }
    static KelContainer From(KelContainer offer, const KelString& address) {
        return With(std::move(offer),
                    {{"HttpProtocolRequestInfo", Make({{"HttpProtocolRequestAddress", address}})}});
    }
    /// A target tree with these devices below this one.
    static KelContainer TargetTree(const KelVector<KelString>& children);

    /// The only row of Files; fails when there is another number of them.
    static FileStoreEntry OnlyRow(bool upstream);
    static KelString Count(DBConnection& connection, const KelString& table) {
        return Cell(connection, "SELECT COUNT(*) FROM " + table);
    }
    static void AddTarget(unsigned long fileId, unsigned long targetId, const KelString& device,
                          std::int64_t lastNotifyTime = 0, unsigned int wakeUp = 0);
    /// All rows and all files below the root, to see that nothing changed.
    KelString Everything() const;
};

/// The steps of the worker threads and what they meet: a parent that follows a script, consumers of events,
/// windows, and rows of both databases, whose fields are given and looked at as SQL ("Priority = 7, Bypass =
/// 1"; "FileStatus, FileSize").
class StepTest : public TransferTest {
  protected:
    static constexpr const char* kChild = "127.0.1.9:1610/0A1B0000-0000-4000-8000-0000000000C1";
    static constexpr const char* kKeyFolder = "Type/Label/0123456789abcdef0123456789abcdef/";  ///< of AddFile

    ~StepTest() override { FileStore::strArchiveFilePath.clear(); }

    /// Subscribes an action to an event for as long as the answer lives.
    [[nodiscard]] static std::shared_ptr<void> Consume(const KelString& event, const KelString& signature);

    // ---- the parent
    void AnswerAsParent(ScriptedServer::Script script);
    void AnswerAsParent(unsigned int result, const KelContainer& values = {});
    /// A parent that accepts every offer and every PUT.
    void AcceptAll();
    const ScriptedServer& Parent() const { return *parent_; }
    /// FileName of every call.
    KelVector<KelString> OfferedNames() const;

    /// The arguments of the only call of this action: to a fake here, or to a server.
    KelContainer OnlyCallOf(const KelString& action) const;
    static KelContainer OnlyCallTo(const ScriptedServer& server, const KelString& action);

    // ---- containers
    /// The values of these names (separated by blanks) as texts, joined with "|".
    static KelString Texts(const KelContainer& container, const KelString& names);
    static KelContainer FromXml(const KelString& xml);
    /// Names and contents of a zip archive's entries, in their order; throws when it is damaged.
    static KelVector<std::pair<KelString, KelString>> ArchiveContent(const KelString& path);
    /// File information that has to be escaped, and the SQL that gives it to a row.
    static KelContainer Info() { return Make({{"Fact", "it's"}}); }
    static KelString SetInfo(const KelContainer& info) { return "FileInfo = '" + info.SaveToXML() + "'"; }

    // ---- rows
    /// What AddFile does, with content, which is the name, in the store (an external file: at FilePath) and
    /// its place, size and a source device in the row.
    static unsigned long AddStored(bool upstream, const KelString& name, const KelString& status,
                                   const KelString& set = "");
    static void Set(bool upstream, unsigned long fileId, const KelString& set);
    static FileStoreEntry Load(bool upstream, unsigned long fileId);
    /// Columns of a row, joined with "|"; "(none)" when there is no row.
    static KelString Fields(bool upstream, unsigned long fileId, const KelString& columns);
    static KelString StatusOf(bool upstream, unsigned long fileId) {
        return Fields(upstream, fileId, "FileStatus");
    }
    /// True when that time of the row was set in this test.
    bool IsNew(bool upstream, unsigned long fileId, const char* column = "LastStatusChangeTime") const;
    /// FileName of every row (with that status), in the order of their FileIds.
    static KelVector<KelString> Names(bool upstream, const KelString& status = "%");
    static KelString PathOf(bool upstream, const FileStoreEntry& entry);
    static void DeleteRows();

    // ---- windows
    static void LimitWindow(FileStoreBandwidthManager& manager, unsigned int rate);
    static void CloseWindow(FileStoreBandwidthManager& manager);

  private:
    std::unique_ptr<ScriptedServer> parent_;
    const std::int64_t start_ = std::time(nullptr);
};

/// The steps of a push thread that is not started.
class PushTest : public StepTest {
  protected:
    using Outcome = FileStorePushThread::Outcome;

    Outcome Send(bool packedPass = false) { return push_.SendFile(reached_, packedPass); }
    Outcome Upload() { return push_.UploadFile(reached_, false); }
    Outcome Request() { return push_.RequestFile(reached_); }

    Exposed<FileStorePushThread> push_;
    bool reached_ = false;  ///< whether a step reached the parent
};
