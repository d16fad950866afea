#include "filestore/transfer_fixture.h"

#include <zip.h>

#include <filesystem>
#include <stdexcept>

#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/callback_db.h"

namespace fs = std::filesystem;

void TransferTest::SetUp() {
    Initialise();
    SetParent("127.0.1.1", 1);
}

void TransferTest::SetParent(const KelString& name, std::uint16_t port) {
    relayValues.SetString("ParentName", name);
    relayValues.SetInt32("ParentPort", port);
    relayValues.SetBool("ParentSync", true);
}

KelString TransferTest::MakeFile(const KelString& name, const KelString& content) {
    WriteFile(Root() + "/" + name, content);
    return Root() + "/" + name;
}

KelString TransferTest::Content(const KelString& path) {
    const auto text = FileReadText(path, 1U << 30);
    return text ? *text : KelString("(none)");
}

KelContainer TransferTest::TargetTree(const KelVector<KelString>& children) {
    KelContainer level, tree;
    for (const KelString& child : children)
        level.SetContainer(child, {});
    tree.SetContainer(kOwnPathName, level);
    return tree;
}

FileStoreEntry TransferTest::OnlyRow(bool upstream) {
    EXPECT_EQ(Count(upstream ? Upstream() : Downstream(), "Files"), "1");
    FileStoreEntry entry;
    EXPECT_TRUE(entry.LoadFromDatabase("1 = 1", upstream));
    return entry;
}

void TransferTest::AddTarget(unsigned long fileId, unsigned long targetId, const KelString& device,
                             std::int64_t lastNotifyTime, unsigned int wakeUp) {
    KelContainer path;
    if (!device.empty()) path.SetContainer(device, {});
    Rows(Downstream(), KelFormat("INSERT INTO Targets (TargetId, FileId, DeviceGUID, DevicePath, "
                                 "TargetCreateTime, LastNotifyTime, WakeUpDevice) VALUES (%lu, %lu, '%Q', "
                                 "'%S', 1, %ld, %u)",
                                 targetId, fileId, device, path.SaveToXML(), lastNotifyTime, wakeUp));
}

KelString TransferTest::Everything() const {
    KelString text;
    for (const auto& rows :
         {Rows(Downstream(), "SELECT * FROM Files"), Rows(Downstream(), "SELECT * FROM Targets"),
          Rows(Upstream(), "SELECT * FROM Files")})
        for (const KelString& row : rows)
            text += row + "\n";
    for (const auto& item : fs::recursive_directory_iterator(Root()))
        if (item.path().filename().string().find(".sqlite") == KelString::npos)
            text += item.path().string() + "\n";
    return text;
}

std::shared_ptr<void> StepTest::Consume(const KelString& event, const KelString& signature) {
    CallbackDbRegisterAction(event, signature, "", 0);
    return {nullptr, [event, signature](void*) { CallbackDbDeleteAction(event, signature, ""); }};
}

void StepTest::AnswerAsParent(ScriptedServer::Script script) {
    parent_ = std::make_unique<ScriptedServer>(std::move(script));
    SetParent("127.0.1.1", parent_->Port());
}

void StepTest::AnswerAsParent(unsigned int result, const KelContainer& values) {
    AnswerAsParent(ScriptedServer::ActionScript(result, values));
}

void StepTest::AcceptAll() {
    AnswerAsParent([](const ScriptedServer::Request& request) -> ScriptedServer::Answer {
        if (request.method == "PUT") return {201};
        const KelString name = request.Arguments().GetString("FileName");
        return ScriptedServer::ActionResult(0, Make({{"FileURL", "/FileStore/upstream/" + name}}));
    });
}

KelVector<KelString> StepTest::OfferedNames() const {
    KelVector<KelString> names;
    for (const auto& request : parent_->Requests())
        if (request.method == "POST") names.push_back(request.Arguments().GetString("FileName"));
    return names;
}

KelContainer StepTest::OnlyCallOf(const KelString& action) const {
    const auto calls = CallsOf(action);
    EXPECT_EQ(calls.size(), 1U) << action;
    return calls.empty() ? KelContainer() : calls.front();
}

KelContainer StepTest::OnlyCallTo(const ScriptedServer& server, const KelString& action) {
    const auto requests = server.Requests();
    EXPECT_EQ(requests.size(), 1U);
    if (requests.empty()) return {};
    EXPECT_EQ(requests.front().path, "/Action/" + action);
    return requests.front().Arguments();
}

KelString StepTest::Texts(const KelContainer& container, const KelString& names) {
    KelString text;
    for (const KelString& name : SplitText(names, ' '))
        text += "|" + container.GetString(name, "(none)");
    return text.substr(1);
}

KelContainer StepTest::FromXml(const KelString& xml) {
    KelContainer container;
    EXPECT_TRUE(static_cast<bool>(container.LoadFromXML(xml)));
    return container;
}

KelVector<std::pair<KelString, KelString>> StepTest::ArchiveContent(const KelString& path) {
    const std::unique_ptr<zip, void (*)(zip*)> archive(zip_open(path.c_str(), ZIP_CHECKCONS, nullptr),
                                                       zip_discard);
    if (!archive) throw std::runtime_error("no archive " + path);
    KelVector<std::pair<KelString, KelString>> entries;
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive.get(), 0); ++i) {
        zip_stat_t stat;
        zip_stat_index(archive.get(), static_cast<zip_uint64_t>(i), 0, &stat);
        const std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> file(
            zip_fopen_index(archive.get(), static_cast<zip_uint64_t>(i), 0), zip_fclose);
        KelString content(stat.size, '\0');
        if (!file || zip_fread(file.get(), content.data(), stat.size) != static_cast<zip_int64_t>(stat.size))
            throw std::runtime_error("damaged archive " + path);
        entries.emplace_back(stat.name, content);
    }
    return entries;
}

unsigned long StepTest::AddStored(bool upstream, const KelString& name, const KelString& status,
                                  const KelString& set) {
    const unsigned long fileId = AddFile(
        upstream, name, status, KelFormat("SourceDevice = '%s', FileSize = %lu", kChild, name.size()));
    if (!set.empty()) Set(upstream, fileId, set);
    FileStoreEntry entry = Load(upstream, fileId);
    if (!entry.ExternalFile) Set(upstream, fileId, KelFormat("FilePath = '%Q'", PathOf(upstream, entry)));
    WriteFile(Load(upstream, fileId).FilePath, name);
    return fileId;
}

void StepTest::Set(bool upstream, unsigned long fileId, const KelString& set) {
    Rows(upstream ? Upstream() : Downstream(),
         KelFormat("UPDATE Files SET %S WHERE FileId = %lu", set, fileId));
}

FileStoreEntry StepTest::Load(bool upstream, unsigned long fileId) {
    FileStoreEntry entry;
    EXPECT_TRUE(entry.LoadFromDatabase(fileId, upstream));
    return entry;
}

KelString StepTest::Fields(bool upstream, unsigned long fileId, const KelString& columns) {
    const auto rows = Rows(upstream ? Upstream() : Downstream(),
                           KelFormat("SELECT %S FROM Files WHERE FileId = %lu", columns, fileId));
    return rows.empty() ? KelString("(none)") : rows.front();
}

bool StepTest::IsNew(bool upstream, unsigned long fileId, const char* column) const {
    return std::stoll(Fields(upstream, fileId, column)) >= start_;
}

KelVector<KelString> StepTest::Names(bool upstream, const KelString& status) {
    return Rows(upstream ? Upstream() : Downstream(),
                KelFormat("SELECT FileName FROM Files WHERE FileStatus LIKE '%S' ORDER BY FileId", status));
}

KelString StepTest::PathOf(bool upstream, const FileStoreEntry& entry) {
    return FileStore::StorePath(upstream, entry.FileType, entry.FileLabel, entry.FileChecksum,
                                entry.FileName);
}

void StepTest::DeleteRows() {
    Rows(Upstream(), "DELETE FROM Files");
    Rows(Downstream(), "DELETE FROM Files");
    Rows(Downstream(), "DELETE FROM Targets");
}

void StepTest::LimitWindow(FileStoreBandwidthManager& manager, unsigned int rate) {
    KelString slots;
    for (int hour = 0; hour < 168; ++hour)
        slots += KelFormat("%u ", rate);
    KelContainer window = Make({{"Slots", slots}, {"SlotType", 2}});
    manager.UpdateTransferWindow(window);
}

void StepTest::CloseWindow(FileStoreBandwidthManager& manager) {
    LimitWindow(manager, 1);
    manager.CancelAllTransfers();
}
