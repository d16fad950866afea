#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"
#include "kel/text.h"

namespace {

const KelString kOther = "127.0.1.8:1610/0A1B0000-0000-4000-8000-0000000000C2";

class Withdraw : public StoreTest {
  protected:
    /// A tree below this device as "A(A B) C": A, which is a target itself, B below it, and C.
    static KelContainer Tree(const KelString& text) {
        KelContainer level;
        for (std::size_t at = 0; at < text.size(); ++at) {
            if (text[at] == ' ') continue;
            KelContainer below;
            const KelString name = NameOf(text[at]);
            if (at + 1 < text.size() && text[at + 1] == '(') {
                const std::size_t end = text.find(')', at);
                for (std::size_t i = at + 2; i < end; i += 2)
                    below.SetContainer(NameOf(text[i]), {});
                at = end;
            }
            level.SetContainer(name, below);
        }
        return Make({{kOwnPathName, level}});
    }
    static KelString NameOf(char device) {
        return device == 'O'
                   ? KelString(kOwnPathName)
                   : KelFormat("127.0.1.9:1610/0A1B0000-0000-4000-8000-0000000000%s/m/127.0.1.9/255.0.0.0",
                               KelString(2, device).c_str());
    }
    /// The devices in the rows of a table as Tree reads them.
    static KelString TreesIn(const KelString& table) {
        KelString text;
        for (const KelString& xml : Rows(kDown, "SELECT DevicePath FROM " + table + " ORDER BY rowid"))
            text += (text.empty() ? "" : " ") + (xml.empty() ? "O" : Letters(FromXml(xml)));
        return text;
    }
    static KelString Letters(const KelContainer& level) {
        KelString text;
        for (std::size_t i = 0; i < level.GetNameCount(); ++i) {
            const KelString& name = level.GetName(i);
            text += text.empty() ? "" : " ";
            text += name == kOwnPathName ? 'O' : name[name.find("/m/") - 1];
            if (!level.GetContainer(name).IsEmpty()) text += "(" + Letters(level.GetContainer(name)) + ")";
        }
        return text;
    }
    /// A file of the key t/l/n/MD5 for these targets.
    KelContainer Offered(const KelString& targets) {
        const KelContainer file = Offer("t", TextMd5("abc"));
        Accept(file, {{"CopyPath", MakeFile("source", "abc")}, {"DevicePath", Tree(targets)}});
        return file;
    }
};

TEST_F(Withdraw, TargetsGoAndTheFileWhenNothingWantsItAnyMore) {
    const auto consumer = Consume("FileStoreCallbackWithdrawnFile", "TestConsume ()");
    for (const auto& [targets, withdrawn, flag, answer, left, passedOn] :
         Table<const char*, const char*, const char*, unsigned, const char*, const char*>{
             {"A B", "A", "", 0, "B", "A"},
             {"A B", "A B", "", 0, "(none)", "A B"},
             {"A B", "A B", "KeepContent", 0, "", "A B"},
             {"A B", "A B C", "Removed", 0, "(none)", ""},
             {"A(A B C) D", "A(A C)", "", 0, "A(B) D", "A(A C)"},
             {"A(B C)", "A", "", 0, "A(B C)", "A"},
             {"A(A B)", "A", "", 0, "A(B)", "A"},
             {"A(B)", "A(B)", "Removed", 0, "(none)", "A(B)"},
             {"A", "A(B)", "", 0, "A", "A(B)"},
             {"O A", "O", "", 0, "A", ""},
             {"O", "O", "", 0, "(none)", ""},
             {"O", "O", "", kKelAnswerStaysHere, "", ""},
             {"A", "B", "", 0, "A", "B"}}) {
        const auto trace = Begin(KelFormat("%s: %s %s", targets, withdrawn, flag));
        Rows(kDown, "DELETE FROM Withdrawals");
        FakeResult("TestConsume ()", answer);
        KelContainer call = With(Offered(targets), {{"DevicePath", Tree(withdrawn)}});
        if (*flag != 0) call.SetBool(flag, true);
        const KelString path = PathOf(kDown, OnlyRow(kDown).FileId);
        Ask("FileStoreWithdrawFile", call);
        const KelString targetsLeft = TreesIn("Targets");
        EXPECT_EQ(Count(kDown) == "0" ? KelString("(none)") : targetsLeft, left);
        EXPECT_EQ(FileExists(path), Count(kDown) == "1");
        EXPECT_EQ(TreesIn("Withdrawals"), passedOn);
    }
}

TEST_F(Withdraw, RequestsAndWhatIsBeingFetchedAreForgottenButOnlyForTheParentAndWhenItIsRecorded) {
    SetParent("127.0.1.1", 1610);
    const KelContainer call =
        Make({{"FileType", "t"}, {"FileLabel", "l"}, {"FileName", "n"}, {"DevicePath", Tree("A(B)")}});
    for (const auto& [status, isKept] :
         Table<const char*, bool>{{"TOBEREQUESTED", false}, {"DOWNLOADING", false}, {"RECEIVING", true}}) {
        const auto trace = Begin(status);
        AddTarget(AddFile(kDown, "n", status), 1, NameOf('A'));
        Rows(kDown, "UPDATE Targets SET DevicePath = ''");
        const KelString before = Everything();
        Ask("FileStoreWithdrawFile", From(call, "127.0.1.2"), kKelErrorBadInput);
        Ask("FileStoreWithdrawFile", With(call, {{"FileName", "../n"}}), kKelErrorBadInput);
        Ask("FileStoreWithdrawFile", With(call, {{"DevicePath", Make({{kOther + "/", Tree("A")}})}}),
            kKelErrorBadInput);
        {
            const auto refusal = Refuse(kDown, "INSERT ON Withdrawals");
            Ask("FileStoreWithdrawFile", call, kKelErrorInternal);
        }
        EXPECT_EQ(Everything(), before);
        Ask("FileStoreWithdrawFile", From(call, "127.0.1.1"));
        EXPECT_EQ(Count(kDown), isKept ? "1" : "0");
        const KelString url = NameOf('A').substr(0, NameOf('A').find("/m/"));
        const KelContainer key = Make({{"FileType", "t"}, {"FileLabel", "l"}, {"FileName", "n"}});
        Ask("FileStoreRequestFile", With(key, {{"FileChecksum", "c"}, {"DeviceGUID", url}}));
        EXPECT_EQ(Count(kDown), isKept ? "1" : "0") << "the device does not know yet that it is withdrawn";
        EXPECT_EQ(Count(kDown, "Targets"), "0");
    }
}

TEST_F(Withdraw, DeviceIsCalledUntilItHasTakenItAndBeforeAnythingElse) {
    for (const auto& [answer, waiting, actions] :
         Table<unsigned, const char*, Texts>{{0, "0", {"WithdrawFile", "ReceiveFile"}},
                                             {kKelErrorBadInput, "0", {"WithdrawFile", "ReceiveFile"}},
                                             {kKelErrorInternal, "1", {"WithdrawFile"}}}) {
        const auto trace = Begin(KelFormat("%u", answer));
        Rows(kDown, "DELETE FROM Withdrawals");
        const TestHttpServer device(TestHttpServer::ActionScript(answer));
        const KelString name =
            device.HostAndPort() + "/0A1B0000-0000-4000-8000-0000000000C1/m/127.0.1.9/255.0.0.0";
        AddTarget(AddFile(kDown, "later", "AVAILABLE", "Acknowledged = 1"), 1, name);
        Ask("FileStoreWithdrawFile", With(Offer(), {{"DevicePath", TargetTree({name})}}));
        FileStoreNotifyThread thread;
        ASSERT_TRUE(Eventually([&, calls = actions.size(), left = KelString(waiting)] {
            thread.NotifyUnicastTargets(0, 0);
            const KelString tried = Count(kDown, "Withdrawals WHERE LastTryTime > 0");
            return device.Requests().size() >= calls && Count(kDown, "Withdrawals") == left && tried == left;
        }));
        Texts called;
        for (const TestHttpServer::Request& request : device.Requests())
            called.push_back(request.target.substr(request.target.find("FileStore") + 9));
        EXPECT_EQ(called, actions);
        EXPECT_EQ(device.Requests().front().Arguments().GetContainer("DevicePath").GetName(0), name);
    }
}

TEST_F(Withdraw, ADeletedPackageIsObsoleteHereAndForgottenBelow) {
    SetParent("127.0.1.1", 1610);
    const auto consumer = Consume("FileStoreCallbackWithdrawnFile", "TestConsume ()");
    const KelContainer package = Offer("OperationalRulePackage");
    const KelContainer order = With(Offer("PackageDelete", "any"),
                                    {{"FileInfo", Make({{"PackageName", "l"}, {"PackageChecksum", "c"}})}});
    for (const KelContainer& named : {package, order}) {
        const auto trace = Begin(named.GetString("FileType"));
        Rows(kDown, "DELETE FROM Withdrawals");
        const KelContainer call = With(named, {{"DevicePath", Tree("A(B) C")}});
        const std::uint64_t id = AddFile(kDown, "n", "AVAILABLE", "FileType = 'OperationalRulePackage'");
        const KelString path = PathOf(kDown, id);
        WriteFile(path, "abc");
        AddTarget(id, 1, NameOf('D'));
        const KelString action = "FileStoreDeletePackage";
        Ask(action, From(call, "127.0.1.2"), kKelErrorNotAvailable);
        EXPECT_EQ(OnlyFields(kDown), "AVAILABLE");
        FakeResult("TestConsume ()", kKelAnswerStaysHere);
        const KelString before = Everything();
        Ask(action, call, kKelErrorNotAvailable);
        FakeResult("TestConsume ()", 0);
        Ask(action, With(call, {{"FileChecksum", ""}, {"FileInfo", Make({})}}), kKelErrorBadInput);
        {
            const auto refusal = Refuse(kDown, "INSERT ON Withdrawals");
            Ask(action, call, kKelErrorInternal);
        }
        EXPECT_EQ(Everything(), before);
        Ask(named == order ? "FileStoreReceiveFile" : action, From(call, "127.0.1.1"));
        EXPECT_EQ(OnlyFields(kDown), "OBSOLETE");
        EXPECT_FALSE(FileExists(path));
        EXPECT_EQ(Targets(), Texts());
        EXPECT_EQ(TreesIn("Withdrawals"), "A(B) C A(B) C A(B) C") << "one for each type of a package";
        EXPECT_TRUE(Ask("FileStoreRequestFile", package).GetBool("FileObsolete"));
    }
}

}  // namespace
