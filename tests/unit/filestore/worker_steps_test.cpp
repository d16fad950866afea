#include <algorithm>
#include <atomic>

#include "filestore/down/notify_thread.h"
#include "filestore/down/pull_thread.h"
#include "filestore/file_store_fixture.h"
#include "filestore/up/handle_thread.h"
#include "filestore/up/push_thread.h"

namespace {

/// What every step of the worker threads has to do in the same situations. The tests of a step cover what is
/// its own.
struct WorkerStepsTest : StoreTest {
    struct Step {
        KelString name;
        Side side;
        const char* status;          ///< of the rows that it works on
        std::function<int()> run;    ///< one pass; its result as a number
        std::function<void()> work;  ///< the whole step of its thread
    };
    const std::function<void()> pull = [this] { pull_.DoWork(); }, push = [this] { push_.DoWork(); };
    const KelVector<Step> steps_ = {
        {"acknowledge", kDown, "AVAILABLE", [this] { return pull_.AcknowledgeFile(); }, pull},
        {"download", kDown, "DOWNLOADING", [this] { return pull_.DownloadFile(); }, pull},
        {"announce", kDown, "AVAILABLE", [this] { return notify_.NotifyUnicastTargets(0, 0); },
         [this] { notify_.DoWork(); }},
        {"request", kDown, "TOBEREQUESTED", [this] { return int(push_.RequestFile(reached_)); }, push},
        {"send", kUp, "TOBEUPLOADED", [this] { return int(push_.SendFile(reached_, false)); }, push},
        {"upload", kUp, "UPLOADING", [this] { return int(push_.UploadFile(reached_, false)); }, push},
        {"hand over", kUp, "TOBEHANDLED", [this] { return int(handler_.HandleFile(kUp)); },
         [this] { handler_.DoWork(); }},
    };
    const Step& Find(const KelString& name) const {
        return *std::find_if(steps_.begin(), steps_.end(),
                             [&](const Step& step) { return step.name == name; });
    }

    /// A parent that is a child as well, and a consumer: they accept everything, or answer actions with
    /// `result`. `onContact` runs when one of them is called, with the number of the call.
    void Answer(
        std::function<void(int)> onContact = [](int) {}, unsigned int result = 0) {
        const auto contacts = std::make_shared<std::atomic<int>>(0);
        const auto contact = [contacts, onContact] { onContact(++*contacts); };
        AnswerAsParent([contact, result](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
            contact();
            if (request.method == "PUT") return {201};
            if (request.method == "GET") return {200, "", "content"};
            return TestHttpServer::ActionResult(result, Make({{"FileURL", "/url"}}));
        });
        consumed_.clear();
        Fake("TestConsume ()", [this, contact](KelContainer& call) {
            consumed_.push_back(call.GetString("FileName"));
            contact();
            return 0U;
        });
    }
    /// A row that the step works on.
    std::uint64_t Add(const Step& step, const KelString& name, bool bypass = false) {
        const KelString set =
            KelFormat("FileURL = '/%S', FileChecksum = '%S', Bypass = %d, Acknowledged = %d", name,
                      TextMd5("content"), bypass, step.name == "announce");
        if (step.side == kUp) return AddStored(kUp, name, step.status, set);
        const std::uint64_t fileId = AddFile(kDown, name, step.status, "FileSize = 7, " + set);
        if (step.name == "announce")
            AddTarget(fileId, fileId, Parent().HostAndPort() + "/0A1B0000-0000-4000-8000-0000000000C1/m/i/n");
        return fileId;
    }
    /// The names of the files in the calls since Answer.
    Texts Contacts() const { return consumed_.empty() ? RequestedNames() : consumed_; }

    Exposed<FileStorePullThread> pull_;
    Exposed<FileStoreNotifyThread> notify_;
    Exposed<FileStorePushThread> push_;
    Exposed<FileStoreHandleThread> handler_;
    const std::shared_ptr<void> consumer_ = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
    bool reached_ = false;
    Texts consumed_;
};

TEST_F(WorkerStepsTest, ClosedWindowLetsBypassFilesThroughOnly) {
    CloseWindow(FileStore::bmTrackUsageUp);
    CloseWindow(FileStore::bmTrackUsageDown);
    for (const Step& step : steps_) {
        const auto trace = Begin(step.name);
        Answer();
        Add(step, "ordinary");
        Add(step, "bypass", true);
        for (int pass = 0; pass < 2; ++pass)
            step.run();
        // what stays on this device needs no window
        EXPECT_EQ(Contacts(), step.name == "hand over" ? (Texts{"ordinary", "bypass"}) : Texts{"bypass"});
    }
}

TEST_F(WorkerStepsTest, NothingMovesWithoutAParentOrAGuid) {
    constexpr int kNothing = 0, kFailed = 2;
    for (const auto& [name, lacks, result, time] :
         Table<const char*, KelString, int, const char*>{{"acknowledge", "parent", kNothing, "now"},
                                                         {"acknowledge", "GUID", kNothing, "0"},
                                                         {"download", "parent", kNothing, "now"},
                                                         {"request", "parent", kFailed, "now"},
                                                         {"request", "GUID", kNothing, "0"},
                                                         {"send", "parent", kFailed, "0"},
                                                         {"upload", "parent", kFailed, "0"}}) {
        const auto trace = Begin(name + (" without " + lacks));
        const Step& step = Find(name);
        Answer();
        relayValues.SetBool("ParentSync", lacks != "parent");
        identityValues.SetString("GUID", lacks == "GUID" ? "" : kGuid);
        FileStore::UpdateGuidScheme();  // it is asked for anew
        EXPECT_EQ(step.run(), kNothing) << "without a row";
        Add(step, "n");
        EXPECT_EQ(step.run(), result);
        EXPECT_EQ(Contacts(), Texts{});
        EXPECT_EQ(OnlyFields(step.side, kState), KelFormat("%s|%s", step.status, time));
    }
}

TEST_F(WorkerStepsTest, RowThatChangedDuringTheCallStaysChanged) {
    for (const auto& [name, result, changed] :
         Table<const char*, unsigned int, KelString>{{"acknowledge", 0, "TOBEREQUESTED"},
                                                     {"acknowledge", 7, "TOBEREQUESTED"},
                                                     {"request", 0, "DOWNLOADING"},
                                                     {"request", 7, "DOWNLOADING"}}) {
        const auto trace = Begin(KelFormat("%s, result %u", name, result));
        const KelString change = "UPDATE Files SET FileURL = '/changed', FileStatus = #" + changed + "#";
        Answer([change](int) { Rows(kDown, change); }, result);
        Add(Find(name), "n");
        Find(name).run();
        EXPECT_EQ(Contacts(), Texts{"n"});
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, FileURL, LastStatusChangeTime, Acknowledged"),
                  changed + "|/changed|0|0");
    }
}

/// Otherwise the same call would be repeated in a tight loop while the disk is full.
TEST_F(WorkerStepsTest, StepEndsWhileTheDatabaseRefusesChanges) {
    for (const Step& step : steps_)
        for (const bool refusesBefore : {false, true}) {
            const auto trace = Begin(step.name + (refusesBefore ? " before the call" : " after the call"));
            const auto refuse = [side = step.side](bool refuses) {
                Rows(side, KelFormat("PRAGMA query_only = %d", refuses));
            };
            // the second call is one too many: let it end
            Answer([refuse](int call) { refuse(call == 1); });
            Add(step, "n");
            refuse(refusesBefore);
            step.work();
            if (Contacts().empty()) step.work();  // pushing begins with what an earlier step announced
            refuse(false);
            EXPECT_EQ(Contacts(), refusesBefore && step.name == "download" ? Texts{} : Texts{"n"});
        }
}

}  // namespace
