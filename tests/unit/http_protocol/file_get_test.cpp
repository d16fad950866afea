#include <sys/socket.h>
#include <filesystem>

#include "http_server_fixture.h"
#include "kelcore/error_codes.h"

namespace {

using FileGetTest = HttpServerFixture;

struct RangeCase {
    const char* name;
    const char* range;
    int status;
    std::size_t offset, length;
};

TEST_F(FileGetTest, AnswersRangesOfSmallAndLargeFiles) {
    Start();
    HttpTestClient client = Connect();
    for (const std::size_t size : {std::size_t{1000}, std::size_t{5000000}}) {
        const std::string content = PatternBytes(size);
        WriteFile("data", content);
        const std::string last = std::to_string(size - 1);
        const RangeCase cases[] = {
            {"Whole", "", 200, 0, size},
            {"First", "bytes=0-0", 206, 0, 1},
            {"Open", "bytes=500-", 206, 500, size - 500},
            {"Suffix", "bytes=-300", 206, size - 300, 300},
            {"SuffixLongerThanFile", "bytes=-99999999", 206, 0, size},
            {"EndBeyondFile", "bytes=10-99999999999999999999999", 206, 10, size - 10},
            {"StartBeyondFile", "bytes=99999999-", 416, 0, 0},
            {"EmptySuffix", "bytes=-0", 416, 0, 0},
            {"Several", "bytes=0-1,5-6", 200, 0, size},
            {"Reversed", "bytes=9-3", 200, 0, size},
            {"OtherUnit", "lines=1-2", 200, 0, size},
            {"NoNumber", "bytes=a-b", 200, 0, size},
        };
        for (const RangeCase& test : cases) {
            SCOPED_TRACE(test.name);
            const std::string field = *test.range ? std::string("Range: ") + test.range + "\r\n" : "";
            TestAnswer answer = client.AskGranted("GET", "/Files/data", field);
            EXPECT_EQ(answer.status, test.status);
            EXPECT_TRUE(answer.body == content.substr(test.offset, test.length));
            if (test.status == 206) {
                EXPECT_EQ(answer.fields["content-range"], "bytes " + std::to_string(test.offset) + "-" +
                                                              std::to_string(test.offset + test.length - 1) +
                                                              "/" + std::to_string(size));
            }
            if (test.status == 416) {
                EXPECT_EQ(answer.fields["content-range"], "bytes */" + std::to_string(size));
            }
        }
    }
}

TEST_F(FileGetTest, ValidatorsDecideOnPartsAndCopies) {
    Start();
    WriteFile("data", "0123456789");
    HttpTestClient client = Connect();
    TestAnswer head = client.AskGranted("HEAD", "/Files/data");
    EXPECT_EQ(head.fields["content-length"], "10");
    EXPECT_FALSE(head.fields.contains("server"));
    const std::string tag = head.fields["etag"];

    EXPECT_EQ(client.AskGranted("GET", "/Files/data", "If-None-Match: " + tag + "\r\n").status, 304);
    const std::string part = "Range: bytes=4-5\r\nIf-Range: ";
    EXPECT_EQ(client.AskGranted("GET", "/Files/data", part + tag + "\r\n").body, "45");
    WriteFile("data", "abcdefghijk");
    EXPECT_EQ(client.AskGranted("GET", "/Files/data", part + tag + "\r\n").body, "abcdefghijk");
    EXPECT_EQ(client.AskGranted("GET", "/Files/data", "If-None-Match: " + tag + "\r\n").status, 200);
}

TEST_F(FileGetTest, NothingOutsideAnAliasAndNoDatabaseIsServed) {
    Start();
    const std::string secret = "not to be seen";
    std::ofstream(root / "outside") << secret;
    std::filesystem::create_symlink(root / "outside", root / "files/link");
    std::filesystem::create_symlink("../outside", root / "files/relative");
    for (const char* name : {"a.sqlite", "a.SQLite-wal", "a.sqlite-shm", "a.sqlite-journal", "A.INI"})
        WriteFile(name, secret);
    std::filesystem::create_symlink("a.sqlite", root / "files/harmless");
    std::filesystem::create_directory_symlink("in", root / "files/folder");
    WriteFile("in/.kel-upload-00", secret);
    WriteFile("in/seen", secret);
    WriteFile("Filesx", secret);
    ASSERT_EQ(::mkfifo((root / "files/fifo").c_str(), 0600), 0);

    HttpTestClient client = Connect();
    for (const char* target : {"/Files/../outside",
                               "/Files/%2e%2e/outside",
                               "/Files/in/../../outside",
                               "/Files/..%2foutside",
                               "/Files/.%2E/outside",
                               "/Files//data",
                               "//Files/data",
                               "/Files/./data",
                               "/Files/data/",
                               "/Files/in",
                               "/Files",
                               "/Filesx",
                               "/files/data",
                               "/Files/%00",
                               "/Files/data%00",
                               "/Files/a%5cb",
                               "/Files/%zz",
                               "/Files/%4",
                               "/Files/link",
                               "/Files/relative",
                               "/Files/harmless",
                               "/Files/folder/seen",
                               "/Files/fifo",
                               "/Files/a.sqlite",
                               "/Files/a.SQLite-wal",
                               "/Files/a.sqlite-shm",
                               "/Files/a.sqlite-journal",
                               "/Files/A.INI",
                               "/Files/in/.kel-upload-00",
                               "/outside",
                               "/Files/%2fetc%2fpasswd",
                               "/Files/missing",
                               "/Files/data%0a"}) {
        SCOPED_TRACE(target);
        TestAnswer answer = client.AskGranted("GET", target);
        EXPECT_EQ(answer.status, 404);
        EXPECT_EQ(answer.body.find(secret), std::string::npos);
    }
}

TEST_F(FileGetTest, AFileThatShrinksWhileItIsSentEndsTheConnection) {
    Start();
    WriteFile("data", "");
    std::filesystem::resize_file(root / "files/data", 256 << 20);
    HttpTestClient client = Connect();
    client.FetchNonce();
    client.Send("GET /Files/data HTTP/1.1\r\nHost: x\r\n" + client.Authorization("GET", "/Files/data") +
                "\r\n");
    char byte = 0;
    ASSERT_EQ(::recv(client.Fd(), &byte, 1, MSG_PEEK), 1) << "it has begun; the rest does not fit the socket";
    std::filesystem::resize_file(root / "files/data", 1000);
    EXPECT_EQ(client.Receive().status, 0);
    EXPECT_EQ(Connect().AskGranted("GET", "/Files/data").body.size(), 1000U);
}

TEST_F(FileGetTest, NamesTravelAsBytesAndTheLongestAliasWins) {
    Start();
    std::filesystem::create_directories(root / "other/in");
    AddAlias("/Other/", root / "other");
    std::ofstream(root / "other/in/f") << "short alias";
    WriteFile("in/f", "long alias");
    WriteFile("a %?#\xC3\xA4\xFF", "odd name");
    HttpTestClient client = Connect();
    EXPECT_EQ(client.AskGranted("GET", "/Files/a%20%25%3F%23\xC3\xA4%ff?query").body, "odd name");
    EXPECT_EQ(client.AskGranted("GET", "http://host/Files/in/f").body, "long alias");
    EXPECT_EQ(client.AskGranted("GET", "/Other/in/f").body, "short alias");

    KelContainer container;
    container.SetString("AliasName", "Files");
    container.SetBool("CompletelyRemove", true);
    EXPECT_EQ(ActionDbInvokeLocal("HttpProtocolDeleteAlias", container), 0U);
    EXPECT_EQ(client.AskGranted("GET", "/Files/in/f").status, 404);
    EXPECT_EQ(client.AskGranted("GET", "/Other/in/f").status, 200);

    container.SetString("AliasName", "Other");
    container.SetString("AliasPath", "");
    EXPECT_EQ(ActionDbInvokeLocal("HttpProtocolAddAlias", container), 0U);
    EXPECT_EQ(client.AskGranted("GET", "/Other/in/f").status, 404);
}

TEST_F(FileGetTest, OnlyThisDeviceChangesAliases) {
    Start();
    WriteFile("f", "content");
    for (const char* action : {"HttpProtocolAddAlias", "HttpProtocolDeleteAlias"}) {
        KelContainer container, origin;
        origin.SetString("HttpProtocolRequestAddress", "127.9.9.9");
        container.SetContainer("HttpProtocolRequestInfo", origin);
        container.SetString("AliasName", "Files");
        container.SetString("AliasPath", "/");
        EXPECT_EQ(ActionDbInvokeLocal(action, container), kKelErrorBadInput) << action;
    }
    EXPECT_EQ(Connect().AskGranted("GET", "/Files/f").body, "content");
}

}  // namespace
