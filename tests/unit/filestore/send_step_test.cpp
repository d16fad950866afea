#include <filesystem>

#include "filestore/transfer_fixture.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class SendStepTest : public PushTest {
  protected:
    static unsigned long Waiting(const KelString& name, const KelString& set = "") {
        return AddStored(true, name, kStatusToBeUploaded, set);
    }
};

TEST_F(SendStepTest, OfferCarriesTheRecordAndTakesTheUrl) {
    AcceptAll();
    const unsigned long fileId =
        Waiting("it's", "FirstRelay = 'relay', KeepCopy = 3, Priority = 7, Bypass = 1, " + SetInfo(Info()));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_TRUE(reached_);
    EXPECT_EQ(Fields(true, fileId, "FileStatus, FileURL, LastStatusChangeTime"),
              KelString(kStatusUploading) + "|/FileStore/upstream/it's|0");
    const KelContainer offer = OnlyCallTo(Parent(), "FileStoreReceiveFile");
    EXPECT_EQ(Texts(offer, "FileType FileLabel FileName FileChecksum"),
              "Type|Label|it's|0123456789abcdef0123456789abcdef");
    EXPECT_EQ(Texts(offer, "SourceDevice FirstRelay Upstream Bypass KeepCopy FileSize Priority"),
              KelString(kChild) + "|relay|true|true|3|4|7");
    EXPECT_EQ(offer.GetContainer("FileInfo"), Info());
}

TEST_F(SendStepTest, RefusalDependsOnTheFirstRelayAndTheError) {
    struct Case {
        const char *name, *firstRelay;
        unsigned int error;
        const char *status, *source;
        bool goesOn;
    };
    for (const Case& test : {Case{"own file, foreign scheme", "", 44005, kStatusToBeUploaded, kOwnUrl, true},
                             Case{"own file, refused", "", 1, kStatusToBeUploaded, kOwnUrl, false},
                             Case{"relayed file, foreign scheme", "r", 44005, kStatusAvailable, kChild, true},
                             Case{"relayed file, refused", "r", 1, kStatusToBeUploaded, kChild, false},
                             Case{"accepted without a URL", "r", 0, kStatusToBeUploaded, kChild, false}}) {
        SCOPED_TRACE(test.name);
        DeleteRows();
        AnswerAsParent([&](const ScriptedServer::Request& request) {
            const bool isFirst = request.Arguments().GetString("FileName") == "first";
            return ScriptedServer::ActionResult(isFirst ? test.error : 0,
                                                Make({{"FileURL", isFirst ? "" : "/u"}}));
        });
        const unsigned long first = Waiting("first", KelFormat("FirstRelay = '%s'", test.firstRelay));
        const unsigned long second = Waiting("second");
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(Fields(true, first, "FileStatus, SourceDevice"),
                  KelFormat("%s|%s", test.status, test.source));
        EXPECT_EQ(IsNew(true, first), KelString(test.status) == kStatusToBeUploaded);
        EXPECT_EQ(StatusOf(true, second), test.goesOn ? kStatusUploading : kStatusToBeUploaded);
    }
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
}

TEST_F(SendStepTest, RecentRowEndsTheBatchBehindTheOlderOnes) {
    AcceptAll();
    Waiting("recent", "LastStatusChangeTime = " + std::to_string(std::time(nullptr) - 200));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_FALSE(reached_);
    Waiting("old", "LastStatusChangeTime = " + std::to_string(std::time(nullptr) - 400));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(OfferedNames(), KelVector<KelString>{"old"});
}

TEST_F(SendStepTest, NothingMovesWithoutRowsOrAParent) {
    EXPECT_EQ(Send(), Outcome::Nothing);
    EXPECT_EQ(Upload(), Outcome::Nothing);
    const unsigned long waiting = Waiting("n");
    const unsigned long announced = AddStored(true, "m", kStatusUploading);
    relayValues.SetBool("ParentSync", false);
    EXPECT_EQ(Send(), Outcome::Failed);
    EXPECT_EQ(Upload(), Outcome::Failed);
    EXPECT_FALSE(IsNew(true, waiting) || IsNew(true, announced));
}

TEST_F(SendStepTest, PolicyAndWindowChooseTheFiles) {
    using List = KelVector<KelString>;
    const List all = {"a", "b", "archive", "bypass"}, none, archive = {"archive"};
    const List packable = {"a", "b", "bypass"};
    struct Case {
        const char* name;
        bool packs, automatic;
        const char* excluded;
        bool manual, packedPass;
        Outcome outcome;
        List offered, packed;
    };
    const Case cases[] = {
        {"no packing", false, false, "", false, false, Outcome::Done, all, none},
        {"automatic", true, true, "", false, false, Outcome::Done, archive, packable},
        {"on demand", true, false, "", false, false, Outcome::Nothing, none, none},
        {"on demand but some types", true, false, "B, C", false, false, Outcome::Done, none, {"b"}},
        {"demanded", true, false, "B", true, false, Outcome::Done, archive, packable},
        {"demanded without policy", false, false, "", true, false, Outcome::Done, archive, packable},
        {"archives", true, false, "", false, true, Outcome::Done, archive, none},
        {"closed window", false, false, "", false, false, Outcome::Done, {"bypass"}, none},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        DeleteRows();
        AcceptAll();
        Waiting("a", "FileType = 'A'");
        Waiting("b", "FileType = 'B'");
        Waiting("archive", "FileType = 'FileStorePackedFiles'");
        Waiting("bypass", "FileType = 'A', Bypass = 1");
        FileStore::fConcatFiles = test.packs;
        FileStore::fAutoConcat = test.automatic;
        FileStore::strExcludedFileType = test.excluded;
        FileStore::fProcessManualUpload = test.manual;
        if (KelString(test.name) == "closed window") CloseWindow(FileStore::bmTrackUsageUp);
        EXPECT_EQ(Send(test.packedPass), test.outcome);
        EXPECT_EQ(OfferedNames(), test.offered);
        EXPECT_EQ(Names(true, kStatusToBePacked), test.packed);
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
    const KelContainer index = FromXml(entries[0].second);
    ASSERT_EQ(index.Count("PackedFile"), 2U);
    EXPECT_EQ(index.GetContainer("PackedFile", 0).GetString("FileName"), "a");
    EXPECT_EQ(Texts(index.GetContainer("PackedFile", 1), "FileName FileSize SourceDevice"),
              KelString("it's|4|") + kChild);
    EXPECT_EQ(Names(true, kStatusToBePacked), (KelVector<KelString>{"a", "it's"}));
}

TEST_F(SendStepTest, WhatIsTooMuchForAnArchiveTravelsAloneOrInTheNextOne) {
    // Two of these are too much for one index.
    const KelString info = SetInfo(Make({{"Fact", KelString(17 << 20, 'x')}}));
    struct Case {
        const char* name;
        KelString set;
        bool sparse;  ///< 2 GiB of content, whatever was announced
        KelVector<KelString> offered, packed;
    };
    const Case cases[] = {
        {"announced size", "FileSize = 9223372036854775807", false, {"large"}, {"a", "b"}},
        {"size of the content", "FileSize = 1", true, {"large"}, {"a", "b"}},
        {"information of both", info, false, {}, {"a"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        DeleteRows();
        AcceptAll();
        FileStore::fConcatFiles = FileStore::fAutoConcat = true;
        Waiting("a", test.offered.empty() ? info : "Priority = 1");
        const FileStoreEntry large = Load(true, Waiting("large", test.set));
        if (test.sparse) std::filesystem::resize_file(large.FilePath, std::uintmax_t{2} << 30);
        Waiting("b");
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(OfferedNames(), test.offered);
        EXPECT_EQ(Names(true, kStatusToBePacked), test.packed);
    }
}

}  // namespace
