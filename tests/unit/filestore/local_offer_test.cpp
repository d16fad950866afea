#include "filestore/db/files_table.h"
#include "filestore/down/pull_thread.h"
#include "filestore/file_store_fixture.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/up/handle_thread.h"
#include "kelcore/error_codes.h"

namespace {

constexpr const char* kPaths[] = {"MovePath", "CopyPath", "FilePath"};

/// Files of this device, and what happens to a row or a source while they are taken into the store.
struct LocalOfferTest : StoreTest {
    /// A target tree whose device is new: the Wake-on-LAN module, which runs `action`, is called for it while
    /// the offer is under way.
    KelContainer Meanwhile(const std::function<void()>& action) {
        Fake("WakeOnLanAddSubnet ()", [action](KelContainer&) {
            action();
            return 0U;
        });
        static int device = 10;
        return TargetTree(
            {KelFormat("127.0.1.9:1/0A1B0000-0000-4000-8000-0000000000%d/m/127.0.1.9/255.0.0.0", ++device)});
    }
    /// Changes the file when this device's own URL is asked for: after its checksum was computed.
    void ChangeWhileItIsTaken(const KelString& source, const KelString& content) {
        Fake("IdentityGetValues ()", [this, source, content](KelContainer& container) {
            container = Make({{"Values", identityValues}});
            WriteFile(source, content);
            return 0U;
        });
    }
    static KelString StoredPath(Side side) {
        return FileStore::StorePath(side, {"t", "l", "n", TextMd5("abc")});
    }
    static KelString StoredContent(Side side, const KelString& checksum) {
        return Content(FileStore::StorePath(side, {"t", "l", "n", checksum}));
    }
};

TEST_F(LocalOfferTest, SourcesAreMovedCopiedOrLeft) {
    for (const Side side : {kUp, kDown})
        for (const KelString value : kPaths) {
            const KelString content = value + filestore::SideName(side);
            const auto trace = Begin(content);
            const bool isExternal = value == "FilePath";
            const KelString source = MakeFile("source", content);
            Accept(Offer("t", ""),
                   {{"Upstream", side == kUp}, {value, source}, {"FileURL", "/Alias/source"}});
            EXPECT_EQ(FileExists(source), value != "MovePath");
            const FileStoreEntry row = OnlyRow(side);
            EXPECT_EQ(Content(row.FilePath), content);
            EXPECT_EQ(row.FilePath == source, isExternal);
            EXPECT_EQ(OnlyFields(side,
                                 "FileChecksum, ExternalFile, FileSize, TransportMode, FileStatus, "
                                 "SourceDevice, FileURL"),
                      KelFormat("%S|%d|%lu|Local|%s|%s|%s", TextMd5(content), isExternal, content.size(),
                                side == kUp ? "TOBEHANDLED" : "AVAILABLE", side == kUp ? kOwnUrl : "",
                                side == kDown && isExternal ? "/Alias/source" : ""));
        }
}

TEST_F(LocalOfferTest, RepeatedOfferOfAnAvailableFileChangesNothing) {
    const std::uint64_t fileId = AddStored(kDown, "n", "AVAILABLE", "Bypass = 1, KeepCopy = 7");
    const auto isHeld = [source = MakeFile("source", "n")](const KelString& checksum) {
        const KelContainer offer = With(Offer("t", checksum), {{"FilePath", source}, {"Repeated", true}});
        return Ask("FileStoreReceiveFile", offer).GetBool("ContentHeld");
    };
    EXPECT_TRUE(isHeld("c"));
    EXPECT_EQ(Fields(kDown, fileId, "FileStatus, Bypass, KeepCopy, ExternalFile"), "AVAILABLE|1|7|0");
    EXPECT_FALSE(isHeld("d"));
    EXPECT_EQ(Rows(kDown, "SELECT FileChecksum FROM Files ORDER BY FileId"), (Texts{"c", "d"}));
}

/// Links and files that stay where they are cost nothing. What comes by multicast has its place already.
TEST_F(LocalOfferTest, CopyIsTakenOnceTheStoreHasRoom) {
    std::uint32_t quota = 1;
    for (const Side side : {kUp, kDown}) {
        for (const auto& [value, isFull] :
             Table<const char*, bool>{{"CopyPath", true}, {"MovePath", false}, {"FilePath", false}}) {
            const auto trace = Begin(KelFormat("%s %s", filestore::SideName(side), value));
            FileStore::ulStoreQuota = ++quota;
            const std::uint64_t coming =
                AddFile(kDown, "coming", "MULTICASTLISTENING", KelFormat("FileSize = %u", quota << 20));
            const KelString source = MakeFile("source", "abc");
            const KelContainer offer = With(Offer("t", TextMd5("abc")),
                                            {{"Upstream", side == kUp}, {value, source}, {"FileURL", "/f"}});
            const KelContainer answer =
                Ask("FileStoreReceiveFile", offer, isFull ? kKelErrorNotAvailable : kKelOk);
            EXPECT_EQ(answer.GetString("Message").find("disk") != KelString::npos, isFull);
            EXPECT_EQ(Count(side), side == kDown ? (isFull ? "1" : "2") : (isFull ? "0" : "1"));
            filestore::DeleteFileRow(kDown, coming);
            if (isFull) Ask("FileStoreReceiveFile", offer);
            EXPECT_EQ(Content(OnlyRow(side).FilePath), "abc");
        }
    }
    FileStore::ulStoreQuota = 0;
}

/// A file that a device below waits for says what its offer has met.
TEST_F(LocalOfferTest, WantedFileThatHasNoRoomSaysSo) {
    const std::uint64_t fileId = AddFile(kDown, "n", "DOWNLOADING", "FileChecksum = 'c'");
    FileStore::ulFreeSpaceReserve = 2'000'000'000;
    const KelContainer offer = With(Offer("t", "c"), {{"CopyPath", MakeFile("source", "n")}});
    Ask("FileStoreReceiveFile", offer, kKelErrorNotAvailable);
    FileStore::ulFreeSpaceReserve = 64;
    const auto reason = filestore::Reasons().Find(kDown, fileId, filestore::WaitingStep::Download, 0);
    EXPECT_TRUE(reason && reason->code == filestore::Waiting::DiskFull && reason->whole == 1);
    EXPECT_EQ(OnlyFields(kDown), "DOWNLOADING");
}

/// No device above accepts an empty file: it would be offered again and again.
TEST_F(LocalOfferTest, UnreadableAndEmptySourcesAreRefusedAndNothingIsRecorded) {
    MakeFile("empty", "");
    const KelString before = Everything();
    for (const char* path : kPaths)
        for (const auto& [route, source, checksum] :
             Table<const char*, KelString, const char*>{{"Upstream", "absent", ""},
                                                        {"Upstream", "absent", "c"},
                                                        {"Bypass", "absent", ""},
                                                        {"Bypass", "absent", "c"},
                                                        {"Upstream", "empty", ""},
                                                        {"Unconnected", "empty", ""}}) {
            EXPECT_EQ(Receive(Offer("t", checksum), {{route, true}, {path, Root() + "/" + source}}), 1U);
            EXPECT_EQ(Everything(), before) << path << " of an " << source << " file, " << route;
        }
}

TEST_F(LocalOfferTest, KnownUpstreamFileIsHandledAgainUnlessItIsOnItsWay) {
    for (const auto& [status, hasContent, after] :
         Table<const char*, bool, const char*>{{"AVAILABLE", true, "TOBEHANDLED"},
                                               {"AVAILABLE", false, "TOBEHANDLED"},
                                               {"RECEIVING", false, "TOBEHANDLED"},
                                               {"PACKEDFILE", true, "TOBEHANDLED"},
                                               {"TOBEPACKED", true, "TOBEPACKED"},
                                               {"UPLOADING", true, "UPLOADING"}}) {
        const auto trace = Begin(status);
        const std::uint64_t fileId = AddStored(kUp, "n", status, KelFormat("SourceDevice = '%s'", kOwnUrl));
        if (!hasContent) FileDelete(Load(kUp, fileId).FilePath);
        const KelString source = MakeFile("source", "n");
        Accept(Offer(), {{"Upstream", true}, {"MovePath", source}});
        EXPECT_FALSE(FileExists(source));
        EXPECT_EQ(Content(OnlyRow(kUp).FilePath), "n");
        EXPECT_EQ(OnlyFields(kUp, "FileId, FileStatus"), KelFormat("%lu|%s", fileId, after));
    }
}

TEST_F(LocalOfferTest, UpstreamFilesOfDifferentDevicesShareNeitherRowNorPlace) {
    const KelString guid = "0A1B0000-0000-4000-8000-0000000000C2", other = "127.0.1.8:1610/" + guid;
    const KelString url = "/FileStore/upstream/t/l/c/n";
    // The parent may give both the same URL, a port may change, an offer without PUT holds up nothing.
    for (const auto& [device, own] : Table<KelString, KelString>{
             {kChild, url},
             {other, "/FileStore/upstream/t/l/c/from-" + guid + "/n"},
             {"127.0.1.8:1/" + guid, "/FileStore/upstream/t/l/c/from-" + guid + "/n"}}) {
        Rows(kUp, "UPDATE Files SET FileURL = '" + url + "', FileStatus = #UPLOADING#");
        const KelContainer offer =
            With(Offer(), {{"Upstream", true}, {"FileSize", 1}, {"SourceDevice", device}});
        EXPECT_EQ(Ask("FileStoreReceiveFile", offer).GetString("FileURL"), own);
        WriteFile(InStore(own.substr(11)), own);
    }
    Accept(Offer(), {{"Upstream", true}, {"CopyPath", MakeFile("own", "own")}});
    EXPECT_EQ(
        Files(kUp, "SourceDevice, FileStatus"),
        (Texts{KelString(kChild) + "|UPLOADING", other + "|UPLOADING", KelString(kOwnUrl) + "|TOBEHANDLED"}));
    EXPECT_EQ(Content(InStore("upstream/t/l/c/n")), url);
}

TEST_F(LocalOfferTest, OfferThatCannotBeStoredLeavesNoTrace) {
    WriteFile(InStore("downstream/t"), "a file where the folder should be");
    const KelString source = MakeFile("source", "abc");
    for (const char* status : {"", "DOWNLOADING", "AVAILABLE"}) {
        const auto trace = Begin(status);
        if (*status != '\0') AddFile(kDown, "n", status, "LastStatusChangeTime = 77");
        const KelString before = Everything();
        EXPECT_EQ(Receive(Offer(), {{"CopyPath", source}, {"DevicePath", TargetTree({kChild})}}), 1U);
        EXPECT_EQ(Everything(), before);
    }
}

/// A row that a crash leaves in "receiving" is asked for at the parent: an obsolete file never is.
TEST_F(LocalOfferTest, ObsoleteFileStaysSoUntilItsContentIsHere) {
    AddFile(kDown, "n", "OBSOLETE");
    KelString status;
    Accept(Offer(), {{"CopyPath", MakeFile("source", "abc")},
                     {"DevicePath", Meanwhile([&status] { status = OnlyFields(kDown); })}});
    EXPECT_EQ(status, "OBSOLETE");
    EXPECT_EQ(OnlyFields(kDown), "AVAILABLE");
}

TEST_F(LocalOfferTest, RowChangedMeanwhileLosesNoPublicationAndNoRequest) {
    BecomeMaster();
    const KelString source = MakeFile("source", "abc");
    const KelContainer offer = With(Offer(), {{"CopyPath", source}});
    Ask("FileStoreRequestFile", With(Offer(), {{"DeviceGUID", kOwnUrl}}));
    WriteFile(FileStore::StorePath(kDown, {"t", "l", "n", "c"}), "a");  // a partial download
    // on the master this ends requests for what is missing
    Accept(offer, {{"DevicePath", Meanwhile([] { FileStore::threadHandler.LocalRequestFile(kDown); })}});
    EXPECT_EQ(OnlyFields(kDown, "FileStatus, Acknowledged"), "AVAILABLE|1");
    EXPECT_EQ(StoredContent(kDown, "c"), "abc");
    EXPECT_EQ(Count(kDown, "Targets"), "2");

    DeleteRows();
    EXPECT_EQ(Receive(offer, {{"DevicePath", Meanwhile([] { DeleteRows(); })}}), 1U);
    EXPECT_EQ(Count(kDown, "Targets"), "0");

    const auto requestAndFail = [&] {
        Ask("FileStoreRequestFile", Offer("t", "new"));
        FileDelete(source);
    };
    EXPECT_EQ(Receive(offer, {{"FileChecksum", "new"}, {"DevicePath", Meanwhile(requestAndFail)}}), 1U);
    EXPECT_EQ(OnlyFields(kDown), "MISSING");
    EXPECT_EQ(Targets("DeviceGUID"), Texts{""});
}

TEST_F(LocalOfferTest, SourceThatChangesWhileItIsTakenIsNotStoredUnderItsOldChecksum) {
    const KelString source = Root() + "/source";
    for (const auto& [side, checksum, path, change, result, size] :
         Table<Side, const char*, const char*, const char*, unsigned int, const char*>{
             {kUp, "", "CopyPath", "changed", 1, ""},
             {kUp, "given", "CopyPath", "changed", 0, "7"},
             {kDown, "", "CopyPath", "changed", 1, ""},
             {kDown, "given", "CopyPath", "changed", 0, "7"},
             {kUp, "c", "CopyPath", "", 1, ""},  // cut off
             {kUp, "c", "MovePath", "", 1, ""},
             {kUp, "c", "FilePath", "", 1, ""}}) {
        const auto trace = Begin(KelFormat("%s %s '%s'", filestore::SideName(side), path, checksum));
        WriteFile(source, "abc");
        ChangeWhileItIsTaken(source, change);
        const KelContainer offer = With(Offer("t", checksum), {{"SourceDevice", "any"}, {path, source}});
        EXPECT_EQ(Receive(offer, {{"Upstream", side == kUp}}), result);
        EXPECT_EQ(StoredContent(side, TextMd5("abc")), "(none)");
        EXPECT_EQ(Cell(side, "SELECT FileSize FROM Files"), size);
    }
}

TEST_F(LocalOfferTest, MovedSourceGoesUnlessItIsTheStoresOwn) {
    for (const Side side : {kUp, kDown}) {
        SCOPED_TRACE(filestore::SideName(side));
        const KelString source = MakeFile("source", "abc");
        const KelContainer offer = With(Offer("t", TextMd5("abc")), {{"Upstream", side == kUp}});
        Accept(offer, {{"MovePath", source}});
        EXPECT_FALSE(FileExists(source));
        Accept(offer, {{"MovePath", OnlyRow(side).FilePath}});
        EXPECT_EQ(Content(OnlyRow(side).FilePath), "abc");
    }
}

// ---- files of devices that are not connected

TEST_F(LocalOfferTest, UnconnectedOfferIsKeptAsideOrRefusedWithoutContentAndCannotChangeOurGuid) {
    const KelString source = MakeFile("info.xml", Info().SaveToXML());
    Accept(Offer("IdentityIdentity", ""), {{"Unconnected", true}, {"Upstream", true}, {"MovePath", source}});
    EXPECT_EQ(Count(kUp) + Count(kDown), "00");
    const KelContainer kept = FromXml(Content(FileStore::strModuleDataPath + "/unconnected/identity/n"));
    EXPECT_EQ(kept.GetString("SourceDevice"), kOwnUrl);
    EXPECT_EQ(kept.GetContainer("FileInfo"), Info());
    EXPECT_FALSE(FileExists(source));

    const KelString before = Everything();
    EXPECT_EQ(Receive(From(Offer(), "127.0.1.2"), {{"Unconnected", true},
                                                   {"Upstream", true},
                                                   {"GUID", "FFFF0000-0000-4000-8000-00000000000F"}}),
              1U);
    EXPECT_EQ(Ask("FileStoreGetDeviceUrl").GetString("DeviceUrl"), kOwnUrl);
    Ask("FileStoreReceiveUnconnectedFile", Offer(), kKelErrorMissingContent);
    EXPECT_EQ(Everything(), before);
}

TEST_F(LocalOfferTest, ReplayedOfferStoresItsContentAndSetsTheNextStatus) {
    Ask("FileStoreReceiveUnconnectedFile", With(Offer("IdentityIdentity", ""), {{"FileInfo", Info()}}));
    const KelString path = OnlyRow(kUp).FilePath;
    EXPECT_EQ(OnlyFields(kUp, "FileStatus, LastStatusChangeTime, FirstRelay, Priority, FileSize"),
              KelFormat("TOBEUPLOADED|0|0|500|%ld", FileGetSize64(path)));
    EXPECT_EQ(FromXml(Content(path)), Info());

    DeleteRows();
    BecomeMaster();
    const KelString source = MakeFile("source", "abc");
    Ask("FileStoreReceiveUnconnectedFile", With(Offer("Inventory"), {{"FilePath", source}}));
    EXPECT_EQ(Content(OnlyRow(kUp).FilePath) + Content(source), "abcabc");
    EXPECT_EQ(OnlyFields(kUp, "FileStatus, Priority"), "TOBEHANDLED|100");
}

// ---- offers that the database does not take

/// A kill between placing the content and committing the row leaves the same.
TEST_F(LocalOfferTest, RefusedByTheDatabaseLeavesNothingInTheStoreButTheOnlyCopy) {
    for (const Side side : {kUp, kDown})
        for (const char* value : {"CopyPath", "MovePath"})
            for (const bool isOnlyCopy : {false, true}) {
                const auto trace = Begin(KelFormat("%s %s %d", filestore::SideName(side), value, isOnlyCopy));
                const KelString source = Root() + "/source";
                WriteFile(isOnlyCopy ? StoredPath(side) : source, "abc");
                const KelString changes = KelFormat("%s ON Files WHEN NEW.FileStatus <> #RECEIVING#",
                                                    side == kUp ? "INSERT" : "UPDATE");
                const auto full = Refuse(Database(side), changes);
                EXPECT_EQ(Receive(Offer("t", TextMd5("abc")), {{"Upstream", side == kUp}, {value, source}}),
                          1U);
                EXPECT_EQ(Count(side), "0");
                EXPECT_EQ(Content(StoredPath(side)), isOnlyCopy ? "abc" : "(none)");
                EXPECT_EQ(FileExists(source), !isOnlyCopy);
                FileDelete(StoredPath(side));
                FileDelete(source);
            }
}

TEST_F(LocalOfferTest, RowThatCouldNotBePutBackIsPutBackLater) {
    const KelString source = MakeFile("source", "abc");
    ChangeWhileItIsTaken(source, "changed while it is taken");
    auto full = Refuse(Database(kDown), "DELETE ON Files");
    EXPECT_EQ(Receive(Offer("t", ""), {{"CopyPath", source}, {"SourceDevice", "any"}}), 1U);
    Exposed<FileStorePullThread> pull;
    pull.DoWork();
    EXPECT_EQ(OnlyFields(kDown), "RECEIVING");
    full.reset();
    pull.DoWork();
    EXPECT_EQ(Count(kDown), "0");
}

}  // namespace
