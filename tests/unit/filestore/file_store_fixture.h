#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/module/file_store.h"
#include "kel/container.h"
#include "kelcore/action_db.h"

/// One line that the module logged.
struct LoggedLine {
    KelDebugLevel level;
    KelString text;
};

/// The module initialised on a temporary root, with the real action database and faked neighbours.
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
    FileStoreTest();
    ~FileStoreTest() override;

    void Initialise();
    void Activate();
    void CleanUp();  ///< ModuleCleanup; Initialise may follow

    // ---- neighbours
    /// Registers (or replaces) an action for this test; `calls` counts below.
    void Fake(const KelString& signature, std::function<unsigned int(KelContainer&)> handler);
    /// Makes an action answer a code and nothing else.
    void FakeResult(const KelString& signature, unsigned int result);
    /// The arguments of every call of a faked action so far, in order.
    KelVector<KelContainer> CallsOf(const KelString& actionName) const;
    /// Registers the console's two marker actions: the device is a master then.
    void BecomeMaster();

    /// What the relay module answers; change it before the call that reads it.
    KelContainer relayValues;
    KelContainer identityValues;
    int httpPort = kPort;

    // ---- the module
    /// Calls an action by name in `arguments`; its result code.
    static unsigned int Call(const KelString& action, KelContainer& arguments);
    /// Writes an entry of the module's ini file.
    void SetIni(const KelString& section, const KelString& key, const KelString& value);
    KelString GetIni(const KelString& section, const KelString& key) const;

    // ---- databases
    static DBConnection& Upstream() { return *FileStore::pDbConnectionUpstream; }
    static DBConnection& Downstream() { return *FileStore::pDbConnectionDownstream; }
    static DBConnection& Callback() { return *FileStore::pDbConnectionCallback; }
    /// Runs a statement that must succeed; its rows as text, cells joined with "|".
    static KelVector<KelString> Rows(DBConnection& connection, const KelString& statement);
    /// The first cell of the first row, empty when there is none.
    static KelString Cell(DBConnection& connection, const KelString& statement);
    /// Creates a file row with the key (type, label, name, checksum) and a status; its FileId.
    static unsigned long AddFile(bool upstream, const KelString& name, const KelString& status,
                                 const std::function<void(FileStoreEntry&)>& change = {});
    /// Writes `content` to `path`, making its folders.
    static void WriteFile(const KelString& path, const KelString& content);

    // ---- log
    bool HasLogged(KelDebugLevel level, const KelString& part) const;
    KelVector<LoggedLine> Log() const;
    void ClearLog();

    const KelString& Root() const { return root_; }

  private:
    struct State;  // shared with the fakes, which may outlive the test in a running thread

    void MakeRoot();
    void RegisterNeighbours();

    KelString root_;
    std::shared_ptr<State> state_;
    bool initialised_ = false;
};
