#include "filestore/transfer_fixture.h"

#include <filesystem>

#include "kel/file.h"
#include "kel/format.h"

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

unsigned int TransferTest::Receive(KelContainer& offer) {
    return FileStore::ActionHandler_FileStoreReceiveFile(&offer);
}

KelString TransferTest::MakeFile(const KelString& name, const KelString& content) {
    WriteFile(Root() + "/" + name, content);
    return Root() + "/" + name;
}

KelString TransferTest::Content(const KelString& path) {
    const auto text = FileReadText(path, 1U << 30);
    return text ? *text : KelString("(none)");
}

KelContainer TransferTest::Offer(const KelString& type, const KelString& checksum) {
    KelContainer offer;
    offer.SetString("FileType", type);
    offer.SetString("FileLabel", "l");
    offer.SetString("FileName", "n");
    offer.SetString("FileChecksum", checksum);
    return offer;
}

KelContainer TransferTest::From(KelContainer offer, const KelString& address) {
    KelContainer info;
    info.SetString("HttpProtocolRequestAddress", address);
    offer.SetContainer("HttpProtocolRequestInfo", info);
    return offer;
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

KelString TransferTest::Count(DBConnection& connection, const KelString& table) {
    return Cell(connection, "SELECT COUNT(*) FROM " + table);
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
    for (const KelString& row : Rows(Downstream(), "SELECT * FROM Files"))
        text += row + "\n";
    for (const KelString& row : Rows(Downstream(), "SELECT * FROM Targets"))
        text += row + "\n";
    for (const KelString& row : Rows(Upstream(), "SELECT * FROM Files"))
        text += row + "\n";
    for (const auto& item : fs::recursive_directory_iterator(Root()))
        if (item.path().filename().string().find(".sqlite") == KelString::npos)
            text += item.path().string() + "\n";
    return text;
}
