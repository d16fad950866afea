#include "filestore/db/files_table.h"
#include "filestore/down/pull_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

/// A stored copy that went bad, seen from the device that fetches it and from the one that holds it.
struct DamagedCopyTest : StoreTest {
    static KelContainer Report(std::uint64_t fileId) {
        KelContainer report = Make({{"DeviceGUID", kChild}, {"ContentDamaged", true}});
        Load(kDown, fileId).Key().Write(report);
        return report;
    }
    Exposed<FileStorePullThread> pull_;
};

TEST_F(DamagedCopyTest, ReportedCopyIsVerifiedOnceAndFetchedAnewWhenDamaged) {
    for (const auto& [name, checksum, isExternal, isMaster, status] :
         Table<const char*, KelString, bool, bool, const char*>{
             {"intact", TextMd5("intact"), false, false, "AVAILABLE"},
             {"damaged", "c", false, false, "TOBEREQUESTED"},
             {"elsewhere", "c", true, false, "AVAILABLE"},
             {"on the master", "c", false, true, "AVAILABLE"}}) {
        SCOPED_TRACE(name);
        if (isMaster) BecomeMaster();
        const std::uint64_t fileId = AddStored(
            kDown, name, "AVAILABLE",
            KelFormat("FileChecksum = '%S', Acknowledged = 1, ExternalFile = %d%S", checksum, isExternal,
                      isExternal ? KelString(", FilePath = '" + Root() + "/outside'") : KelString()));
        const KelString path = Load(kDown, fileId).FilePath;
        Ask("FileStoreRequestFile", Report(fileId));
        EXPECT_EQ(Fields(kDown, fileId), "AVAILABLE") << "read while the caller waits";
        pull_.DoWork();
        EXPECT_EQ(Fields(kDown, fileId), status);
        EXPECT_EQ(FileExists(path), KelString(status) == "AVAILABLE");

        WriteFile(path, "damaged since then");
        filestore::UpdateFileStatus(kDown, fileId, filestore::kStatusAvailable, filestore::NextTry::AtOnce);
        Ask("FileStoreRequestFile", Report(fileId));
        pull_.DoWork();
        EXPECT_EQ(Fields(kDown, fileId), "AVAILABLE") << "verified again within the time-out";
    }
}

TEST_F(DamagedCopyTest, SenderIsToldOfUnusableContentOnly) {
    for (const auto& [name, present, answer, isReported] :
         Table<const char*, const char*, TestHttpServer::Answer, bool>{
             {"wrong content", "", {200, "", "wrong content"}, true},
             {"gone", "", {404}, true},
             {"longer", "", {200, "", "longer than announced"}, true},
             {"cut off where it was", "c", {206, "Content-Range: bytes 1-2/3\r\n", "on", 0}, true},
             {"cut off later", "c", {206, "Content-Range: bytes 1-2/3\r\n", "on", 1}, false},
             {"wrong from here on", "c", {206, "Content-Range: bytes 1-2/3\r\n", "xx"}, false},
             {"busy", "", {503}, false}}) {
        const auto trace = Begin(name);
        AnswerAsParent([answer = answer](const TestHttpServer::Request& request) {
            return request.method == "GET" ? answer : TestHttpServer::ActionResult(0);
        });
        const KelString size = KelString(name) == "wrong content" ? "13" : "3";
        const std::uint64_t fileId =
            AddFile(kDown, "n", "DOWNLOADING",
                    "FileURL = '/n', FileChecksum = '" + TextMd5("con") + "', FileSize = " + size);
        if (*present != '\0') WriteFile(PathOf(kDown, fileId), present);
        EXPECT_EQ(pull_.DownloadFile(), 1);
        KelContainer call;
        for (const auto& request : Parent().Requests())
            if (request.method == "POST") call = request.Arguments();
        EXPECT_EQ(
            Read(call, "FileName FileChecksum DeviceGUID ContentDamaged"),
            isReported ? "n|" + TextMd5("con") + "|" + kOwnUrl + "|true" : "(none)|(none)|(none)|(none)");
    }
}

}  // namespace
