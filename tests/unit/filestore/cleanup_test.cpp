#include <sstream>

#include "filestore/db/callback_table.h"
#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"
#include "filestore/module/cleanup_thread.h"
#include "filestore/state/removal.h"
#include "kel/text.h"

using namespace filestore;

namespace {

constexpr std::int64_t kOld = 90'000;  ///< older than TimeToLive, in seconds
constexpr std::int64_t kDay = 86'400;

struct Cleanup : StoreTest {
    static void Clean() { Exposed<FileStoreDeleteThread>().DoWork(); }
    static KelString CreatedAgo(std::int64_t seconds) {
        return KelFormat("CreateTime = %ld", std::time(nullptr) - seconds);
    }
    static KelString RequestedAgo(std::int64_t days) {
        return KelFormat("LastRequestTime = %ld", std::time(nullptr) - days * kDay);
    }
    static void SetRole(int role) {
        FileStore::eKeepCopyMask = role;
        FileStore::fRelayEnabled = role == 2;
    }
    /// A row and its content are kept or removed together.
    static bool IsKept(Side side, std::uint64_t fileId, const KelString& path) {
        const bool hasRow = Fields(side, fileId) != "(none)";
        EXPECT_EQ(FileExists(path), hasRow);
        return hasRow;
    }
    static bool IsKeptByPasses(Side side, const KelString& status, const KelString& set,
                               const KelString& before = "") {
        const std::uint64_t fileId = AddStored(side, "n", status, set);
        const KelString path = Load(side, fileId).FilePath;
        if (!before.empty()) Rows(kDown, ReplaceAll(before, "?", std::to_string(fileId)));
        Clean();
        return IsKept(side, fileId, path);
    }
};

TEST_F(Cleanup, FilesAreRemovedByTheirRules) {
    FileStore::ulKeepSentFiles = 0;
    constexpr const char* kPackage = "FileType = 'OperationalRulePackage', KeepCopy = 4, ";
    const KelString target = "INSERT INTO Targets (FileId, DeviceGUID, TargetCreateTime) VALUES (?, 'd', ";
    const KelString handedOver = "INSERT INTO HandedOver (FileId) VALUES (?)";
    const KelString young = CreatedAgo(10), old = CreatedAgo(kOld), acknowledged = "Acknowledged = 1, ";
    const KelString now = std::to_string(std::time(nullptr)) + ")", large = "FileSize = 1048577, ";
    const Table<const char*, Side, int, const char*, KelString, KelString, bool> cases = {
        {"delivered", kDown, 4, "AVAILABLE", acknowledged + young, "", false},
        {"for others to fetch", kDown, 2, "AVAILABLE", acknowledged + young, "", true},
        {"outdated on a relay", kDown, 2, "AVAILABLE", acknowledged + old, "", false},
        {"no relay's child", kDown, 4, "NOTRELAYSCHILD", acknowledged + young, "", false},
        {"packager's status", kDown, 4, "AVAILABLE", "FileType = 'PackagerStatus', " + young, "", false},
        {"to be announced", kDown, 4, "AVAILABLE", acknowledged + young, target + now, true},
        {"announced too long", kDown, 4, "AVAILABLE", acknowledged + old, target + "1)", false},
        {"handed over, not taken", kDown, 4, "AVAILABLE", acknowledged + old, handedOver, true},
        {"kept by this role", kDown, 4, "AVAILABLE", acknowledged + "KeepCopy = 4, " + old, "", true},
        {"just not", kDown, 4, "AVAILABLE", acknowledged + "FileSize = 1048576, KeepCopy = 4", "", true},
        {"large, outdated", kDown, 4, "DOWNLOADING", large + "KeepCopy = 4, " + old, "", true},
        {"missing", kDown, 4, "MISSING", young, "", true},
        {"missing, outdated", kDown, 4, "MISSING", old, "", false},
        {"received by multicast", kDown, 4, "MULTICASTLISTENING", old, "", true},
        {"sent by multicast", kDown, 2, "AVAILABLE", "MulticastTransferToBeStarted = 1, " + old, target + now,
         true},
        {"requested lately", kDown, 4, "MISSING", kPackage + RequestedAgo(199) + ", CreateTime = 1", "",
         true},
        {"requested long ago", kDown, 4, "MISSING", kPackage + RequestedAgo(201), target + now, false},
        {"never requested", kDown, 4, "MISSING", kPackage + CreatedAgo(201 * kDay), "", false},
        {"young package", kDown, 4, "MISSING", kPackage + CreatedAgo(199 * kDay), "", true},
        {"sent", kUp, 4, "AVAILABLE", young, "", false},
        {"packed", kUp, 2, "PACKEDFILE", young, "", false},
        {"sent, kept", kUp, 4, "AVAILABLE", "KeepCopy = 4, " + old, "", true},
        {"not sent", kUp, 4, "TOBEUPLOADED", young, "", true},
        {"never sent", kUp, 4, "TOBEUPLOADED", old, "", false}};
    FileStore::uKeepCopyPackageMaxSize = 1;
    FakeResult("TestConsume ()", 0);
    const auto consumer = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
    for (const auto& [name, side, role, status, set, before, isKept] : cases) {
        for (const bool isExternal : {false, true}) {
            const auto trace = Begin(name);
            Rows(kDown, "DELETE FROM HandedOver");
            SetRole(role);
            const KelString outside = KelFormat(", ExternalFile = 1, FilePath = '%S'", Root() + "/outside");
            EXPECT_EQ(IsKeptByPasses(side, status, set + (isExternal ? outside : KelString()), before),
                      isKept || isExternal);
            if (!isKept && !isExternal) {
                EXPECT_EQ(Targets(), Texts());
            }
        }
    }
}

/// What the rules depend on, each with each; the rules once more, in the words of the operator's guide.
struct Combination {
    unsigned keep, acknowledged, hasTarget, isOld, isExternal, isLarge, isSent;

    bool IsKept(Side side, unsigned role) const {
        const bool isKeptByRole = (keep & role) != 0;
        if (isExternal) return true;
        if (isOld && !isKeptByRole) return false;
        if (isKeptByRole && !isLarge) return true;
        if (side == kDown && hasTarget) return true;
        const bool isForOthers = role == 2 && !isOld;
        return !isSent && (!acknowledged || isForOthers);
    }
};

TEST_F(Cleanup, EveryCombinationIsKeptOrRemovedByTheRules) {
    FileStore::ulKeepSentFiles = 0;
    FileStore::uKeepCopyPackageMaxSize = 1;
    const std::int64_t now = std::time(nullptr);
    const KelString outside = MakeFile("outside", "x");
    for (const unsigned role : {1U, 2U, 4U}) {
        SetRole(static_cast<int>(role));
        for (const Side side : {kDown, kUp}) {
            const auto trace = Begin(KelFormat("%s %u", filestore::SideName(side), role));
            Rows(
                side,
                KelFormat(
                    "WITH k (keep) AS (VALUES (0), (1), (2), (4), (6), (9)), b (x) AS (VALUES (0), (1)) "
                    "INSERT INTO Files (FileType, FileLabel, FileName, FileChecksum, FilePath, FileStatus, "
                    "KeepCopy, Acknowledged, Priority, CreateTime, ExternalFile, FileSize, Upstream) "
                    "SELECT 't', 'l', keep || ' ' || a.x || ' ' || t.x || ' ' || o.x || ' ' || e.x || ' ' || "
                    "s.x || ' ' || u.x, 'c', '%S', #AVAILABLE#, keep, a.x, t.x, %ld - o.x * %ld, e.x, "
                    "s.x << 21, u.x FROM k, b AS a, b AS t, b AS o, b AS e, b AS s, b AS u",
                    outside, now - 10, kOld));
            if (side == kDown)
                Rows(kDown,
                     KelFormat(
                         "INSERT INTO Targets (FileId, DeviceGUID, TargetCreateTime) SELECT FileId, 'd', %ld "
                         "FROM Files WHERE Priority = 1",
                         now));
            Texts kept;
            for (const KelString& name : Names(side)) {
                Combination one{};
                std::istringstream(name) >> one.keep >> one.acknowledged >> one.hasTarget >> one.isOld >>
                    one.isExternal >> one.isLarge >> one.isSent;
                if (one.IsKept(side, role)) kept.push_back(name);
            }
            Clean();
            EXPECT_EQ(Names(side), kept);
            EXPECT_EQ(
                Cell(kDown, "SELECT COUNT(*) FROM Targets WHERE FileId NOT IN (SELECT FileId FROM Files)"),
                "0");
        }
    }
}

TEST_F(Cleanup, SettingsKeepPackagesAndSentFiles) {
    FileStore::ulPackageTTL = 0;
    EXPECT_TRUE(IsKeptByPasses(
        kDown, "MISSING", "FileType = 'OperationalRelayPackage', KeepCopy = 4, " + CreatedAgo(9999 * kDay)));
    FileStore::ulKeepSentFiles = 100;
    for (const auto& [age, isKept] : Table<std::int64_t, bool>{{50, true}, {150, false}}) {
        const auto trace = Begin(std::to_string(age));
        EXPECT_EQ(IsKeptByPasses(kUp, "AVAILABLE", CreatedAgo(age)), isKept);
    }
}

TEST_F(Cleanup, FileInUseStaysWhateverItsAge) {
    for (const char* by : {"row", "content", "both"}) {
        const auto trace = Begin(by);
        const std::uint64_t fileId = AddStored(kDown, "n", "DOWNLOADING", CreatedAgo(kOld));
        const FileStoreEntry row = Load(kDown, fileId);
        Rows(kDown, KelFormat("INSERT INTO Targets (FileId, TargetCreateTime) VALUES (%lu, 1)", fileId));
        {
            FileStoreEntry used = row;
            if (by == KelString("row")) used.FileName = "another";
            if (by == KelString("content")) used.FileId = 0;
            const FileInUse inUse(kDown, used);
            Clean();
            EXPECT_TRUE(IsKept(kDown, fileId, row.FilePath));
            EXPECT_EQ(Targets().size(), by == KelString("content") ? 0U : 1U);
        }
        Clean();
        EXPECT_FALSE(IsKept(kDown, fileId, row.FilePath));
        EXPECT_FALSE(DirExists(FileStore::StoreFolder(kDown, row.Key())));
    }
}

TEST_F(Cleanup, ContentOfAWithdrawnFileGoesWhenItIsNoLongerUsedAndWanted) {
    for (const bool isWantedAgain : {false, true}) {
        const auto trace = Begin(isWantedAgain ? "wanted again" : "not wanted");
        const KelString path = Load(kDown, AddStored(kDown, "n", "AVAILABLE")).FilePath;
        {
            const KelFileLease sending(path);
            Ask("FileStoreWithdrawFile", Make({{"FileType", "t"}, {"FileLabel", "l"}, {"FileName", "n"}}));
            Clean();
            EXPECT_EQ(Count(kDown) + Content(path), "0n");
        }
        if (isWantedAgain) AddFile(kDown, "n", "DOWNLOADING");
        Clean();
        EXPECT_EQ(FileExists(path), isWantedAgain);
    }
}

TEST_F(Cleanup, ContentThatAKillHasLeftGoesUnlessItHasARowAgain) {
    for (const Side side : {kDown, kUp}) {
        for (const bool isKnownAgain : {false, true}) {
            const auto trace = Begin(KelFormat("%s, known again: %d", SideName(side), isKnownAgain ? 1 : 0));
            const std::uint64_t fileId = AddStored(side, "n", "AVAILABLE");
            const KelString path = Load(side, fileId).FilePath;
            ASSERT_TRUE(DeleteFileRow(side, fileId));
            if (isKnownAgain) AddFile(side, "n", "TOBEREQUESTED");
            Clean();
            EXPECT_EQ(FileExists(path), isKnownAgain);
            EXPECT_EQ(Rows(side, "SELECT FileId FROM RemovedContent"), Texts{});
        }
    }
}

TEST_F(Cleanup, ManyFilesGoInPiecesAndNothingGoesWhenTheDatabaseRefuses) {
    for (int i = 0; i < 200; ++i) {
        const std::uint64_t fileId =
            AddStored(i % 2 == 0 ? kDown : kUp, KelFormat("n%d", i), "TOBEUPLOADED", CreatedAgo(kOld));
        if (i < 2) EnqueueArrivedFile("/u" + std::to_string(i));
        if (i < 2) Set(i == 0 ? kDown : kUp, fileId, KelFormat("FileURL = '/u%d'", i));
    }
    Rows(kDown,
         "INSERT INTO Targets (FileId, DeviceGUID) SELECT a.FileId, b.FileId FROM Files a, Files b "
         "WHERE a.FileId < 9");
    const std::uint64_t kept = AddStored(kDown, "kept", "TOBEREQUESTED");
    AddTarget(kept, 9999, "d");
    Rows(kDown,
         KelFormat("UPDATE Targets SET TargetCreateTime = %ld WHERE TargetId = 9999", std::time(nullptr)));
    {
        const auto down = Refuse(kDown, "DELETE ON Files"), up = Refuse(kUp, "DELETE ON Files");
        Clean();
        EXPECT_EQ(Count(kDown) + " " + Count(kUp), "101 100");
        EXPECT_TRUE(FileExists(InStore("downstream/t/l/c/n0")) && FileExists(InStore("upstream/t/l/c/n1")));
    }
    Clean();
    EXPECT_EQ(Names(kDown), Texts{"kept"});
    EXPECT_EQ(Targets(), Texts{"9999"});
    EXPECT_EQ(Count(kUp), "0");
    EXPECT_EQ(DirList(InStore("downstream/t/l/c")), Texts{"kept"});
    EXPECT_FALSE(DirExists(InStore("upstream/t/l/c")));
    EXPECT_FALSE(NextArrivedFile(0));
}

TEST_F(Cleanup, FileOutsideTheStoreIsForgottenWithItsContent) {
    const KelString outside =
        "Acknowledged = 1, FileURL = '/Packages/n', ExternalFile = 1, FilePath = '" + Root() + "/outside/n'";
    for (const auto& [step, side, isGone, hasTarget, left] :
         Table<const char*, Side, bool, bool, const char*>{
             {"pass", kDown, false, true, "AVAILABLE|1|/Packages/n"},
             {"pass", kDown, true, true, "MISSING|0|"},
             {"pass", kDown, true, false, ""},
             {"pass", kUp, false, false, "AVAILABLE|1|/Packages/n"},
             {"pass", kUp, true, false, ""},
             {"request", kDown, true, false, "MISSING|0|"},
             {"announcement", kDown, true, true, "MISSING|0|"}}) {
        const auto trace = Begin(KelFormat("%s %s", step, left));
        const std::uint64_t fileId = AddStored(side, "n", "AVAILABLE", outside);
        if (hasTarget) AddTarget(fileId, 1, "127.0.1.9:1/G");
        Rows(kDown, "UPDATE Targets SET TargetCreateTime = 9999999999");
        if (isGone) FileDelete(Load(side, fileId).FilePath);
        if (step == KelString("pass")) Clean();
        if (step == KelString("announcement")) FileStoreNotifyThread().NotifyUnicastTargets(0, 0);
        if (step == KelString("request")) {
            const KelContainer key = Make({{"FileType", "t"}, {"FileLabel", "l"}, {"FileName", "n"}});
            EXPECT_EQ(Ask("FileStoreRequestFile", key).GetString("FileURL"), "");
        }
        EXPECT_EQ(Cell(side, "SELECT FileStatus, ExternalFile, FileURL FROM Files"), left);
    }
}

TEST_F(Cleanup, RelayModuleRemovesItsCopyWithTheLastPackageOfAName) {
    FakeResult("RelayClearPackage (string FileType, string FileLabel)", 0);
    const KelString type = "FileType = 'OperationalRuleNetworkPackage', CreateTime = 1, KeepCopy = 4, ";
    const KelString info = SetInfo(Make({{"PathForNetworkInstall", "l/n"}}));
    AddStored(kDown, "n", "AVAILABLE", type + "Acknowledged = 0, FileChecksum = 'old', " + info);
    AddStored(kDown, "n", "AVAILABLE", type + info + ", " + RequestedAgo(1));
    AddStored(kDown, "other", "AVAILABLE", type + SetInfo(Info()));
    Clean();
    EXPECT_EQ(Names(kDown), Texts{"n"});
    EXPECT_TRUE(CallsOf("RelayClearPackage").empty());
    Rows(kDown, "UPDATE Files SET LastRequestTime = 1");
    Clean();
    EXPECT_EQ(Read(OnlyCallOf("RelayClearPackage"), "FileLabel FileName PathForNetworkInstall"), "l|n|l/n");
}

}  // namespace
