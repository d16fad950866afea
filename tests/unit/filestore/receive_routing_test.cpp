#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"

using namespace filestore;

namespace {

constexpr const char* kChild = "127.0.1.8:1611/0A1B0000-0000-4000-8000-0000000000C1/02/127.0.1.8/255.0.0.0";

class ReceiveRoutingTest : public TransferTest {
  protected:
    static KelContainer Announcement() {
        KelContainer offer = From(Offer(), "127.0.1.1");
        offer.SetString("FileURL", "/FileStore/downstream/t/l/c/n");
        offer.SetInt64("FileSize", 3);
        offer.SetContainer("DevicePath", TargetTree({kChild}));
        return offer;
    }
};

TEST_F(ReceiveRoutingTest, LocalSourcesAreMovedCopiedOrLeft) {
    struct Case {
        const char* value;
        bool upstream;
        bool sourceStays;
        bool isExternal;
    };
    const KelVector<Case> cases = {
        {"MovePath", true, false, false},  {"CopyPath", true, true, false},  {"FilePath", true, true, true},
        {"MovePath", false, false, false}, {"CopyPath", false, true, false}, {"FilePath", false, true, true},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(KelString(test.value) + (test.upstream ? " up" : " down"));
        Rows(Upstream(), "DELETE FROM Files");
        Rows(Downstream(), "DELETE FROM Files");
        const KelString content = KelString(test.value) + (test.upstream ? "1" : "0");
        const KelString source = MakeFile("source", content);
        KelContainer offer = Offer("t", "");
        offer.SetBool("Upstream", test.upstream);
        offer.SetString(test.value, source);
        offer.SetString("FileURL", "/Alias/source");
        EXPECT_EQ(Receive(offer), 0U);
        EXPECT_EQ(FileExists(source), test.sourceStays);
        const FileStoreEntry row = OnlyRow(test.upstream);
        EXPECT_EQ(row.FileChecksum, TextMd5(content));
        EXPECT_EQ(Content(row.FilePath), content);
        EXPECT_EQ(row.FilePath == source, test.isExternal);
        EXPECT_EQ(row.ExternalFile, test.isExternal);
        EXPECT_EQ(row.FileSize, static_cast<std::int64_t>(content.size()));
        EXPECT_EQ(row.TransportMode, kTransportLocal);
        EXPECT_EQ(row.FileStatus, test.upstream ? kStatusToBeHandled : kStatusAvailable);
        EXPECT_EQ(row.SourceDevice, test.upstream ? kOwnUrl : "");
        if (!test.upstream) {
            EXPECT_EQ(row.FileURL, test.isExternal ? "/Alias/source" : "");
        }
    }
}

TEST_F(ReceiveRoutingTest, UnreadableSourceIsRefusedAndNothingIsRecorded) {
    const KelString before = Everything();
    for (const char* checksum : {"", "c"})
        for (const char* value : {"MovePath", "CopyPath", "FilePath"})
            for (const bool upstream : {false, true}) {
                KelContainer offer = Offer("t", checksum);
                offer.SetBool("Upstream", upstream);
                offer.SetString(value, Root() + "/absent");
                EXPECT_EQ(Receive(offer), 1U) << value << checksum;
            }
    EXPECT_EQ(Everything(), before);
}

/// No device above would take it: it would be offered for ever.
TEST_F(ReceiveRoutingTest, EmptyFileIsNotTakenForTheWayUp) {
    for (const char* value : {"MovePath", "CopyPath", "FilePath"}) {
        SCOPED_TRACE(value);
        KelContainer offer = Offer("t", "");
        offer.SetString(value, MakeFile("empty", ""));
        offer.SetBool("Upstream", true);
        const KelString before = Everything();
        ClearLog();
        EXPECT_EQ(Receive(offer), 1U);
        EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "Refusing the empty file '" + Root() + "/empty'"));
        EXPECT_EQ(Everything(), before);
    }
}

TEST_F(ReceiveRoutingTest, KnownUpstreamFileIsHandledAgainOnlyWhenAvailable) {
    for (const auto& [status, expected] :
         {std::pair{kStatusAvailable, kStatusToBeHandled}, {kStatusUploading, kStatusUploading}}) {
        Rows(Upstream(), "DELETE FROM Files");
        AddFile(true, "n", status, [](FileStoreEntry& entry) {
            entry.FileType = "t";
            entry.FileLabel = "l";
            entry.FileChecksum = "c";
        });
        const KelString source = MakeFile("source", "abc");
        KelContainer offer = Offer();
        offer.SetBool("Upstream", true);
        offer.SetString("MovePath", source);
        EXPECT_EQ(Receive(offer), 0U);
        EXPECT_EQ(OnlyRow(true).FileStatus, expected);
        EXPECT_FALSE(FileExists(source));
    }
}

TEST_F(ReceiveRoutingTest, UpstreamRemoteOfferAnswersTheUrlToPutTo) {
    KelContainer offer = Offer();
    offer.SetBool("Upstream", true);
    offer.SetInt64("FileSize", 12);
    offer.SetString("SourceDevice", "127.0.1.8:1611/0A1B0000-0000-4000-8000-0000000000C1");
    const KelContainer again = offer;
    EXPECT_EQ(Receive(offer), 0U);
    EXPECT_EQ(offer.GetString("FileURL"), "/FileStore/upstream/t/l/c/n");
    EXPECT_EQ(offer.GetNameCount(), 1U);
    FileStoreEntry row = OnlyRow(true);
    EXPECT_EQ(row.FileStatus, kStatusReceiving);
    EXPECT_EQ(row.FirstRelay, kOwnUrl);
    EXPECT_EQ(row.FileSize, 12);

    Rows(Upstream(), KelString("UPDATE Files SET FileStatus = '") + kStatusMissing + "'");
    offer = again;
    EXPECT_EQ(Receive(offer), 0U);
    EXPECT_EQ(OnlyRow(true).FileStatus, kStatusReceiving);
}

TEST_F(ReceiveRoutingTest, UpstreamRemoteOfferWithoutSizeOrOfAnotherTreeIsRefused) {
    KelContainer offer = Offer();
    offer.SetBool("Upstream", true);
    EXPECT_EQ(Receive(offer), 1U);
    offer = Offer();
    offer.SetBool("Upstream", true);
    offer.SetInt64("FileSize", 12);
    offer.SetString("SourceDevice", "127.0.1.8:1611/FFFF0000-0000-4000-8000-0000000000C1");
    EXPECT_EQ(Receive(offer), 44005U);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "The GUID scheme of sender is not valid"));
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
}

TEST_F(ReceiveRoutingTest, AnnouncedFileIsRecordedWithItsTargets) {
    struct Case {
        const char* address;
        int port;
        const char* transportMode;
    };
    for (const Case& test : {Case{"", 0, kTransportUnicast}, Case{"224.2.0.1", 1500, kTransportMulticast},
                             Case{"", 1500, kTransportUnicast}}) {
        Rows(Downstream(), "DELETE FROM Files");
        Rows(Downstream(), "DELETE FROM Targets");
        KelContainer offer = Announcement();
        offer.SetString("MulticastAddress", test.address);
        offer.SetInt32("MulticastPort", test.port);
        offer.SetInt32("MulticastBlockSize", 2048);
        EXPECT_EQ(Receive(offer), 0U);
        const FileStoreEntry row = OnlyRow(false);
        EXPECT_EQ(row.FileStatus, kStatusDownloading);
        EXPECT_EQ(row.TransportMode, test.transportMode);
        EXPECT_EQ(row.Acknowledged, false);
        EXPECT_EQ(row.FileSize, 3);
        EXPECT_EQ(Rows(Downstream(), "SELECT FileId, DeviceGUID FROM Targets"),
                  KelVector<KelString>{std::to_string(row.FileId) + "|" + kChild});
    }
}

TEST_F(ReceiveRoutingTest, KnownFileThatIsHereIsLeftAlone) {
    for (const bool available : {true, false}) {
        Rows(Downstream(), "DELETE FROM Files");
        KelContainer offer = Announcement();
        EXPECT_EQ(Receive(offer), 0U);
        if (available)
            Rows(Downstream(), KelString("UPDATE Files SET FileStatus = '") + kStatusAvailable + "'");
        else
            WriteFile(FileStore::StorePath(false, "t", "l", "c", "n"), "abc");
        const KelString before = Everything();
        offer = Announcement();
        offer.SetString("FileURL", "/other");
        EXPECT_EQ(Receive(offer), 0U);
        EXPECT_EQ(Everything(), before);
        EXPECT_TRUE(HasLogged(KelDebugLevel::Trace, "Available file is notified again."));
    }
}

TEST_F(ReceiveRoutingTest, KnownFileIsTakenUpAgainAsTheNewOfferSays) {
    KelContainer offer = Announcement();
    EXPECT_EQ(Receive(offer), 0U);
    struct Case {
        const char* offered;
        int port;
        const char* expected;
    };
    for (const Case& test : {Case{"Multicast", 0, kTransportUnicastRecovery},
                             {"Unicast", 0, kTransportUnicast},
                             {"Multicast", 1500, kTransportMulticast}}) {
        Rows(Downstream(),
             KelString("UPDATE Files SET TransferredBytes = 2, FileStatus = '") + kStatusToBeRequested + "'");
        offer = Announcement();
        offer.SetString("FileURL", "/other");
        offer.SetString("TransportMode", test.offered);
        offer.SetString("MulticastAddress", "224.2.0.1");
        offer.SetInt32("MulticastPort", test.port);
        offer.SetInt32("Priority", 7);
        EXPECT_EQ(Receive(offer), 0U);
        const FileStoreEntry row = OnlyRow(false);
        EXPECT_EQ(row.FileStatus, kStatusDownloading);
        EXPECT_EQ(row.TransportMode, test.expected);
        EXPECT_EQ(row.TransferredBytes, row.TransportMode == kTransportUnicastRecovery ? 0U : 2U);
        EXPECT_EQ(row.FileURL, "/other");
        EXPECT_EQ(row.Priority, 7U);
    }
}

TEST_F(ReceiveRoutingTest, RequestedFileIsDownloadedAtOnceAndAFailedDownloadWaits) {
    KelContainer offer = Announcement();
    EXPECT_EQ(Receive(offer), 0U);
    for (const auto& [status, expected] : {std::pair{kStatusToBeRequested, 0}, {kStatusDownloading, 77}}) {
        Rows(Downstream(),
             KelString("UPDATE Files SET LastStatusChangeTime = 77, FileStatus = '") + status + "'");
        offer = Announcement();
        EXPECT_EQ(Receive(offer), 0U);
        EXPECT_EQ(OnlyRow(false).LastStatusChangeTime, expected) << status;
    }
}

TEST_F(ReceiveRoutingTest, LocalOfferReplacesAPartialDownload) {
    KelContainer offer = Announcement();
    EXPECT_EQ(Receive(offer), 0U);
    WriteFile(FileStore::StorePath(false, "t", "l", "c", "n"), "a");
    offer = Offer();
    offer.SetString("CopyPath", MakeFile("source", "abc"));
    EXPECT_EQ(Receive(offer), 0U);
    const FileStoreEntry row = OnlyRow(false);
    EXPECT_EQ(row.FileStatus, kStatusAvailable);
    EXPECT_TRUE(row.Acknowledged);
    EXPECT_EQ(Content(row.FilePath), "abc");
}

TEST_F(ReceiveRoutingTest, LocalOfferThatCannotBeStoredIsNotCalledAvailable) {
    WriteFile(FileStore::strStorageLocationToUse + "downstream/t", "a file where the folder should be");
    KelContainer offer = Offer();
    offer.SetString("CopyPath", MakeFile("source", "abc"));
    EXPECT_EQ(Receive(offer), 1U);
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusReceiving);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "check space and permissions"));
}

TEST_F(ReceiveRoutingTest, NamedSourceDeviceMakesThisDeviceTheSource) {
    KelContainer offer = Offer("t", "");
    offer.SetString("SourceDevice", "whatever");
    offer.SetString("CopyPath", MakeFile("source", "abc"));
    EXPECT_EQ(Receive(offer), 0U);
    EXPECT_EQ(OnlyRow(false).SourceDevice, kOwnUrl);
}

TEST_F(ReceiveRoutingTest, HeldPackageIsPublishedAgain) {
    KelContainer info;
    info.SetString("PackageName", "pack");
    info.SetString("PackageChecksum", "p1");
    KelContainer offer = From(Offer("PackagerCopyAdministratedPackage"), "127.0.1.1");
    offer.SetContainer("FileInfo", info);
    const KelContainer order = offer;
    EXPECT_EQ(Receive(offer), 0U);  // not held: an ordinary announcement
    EXPECT_EQ(OnlyRow(false).FileType, "PackagerCopyAdministratedPackage");

    Rows(Downstream(), "DELETE FROM Files");
    WriteFile(FileStore::StorePath(false, "OperationalRulePackage", "pack", "p1", "n"), "abc");
    offer = order;
    EXPECT_EQ(Receive(offer), 0U);
    FileStoreEntry row = OnlyRow(false);
    EXPECT_EQ(row.FileType, "SentPackage");
    EXPECT_TRUE(row.FileName.starts_with("pack_"));
    EXPECT_EQ(Content(row.FilePath), "abc");

    offer = From(Offer("PackagerPublishPackageToMaster"), "127.0.1.1");
    offer.SetContainer("FileInfo", info);
    EXPECT_EQ(Receive(offer), 0U);
    row = OnlyRow(true);
    EXPECT_EQ(row.FileType, "PackagerZIPPackage");
    EXPECT_EQ(row.FileName, "pack");
    EXPECT_EQ(row.FileChecksum, TextMd5("abc"));
    KelContainer published;
    ASSERT_TRUE(static_cast<bool>(published.LoadFromXML(row.FileInfo)));
    EXPECT_TRUE(published.GetBool("WasAdministratedRelay"));
}

TEST_F(ReceiveRoutingTest, PackageOrderCannotReachOutsideTheStore) {
    const KelString secret = MakeFile("secret/n", "abc");
    KelContainer info;
    info.SetString("PackageName", "..");
    info.SetString("PackageChecksum", "../../../secret");
    KelContainer offer = From(Offer("PackagerPublishPackageToMaster"), "127.0.1.1");
    offer.SetContainer("FileInfo", info);
    EXPECT_EQ(Receive(offer), 0U);
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "PackageName"));
}

}  // namespace
