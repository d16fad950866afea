#include "kelcore/metrics/transfer_counters.h"
#include "kelcore/tree_passwords.h"
#include "modules/http_protocol/block_map.h"
#include "modules/http_protocol/multicast_receiver.h"
#include "multicast_fixture.h"

namespace {

using kelhttp::BlockMap;

class MulticastTest : public MulticastFixture {};

TEST_F(MulticastTest, NamesWhatIsMissingThenPutsTheFileInPlace) {
    const std::string content = PatternBytes(20 * kBlock + 1);
    const auto& received = KelTransfers(KelDirection::Down, KelFlow::In, KelTransport::Multicast);
    const auto& sent = KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Multicast);
    const std::uint64_t before[] = {received.files.Value(), received.bytes.Value(), sent.bytes.Value()};
    EXPECT_EQ(State(), "failed");
    ASSERT_EQ(Listen(Order(content)), 0U);
    EXPECT_EQ(State(), "failed 0-20");
    SendFile(content, {0, 1, 2, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19});
    EXPECT_TRUE(Reaches(" 3-5 9 20"));
    EXPECT_EQ(Listen(Order(content)), 0U) << "repeated: what is there stays";
    EXPECT_EQ(State(), " 3-5 9 20");
    EXPECT_EQ(CountFilesIn("in"), 0);
    WriteFile("in/file", "old");
    SendFile(content, {3, 4, 5, 9, 19, 20});
    EXPECT_TRUE(Reaches("completed"));
    EXPECT_EQ(received.files.Value() - before[0], 1U);
    EXPECT_EQ(received.bytes.Value() - before[1], content.size());
    EXPECT_EQ(sent.bytes.Value() - before[2], content.size() + kBlock) << "a block twice";
    EXPECT_TRUE(ReadFile("in/file") == content);
    EXPECT_EQ(CountFilesIn("in"), 1);
    ASSERT_EQ(Events().size(), 1U);
    ExpectValues(Events()[0],
                 {KelString("URL=") + kUrl, "MulticastAddress=" + group_, "LocalPath=" + File("in/file")});
    EXPECT_EQ(Call("HttpProtocolMulticastStopListen", Values({"MulticastAddress=" + group_})), 0U);
    EXPECT_EQ(State(), "failed");
    ASSERT_EQ(Listen(Order("", "empty")), 0U);
    EXPECT_TRUE(Reaches("completed"));
    EXPECT_EQ(ReadFile("in/empty"), "");
}

TEST_F(MulticastTest, DropsAndCountsWhatIsNotOfTheTransfer) {
    const std::string content = PatternBytes(8 * kBlock + 100);
    const MulticastTransfer transfer{group_, kPort, kUrl, content.size()};
    const auto datagram = [](const MulticastTransfer& of, const std::string& secret, std::uint64_t offset,
                             const std::string& body) {
        KelString head;
        MulticastHeads(secret, of).Write(offset, body, head);
        return head + body;
    };
    const auto with = [](MulticastTransfer changed, auto member, auto value) {
        changed.*member = value;
        return changed;
    };
    const std::string first = content.substr(0, kBlock);
    const std::string good = datagram(transfer, "secret", 0, first);
    const std::string evil(kBlock, 'X');
    const auto replaced = [&good](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    TreePasswords().Set({"secret", "former"});  // the password is being changed
    ASSERT_EQ(Listen(Order(content)), 0U);
    const std::string foreign[] = {
        datagram(with(transfer, &MulticastTransfer::urlPath, KelString("/Store/b")), "secret", 0, evil),
        datagram(with(transfer, &MulticastTransfer::fileSize, std::uint64_t{9000}), "secret", 0, evil)};
    std::string flipped = good;
    flipped.back() = static_cast<char>(flipped.back() ^ 1);
    const std::string forged[] = {
        flipped,
        datagram(transfer, "another tree", 0, evil),
        datagram(with(transfer, &MulticastTransfer::group, KelString("239.1.1.1")), "secret", 0, first),
        datagram(with(transfer, &MulticastTransfer::port, std::uint16_t{9}), "secret", 0, first),
        replaced("bytes 0000-1023", "bytes 1024-2047"),  // the content of block 0 as block 1
        replaced("Kel-Code: ", "Kel-Code: 0"),
        replaced("Kel-Code: ", "Kel-Code:  ")};
    const std::string misplaced[] = {
        datagram(transfer, "secret", 1, first),                          // across two blocks
        datagram(transfer, "secret", 0, content.substr(0, 2 * kBlock)),  // two blocks
        datagram(transfer, "secret", 0, content.substr(0, kBlock - 1)),  // short
        datagram(transfer, "secret", 0, content),                        // all of it
        datagram(transfer, "secret", 8 * kBlock, content.substr(8 * kBlock, 99))};
    const std::string malformed[] = {
        std::string(),
        "PUT ",
        "garbage\r\n\r\n",
        good.substr(0, good.size() - 1),
        good + "x",
        replaced("PUT", "GET"),
        replaced("HTTP/1.1", "HTTP/1.0"),
        replaced("Content-Length: 1024", "Content-Length: 1023"),
        replaced("Content-Length: 1024\r\n", ""),
        replaced("Content-Length", "Content-Range"),
        replaced("Kel-Code", "Kel-Cope"),
        replaced("bytes 0000-1023/8292", "bytes 1023-0000/8292"),
        replaced("bytes 0000-1023/8292", "bytes 0000-1023/1023"),
        replaced("bytes 0000-1023/8292", "bytes 0000-1023/*"),
        replaced("bytes 0000-1023/8292", "bytes -1-1023/8292"),
        replaced("bytes 0000-1023", "bytes 18446744073709551616-18446744073709552639"),
        replaced("\r\n\r\n", "\r\n"),
        std::string(60000, 'x')};
    for (const auto& group :
         {std::span<const std::string>(foreign), std::span<const std::string>(forged),
          std::span<const std::string>(misplaced), std::span<const std::string>(malformed)})
        for (const std::string& each : group)
            SendRaw(each);
    SendRaw(datagram(transfer, "former", 0, first));
    SendRaw(good);
    SendRaw(flipped);
    EXPECT_TRUE(Reaches(" 1-8"));
    SendFile(content, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_TRUE(Reaches("completed"));
    EXPECT_TRUE(ReadFile("in/file") == content);
    EXPECT_TRUE(IsLoggedOnce(
        KelDebugLevel::Print,
        KelFormat("9 accepted, 2 repeated, %u of other files, %u malformed, %u misplaced, "
                  "%u forged, 0 lost",
                  static_cast<unsigned>(std::size(foreign)), static_cast<unsigned>(std::size(malformed)),
                  static_cast<unsigned>(std::size(misplaced)), static_cast<unsigned>(std::size(forged)))));
}

TEST_F(MulticastTest, DropsContentWithAnotherChecksumAndStartsAgainForTheParent) {
    FakeValues("RelayGetValues ()", {"ParentIPAddress=127.0.9.1", "ParentName="});
    const std::string content = PatternBytes(3 * kBlock);
    const std::string damaged(3 * kBlock, 'x');
    KelContainer restart = Order(content);
    for (const char* name : {"FileURL", "LocalPath", "FileChecksum"})
        restart.Remove(name);
    EXPECT_EQ(Listen(From(restart, "127.0.9.1")), kKelErrorBadInput) << "nothing to start again";
    ASSERT_EQ(Listen(Order(content)), 0U);
    SendFile(damaged);
    EXPECT_TRUE(Reaches("restart 0-2"));
    EXPECT_EQ(CountFilesIn("in"), 0);
    EXPECT_EQ(Listen(From(restart, "127.0.9.2")), kKelErrorNotAvailable);
    EXPECT_EQ(Listen(From(With(restart, {"FileSize=99"}), "127.0.9.1")), kKelErrorBadInput);
    EXPECT_EQ(State(), "restart 0-2");
    EXPECT_EQ(Listen(From(restart, "127.0.9.1")), 0U);
    EXPECT_EQ(State(), "failed 0-2");
    SendFile(content);
    EXPECT_TRUE(Reaches("completed"));
    EXPECT_TRUE(ReadFile("in/file") == content);
    EXPECT_EQ(Events().size(), 1U);
    const KelContainer stop = Values({"MulticastAddress=" + group_});
    EXPECT_EQ(Call("HttpProtocolMulticastStopListen", From(stop, "127.0.9.2")), kKelErrorNotAvailable);
    EXPECT_EQ(State(), "completed");
    EXPECT_EQ(Call("HttpProtocolMulticastStopListen", From(stop, "127.0.9.1")), 0U);
    EXPECT_EQ(State(), "failed");
}

TEST_F(MulticastTest, RefusesOrdersThatCannotBeUsed) {
    std::filesystem::create_directories(root_ / "data/Store");
    AddAlias("State", root_ / "data/Store");
    const KelContainer order = Order("content");
    struct Case {
        unsigned int result;
        Texts values;
    };
    for (const Case& test :
         {Case{kKelErrorBadInput, {"MulticastAddress=127.0.0.1"}},
          Case{kKelErrorBadInput, {"MulticastAddress="}}, Case{kKelErrorBadInput, {"MulticastPort=0"}},
          Case{kKelErrorBadInput, {"MulticastPort=65536"}},
          Case{kKelErrorBadInput, {"MulticastBlockSize=1023"}},
          Case{kKelErrorBadInput, {"MulticastBlockSize=64001"}}, Case{kKelErrorBadInput, {"FileSize=-1"}},
          Case{kKelErrorBadInput, {"FileSize=9223372036854775807"}}, Case{kKelErrorBadInput, {"FileURL="}},
          Case{kKelErrorBadInput, {"FileURL=/a\r\nb"}}, Case{kKelErrorBadInput, {"FileChecksum=abc"}},
          Case{kKelErrorBadInput, {"LocalPath="}}, Case{kKelErrorBadInput, {"LocalPath=/etc/passwd"}},
          Case{kKelErrorBadInput, {"LocalPath=" + File("in/../../outside")}},
          Case{kKelErrorBadInput, {"LocalPath=" + std::string(root_ / "filesx/file")}},
          Case{kKelErrorNotAvailable, {"LocalPath=" + File("in/none/file")}},
          Case{kKelErrorNotAvailable, {"LocalPath=" + std::string(root_ / "data/Store/a.sqlite")}},
          Case{kKelErrorNotAvailable,
               {"FileSize=4000000000000", "MulticastBlockSize=64000", "LocalPath=" + File("in/big")}}}) {
        EXPECT_EQ(Listen(With(order, test.values)), test.result) << test.values[0];
        EXPECT_EQ(State(), "failed") << test.values[0];
    }
    EXPECT_EQ(Listen(From(order, "127.0.9.9")), kKelErrorNotAvailable) << "names a path from another device";
    EXPECT_EQ(CountFilesIn("in"), 0);
    for (int i = 1; i <= 16; ++i)
        EXPECT_EQ(Listen(With(order, {"MulticastPort=" + std::to_string(kPort + i)})), 0U);
    EXPECT_EQ(Listen(order), kKelErrorNotAvailable) << "too many";
}

/// What a reception that ends without the file leaves to the file store.
TEST_F(MulticastTest, HandsAFileThatDoesNotComeBackToTheFileStore) {
    std::mutex mutex;
    std::vector<std::string> asked;
    FakeAction("FileStoreResetMulticastStatus ()", [&](KelContainer* container) {
        const std::lock_guard lock(mutex);
        asked.push_back(container->GetString("FileURL"));
        return 0U;
    });
    const auto count = [&] {
        const std::lock_guard lock(mutex);
        return asked.size();
    };
    kelhttp::AliasTable aliases;
    ASSERT_TRUE(aliases.Add("Files", File("in")));
    const KelDebug log("Test", "Test");
    kelhttp::MulticastReceiver receiver({"127.0.0.1", 60, 16}, aliases, log);
    const auto now = kelhttp::MulticastReceiver::Clock::now();
    kelhttp::MulticastOrder order{{group_, kPort, "/a", 5000}, kBlock, File("in/a"), TextMd5("a")};
    KelString message;
    ASSERT_EQ(receiver.Start(order, message), 0U) << message;
    receiver.EndSilent(now + std::chrono::seconds(59));
    EXPECT_EQ(count(), 0U);
    receiver.EndSilent(now + std::chrono::seconds(120));
    EXPECT_TRUE(Eventually([&] { return count() == 1; }));
    ASSERT_EQ(receiver.Start(order, message), 0U);
    order.transfer.urlPath = "/b";
    order.localPath = File("in/b");
    ASSERT_EQ(receiver.Start(order, message), 0U);
    EXPECT_TRUE(Eventually([&] { return count() == 2; }));
    receiver.Stop();
    EXPECT_EQ(asked, (std::vector<std::string>{"/a", "/a"}));
    EXPECT_EQ(CountFilesIn("in"), 0);
}

TEST_F(MulticastTest, AReceptionThatWasEndedPutsNothingInPlace) {
    const KelDebug log("Test", "Test");
    const auto root = std::make_shared<kelhttp::RootFolder>(File("in"));
    const kelhttp::MulticastOrder order{{group_, kPort, kUrl, 0}, kBlock, File("in/file"), TextMd5("")};
    for (const bool isEnded : {true, false}) {
        kelhttp::MulticastReception reception(order, {root, "file", false}, KelVector<KelString>{"secret"},
                                              log);
        ASSERT_TRUE(reception.Open(*IpAddress::Parse("127.0.0.1")));
        if (isEnded) reception.Abandon();
        reception.Finish([] { return false; });
        EXPECT_EQ(CountFilesIn("in"), isEnded ? 0 : 1);
        EXPECT_EQ(Events().size(), isEnded ? 0U : 1U);
    }
}

TEST(BlockMap, JoinsRangesWhenThereAreTooMany) {
    using Ranges = std::vector<BlockMap::Range>;
    BlockMap blocks(200);
    EXPECT_EQ(blocks.Missing(1), (Ranges{{0, 199}}));
    for (std::uint32_t i = 0; i < 200; ++i)
        if (i != 0 && i != 63 && i != 64 && i != 66 && i != 130 && i != 199) blocks.Add(i);
    EXPECT_EQ(blocks.Missing(9), (Ranges{{0, 0}, {63, 64}, {66, 66}, {130, 130}, {199, 199}}));
    EXPECT_EQ(blocks.Missing(4), (Ranges{{0, 0}, {63, 66}, {130, 130}, {199, 199}}));
    EXPECT_EQ(blocks.Missing(1), (Ranges{{0, 199}}));
    for (const std::uint32_t i : {0, 63, 64, 66, 130, 199})
        blocks.Add(i);
    EXPECT_TRUE(blocks.IsComplete());
    EXPECT_TRUE(blocks.Missing(1).empty());
}

}  // namespace
