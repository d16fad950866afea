#include "filestore/file_store_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>

#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kelcore/agent.h"

namespace {

constexpr const char* kModuleHandle = "FileStore";
constexpr const char* kFakeHandle = "Fakes";

/// What a freshly loaded module holds.
void ResetModule() {
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

struct Put {
    KelContainer& container;
    const KelString& name;
    void operator()(const KelString& value) { container.SetString(name, value); }
    void operator()(bool value) { container.SetBool(name, value); }
    void operator()(std::int64_t value) { container.SetInt64(name, value); }
    void operator()(const KelContainer& value) { container.SetContainer(name, value); }
};

}  // namespace

/// What the module calls and logs; outlives the test in the fakes of a running thread.
struct FileStoreTest::State : KelDebugContext {
    void Write(KelDebugLevel level, const KelString&, const KelString& line) override {
        const std::lock_guard lock(mutex);
        log.emplace_back(level, line);
    }
    KelDebugLevel Level() const override { return KelDebugLevel::Trace; }

    std::mutex mutex;
    std::map<KelString, KelVector<KelContainer>> calls;
    KelVector<std::pair<KelDebugLevel, KelString>> log;
};

FileStoreTest::FileStoreTest() : state_(std::make_shared<State>()) {
    MakeRoot();
    ResetModule();
    identityValues = Make({{"GUID", kGuid}, {"PreferIPAddresses", true}});
    relayValues = Make({{"IsEnabled", false}});
    httpValues = Make({{"Port", kPort}});
    RegisterNeighbours();
    FileStore::ModuleRegister(kModuleHandle);
}

FileStoreTest::~FileStoreTest() {
    if (initialised_) CleanUp();
    FileStore::ModuleUnregister(0);
    ActionDbUnregisterAll(kModuleHandle);
    ActionDbUnregisterAll(kFakeHandle);
}

void FileStoreTest::MakeRoot() {
    PathCreate(Root() + "/config");
    PathCreate(Root() + "/data");
    KelAgentConfigure({Root() + "/config/", Root() + "/data/", kAgentName, kPassword, kAddress, state_});
    FileStore::strModuleIniFile = Root() + "/config/FileStore.ini";
    if (!FileCopy(KEL_SOURCE_DIR "/filestore/FileStore.ini", FileStore::strModuleIniFile, true)) std::abort();
    SetIni("FileStore", "QueueGap", "3600");
}

void FileStoreTest::RegisterNeighbours() {
    const auto answer = [this](const KelString& signature, const char* name, auto value) {
        Fake(signature, [name, value](KelContainer& container) {
            container = Make({{name, value()}});
            return 0U;
        });
    };
    answer("IdentityGetGUID ()", "GUID", [this] { return identityValues.GetString("GUID"); });
    answer("IdentityGetValues ()", "Values", [this] { return identityValues; });
    answer("IdentityGetHostname ()", "HostName", [] { return KelString("device7"); });
    answer("AgentGetIPAddress ()", "IPAddress", [] { return KelString(kAddress); });
    answer("RelayGetValues ()", "Values", [this] { return relayValues; });
    answer("HttpProtocolGetParams ()", "Values", [this] { return httpValues; });
    Fake("HttpProtocolAddAlias (string AliasName, string AliasPath)",
         [](KelContainer& container) { return container.GetString("AliasPath").empty() ? 1U : 0U; });
    FakeResult("HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove)", 0);
    FakeResult("IdentityValidateGUIDScheme ()", 0);
}

void FileStoreTest::Initialise() {
    initialised_ = true;
    ASSERT_EQ(FileStore::ModuleInitialise(), kModuleSuccess);
}

void FileStoreTest::CleanUp() {
    initialised_ = false;
    FileStore::ModuleCleanup(0);
}

KelContainer FileStoreTest::With(KelContainer container, Values values) {
    for (const auto& [name, value] : values)
        std::visit(Put{container, name}, value);
    return container;
}

void FileStoreTest::Fake(const KelString& signature, Handler handler) {
    const KelString name = signature.substr(0, signature.find_first_of(" ("));
    ActionDbRegisterAction(
        signature,
        [state = state_, name, handler = std::move(handler)](KelContainer* container) {
            {
                const std::lock_guard lock(state->mutex);
                state->calls[name].push_back(*container);
            }
            return handler(*container);
        },
        kFakeHandle);
}

KelVector<KelContainer> FileStoreTest::CallsOf(const KelString& actionName) const {
    const std::lock_guard lock(state_->mutex);
    return state_->calls[actionName];
}

void FileStoreTest::BecomeMaster() {
    FakeResult("QuarnelDbRunScript ()", 0);
    FakeResult("QuarnelDbObjectListTypes ()", 0);
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
    const KelVector<KelString> rows = Rows(connection, statement);
    return rows.empty() ? KelString() : rows.front();
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

unsigned long FileStoreTest::AddFile(bool upstream, const KelString& name, const KelString& status,
                                     const KelString& set) {
    const unsigned long fileId = AddFile(upstream, name, status);
    Rows(upstream ? Upstream() : Downstream(),
         "UPDATE Files SET " + set + " WHERE FileId = " + std::to_string(fileId));
    return fileId;
}

void FileStoreTest::WriteFile(const KelString& path, const KelString& content) {
    ASSERT_TRUE(PathCreate(std::filesystem::path(path).parent_path()));
    TempFolder::Write(path, content);
}

bool FileStoreTest::HasLogged(KelDebugLevel level, const KelString& part) const {
    const std::lock_guard lock(state_->mutex);
    return std::any_of(state_->log.begin(), state_->log.end(), [&](const auto& line) {
        return line.first == level && line.second.find(part) != KelString::npos;
    });
}

void FileStoreTest::ClearLog() {
    const std::lock_guard lock(state_->mutex);
    state_->log.clear();
}
