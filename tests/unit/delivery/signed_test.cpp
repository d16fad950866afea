#include <algorithm>

#include "delivery_fixture.h"
#include "kelcore/security.h"
#include "signing_tree.h"

namespace {

/// A device of a tree with keys. Its store notes what it has to forget, and is asked for files.
class SignedDeliveryTest : public DeliveryTest {
  protected:
    void SetUp() override {
        DeliveryTest::SetUp();
        AgentSecuritySetKeys(tree_.Keys());
        FakeAction("FileStoreWithdrawFile (string FileType)", [this](KelContainer* container) {
            if (container->GetString("FileType") == "T") ++forgotten_;
            return 0U;
        });
        FakeAction("FileStoreRequestFile (string FileType)", [this](KelContainer* container) {
            isRequestSigned_ = container->GetContainer("FileInfo").Has("Signed");
            ++requests_;
            return 0U;
        });
        RunOnArrival("cat \"$1\" >> " + root_ / "ran");
    }
    void TearDown() override { AgentSecuritySetKeys(nullptr); }

    KelContainer InfoFor(const KelContainer& file, const std::string& id, int time,
                         const KelVector<KelString>& devices = {}) const {
        const std::string content = TempFolder::Read(file.GetString("FilePath"));
        const KelPublication publication{FileKey::Read(file),
                                         static_cast<std::int64_t>(content.size()),
                                         TextSha256(content),
                                         id,
                                         time,
                                         devices};
        KelContainer info = publication.ToContainer();
        info.SetContainer("Signed", tree_.Sign(publication));
        return info;
    }
    /// "name status" of each receipt, sorted.
    Texts Receipts() const {
        Texts receipts;
        for (const KelContainer& receipt : Contents())
            receipts.push_back(receipt.GetString("FileName") + " " + receipt.GetString("Status") +
                               (receipt.GetBool("Refused") ? " refused" : ""));
        std::sort(receipts.begin(), receipts.end());
        return receipts;
    }
    bool Come(const Texts& receipts) {
        const bool come = Eventually([&] { return Receipts() == receipts; });
        EXPECT_EQ(Receipts(), receipts);
        return come && AllJobsEnd();
    }
    std::string Ran() { return TempFolder::Read(root_ / "ran"); }

    const SigningTree tree_{kGuid};
    std::atomic<int> forgotten_ = 0, requests_ = 0;
    std::atomic<bool> isRequestSigned_ = false;
};

TEST_F(SignedDeliveryTest, OnlyWhatWasSignedForThisDeviceIsDeliveredAndRun) {
    const std::string other = "ABCD0000-0000-0000-0000-000000000002";
    ActiveModule<Delivery> module;
    for (const auto& [name, devices] : {std::pair<std::string, KelVector<KelString>>{"all", {}},
                                        {"here", {other, kGuid}},
                                        {"away", {other}}}) {
        const KelContainer file = Stored("T", name, name + ";");
        EXPECT_EQ(Announce(With(file, "FileInfo", InfoFor(file, name, 1, devices))), 0U);
    }
    EXPECT_EQ(Announce(With(Stored("T", "bare", "bare;"), {"FileInfo="})), 0U);
    for (const std::string content : {"XXXX;", "longer;"}) {
        const KelContainer file = Stored("T", content, "swap;");
        const KelContainer info = InfoFor(file, content, 1);
        TempFolder::Write(file.GetString("FilePath"), content);
        EXPECT_EQ(Announce(With(file, "FileInfo", info)), 0U);
    }
    ASSERT_TRUE(Come({"XXXX; failed refused", "all delivered", "away failed refused", "bare failed refused",
                      "here delivered", "longer; failed refused"}));
    EXPECT_EQ(Ran(), "all;here;");
    EXPECT_TRUE(Eventually([this] { return forgotten_ == 4; })) << "the genuine ones may come";
    for (const char* name : {"XXXX;", "away", "bare", "longer;"})
        EXPECT_FALSE(std::filesystem::exists(InboxPath("T", name))) << name;
}

TEST_F(SignedDeliveryTest, EarlierPublicationsComeTooLateAlsoWhenAllWasForgotten) {
    std::optional<ActiveModule<Delivery>> module(std::in_place);
    const KelContainer second = Stored("T", "f", "second;"), first = Stored("T", "f", "first;");
    EXPECT_EQ(Announce(With(second, "FileInfo", InfoFor(second, "p2", 2))), 0U);
    ASSERT_TRUE(Come({"f delivered"}));
    const KelContainer replay = With(first, "FileInfo", InfoFor(first, "p1", 1));
    EXPECT_EQ(Announce(replay), 0U);
    ASSERT_TRUE(Come({"f delivered", "f failed"}));

    module.reset();
    std::filesystem::remove(InboxPath("T", "f"));
    Orders orders;
    ASSERT_TRUE(orders.Load(root_ / "data/Delivery"));
    const auto remembered = [&] { return orders.FindPast(InboxPath("T", "f")).has_value(); };
    orders.ForgetPast(std::numeric_limits<std::int64_t>::max(), 1);
    EXPECT_TRUE(remembered()) << "one may stay";
    orders.ForgetPast(std::numeric_limits<std::int64_t>::max(), 0);
    EXPECT_FALSE(remembered());
    module.emplace();
    EXPECT_EQ(Announce(replay), 0U);
    ASSERT_TRUE(Come({"f delivered", "f failed", "f failed"}));
    const KelContainer third = Stored("T", "f", "third;");
    EXPECT_EQ(Announce(With(third, "FileInfo", InfoFor(third, "p3", 3))), 0U);
    ASSERT_TRUE(Come({"f delivered", "f delivered", "f failed", "f failed"}));
    EXPECT_EQ(Ran(), "second;third;");
}

TEST_F(SignedDeliveryTest, AnOrderHasToBeSignedAndVouchesForTheFileThatComes) {
    const auto order = [this](const KelContainer& file, const std::string& id, const KelContainer& info) {
        KelContainer values = info;
        FileKey::Read(file).Write(values);
        return With(With(Stored("DeliveryOrder", id, id), {"FileLabel=T"}), "FileInfo", values);
    };
    ActiveModule<Delivery> module;
    const KelContainer file = Stored("T", "f", "ordered;"), evil = Stored("T", "f", "evil;");
    const KelContainer info = InfoFor(file, "p1", 1);
    EXPECT_EQ(Announce(order(evil, "p1", info)), 0U);
    ASSERT_TRUE(Come({"f failed refused"}));
    EXPECT_EQ(Announce(order(file, "p2", info)), 0U) << "under another name";
    ASSERT_TRUE(Come({"f failed refused", "f failed refused"}));
    EXPECT_EQ(requests_, 0);
    EXPECT_EQ(Announce(order(file, "p1", info)), 0U);
    ASSERT_TRUE(Eventually([this] { return requests_ == 1; }));
    EXPECT_TRUE(isRequestSigned_);
    EXPECT_EQ(Announce(order(evil, "p1", info)), 0U) << "a forged one does not end it";
    EXPECT_EQ(Announce(file), 0U);
    ASSERT_TRUE(Come({"f delivered", "f failed refused", "f failed refused"}));
    EXPECT_EQ(Ran(), "ordered;");
}

}  // namespace
