#include "filestore/upstream_fixture.h"

#include <ctime>

void UpstreamTest::AnswerAsParent(ScriptedServer::Script script) {
    parent_ = std::make_unique<ScriptedServer>(std::move(script));
    SetParent("127.0.1.1", parent_->Port());
}

void UpstreamTest::AcceptAll() {
    AnswerAsParent([](const ScriptedServer::Request& request) -> ScriptedServer::Answer {
        if (request.method == "PUT") return {201, "", "", SIZE_MAX};
        KelContainer answer;
        answer.SetString("FileURL", "/FileStore/upstream/" + request.Arguments().GetString("FileName"));
        return ScriptedServer::ActionResult(0, answer);
    });
}

KelVector<KelString> UpstreamTest::OfferedNames() const {
    KelVector<KelString> names;
    for (const auto& request : parent_->Requests())
        if (request.method == "POST") names.push_back(request.Arguments().GetString("FileName"));
    return names;
}

unsigned long UpstreamTest::AddStored(const KelString& name, const KelString& status,
                                      const std::function<void(FileStoreEntry&)>& change) {
    const unsigned long fileId = AddFile(true, name, status, [&](FileStoreEntry& entry) {
        entry.SourceDevice = kChild;
        entry.FileSize = static_cast<std::int64_t>(name.size());
        if (change) change(entry);
        if (!entry.ExternalFile) entry.FilePath = PathOf(true, entry);
    });
    WriteFile(Load(true, fileId).FilePath, name);
    return fileId;
}

FileStoreEntry UpstreamTest::Load(bool upstream, unsigned long fileId) {
    FileStoreEntry entry;
    EXPECT_TRUE(entry.LoadFromDatabase(fileId, upstream));
    return entry;
}

KelString UpstreamTest::StatusOf(bool upstream, unsigned long fileId) {
    FileStoreEntry entry;
    return entry.LoadFromDatabase(fileId, upstream) ? entry.FileStatus : KelString("(none)");
}

KelString UpstreamTest::PathOf(bool upstream, const FileStoreEntry& entry) {
    return FileStore::StorePath(upstream, entry.FileType, entry.FileLabel, entry.FileChecksum,
                                entry.FileName);
}

bool UpstreamTest::JustNow(std::int64_t time) {
    return time != 0 && std::time(nullptr) - time < 60;
}
