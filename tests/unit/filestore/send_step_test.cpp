#include <ctime>

#include "filestore/archive_content.h"
#include "filestore/upstream_fixture.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class SendStepTest : public UpstreamTest {
  protected:
    static unsigned long Waiting(const KelString& name,
                                 const std::function<void(FileStoreEntry&)>& change = {}) {
        return AddStored(name, kStatusToBeUploaded, change);
    }
    Outcome Send(bool packedPass = false) {
        reached_ = false;
        return push_.SendFile(reached_, packedPass);
    }

    Push push_;
    bool reached_ = false;
};

TEST_F(SendStepTest, OfferCarriesTheRecordAndTakesTheUrl) {
    KelContainer info;
    info.SetString("Fact", "it's");
    AnswerAsParent([](const ScriptedServer::Request&) {
        KelContainer answer;
        answer.SetString("FileURL", "/FileStore/upstream/it's");
        return ScriptedServer::ActionResult(0, answer);
    });
    const unsigned long fileId = Waiting("it's", [&](FileStoreEntry& entry) {
        entry.FirstRelay = "relay";
        entry.KeepCopy = 3;
        entry.Priority = 7;
        entry.Bypass = true;
        entry.FileInfo = info.SaveToXML();
    });
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_TRUE(reached_);
    const FileStoreEntry row = Load(true, fileId);
    EXPECT_EQ(row.FileStatus, kStatusUploading);
    EXPECT_EQ(row.FileURL, "/FileStore/upstream/it's");
    EXPECT_EQ(row.LastStatusChangeTime, 0);
    ASSERT_EQ(Parent().Requests().size(), 1U);
    EXPECT_EQ(Parent().Requests()[0].path, "/Action/FileStoreReceiveFile");
    const KelContainer offer = Parent().Requests()[0].Arguments();
    EXPECT_EQ(offer.GetString("FileType") + offer.GetString("FileLabel") + offer.GetString("FileName"),
              "TypeLabelit's");
    EXPECT_EQ(offer.GetString("FileChecksum"), row.FileChecksum);
    EXPECT_EQ(offer.GetString("SourceDevice"), kChild);
    EXPECT_EQ(offer.GetString("FirstRelay"), "relay");
    EXPECT_TRUE(offer.GetBool("Upstream"));
    EXPECT_TRUE(offer.GetBool("Bypass"));
    EXPECT_EQ(offer.GetInt32("KeepCopy"), 3);
    EXPECT_EQ(offer.GetInt64("FileSize"), 4);
    EXPECT_EQ(offer.GetInt32("Priority"), 7);
    EXPECT_EQ(offer.GetContainer("FileInfo"), info);
}

TEST_F(SendStepTest, RefusalDependsOnTheFirstRelayAndTheError) {
    struct Case {
        const char* name;
        const char* firstRelay;
        unsigned int error;
        const char* status;
        const char* source;
        bool goesOn;
    };
    for (const Case& test : {Case{"own file, foreign scheme", "", 44005, kStatusToBeUploaded, kOwnUrl, true},
                             Case{"own file, refused", "", 1, kStatusToBeUploaded, kOwnUrl, false},
                             Case{"relayed file, foreign scheme", "r", 44005, kStatusAvailable, kChild, true},
                             Case{"relayed file, refused", "r", 1, kStatusToBeUploaded, kChild, false},
                             Case{"accepted without a URL", "r", 0, kStatusToBeUploaded, kChild, false}}) {
        SCOPED_TRACE(test.name);
        Rows(Upstream(), "DELETE FROM Files");
        AnswerAsParent([&](const ScriptedServer::Request& request) {
            KelContainer answer;
            const bool refused = request.Arguments().GetString("FileName") == "first";
            answer.SetString("FileURL", refused ? "" : "/u");
            return ScriptedServer::ActionResult(refused ? test.error : 0, answer);
        });
        const unsigned long first =
            Waiting("first", [&](FileStoreEntry& entry) { entry.FirstRelay = test.firstRelay; });
        const unsigned long second = Waiting("second");
        EXPECT_EQ(Send(), Outcome::Done);
        const FileStoreEntry row = Load(true, first);
        EXPECT_EQ(row.FileStatus, test.status);
        EXPECT_EQ(row.SourceDevice, test.source);
        EXPECT_EQ(JustNow(row.LastStatusChangeTime), row.FileStatus == kStatusToBeUploaded);
        EXPECT_EQ(StatusOf(true, second), test.goesOn ? kStatusUploading : kStatusToBeUploaded);
    }
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
}

TEST_F(SendStepTest, RecentRowEndsTheBatchBehindTheOlderOnes) {
    AcceptAll();
    const unsigned long recent = Waiting(
        "recent", [](FileStoreEntry& entry) { entry.LastStatusChangeTime = std::time(nullptr) - 200; });
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_FALSE(reached_);
    EXPECT_TRUE(Parent().Requests().empty());

    Waiting("old", [](FileStoreEntry& entry) { entry.LastStatusChangeTime = std::time(nullptr) - 400; });
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(OfferedNames(), KelVector<KelString>{"old"});
    EXPECT_EQ(StatusOf(true, recent), kStatusToBeUploaded);
}

TEST_F(SendStepTest, NothingMovesWithoutParentOrRow) {
    EXPECT_EQ(Send(), Outcome::Nothing);
    const unsigned long fileId = Waiting("n");
    relayValues.SetBool("ParentSync", false);
    EXPECT_EQ(Send(), Outcome::Failed);
    EXPECT_EQ(Load(true, fileId).LastStatusChangeTime, 0);
}

TEST_F(SendStepTest, PolicyAndWindowChooseTheFiles) {
    struct Case {
        const char* name;
        bool packs, automatic;
        const char* excluded;
        bool manual, packedPass, closedWindow;
        Outcome outcome;
        const char* offered;
        const char* packed;
    };
    const Case cases[] = {
        {"no packing", false, false, "", false, false, false, Outcome::Done, "a b archive bypass ", ""},
        {"automatic", true, true, "", false, false, false, Outcome::Done, "archive ", "a b bypass "},
        {"on demand", true, false, "", false, false, false, Outcome::Nothing, "", ""},
        {"on demand but some types", true, false, "B, C", false, false, false, Outcome::Done, "", "b "},
        {"demanded", true, false, "B", true, false, false, Outcome::Done, "archive ", "a b bypass "},
        {"demanded without policy", false, false, "", true, false, false, Outcome::Done, "archive ",
         "a b bypass "},
        {"archives", true, false, "", false, true, false, Outcome::Done, "archive ", ""},
        {"closed window", false, false, "", false, false, true, Outcome::Done, "bypass ", ""},
    };
    AcceptAll();
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rows(Upstream(), "DELETE FROM Files");
        AcceptAll();
        for (const auto& [name, type] :
             {std::pair{"a", "A"}, {"b", "B"}, {"archive", "FileStorePackedFiles"}, {"bypass", "A"}})
            Waiting(name, [name = name, type = type](FileStoreEntry& entry) {
                entry.FileType = type;
                entry.Bypass = KelString(name) == "bypass";
            });
        FileStore::fConcatFiles = test.packs;
        FileStore::fAutoConcat = test.automatic;
        FileStore::strExcludedFileType = test.excluded;
        FileStore::fProcessManualUpload = test.manual;
        if (test.closedWindow) {
            KelContainer window;
            window.SetString("Slots", "0");
            window.SetInt32("SlotType", 2);
            FileStore::bmTrackUsageUp.UpdateTransferWindow(window);
            FileStore::bmTrackUsageUp.CancelAllTransfers();
        }
        EXPECT_EQ(Send(test.packedPass), test.outcome);
        KelString offered, packed;
        for (const KelString& name : OfferedNames())
            offered += name + " ";
        for (const KelString& name : Rows(Upstream(), KelFormat("SELECT FileName FROM Files WHERE FileStatus "
                                                                "= '%s' ORDER BY FileId",
                                                                kStatusToBePacked)))
            packed += name + " ";
        EXPECT_EQ(offered, test.offered);
        EXPECT_EQ(packed, test.packed);
    }
}

TEST_F(SendStepTest, PackingBeginsAnArchiveWithItsIndex) {
    AcceptAll();
    FileStore::fConcatFiles = FileStore::fAutoConcat = true;
    FileStore::uMaxFilesToConcat = 2;
    for (const char* name : {"a", "it's", "left for the next"})
        Waiting(name);
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_TRUE(reached_);
    const auto entries = ArchiveContent(FileStore::strArchiveFilePath);
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].first, "Temp/PackedFilesInfo.xml");
    KelContainer index;
    ASSERT_TRUE(static_cast<bool>(index.LoadFromXML(entries[0].second)));
    ASSERT_EQ(index.Count("PackedFile"), 2U);
    EXPECT_EQ(index.GetContainer("PackedFile", 0).GetString("FileName"), "a");
    EXPECT_EQ(index.GetContainer("PackedFile", 1).GetString("FileName"), "it's");
    EXPECT_EQ(index.GetContainer("PackedFile", 1).GetInt64("FileSize"), 4);
    EXPECT_EQ(index.GetContainer("PackedFile", 1).GetString("SourceDevice"), kChild);
    EXPECT_EQ(Rows(Upstream(), "SELECT FileStatus FROM Files ORDER BY FileId"),
              (KelVector<KelString>{kStatusToBePacked, kStatusToBePacked, kStatusToBeUploaded}));
}

}  // namespace
