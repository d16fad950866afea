#include "filestore/file_store_fixture.h"

#include <regex>

#include "filestore/down/notify_thread.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kModuleHandle = "FileStore";
/// Conditions of statements that concern all files: another storage location, a list of them, and rows from
/// before upstream files had their own database.
constexpr const char* kScanned[] = {"substr(FilePath", "FileStatus != ", "Upstream = 1",
                                    "DISTINCT DeviceGUID"};

thread_local bool ofTheTest = false;  ///< whether the test runs a statement of its own

/// What a freshly loaded module holds.
void ResetModule() {
    const KelLock identity(FileStore::mutexGUID), settings(FileStore::mutexSettings),
        multicast(FileStore::mutexMulticastVector);
    for (KelString* text : {&FileStore::strOurGUID, &FileStore::strOurHostName, &FileStore::strOurIPAddress,
                            &FileStore::strExcludedFileType})
        text->clear();
    FileStore::ulOurHttpPort = FileStore::uLimit = FileStore::uCurrent = 0;
    FileStore::fPreferIPAddresses = FileStore::fRelayEnabled = FileStore::fConcatFiles =
        FileStore::fAutoConcat = FileStore::fManualUploadRequested = FileStore::fProcessManualUpload = false;
    FileStore::eKeepCopyMask = 4;
    FileStore::uMaxFilesToConcat = 50;
    FileStore::vecMulticastAddressInUse.clear();
    for (FileStoreBandwidthManager* manager :
         {&FileStore::bmTrackUsageUp, &FileStore::bmTrackUsageDown, &FileStore::bmTrackUsageMulticast})
        manager->ClearWindow();
}

/// "#MISSING#" becomes the quoted status. Long statements, which carry information of files, name none.
KelString WithStatuses(const KelString& statement) {
    static const std::regex name("#([A-Z_]+)#");
    return statement.size() > 8192 ? statement
                                   : std::regex_replace(statement, name, "'_AGTMOD_FILESTORESTATUS_$1_'");
}

}  // namespace

StoreTest::StoreTest() {
    start_ = std::time(nullptr);
    KelAgentConfigure({root_ / "config/", root_ / "data/", kAgentName, kPassword, "127.0.1.7", log_});
    FileStore::strModuleIniFile = root_ / "config/FileStore.ini";
    if (!FileCopy(KEL_SOURCE_DIR "/filestore/FileStore.ini", FileStore::strModuleIniFile, true)) std::abort();
    SetIni("FileStore", "QueueGap", "3600");
    FileStoreNotifyThread::patience = std::chrono::minutes(1);
    ResetModule();
    identityValues = Make({{"GUID", kGuid}, {"PreferIPAddresses", true}});
    relayValues = Make({{"IsEnabled", false}});
    httpValues = Make({{"Port", 1610}});
    RegisterNeighbours();
    FileStore::ModuleRegister(kModuleHandle);
    Initialise();
    SetParent("127.0.1.1", 1);
}

StoreTest::~StoreTest() {
    if (initialised_) CleanUp();
    FileStore::ModuleUnregister(0);
    ActionDbUnregisterAll(kModuleHandle);
    FileStore::strArchiveFilePath.clear();
}

void StoreTest::RegisterNeighbours() {
    const auto answer = [this](const KelString& signature, const char* name, auto value) {
        Fake(signature, [name, value](KelContainer& container) {
            container = Make({{name, value()}});
            return 0U;
        });
    };
    answer("IdentityGetGUID ()", "GUID", [this] { return identityValues.GetString("GUID"); });
    answer("IdentityGetValues ()", "Values", [this] { return identityValues; });
    answer("IdentityGetHostname ()", "HostName", [] { return KelString("device7"); });
    answer("AgentGetIPAddress ()", "IPAddress", [] { return KelString("127.0.1.7"); });
    answer("RelayGetValues ()", "Values", [this] { return relayValues; });
    answer("HttpProtocolGetParams ()", "Values", [this] { return httpValues; });
    Fake("HttpProtocolAddAlias (string AliasName, string AliasPath)",
         [](KelContainer& container) { return container.GetString("AliasPath").empty() ? 1U : 0U; });
    FakeResult("HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove)", 0);
    FakeResult("IdentityValidateGUIDScheme ()", 0);
}

void StoreTest::Initialise() {
    initialised_ = true;
    ASSERT_EQ(FileStore::ModuleInitialise(), kModuleSuccess);
    Observe(kDown);
    Observe(kUp);
}

void StoreTest::CleanUp() {
    initialised_ = false;
    CheckPlans(kDown);
    CheckPlans(kUp);
    FileStore::ModuleCleanup(0);
}

KelContainer StoreTest::With(KelContainer container, Values values) {
    for (const auto& [name, value] : values) {
        if (const auto* text = std::get_if<KelString>(&value)) container.SetString(name, *text);
        if (const auto* flag = std::get_if<bool>(&value)) container.SetBool(name, *flag);
        if (const auto* number = std::get_if<std::int64_t>(&value)) container.SetInt64(name, *number);
        if (const auto* inner = std::get_if<KelContainer>(&value)) container.SetContainer(name, *inner);
    }
    return container;
}

KelContainer StoreTest::FromXml(const KelString& xml) {
    KelContainer container;
    EXPECT_TRUE(static_cast<bool>(container.LoadFromXML(xml)));
    return container;
}

KelString StoreTest::Read(const KelContainer& container, const KelString& names) {
    KelString text;
    for (const KelString& name : SplitText(names, ' '))
        text += "|" + container.GetString(name, "(none)");
    return text.substr(1);
}

Texts StoreTest::ReadValues(const KelContainer& answer, const KelString& names) {
    Texts texts;
    for (std::uint32_t i = 0; answer.Has("Values") && i < answer.Count("Values"); ++i)
        texts.push_back(Read(answer.GetContainer("Values", i), names));
    return texts;
}

void StoreTest::Fake(const KelString& signature, Handler handler) {
    const KelString name = signature.substr(0, signature.find_first_of(" ("));
    FakeAction(signature, [this, name, handler = std::move(handler)](KelContainer* container) {
        {
            const std::lock_guard lock(mutex_);
            calls_[name].push_back(*container);
        }
        return handler(*container);
    });
}

void StoreTest::SetIni(const KelString& section, const KelString& key, const KelString& value) {
    IniFile ini;
    ASSERT_TRUE(ini.Open(FileStore::strModuleIniFile));
    ASSERT_TRUE(static_cast<bool>(ini.WriteEntryValue(section, key, value)));
}

KelString StoreTest::GetIni(const KelString& section, const KelString& key) {
    IniFile ini;
    EXPECT_TRUE(ini.Open(FileStore::strModuleIniFile));
    KelString value;
    ini.GetEntryValue(section, key, value, "");
    return value;
}

KelString StoreTest::Shortened(const KelString& cell) {
    constexpr std::string_view kPrefix = "_AGTMOD_FILESTORESTATUS_";
    if (cell.starts_with(kPrefix)) return cell.substr(kPrefix.size(), cell.size() - kPrefix.size() - 1);
    const std::int64_t time = std::strtoll(cell.c_str(), nullptr, 10);
    return time >= start_ && time <= std::time(nullptr) && cell == std::to_string(time) ? "now" : cell;
}

Texts StoreTest::Rows(Side side, const KelString& statement) {
    Texts rows;
    ofTheTest = true;
    const auto result = Database(side).Query(WithStatuses(statement));
    ofTheTest = false;
    EXPECT_TRUE(result) << statement;
    for (std::size_t row = 0; result && row < result->GetRowCount(); ++row) {
        KelString text;
        for (std::size_t column = 0; column < result->GetColumns().size(); ++column)
            text += (column > 0 ? "|" : "") + Shortened(result->GetString(row, column));
        rows.push_back(text);
    }
    return rows;
}

std::uint64_t StoreTest::AddFile(Side side, const KelString& name, const KelString& status,
                                 const KelString& set) {
    FileStoreEntry entry({"t", "l", name, "c"});
    entry.Upstream = side == kUp;
    const std::uint64_t fileId = entry.CreateInDatabase(side);
    EXPECT_NE(fileId, 0U);
    Set(side, fileId, "FileStatus = #" + status + "#" + (set.empty() ? "" : ", ") + set);
    return fileId;
}

void StoreTest::AddTarget(std::uint64_t fileId, std::uint64_t targetId, const KelString& device,
                          std::int64_t lastNotifyTime, unsigned int wakeUp) {
    KelContainer path;
    if (!device.empty()) path.SetContainer(device, {});
    Rows(kDown, KelFormat("INSERT INTO Targets (TargetId, FileId, DeviceGUID, DevicePath, TargetCreateTime, "
                          "LastNotifyTime, WakeUpDevice) VALUES (%lu, %lu, '%Q', '%S', 1, %ld, %u)",
                          targetId, fileId, device, path.SaveToXML(), lastNotifyTime, wakeUp));
}

void StoreTest::Observe(Side side) {
    Database(side).SetObserver([this, side](const KelString& statement) {
        if (ofTheTest || statement.starts_with("EXPLAIN")) return;
        const std::lock_guard lock(mutex_);
        for (const char* table : {"FROM Files", "UPDATE Files", "FROM Targets", "UPDATE Targets"})
            if (statement.find(table) != KelString::npos) statements_[side].insert(statement);
    });
}

std::set<KelString> StoreTest::TakeStatements(Side side) {
    const std::lock_guard lock(mutex_);
    return std::exchange(statements_[side], {});
}

Texts StoreTest::Plan(Side side, const KelString& statement) {
    Texts steps;
    const auto result = Database(side).Query("EXPLAIN QUERY PLAN " + statement);
    for (std::size_t row = 0; result && row < result->GetRowCount(); ++row)
        steps.push_back(result->GetString(row, "detail"));
    EXPECT_FALSE(steps.empty()) << statement;
    return steps;
}

void StoreTest::CheckPlans(Side side) {
    Database(side).SetObserver({});
    for (const KelString& statement : TakeStatements(side)) {
        const auto has = [&statement](const char* part) { return statement.find(part) != KelString::npos; };
        const bool mayScan = !has("WHERE") || std::any_of(std::begin(kScanned), std::end(kScanned), has);
        // Their order depends on two tables at once; those of large files are only sorted when they are few.
        const bool maySort = mayScan || has("JOIN Targets") || has("INDEXED BY WorkAnnounceLarge");
        for (const KelString& step : Plan(side, statement)) {
            SCOPED_TRACE(step);
            EXPECT_TRUE(mayScan || !step.starts_with("SCAN") || step == "SCAN CONSTANT ROW") << statement;
            EXPECT_TRUE(maySort || step.find("TEMP B-TREE") == KelString::npos) << statement;
            EXPECT_EQ(step.find("ANY("), KelString::npos) << statement;  // a scan that skips equal values
        }
    }
}

std::shared_ptr<void> StoreTest::Refuse(DBConnection& connection, const KelString& changes) {
    connection.Query(
        WithStatuses("CREATE TRIGGER Refuse BEFORE " + changes + " BEGIN SELECT RAISE(ABORT, 'full'); END"));
    return {nullptr, [&connection](void*) { connection.Query("DROP TRIGGER Refuse"); }};
}

void StoreTest::WriteFile(const KelString& path, const KelString& content) {
    ASSERT_TRUE(PathCreate(fs::path(path).parent_path()));
    TempFolder::Write(path, content);
}

KelString StoreTest::Content(const KelString& path) {
    const auto text = FileReadText(path, 1U << 30);
    return text ? *text : KelString("(none)");
}

KelString StoreTest::Everything() const {
    KelString text;
    for (const auto& [side, table] : {std::pair(kDown, "Files"), {kDown, "Targets"}, {kUp, "Files"}})
        for (const KelString& row : Rows(side, KelFormat("SELECT * FROM %s", table)))
            text += row + "\n";
    for (const auto& item : fs::recursive_directory_iterator(Root()))
        if (item.path().filename().string().find(".sqlite") == KelString::npos)
            text += item.path().string() + "\n";
    return text;
}

KelContainer StoreTest::TargetTree(const Texts& children) {
    KelContainer level;
    for (const KelString& child : children)
        level.SetContainer(child, {});
    return Make({{kOwnPathName, level}});
}

void StoreTest::AcceptAll() {
    AnswerAsParent([](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        if (request.method == "PUT") return {201};
        const KelString name = request.Arguments().GetString("FileName");
        return TestHttpServer::ActionResult(0, Make({{"FileURL", "/FileStore/upstream/" + name}}));
    });
}

Texts StoreTest::RequestedNames(const KelString& method) const {
    Texts names;
    for (const auto& request : parent_->Requests())
        if (method.empty() || request.method == method)
            names.push_back(request.method == "POST" ? request.Arguments().GetString("FileName")
                                                     : request.target.substr(request.target.rfind('/') + 1));
    return names;
}

KelContainer StoreTest::OnlyCallTo(const TestHttpServer& server, const KelString& action) {
    const auto requests = server.Requests();
    EXPECT_EQ(requests.size(), 1U);
    if (requests.empty()) return {};
    EXPECT_EQ(requests.front().target, "/Action/" + action);
    return requests.front().Arguments();
}

std::uint64_t StoreTest::AddStored(Side side, const KelString& name, const KelString& status,
                                   const KelString& set) {
    const std::uint64_t fileId =
        AddFile(side, name, status, KelFormat("SourceDevice = '%s', FileSize = %lu", kChild, name.size()));
    if (!set.empty()) Set(side, fileId, set);
    const FileStoreEntry entry = Load(side, fileId);
    if (!entry.ExternalFile) Set(side, fileId, KelFormat("FilePath = '%Q'", PathOf(side, fileId)));
    WriteFile(Load(side, fileId).FilePath, name);
    return fileId;
}

KelContainer StoreTest::Window(const KelString& number, int type, int slots) {
    KelString text = number;
    for (int i = 1; i < slots; ++i)
        text += " " + number;
    return Make({{"Slots", text}, {"SlotType", type}, {"UseUTCTime", true}});
}
