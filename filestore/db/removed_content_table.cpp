#include "filestore/db/removed_content_table.h"

#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kSelect[] =
    "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, FilePath FROM RemovedContent WHERE FileId > "
    "%lu ORDER BY FileId LIMIT %u";
constexpr char kForget[] = "DELETE FROM RemovedContent WHERE FileId IN (%S)";

}  // namespace

FileRows SelectRemovedContent(Side side, std::uint64_t fileId, unsigned int limit) {
    const auto found = FileStoreGetDatabase(side).connection.Query(KelFormat(kSelect, fileId, limit));
    FileRows rows(found ? found->GetRowCount() : 0);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        RowReader row(*found, i);
        rows[i].FileId = row.Unsigned();
        for (KelString* const text : {&rows[i].FileType, &rows[i].FileLabel, &rows[i].FileName,
                                      &rows[i].FileChecksum, &rows[i].FilePath})
            *text = row.Text();
    }
    return rows;
}

bool ForgetRemovedContent(Side side, const IdList& fileIds) {
    return fileIds.IsEmpty() || Change(side, KelFormat(kForget, fileIds.Text()));
}

}  // namespace filestore
