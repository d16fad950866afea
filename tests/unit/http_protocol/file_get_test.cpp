#include <sys/socket.h>
#include <sys/stat.h>
#include <sstream>

#include "http_server_fixture.h"
#include "kelcore/file_lease.h"

namespace {

using FileGetTest = RunningHttpServer;

TEST_F(FileGetTest, AnswersRangesOfSmallAndLargeFiles) {
    HttpTestClient client = Connect();
    for (const std::size_t size : {std::size_t{1000}, std::size_t{5000000}}) {
        const std::string content = PatternBytes(size);
        WriteFile("data", content);
        const std::tuple<std::string, int, std::size_t, std::size_t> cases[] = {
            {"", 200, 0, size},
            {"Range: bytes=0-0\r\n", 206, 0, 1},
            {"Range: bytes=500-\r\n", 206, 500, size - 500},
            {"Range: bytes=-300\r\n", 206, size - 300, 300},
            {"Range: bytes=-99999999\r\n", 206, 0, size},
            {"Range: bytes=10-99999999999999999999999\r\n", 206, 10, size - 10},
            {"Range: bytes=99999999-\r\n", 416, 0, 0},
            {"Range: bytes=-0\r\n", 416, 0, 0},
            {"Range: bytes=0-1,5-6\r\n", 200, 0, size},
            {"Range: bytes=9-3\r\n", 200, 0, size},
            {"Range: lines=1-2\r\n", 200, 0, size},
            {"Range: bytes=a-b\r\n", 200, 0, size}};
        for (const auto& [range, status, offset, length] : cases) {
            SCOPED_TRACE(range);
            TestAnswer answer = client.AskGranted("GET", "/Files/data", range);
            EXPECT_EQ(answer.status, status);
            EXPECT_TRUE(answer.body == content.substr(offset, length));
            const std::string part = std::to_string(offset) + "-" + std::to_string(offset + length - 1);
            const std::string field = "bytes " + (status == 206 ? part : "*") + "/" + std::to_string(size);
            EXPECT_EQ(answer.fields["content-range"], status == 200 ? "" : field);
        }
    }
}

TEST_F(FileGetTest, ValidatorsDecideOnPartsAndCopies) {
    WriteFile("data", "0123456789");
    HttpTestClient client = Connect();
    TestAnswer head = client.AskGranted("HEAD", "/Files/data");
    EXPECT_EQ(head.fields["content-length"], "10");
    const std::string noneMatch = "If-None-Match: " + head.fields["etag"] + "\r\n";
    const std::string part = "Range: bytes=4-5\r\nIf-Range: " + head.fields["etag"] + "\r\n";

    EXPECT_EQ(client.AskGranted("GET", "/Files/data", noneMatch).status, 304);
    EXPECT_EQ(client.AskGranted("GET", "/Files/data", part).body, "45");
    WriteFile("data", "abcdefghijk");
    EXPECT_EQ(client.AskGranted("GET", "/Files/data", part).body, "abcdefghijk");
    EXPECT_EQ(client.AskGranted("GET", "/Files/data", noneMatch).status, 200);
}

TEST_F(FileGetTest, FileIsInUseWhileItIsSentAndNotServedWhileItIsRemoved) {
    constexpr std::uintmax_t kMoreThanBuffersHold = std::uintmax_t{256} << 20;
    WriteFile("data", "x");
    std::filesystem::resize_file(File("data"), kMoreThanBuffersHold);
    {
        HttpTestClient client = Connect();
        client.Send(client.Head("GET", "/Files/data"));
        ASSERT_TRUE(client.TakeHead());
        EXPECT_FALSE(KelFileClaim(File("data")));
    }
    EXPECT_TRUE(Eventually([this] { return static_cast<bool>(KelFileClaim(File("data"))); }));
    HttpTestClient client = Connect();
    const KelFileClaim removal(File("data"));
    EXPECT_EQ(client.AskGranted("HEAD", "/Files/data").status, 404);
}

TEST_F(FileGetTest, NothingOutsideAnAliasIsServed) {
    const std::string secret = "not to be seen";
    TempFolder::Write(root_ / "outside", secret);
    for (const char* name : {"a.sqlite", "in/.kel-upload-00", "in/seen", "Filesx"})
        WriteFile(name, secret);
    std::filesystem::create_symlink(root_ / "outside", File("link"));
    std::filesystem::create_symlink("../outside", File("relative"));
    std::filesystem::create_symlink("a.sqlite", File("harmless"));
    std::filesystem::create_directory_symlink("in", File("folder"));
    ASSERT_EQ(::mkfifo(File("fifo").c_str(), 0600), 0);

    HttpTestClient client = Connect();
    std::istringstream targets(
        "/Files/../outside /Files/%2e%2e/outside /Files/in/../../outside /Files/..%2foutside "
        "/Files/.%2E/outside /Files//data //Files/data /Files/./data /Files/data/ /Files/in /Files /Filesx "
        "/files/data /Files/%00 /Files/data%00 /Files/a%5cb /Files/%zz /Files/%4 /Files/link "
        "/Files/relative /Files/harmless /Files/folder/seen /Files/fifo /Files/in/.kel-upload-00 /outside "
        "/Files/%2fetc%2fpasswd /Files/missing /Files/data%0a");
    for (std::string target; targets >> target;) {
        TestAnswer answer = client.AskGranted("GET", target);
        EXPECT_EQ(answer.status, 404) << target;
        EXPECT_EQ(answer.body.find(secret), std::string::npos) << target;
    }
}

TEST_F(FileGetTest, TheAgentsDatabasesAndIniFilesAreServedOverNoAliasAndAnyOtherIs) {
    std::filesystem::create_directory_symlink("../elsewhere", root_ / "data/Moved");
    std::filesystem::create_directory_symlink("data/Store", root_ / "link");
    for (const char* name :
         {"config/Agent.ini", "data/x.sqlite", "data/Store/a.sqlite", "data/Store/a.SQLite-wal",
          "data/Store/A.INI", "data/Store/a.sqlite.damaged-20260101T000000Z-wal", "elsewhere/b.sqlite",
          "data/Store/up/key/a.sqlite", "data/Store/up/key/a.ini", "data/Store/up/own.ini"})
        TempFolder::Write(root_ / name, "content");
    for (const auto& [alias, path] : {std::pair{"Store", "data/Store"},
                                      {"Data", "data"},
                                      {"Root", ""},
                                      {"Link", "link"},
                                      {"Moved", "data/Moved"}})
        AddAlias(alias, root_ / path);

    HttpTestClient client = Connect();
    std::istringstream kept(
        "/Root/config/Agent.ini /Root/data/x.sqlite /Data/x.sqlite /Store/a.sqlite /Store/%61%2Esqlite "
        "/Store/a.SQLite-wal /Store/A.INI /Store/a.sqlite.damaged-20260101T000000Z-wal /Data/Store/a.sqlite "
        "/Root/data/Store/a.sqlite /Link/a.sqlite /Moved/b.sqlite /Root/elsewhere/b.sqlite");
    for (std::string target; kept >> target;)
        EXPECT_EQ(client.AskGranted("GET", target).status, 404) << target;
    std::istringstream others(
        "/Store/up/key/a.sqlite /Store/up/key/a.ini /Store/up/own.ini /Data/Store/up/key/a.ini "
        "/Link/up/key/a.ini");
    for (std::string target; others >> target;)
        EXPECT_EQ(client.AskGranted("GET", target).body, "content") << target;
}

TEST_F(FileGetTest, AFileThatShrinksWhileItIsSentEndsTheConnection) {
    WriteFile("data", "");
    std::filesystem::resize_file(File("data"), 256 << 20);
    HttpTestClient client = Connect();
    client.Send(client.Head("GET", "/Files/data"));
    char byte = 0;
    ASSERT_EQ(::recv(client.Fd(), &byte, 1, MSG_PEEK), 1) << "it has begun; the rest does not fit the socket";
    std::filesystem::resize_file(File("data"), 1000);
    EXPECT_EQ(client.Receive().status, 0);
    EXPECT_EQ(Connect().AskGranted("GET", "/Files/data").body.size(), 1000U);
}

TEST_F(FileGetTest, NamesTravelAsBytesAndTheLongestAliasWins) {
    std::filesystem::create_directories(root_ / "other/in");
    AddAlias("/Other/", root_ / "other");
    TempFolder::Write(root_ / "other/in/f", "short alias");
    WriteFile("in/f", "long alias");
    WriteFile("a %?#\xC3\xA4\xFF", "odd name");
    HttpTestClient client = Connect();
    EXPECT_EQ(client.AskGranted("GET", "/Files/a%20%25%3F%23\xC3\xA4%ff?query").body, "odd name");
    EXPECT_EQ(client.AskGranted("GET", "/Other/in/f").body, "short alias");
    const KelContainer alias = Values({"AliasName=Files", "AliasPath=/"});
    for (const char* action : {"HttpProtocolAddAlias", "HttpProtocolDeleteAlias"})
        EXPECT_EQ(Call(action, From(alias, "127.9.9.9")), kKelErrorNotAvailable) << "only this device may";
    EXPECT_EQ(client.AskGranted("GET", "http://host/Files/in/f").body, "long alias");
    EXPECT_EQ(Call("HttpProtocolDeleteAlias", Values({"AliasName=Files", "CompletelyRemove=true"})), 0U);
    EXPECT_EQ(client.AskGranted("GET", "/Files/in/f").status, 404);
    AddAlias("Other", "");
    EXPECT_EQ(client.AskGranted("GET", "/Other/in/f").status, 404);
}

}  // namespace
