#include "filestore/file_store_fixture.h"

#include <cstdlib>
#include <fstream>
#include <map>

#include "filestore/module/action_gate.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/module.h"

namespace {

constexpr const char* kModuleHandle = "FileStore";
constexpr const char* kFakeHandle = "Fakes";

class CapturedLog : public KelDebugContext {
  public:
    void Write(KelDebugLevel level, const KelString&, const KelString& line) override {
        const std::lock_guard lock(mutex_);
        lines_.push_back({level, line});
    }
    KelDebugLevel Level() const override { return KelDebugLevel::Trace; }

    KelVector<LoggedLine> Lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    void Clear() {
        const std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    KelVector<LoggedLine> lines_;
};

/// What a freshly loaded module holds.
void ResetIdentity() {
    FileStore::strOurGUID.clear();
    FileStore::strOurHostName.clear();
    FileStore::strOurIPAddress.clear();
    FileStore::ulOurHttpPort = 0;
    FileStore::fPreferIPAddresses = false;
    FileStore::eKeepCopyMask = 4;
    FileStore::fRelayEnabled = false;
    FileStore::fConcatFiles = false;
    FileStore::fAutoConcat = false;
    FileStore::strExcludedFileType.clear();
    FileStore::uMaxFilesToConcat = 50;
    FileStore::fManualUploadRequested = false;
    FileStore::fProcessManualUpload = false;
    FileStore::uLimit = 0;
    FileStore::uCurrent = 0;
    FileStore::vecMulticastAddressInUse.clear();
    FileStore::bmTrackUsageUp.ClearWindow();
    FileStore::bmTrackUsageDown.ClearWindow();
    FileStore::bmTrackUsageMulticast.ClearWindow();
}

KelString NameOf(const KelString& signature) {
    return signature.substr(0, signature.find_first_of(" ("));
}

}  // namespace

struct FileStoreTest::State {
    mutable std::mutex mutex;
    std::map<KelString, KelVector<KelContainer>> calls;
    std::shared_ptr<CapturedLog> log = std::make_shared<CapturedLog>();
};

FileStoreTest::FileStoreTest() : state_(std::make_shared<State>()) {
    MakeRoot();
    ResetIdentity();
    identityValues.SetString("GUID", kGuid);
    identityValues.SetBool("PreferIPAddresses", true);
    relayValues.SetBool("IsEnabled", false);
    RegisterNeighbours();
    FileStore::ModuleRegister(kModuleHandle);
}

FileStoreTest::~FileStoreTest() {
    if (initialised_) CleanUp();
    FileStore::ModuleUnregister(0);
    ActionDbUnregisterAll(kModuleHandle);
    ActionDbUnregisterAll(kFakeHandle);
    DirDelete(root_, true);
}

void FileStoreTest::MakeRoot() {
    KelString pattern = ::testing::TempDir() + "filestore-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    root_ = pattern;
    PathCreate(root_ + "/config");
    PathCreate(root_ + "/data");
    KelAgentSettings settings;
    settings.configDir = root_ + "/config/";
    settings.dataDir = root_ + "/data/";
    settings.name = kAgentName;
    settings.httpPassword = kPassword;
    settings.address = kAddress;
    settings.debugContext = state_->log;
    KelAgentConfigure(std::move(settings));
    FileStore::strModuleIniFile = root_ + "/config/FileStore.ini";
    if (!FileCopy(KEL_SOURCE_DIR "/filestore/FileStore.ini", FileStore::strModuleIniFile, true)) std::abort();
    SetIni("FileStore", "QueueGap", "3600");
}

void FileStoreTest::RegisterNeighbours() {
    Fake("IdentityGetGUID ()", [this](KelContainer& container) {
        container.SetString("GUID", identityValues.GetString("GUID"));
        return 0U;
    });
    Fake("IdentityGetValues ()", [this](KelContainer& container) {
        container.SetContainer("Values", identityValues);
        return 0U;
    });
    Fake("IdentityGetHostname ()", [](KelContainer& container) {
        container.SetString("HostName", "device7");
        return 0U;
    });
    Fake("AgentGetIPAddress ()", [](KelContainer& container) {
        container.SetString("IPAddress", kAddress);
        return 0U;
    });
    FakeResult("IdentityValidateGUIDScheme ()", 0);
    Fake("RelayGetValues ()", [this](KelContainer& container) {
        container.SetContainer("Values", relayValues);
        return 0U;
    });
    Fake("HttpProtocolGetParams ()", [this](KelContainer& container) {
        KelContainer values;
        values.SetInt32("Port", httpPort);
        container.SetContainer("Values", std::move(values));
        return 0U;
    });
    Fake("HttpProtocolAddAlias (string AliasName, string AliasPath)",
         [](KelContainer& container) { return container.GetString("AliasPath").empty() ? 1U : 0U; });
    FakeResult("HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove)", 0);
}

void FileStoreTest::Initialise() {
    initialised_ = true;
    ASSERT_EQ(FileStore::ModuleInitialise(), kModuleSuccess);
}

void FileStoreTest::Activate() {
    ASSERT_EQ(FileStore::ModuleActivate(), kModuleSuccess);
}

void FileStoreTest::CleanUp() {
    initialised_ = false;
    FileStore::ModuleCleanup(0);
}

void FileStoreTest::Fake(const KelString& signature, std::function<unsigned int(KelContainer&)> handler) {
    ActionDbRegisterAction(
        signature,
        [state = state_, name = NameOf(signature), handler = std::move(handler)](KelContainer* container) {
            {
                const std::lock_guard lock(state->mutex);
                state->calls[name].push_back(*container);
            }
            return handler(*container);
        },
        kFakeHandle);
}

void FileStoreTest::FakeResult(const KelString& signature, unsigned int result) {
    Fake(signature, [result](KelContainer&) { return result; });
}

KelVector<KelContainer> FileStoreTest::CallsOf(const KelString& actionName) const {
    const std::lock_guard lock(state_->mutex);
    return state_->calls[actionName];
}

void FileStoreTest::BecomeMaster() {
    FakeResult("QuarnelDbRunScript ()", 0);
    FakeResult("QuarnelDbObjectListTypes ()", 0);
}

unsigned int FileStoreTest::Call(const KelString& action, KelContainer& arguments) {
    return ActionDbInvokeContainer(nullptr, "", action, arguments, 0, -1, -1, nullptr);
}

void FileStoreTest::SetIni(const KelString& section, const KelString& key, const KelString& value) {
    IniFile ini;
    ASSERT_TRUE(ini.Open(FileStore::strModuleIniFile));
    ASSERT_TRUE(static_cast<bool>(ini.WriteEntryValue(section, key, value)));
}

KelString FileStoreTest::GetIni(const KelString& section, const KelString& key) const {
    IniFile ini;
    EXPECT_TRUE(ini.Open(FileStore::strModuleIniFile));
    KelString value;
    ini.GetEntryValue(section, key, value, "");
    return value;
}

KelVector<KelString> FileStoreTest::Rows(DBConnection& connection, const KelString& statement) {
    KelVector<KelString> rows;
    const auto result = connection.Query(statement);
    EXPECT_TRUE(result) << statement;
    for (std::size_t row = 0; result && row < result->GetRowCount(); ++row) {
        KelString text;
        for (std::size_t column = 0; column < result->GetColumns().size(); ++column)
            text += (column > 0 ? "|" : "") + result->GetString(row, column);
        rows.push_back(text);
    }
    return rows;
}

KelString FileStoreTest::Cell(DBConnection& connection, const KelString& statement) {
    const auto result = connection.Query(statement);
    EXPECT_TRUE(result) << statement;
    return result ? result->GetString(0, std::size_t{0}) : KelString();
}

unsigned long FileStoreTest::AddFile(bool upstream, const KelString& name, const KelString& status,
                                     const std::function<void(FileStoreEntry&)>& change) {
    FileStoreEntry entry;
    entry.FileType = "Type";
    entry.FileLabel = "Label";
    entry.FileName = name;
    entry.FileChecksum = "0123456789abcdef0123456789abcdef";
    entry.FileStatus = status;
    entry.Upstream = upstream;
    if (change) change(entry);
    const unsigned long fileId = entry.CreateInDatabase(upstream);
    EXPECT_NE(fileId, 0U);
    return fileId;
}

void FileStoreTest::WriteFile(const KelString& path, const KelString& content) {
    KelString folder;
    KelString name;
    SplitPath(path, folder, name);
    ASSERT_TRUE(PathCreate(folder));
    std::ofstream(path, std::ios::binary) << content;
    ASSERT_EQ(FileGetSize64(path), static_cast<std::int64_t>(content.size()));
}

bool FileStoreTest::HasLogged(KelDebugLevel level, const KelString& part) const {
    for (const LoggedLine& line : state_->log->Lines())
        if (line.level == level && line.text.find(part) != KelString::npos) return true;
    return false;
}

KelVector<LoggedLine> FileStoreTest::Log() const {
    return state_->log->Lines();
}

void FileStoreTest::ClearLog() {
    state_->log->Clear();
}
