#include <algorithm>

#include "delivery_fixture.h"

namespace {

/// Publications that come as orders. The store of the device notes what is requested of it.
class OrderTest : public DeliveryTest {
  protected:
    void SetUp() override {
        DeliveryTest::SetUp();
        FakeAction("FileStoreRequestFile (string FileType)", [this](KelContainer* container) {
            ++requests_;
            isStoreBusy_.wait(true);
            container->SetBool("FileObsolete", container->GetString("FileName") == "obsolete");
            return 0U;
        });
    }
    static unsigned int Withdraw(KelContainer file) {
        file.Remove("FilePath");
        return Call("DeliveryWithdrawFile", file);
    }
    static KelContainer Published(const KelContainer& file, const std::string& publication, int time) {
        return With(file, "FileInfo",
                    Values({"PublicationId=" + publication, "PublicationTime=" + std::to_string(time)}));
    }
    KelContainer Order(KelContainer wanted, const std::string& publication, int time) {
        wanted.Remove("FilePath");
        wanted = With(wanted, {"PublicationTime=" + std::to_string(time)});
        return With(With(Stored("DeliveryOrder", publication, publication), {"FileLabel=T"}), "FileInfo",
                    wanted);
    }
    /// "publication status" of each receipt, in the order in which they were sent.
    Texts Receipts() const {
        Texts receipts;
        for (const KelContainer& receipt : Contents()) {
            std::string text;
            for (std::uint32_t i = 0; receipt.Has("PublicationId") && i < receipt.Count("PublicationId"); ++i)
                text += receipt.GetString("PublicationId", {}, i) + " ";
            receipts.push_back(text + receipt.GetString("Status"));
        }
        return receipts;
    }
    bool Come(const Texts& receipts) {
        const bool come = Eventually([&] { return Receipts() == receipts; });
        EXPECT_EQ(Receipts(), receipts);
        return come;
    }
    bool IsSent(const std::string& receipt) const {
        const Texts sent = Receipts();
        return std::find(sent.begin(), sent.end(), receipt) != sent.end();
    }
    bool AreRequested(int count) {
        return Eventually([&] { return requests_ == count; });
    }
    std::atomic<int> requests_ = 0;
    std::atomic<bool> isStoreBusy_ = false;
    std::atomic<bool> isForgotten_ = false;
};

TEST_F(OrderTest, FileIsRequestedAndReplacesAnotherContentUnlessALaterPublicationHas) {
    const KelContainer former = Published(Stored("T", "f", "former"), "p1", 1);
    const KelContainer latter = Published(Stored("T", "f", "latter"), "p2", 2);
    std::optional<ActiveModule<Delivery>> module(std::in_place);
    EXPECT_EQ(Announce(former), 0U);
    ASSERT_TRUE(Come({"p1 delivered"}));
    EXPECT_EQ(Announce(latter), 0U);
    ASSERT_TRUE(Come({"p1 delivered", "p2 delivered"}));
    EXPECT_EQ(Announce(Order(former, "p3", 3)), 0U);
    ASSERT_TRUE(AreRequested(1));
    module.reset();
    module.emplace();
    ASSERT_TRUE(AreRequested(2)) << "after a restart";
    EXPECT_EQ(Announce(former), 0U);
    ASSERT_TRUE(Come({"p1 delivered", "p2 delivered", "p3 delivered"}));
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "f")), "former");

    for (const auto& [publication, time] : {std::pair("p2", 2), {"p3", 3}})
        EXPECT_EQ(Announce(Order(time == 2 ? latter : former, publication, time)), 0U);
    EXPECT_TRUE(Eventually([this] { return Receipts().size() == 5; }));
    Texts last = Receipts();
    last.erase(last.begin(), last.begin() + 3);
    std::sort(last.begin(), last.end());
    EXPECT_EQ(last, (Texts{"p2 failed", "p3 delivered"})) << "a late order, and one that comes again";
    EXPECT_EQ(requests_, 2);
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "f")), "former");
    EXPECT_EQ(Call("DeliveryListFiles").Count("Values"), 1U);
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Delivery/Orders"));
}

TEST_F(OrderTest, ALaterPublicationStaysWhenTheOrderedFileComesAfterIt) {
    const Texts names = {"before the order ends", "after", "after a restart"};
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const bool isBefore = name == names[0];
        const std::string ordered = name + " p3", later = name + " p4";
        const KelContainer former = Stored("T", name, "former");
        std::optional<ActiveModule<Delivery>> module(std::in_place);
        isStoreBusy_ = isBefore;  // the order ends once the request has its answer
        const int requests = requests_;
        EXPECT_EQ(Announce(Order(former, ordered, 3)), 0U);
        EXPECT_TRUE(AreRequested(requests + 1));
        EXPECT_EQ(Announce(Published(Stored("T", name, "latest"), later, 4)), 0U);
        const auto isAnswered = [&] {
            return IsSent(ordered + " failed") && IsSent(later + " delivered") && AllJobsEnd();
        };
        EXPECT_TRUE(isBefore || Eventually(isAnswered));
        if (name == names[2]) {
            module.reset();
            module.emplace();
        }
        EXPECT_EQ(Announce(former), 0U);
        isStoreBusy_ = false;
        isStoreBusy_.notify_all();
        EXPECT_TRUE(Eventually(isAnswered));
        EXPECT_EQ(TempFolder::Read(InboxPath("T", name)), "latest");
        EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(root_ / "data/Delivery/Orders"); }));
    }
    EXPECT_EQ(Receipts().size(), 2 * names.size());
}

TEST_F(OrderTest, WithdrawnOrderIsNotCarriedOutAndAnAnsweredOneIsForgottenByTheStore) {
    FakeAction("FileStoreWithdrawFile (string FileType)", [this](KelContainer* container) {
        isForgotten_ = container->GetString("FileType") == "DeliveryOrder" &&
                       container->GetString("FileLabel") == "U" && container->GetString("FileName") == "p2";
        return 0U;
    });
    ActiveModule<Delivery> module;
    const KelContainer file = Stored("U", "f", "content"), order = Order(file, "p1", 1);
    EXPECT_EQ(Announce(order), 0U);
    ASSERT_TRUE(AreRequested(1));
    EXPECT_EQ(Call("DeliveryWithdrawFile", From(order, "127.0.3.9")), kKelErrorNotAvailable);
    EXPECT_EQ(Withdraw(order), 0U);
    EXPECT_EQ(Announce(file), 0U);
    EXPECT_FALSE(std::filesystem::exists(InboxPath("U", "f")));
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Delivery/Orders"));
    EXPECT_EQ(Announce(Order(file, "p2", 2)), 0U);
    ASSERT_TRUE(AreRequested(2));
    EXPECT_EQ(Announce(file), 0U);
    EXPECT_TRUE(Come({"p2 delivered"}));
    EXPECT_TRUE(Eventually([this] { return isForgotten_.load(); }));
    EXPECT_EQ(Withdraw(file), 0U);
    const KelContainer waiting = Stored("V", "f", "waiting");
    TempFolder::Write(root_ / "data/Delivery/Inbox/V", "no folder");
    EXPECT_EQ(Announce(waiting), kNotReady);
    EXPECT_EQ(Withdraw(waiting), kKelAnswerStaysHere);
}

TEST_F(OrderTest, CommandRunsAgainForAFileInPlaceAndOneReceiptAnswersAllOrders) {
    RunOnArrival("echo x >> " + root_ / "ran" + "; exec test -f " + root_ / "repaired");
    ActiveModule<Delivery> module;
    const KelContainer file = Published(Stored("T", "f", "content"), "p1", 1);
    EXPECT_EQ(Announce(file), 0U);
    ASSERT_TRUE(Come({"p1 failed"}));
    TempFolder::Write(root_ / "repaired", "");
    for (const auto& [publication, time] : {std::pair("p2", 2), {"p3", 3}})
        EXPECT_EQ(Announce(Order(file, publication, time)), 0U);
    ASSERT_TRUE(AreRequested(2));
    EXPECT_EQ(Announce(file), 0U);
    EXPECT_TRUE(Come({"p1 failed", "p2 p3 delivered"}));
    EXPECT_EQ(TempFolder::Read(root_ / "ran"), "x\nx\n");
}

TEST_F(OrderTest, PastIsForgottenOnceTheFileIsGoneAndOlderOrdersAreOver) {
    const std::string here = Stored("T", "here", "c").GetString("FilePath"), gone = root_ / "gone";
    const std::string now = std::to_string(std::time(nullptr));
    const std::initializer_list<std::pair<std::string, Texts>> past = {
        {"gone", {"Destination=" + gone, "Time=1"}},
        {"young", {"Destination=" + gone, "Time=" + now}},
        {"here", {"Destination=" + here, "Time=1"}},
        {"without a time", {}}};
    const auto path = [this](const std::string& name) { return root_ / ("data/Delivery/Latest/" + name); };
    for (const auto& [name, values] : past)
        TempFolder::Write(path(name), Values(values).SaveToXML());
    ActiveModule<Delivery> module;
    EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(path("gone")); }));
    EXPECT_EQ(Announce(Stored("T", "f", "c")), 0U);
    EXPECT_TRUE(Come({"delivered"}));  // the step that forgets is over
    for (const auto& [name, values] : past)
        EXPECT_EQ(std::filesystem::exists(path(name)), name != "gone") << name;
}

TEST_F(OrderTest, FileThatNobodyHasFailsAndAnUnusableOrderIsRefused) {
    const KelContainer late = Order(Stored("T", "late", "c"), "late", 5).GetContainer("FileInfo");
    TempFolder::Write(root_ / "data/Delivery/Orders/late.xml", With(late, {"Received=1"}).SaveToXML());
    ActiveModule<Delivery> module;
    ASSERT_TRUE(Come({"late failed"}));
    ExpectValues(Contents()[0], {"Message=No device above had the file for 604800 seconds", "FileName=late"});
    EXPECT_EQ(Announce(Order(Stored("T", "obsolete", "c"), "p1", 1)), 0U);
    EXPECT_TRUE(Come({"late failed", "p1 failed"}));
    for (const KelContainer& wanted : {With(Stored("T", "f", "c"), {"FileName=a/b"}), KelContainer()})
        EXPECT_EQ(Call("DeliveryReceiveFile", Order(wanted, "p2", 2)), kKelErrorBadInput);
    EXPECT_EQ(Call("DeliveryReceiveFile", Order(Stored("T", "f", "c"), "p2", 0)), kKelErrorBadInput);
    EXPECT_EQ(requests_, 1);
}

}  // namespace
