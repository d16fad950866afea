#include "filestore/push_fixture.h"
#include "filestore/up/receive_contents.h"
#include "kel/format.h"

namespace {

/// What a parent makes of files that come with their contents.
struct ReceiveContentsTest : StoreTest {
    static KelContainer File(const KelString& name, const KelString& content, Values values = {}) {
        KelContainer file = With(Offer(), {{"FileName", name},
                                           {"FileChecksum", TextMd5(content)},
                                           {"FileSize", static_cast<int>(content.size())},
                                           {"SourceDevice", kChild},
                                           {"Upstream", true},
                                           {"Content", content}});
        return With(file, values);
    }
    /// Result, ContentHeld and FileURL of each file.
    static Texts Receive(std::initializer_list<KelContainer> files) {
        KelContainer call;
        for (std::uint32_t i = 0; const KelContainer& file : files)
            call.SetContainer("Files", file, i++);
        const KelContainer answer = Ask("FileStoreReceiveContents", From(call, "127.0.1.9"));
        Texts results;
        for (std::uint32_t i = 0; i < files.size(); ++i)
            results.push_back(Read(answer.GetContainer("Files", i), "Result ContentHeld FileURL"));
        return results;
    }
};

TEST_F(ReceiveContentsTest, OnlyWholeNewFilesAreTakenAndTheOthersAreOffered) {
    const auto consumer = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
    const KelString binary("a\0'\xff", 4), url = "/FileStore/upstream/t/l/" + TextMd5("x") + "/";
    const char* const sibling = "127.0.1.9:1610/0A1B0000-0000-4000-8000-0000000000C2";
    EXPECT_EQ(
        Receive({File("binary", binary), File("size", "x", {{"FileSize", 2}}),
                 File("md5", "x", {{"FileChecksum", TextMd5("y")}}), File("same", "x"),
                 File("same", "x", {{"SourceDevice", sibling}}), File("../up", "x"),
                 File("local", "x",
                      {{"CopyPath", "/etc/hostname"}, {kActionRequestInfo, Make({{"Callers", 1}})}}),
                 File("foreign", "x", {{"SourceDevice", "1.2.3.4:1/FFFF0000-0000-4000-8000-0000000000C1"}})}),
        (Texts{"0|true|/FileStore/upstream/t/l/" + TextMd5(binary) + "/binary", "0|(none)|" + url + "size",
               "0|(none)|/FileStore/upstream/t/l/" + TextMd5("y") + "/md5", "0|true|" + url + "same",
               "0|(none)|" + url + "from-0A1B0000-0000-4000-8000-0000000000C2/same", "1|(none)|(none)",
               "1|(none)|(none)", "44005|(none)|(none)"}));
    EXPECT_EQ(Files(kUp, "FileName, FileStatus, TransportMode, FirstRelay, FileURL <> ''"),
              (Texts{KelFormat("binary|TOBEHANDLED|Unicast|%s|1", kOwnUrl),
                     KelFormat("same|TOBEHANDLED|Unicast|%s|1", kOwnUrl),
                     KelFormat("size|RECEIVING|Unicast|%s|1", kOwnUrl),
                     KelFormat("md5|RECEIVING|Unicast|%s|1", kOwnUrl),
                     KelFormat("same|RECEIVING|Unicast|%s|1", kOwnUrl)}));
    EXPECT_EQ(Content(InStore("upstream/t/l/" + TextMd5(binary) + "/binary")), binary);
    EXPECT_EQ(Content(InStore("upstream/t/l/" + TextMd5("x") + "/size")), "(none)");
    EXPECT_EQ(DirList(InStore("Temp")), Texts{});
    EXPECT_EQ(Receive({File("binary", binary)}),
              Texts{"0|(none)|/FileStore/upstream/t/l/" + TextMd5(binary) + "/binary"})
        << "it is known";
}

TEST_F(ReceiveContentsTest, NothingIsTakenWhileTheDatabaseRefusesIt) {
    const auto full = Refuse(kUp, "INSERT ON Files");
    EXPECT_EQ(Receive({File("a", "x"), File("b", "y")}), (Texts{"17|(none)|(none)", "17|(none)|(none)"}));
    EXPECT_EQ(Count(kUp), "0");
    EXPECT_EQ(Content(InStore("upstream/t/l/" + TextMd5("x") + "/a")), "(none)");
    KelContainer many;
    for (std::uint32_t i = 0; i <= filestore::kMostContents; ++i)
        many.SetContainer("Files", File("a", "x"), i);
    Ask("FileStoreReceiveContents", From(many, "127.0.1.9"), kKelErrorBadInput);
}

/// What a child does with the answers.
TEST_F(PushTest, SmallFilesGoInOneCallToAParentThatTakesThem) {
    bool isOlder = false;
    AnswerAsParent([&isOlder](const TestHttpServer::Request& request) {
        const KelContainer call = request.Arguments();
        if (!call.Has("Files"))
            return TestHttpServer::ActionResult(0, Make({{"FileURL", "/u"}, {"TakesContents", !isOlder}}));
        TestHttpServer::Answer unknown;
        unknown.status = 404;
        if (isOlder) return unknown;
        KelContainer answer;
        answer.SetContainer("Files", Make({{"Result", 0}, {"ContentHeld", true}}), 0);
        answer.SetContainer("Files", Make({{"Result", 0}, {"FileURL", "/v"}}), 1);
        answer.SetContainer("Files", Make({{"Result", 18}}), 2);
        return TestHttpServer::ActionResult(0, answer);
    });
    Waiting("first");
    EXPECT_EQ(Send(), Outcome::Done);
    DeleteRows();
    for (const bool limited : {true, false}) {
        if (limited) LimitWindow(FileStore::bmTrackUsageUp, "100");
        const auto trace = Begin(limited ? "a rate is set" : "no limit");
        for (const char* name : {"taken", "offered", "refused"})
            Waiting(name);
        Waiting("large", "FileSize = 100000");
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(Files(kUp, "FileName, FileStatus, FileURL"),
                  limited ? (Texts{"taken|UPLOADING|/u", "offered|UPLOADING|/u", "refused|UPLOADING|/u",
                                   "large|UPLOADING|/u"})
                          : (Texts{"taken|AVAILABLE|", "offered|UPLOADING|/v", "refused|TOBEUPLOADED|",
                                   "large|UPLOADING|/u"}));
        DeleteRows();
        if (limited) FileStore::bmTrackUsageUp.ClearWindow();
    }
    isOlder = true;
    Waiting("second");
    EXPECT_EQ(Send(), Outcome::Done) << "not taken";
    EXPECT_EQ(OnlyFields(kUp), "TOBEUPLOADED");
    EXPECT_EQ(Send(), Outcome::Done) << "offered";
    EXPECT_EQ(OnlyFields(kUp), "UPLOADING");
}

}  // namespace
