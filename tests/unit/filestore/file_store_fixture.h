#pragma once

#include <initializer_list>
#include <set>
#include <tuple>
#include <variant>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "module_fixture.h"
#include "test_http_server.h"

inline constexpr Side kDown = Side::Downstream, kUp = Side::Upstream;

/// The rows of a table-driven test.
template <class... Columns>
using Table = KelVector<std::tuple<Columns...>>;

/// A worker thread that is not started; a test runs its steps.
template <class Thread>
struct Exposed : Thread {
    using Thread::DoWork;
};

/// The module on a temporary root, with the real action database, faked neighbours (identity, agent, relay,
/// HTTP protocol) and a parent that follows a script, at first one that does not answer.
///
/// The databases are open. Worker threads do nothing until Activate starts them (even then QueueGap is long):
/// tests run their steps. CleanUp, at the end at the latest, checks that the statements that the module ran
/// search an index, with the statistics of the shipped ini file.
///
/// Rows are given and looked at as SQL. A status is named by its middle: "#MISSING#" in a statement,
/// "MISSING" in the cells that are read. A time since the test began is read as "now".
class StoreTest : public ModuleFixture {
  protected:
    static constexpr const char* kGuid = "0A1B0000-0000-4000-8000-00000000000A";
    static constexpr const char* kParentGuid = "0A1B0000-0000-4000-8000-0000000000FF";
    static constexpr const char* kOwnUrl = "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A";
    static constexpr const char* kChild = "127.0.1.9:1610/0A1B0000-0000-4000-8000-0000000000C1";
    static constexpr const char* kOwnPathName =
        "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A/02-00-7F-00-01-07/127.0.1.7/255.0.0.0";
    static constexpr const char* kAgentName = "agent";
    static constexpr const char* kState = "FileStatus, LastStatusChangeTime";
    static constexpr const char* kPassword = "secret/p@ss";

    using Handler = std::function<unsigned int(KelContainer&)>;
    using Value = std::variant<KelString, bool, std::int64_t, KelContainer>;
    using Values = std::initializer_list<std::pair<KelString, Value>>;

    StoreTest();
    ~StoreTest() override;

    void Initialise();
    void Activate() { ASSERT_EQ(FileStore::ModuleActivate(), kModuleSuccess); }
    void CleanUp();  ///< ModuleCleanup; Initialise may follow

    // ---- containers
    static KelContainer Make(Values values) { return With({}, values); }
    static KelContainer With(KelContainer container, Values values);
    static KelContainer FromXml(const KelString& xml);
    /// The values of these names (separated by blanks) as texts, joined with "|".
    static KelString Read(const KelContainer& container, const KelString& names);
    /// The same of each of the containers Values of an answer.
    static Texts ReadValues(const KelContainer& answer, const KelString& names);

    // ---- neighbours
    /// Registers (or replaces) an action for this test; CallsOf counts its calls.
    void Fake(const KelString& signature, Handler handler);
    /// Makes an action answer a code and nothing else.
    void FakeResult(const KelString& signature, unsigned int result) {
        Fake(signature, [result](KelContainer&) { return result; });
    }
    /// The arguments of every call of a faked action so far, in order; of the only one.
    KelVector<KelContainer> CallsOf(const KelString& actionName) const {
        const std::lock_guard lock(mutex_);
        const auto calls = calls_.find(actionName);
        return calls == calls_.end() ? KelVector<KelContainer>() : calls->second;
    }
    KelContainer OnlyCallOf(const KelString& actionName) const {
        EXPECT_EQ(CallsOf(actionName).size(), 1U) << actionName;
        return CallsOf(actionName).empty() ? KelContainer() : CallsOf(actionName).front();
    }
    /// Registers the console's two marker actions: the device is a master then.
    void BecomeMaster() {
        FakeResult("QuarnelDbRunScript ()", 0);
        FakeResult("QuarnelDbObjectListTypes ()", 0);
    }
    /// Subscribes an action to an event for as long as the answer lives.
    [[nodiscard]] static std::shared_ptr<void> Consume(const KelString& event, const KelString& signature) {
        CallbackDbRegisterAction(event, signature, "", 0);
        return {nullptr, [event, signature](void*) { CallbackDbDeleteAction(event, signature, ""); }};
    }

    /// What the neighbours answer; change them before the call that reads them.
    KelContainer relayValues, identityValues, httpValues;

    // ---- the module
    /// The results of a call that must end with this code.
    static KelContainer Ask(const KelString& action, KelContainer arguments = {}, unsigned code = kKelOk) {
        EXPECT_EQ(Call(action, arguments), code) << action;
        return arguments;
    }
    static void ChangeSettings(const KelContainer& values, unsigned int code = kKelOk) {
        Ask("FileStoreSetValues", Make({{"Values", values}}), code);
    }
    /// Entries of the module's ini file.
    static void SetIni(const KelString& section, const KelString& key, const KelString& value);
    static KelString GetIni(const KelString& section, const KelString& key);
    bool HasLogged(KelDebugLevel level, const KelString& part) const { return log_->Count(level, part) > 0; }

    // ---- rows
    static DBConnection& Database(Side side) { return FileStoreGetDatabase(side).connection; }
    /// Runs a statement that must succeed; its rows as text, cells joined with "|".
    static Texts Rows(Side side, const KelString& statement);
    /// The first row in that form, empty when there is none.
    static KelString Cell(Side side, const KelString& statement) {
        const Texts rows = Rows(side, statement);
        return rows.empty() ? KelString() : rows.front();
    }
    static KelString Count(Side side, const KelString& table = "Files") {
        return Cell(side, "SELECT COUNT(*) FROM " + table);
    }
    /// Columns of every file or target, in the order of their numbers.
    static Texts Files(Side side, const KelString& columns) {
        return Rows(side, "SELECT " + columns + " FROM Files ORDER BY FileId");
    }
    static Texts Targets(const KelString& columns = "TargetId") {
        return Rows(kDown, "SELECT " + columns + " FROM Targets ORDER BY TargetId");
    }
    /// Creates a file row with the key t/l/name/c, a status and more fields ("FileSize = 7, Bypass = 1").
    static std::uint64_t AddFile(Side side, const KelString& name, const KelString& status,
                                 const KelString& set = "");
    /// What AddFile does, with content, which is the name, in the store (an external file: at FilePath) and
    /// its place, size and a source device in the row.
    static std::uint64_t AddStored(Side side, const KelString& name, const KelString& status,
                                   const KelString& set = "");
    static void AddTarget(std::uint64_t fileId, std::uint64_t targetId, const KelString& device,
                          std::int64_t lastNotifyTime = 0, unsigned int wakeUp = 0);
    static void Set(Side side, std::uint64_t fileId, const KelString& set) {
        Rows(side, KelFormat("UPDATE Files SET %S WHERE FileId = %lu", set, fileId));
    }
    /// Sets the time of the last change of a row.
    static KelString ChangedAgo(std::int64_t seconds) {
        return "LastStatusChangeTime = " + std::to_string(std::time(nullptr) - seconds);
    }
    static FileStoreEntry Load(Side side, std::uint64_t fileId) {
        FileStoreEntry entry;
        EXPECT_TRUE(entry.LoadFromDatabase(fileId, side));
        return entry;
    }
    /// Columns of a row, joined with "|"; "(none)" when there is no row. The same of the only row of Files.
    static KelString Fields(Side side, std::uint64_t fileId, const KelString& columns = "FileStatus") {
        const Texts rows = Rows(side, KelFormat("SELECT %S FROM Files WHERE FileId = %lu", columns, fileId));
        return rows.empty() ? KelString("(none)") : rows.front();
    }
    static KelString OnlyFields(Side side, const KelString& columns = "FileStatus") {
        EXPECT_EQ(Count(side), "1");
        return Cell(side, "SELECT " + columns + " FROM Files");
    }
    static FileStoreEntry OnlyRow(Side side) {
        const KelString fileId = OnlyFields(side, "FileId");
        return fileId.empty() ? FileStoreEntry() : Load(side, std::stoull(fileId));
    }
    /// FileName of every row (with that status), in the order of their FileIds.
    static Texts Names(Side side, const KelString& status = "") {
        const KelString condition = status.empty() ? "" : "WHERE FileStatus = #" + status + "#";
        return Rows(side, "SELECT FileName FROM Files " + condition + " ORDER BY FileId");
    }
    static void DeleteRows() {
        for (const auto& [side, table] : {std::pair(kUp, "Files"), {kDown, "Files"}, {kDown, "Targets"}})
            Rows(side, KelFormat("DELETE FROM %s", table));
    }
    /// Begins a case of a table: without rows, and named in the failures as long as the answer lives.
    [[nodiscard]] static ::testing::ScopedTrace Begin(const KelString& name) {
        DeleteRows();
        return {"", 0, name};
    }
    /// The selections, updates and deletions of files and targets that the module ran since Initialise or the
    /// last call; the steps in which SQLite runs one.
    std::set<KelString> TakeStatements(Side side);
    static Texts Plan(Side side, const KelString& statement);
    /// Has these changes ("DELETE ON Files") fail as on a full disk for as long as the answer lives.
    [[nodiscard]] static std::shared_ptr<void> Refuse(DBConnection& connection, const KelString& changes);
    [[nodiscard]] static std::shared_ptr<void> Refuse(Side side, const KelString& changes) {
        return Refuse(Database(side), changes);
    }

    // ---- files
    const KelString& Root() const { return root_.Path(); }
    /// Writes `content` to `path`, making its folders; to a file in the root, whose path is returned.
    static void WriteFile(const KelString& path, const KelString& content);
    KelString MakeFile(const KelString& name, const KelString& content) {
        WriteFile(Root() + "/" + name, content);
        return Root() + "/" + name;
    }
    static KelString Content(const KelString& path);  ///< "(none)" when it cannot be read
    static KelString PathOf(Side side, std::uint64_t fileId) {
        return FileStore::StorePath(side, Load(side, fileId).Key());
    }
    /// Below the root of the store.
    static KelString InStore(const KelString& path) { return FileStore::strStorageLocationToUse + path; }
    /// All rows and all files below the root, to see that nothing changed.
    KelString Everything() const;

    // ---- offers
    /// An offer of the key type/l/n/checksum.
    static KelContainer Offer(const KelString& type = "t", const KelString& checksum = "c") {
        return Make({{"FileType", type}, {"FileLabel", "l"}, {"FileName", "n"}, {"FileChecksum", checksum}});
    }
    /// The code that an offer with changed values gets.
    static unsigned int Receive(KelContainer offer, Values values = {}) {
        return Call("FileStoreReceiveFile", With(std::move(offer), values));
    }
    static void Accept(KelContainer offer, Values values = {}) {
        EXPECT_EQ(Receive(std::move(offer), values), kKelOk);
    }
    /// A target tree with these devices below this one.
    static KelContainer TargetTree(const Texts& children);
    /// File information that has to be escaped, and the SQL that gives it to a row.
    static KelContainer Info() { return Make({{"Fact", "it's"}}); }
    static KelString SetInfo(const KelContainer& info) { return "FileInfo = '" + info.SaveToXML() + "'"; }

    // ---- the parent
    void SetParent(const KelString& name, std::uint16_t port) {
        relayValues = With(relayValues, {{"ParentName", name}, {"ParentPort", port}, {"ParentSync", true}});
    }
    void AnswerAsParent(TestHttpServer::Script script) {
        parent_ = std::make_unique<TestHttpServer>(std::move(script));
        SetParent("127.0.1.1", parent_->Port());
    }
    void AnswerAsParent(unsigned int result, const KelContainer& values = {}) {
        AnswerAsParent(TestHttpServer::ActionScript(result, values));
    }
    /// A parent that accepts every offer and every PUT.
    void AcceptAll();
    const TestHttpServer& Parent() const { return *parent_; }
    /// The names of the files in all requests, or in those of one method.
    Texts RequestedNames(const KelString& method = "") const;
    /// The arguments of the only call of a server, which must be of this action.
    static KelContainer OnlyCallTo(const TestHttpServer& server, const KelString& action);

    // ---- windows
    /// A window in UTC whose slots all hold `number`.
    static KelContainer Window(const KelString& number, int type = 2, int slots = 168);
    static void LimitWindow(FileStoreBandwidthManager& manager, const KelString& rate) {
        KelContainer window = Window(rate);
        manager.UpdateTransferWindow(window);
    }
    static void CloseWindow(FileStoreBandwidthManager& manager) { LimitWindow(manager, "0"); }

  private:
    static KelString Shortened(const KelString& cell);
    void RegisterNeighbours();
    void Observe(Side side);
    void CheckPlans(Side side);

    mutable std::mutex mutex_;  ///< of calls_ and statements_
    std::map<KelString, KelVector<KelContainer>> calls_;
    std::map<Side, std::set<KelString>> statements_;
    inline static std::int64_t start_ = 0;
    bool initialised_ = false;
    std::unique_ptr<TestHttpServer> parent_;
};
