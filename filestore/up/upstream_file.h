#pragma once

#include <optional>

#include "filestore/db/file_store_entry.h"

/// Which row and which place an upstream file has: its key and the device it comes from determine both, so
/// that files of different devices never share a row or its content. Callers whose change follows from the
/// answer hold mutexUpstream over both.
namespace filestore {

struct UpstreamFile {
    std::optional<FileStoreEntry> row;  ///< nothing while the file is unknown
    KelString source;                   ///< of its place, see SourceFolder; empty where it needs none
    FileKey key;

    /// Of its place in the store; an external file lies elsewhere.
    KelString Path() const;
    KelString Folder() const;
    KelString Url() const;
    /// True when the row's content is on the disk, wherever it lies.
    bool HasContent() const;
};

/// The file `key` of the device `sourceDevice`. Nothing when the statement failed.
std::optional<UpstreamFile> FindUpstreamFile(const FileKey& key, const KelString& sourceDevice);

/// The file whose place has the URL path `url`: with a row when that place is taken. Nothing when the
/// statement failed; a file without a row when `url` is no place in the upstream store.
std::optional<UpstreamFile> FindUpstreamFileOfUrl(const KelString& url);

}  // namespace filestore
