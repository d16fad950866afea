#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <utility>
#include <variant>

#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/module/file_store.h"
#include "kel/container.h"
#include "kel/temp_folder.h"
#include "kelcore/action_db.h"
#include "kelcore/module.h"

/// The module on a temporary root, with the real action database and faked neighbours.
///
/// The constructor makes the root with the shipped ini file, registers the module and the neighbours
/// identity, agent, relay, HTTP protocol; nothing is initialised. Initialise opens the databases; Activate
/// starts the threads (QueueGap is long, they do nothing of themselves). The end cleans up what is open.
class FileStoreTest : public ::testing::Test {
  public:
    static constexpr const char* kGuid = "0A1B0000-0000-4000-8000-00000000000A";
    static constexpr const char* kParentGuid = "0A1B0000-0000-4000-8000-0000000000FF";
    static constexpr const char* kAddress = "127.0.1.7";
    static constexpr int kPort = 1610;
    static constexpr const char* kAgentName = "agent";
    static constexpr const char* kPassword = "secret/p@ss";

  protected:
    using Handler = std::function<unsigned int(KelContainer&)>;
    using Value = std::variant<KelString, bool, std::int64_t, KelContainer>;

    FileStoreTest();
    ~FileStoreTest() override;

    void Initialise();
    void Activate() { ASSERT_EQ(FileStore::ModuleActivate(), kModuleSuccess); }
    void CleanUp();  ///< ModuleCleanup; Initialise may follow

    using Values = std::initializer_list<std::pair<KelString, Value>>;
    static KelContainer Make(Values values) { return With({}, values); }
    static KelContainer With(KelContainer container, Values values);

    // ---- neighbours
    /// Registers (or replaces) an action for this test; CallsOf counts its calls.
    void Fake(const KelString& signature, Handler handler);
    /// Makes an action answer a code and nothing else.
    void FakeResult(const KelString& signature, unsigned int result) {
        Fake(signature, [result](KelContainer&) { return result; });
    }
    /// The arguments of every call of a faked action so far, in order.
    KelVector<KelContainer> CallsOf(const KelString& actionName) const;
    /// Registers the console's two marker actions: the device is a master then.
    void BecomeMaster();

    /// What the neighbours answer; change them before the call that reads them.
    KelContainer relayValues;
    KelContainer identityValues;
    KelContainer httpValues;

    // ---- the module
    /// Calls an action by name in `arguments`; its result code.
    static unsigned int Call(const KelString& action, KelContainer& arguments) {
        return ActionDbInvokeContainer(nullptr, "", action, arguments, 0, -1, -1, nullptr);
    }
    /// The results of a call that must succeed.
    static KelContainer Ask(const KelString& action, KelContainer arguments = {}) {
        EXPECT_EQ(Call(action, arguments), 0U) << action;
        return arguments;
    }
    /// Entries of the module's ini file.
    void SetIni(const KelString& section, const KelString& key, const KelString& value);
    KelString GetIni(const KelString& section, const KelString& key) const;

    // ---- databases
    static DBConnection& Upstream() { return *FileStore::pDbConnectionUpstream; }
    static DBConnection& Downstream() { return *FileStore::pDbConnectionDownstream; }
    static DBConnection& Callback() { return *FileStore::pDbConnectionCallback; }
    /// Runs a statement that must succeed; its rows as text, cells joined with "|".
    static KelVector<KelString> Rows(DBConnection& connection, const KelString& statement);
    /// The first row in that form, empty when there is none.
    static KelString Cell(DBConnection& connection, const KelString& statement);
    /// Creates a file row with the key (type, label, name, checksum) and a status; its FileId.
    static unsigned long AddFile(bool upstream, const KelString& name, const KelString& status,
                                 const std::function<void(FileStoreEntry&)>& change = {});
    /// The same with fields given as SQL ("FileSize = 7, Bypass = 1").
    static unsigned long AddFile(bool upstream, const KelString& name, const KelString& status,
                                 const KelString& set);
    /// Writes `content` to `path`, making its folders.
    static void WriteFile(const KelString& path, const KelString& content);

    // ---- log
    bool HasLogged(KelDebugLevel level, const KelString& part) const;
    void ClearLog();

    const KelString& Root() const { return root_.Path(); }

  private:
    struct State;

    void MakeRoot();
    void RegisterNeighbours();

    TempFolder root_;
    std::shared_ptr<State> state_;
    bool initialised_ = false;
};
