#include "kelcore/archive_extractor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <memory>
#include <set>
#include <string_view>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kel/unique_fd.h"
#include "kelcore/error_codes.h"

namespace {

/// Smaller entries are too small to matter as a decompression bomb.
constexpr std::uint64_t kRatioMatters = std::uint64_t{1} << 20;  // bytes
constexpr std::size_t kBufferBytes = std::size_t{256} << 10;

struct ZipCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
    void operator()(zip_file_t* file) const { zip_fclose(file); }
};
using Zip = std::unique_ptr<zip_t, ZipCloser>;
using ZipFile = std::unique_ptr<zip_file_t, ZipCloser>;

/// One entry that passed the check.
struct Entry {
    std::uint64_t index;
    KelString name;
    KelString path;      ///< where it goes, below the destination
    std::uint64_t size;  ///< unpacked bytes
};

KelError Refuse(unsigned int code, const char* problem, const KelString& entry) {
    return {code, KelFormat("%s: '%S'", problem, entry)};
}

KelString FolderOf(const KelString& path) {
    KelString folder, name;
    SplitPath(path, folder, name);
    return folder;
}

/// The folder that an archive is unpacked into, on the file system of the destination: inside it when it
/// exists, so that files can be renamed into place, else beside it, so that it can become the destination
/// itself. Removed at the end of the scope.
class Staging {
  public:
    explicit Staging(const KelString& destination)
        : destination_(destination),
          becomesDestination_(!FileExists(destination) && !DirExists(destination)),
          path_(destination + (becomesDestination_ ? ".extract-" : "/.extract-") + HexText(RandomBytes(8))) {}
    ~Staging() { DirDelete(path_, true); }
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;
    const KelString& Path() const { return path_; }

    KelStatus MoveIn(const KelVector<Entry>& files) const {
        if (becomesDestination_ && rename(path_.c_str(), destination_.c_str()) == 0) return {};
        for (const Entry& entry : files) {
            const KelString target = destination_ + "/" + entry.path;
            if (!PathCreate(FolderOf(target)) ||
                rename((path_ + "/" + entry.path).c_str(), target.c_str()) != 0)
                return Refuse(kKelErrorInternal, "the destination cannot be written", entry.name);
        }
        return {};
    }

  private:
    KelString destination_;
    bool becomesDestination_;
    KelString path_;
};

bool IsSafeName(std::string_view name) {
    for (const KelString& element : SplitText(name, '/'))
        if (!IsSafePathElement(element)) return false;
    return true;
}

/// False for links, devices and whatever else a Unix archive can hold besides files and folders.
bool IsPlainEntry(zip_t* archive, std::uint64_t index) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) != 0) return false;
    const mode_t mode = attributes >> 16;
    return system != ZIP_OPSYS_UNIX || (mode & S_IFMT) == 0 || S_ISREG(mode) || S_ISDIR(mode);
}

/// Checks the entries one after the other against the limits and each other.
class Inspection {
  public:
    Inspection(zip_t* archive, const ExtractionLimits& limits, ExtractionLayout layout)
        : archive_(archive), limits_(limits), layout_(layout) {}

    KelStatus Run() {
        const zip_int64_t count = zip_get_num_entries(archive_, 0);
        if (count < 0 || static_cast<std::uint64_t>(count) > limits_.entries)
            return KelError{kExtractTooLarge, KelFormat("%gd entries, at most %gu are accepted",
                                                        static_cast<std::int64_t>(count), limits_.entries)};
        for (std::uint64_t index = 0; index < static_cast<std::uint64_t>(count); ++index)
            if (KelStatus checked = Check(index); !checked) return checked;
        for (const Entry& entry : files)
            if (const KelString folder = FileAmongParents(entry.name); !folder.empty())
                return Refuse(kExtractUnsafe, "an entry is a file and a folder at once", folder);
        return {};
    }

    KelVector<Entry> files;

  private:
    KelStatus Check(std::uint64_t index) {
        zip_stat_t stat;
        constexpr zip_uint64_t kNeeded =
            ZIP_STAT_NAME | ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_ENCRYPTION_METHOD;
        if (zip_stat_index(archive_, index, ZIP_FL_ENC_RAW, &stat) != 0 || (stat.valid & kNeeded) != kNeeded)
            return KelError{kExtractDamaged, KelFormat("entry %gu cannot be read", index)};
        KelString name = stat.name;
        const bool isFolder = name.ends_with('/');
        if (isFolder) name.pop_back();
        if (!IsSafeName(name)) return Refuse(kExtractUnsafe, "an entry leaves the destination", name);
        if (!IsPlainEntry(archive_, index))
            return Refuse(kExtractUnsafe, "an entry is neither file nor folder", name);
        if (stat.encryption_method != ZIP_EM_NONE)
            return Refuse(kExtractUnsafe, "an entry is encrypted", name);
        if (isFolder) return {};
        if (!names_.insert(name).second) return Refuse(kExtractUnsafe, "an entry occurs twice", name);
        if (stat.size > limits_.bytes - bytes_ ||
            (stat.size > kRatioMatters && stat.size / limits_.ratio > stat.comp_size))
            return Refuse(kExtractTooLarge, "an entry unpacks to too many bytes", name);
        bytes_ += stat.size;
        KelString path = layout_ == ExtractionLayout::Numbered ? std::to_string(index) : name;
        files.push_back({index, std::move(name), std::move(path), stat.size});
        return {};
    }

    KelString FileAmongParents(const KelString& name) const {
        for (std::size_t end = name.rfind('/'); end != KelString::npos && end != 0;
             end = name.rfind('/', end - 1))
            if (names_.contains(name.substr(0, end))) return name.substr(0, end);
        return {};
    }

    zip_t* archive_;
    const ExtractionLimits& limits_;
    ExtractionLayout layout_;
    std::set<KelString> names_;
    std::uint64_t bytes_ = 0;
};

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size != 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

/// Writes the content of an entry to `path`, by way of `buffer`.
KelStatus Unpack(zip_t* archive, const Entry& entry, const KelString& path, KelVector<char>& buffer) {
    const UniqueFd file(
        PathCreate(FolderOf(path)) ? open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644) : -1);
    if (!file) return Refuse(kKelErrorInternal, "the destination cannot be written", entry.name);
    const ZipFile content(zip_fopen_index(archive, entry.index, 0));
    if (!content) return Refuse(kExtractDamaged, "an entry cannot be read", entry.name);
    std::uint64_t total = 0;
    for (;;) {
        const zip_int64_t read = zip_fread(content.get(), buffer.data(), buffer.size());
        if (read < 0) return Refuse(kExtractDamaged, "an entry is damaged", entry.name);
        if (read == 0) break;
        total += static_cast<std::uint64_t>(read);
        if (total > entry.size)
            return Refuse(kExtractTooLarge, "an entry is larger than the archive says", entry.name);
        if (!WriteAll(file.Get(), buffer.data(), static_cast<std::size_t>(read)))
            return Refuse(kKelErrorInternal, "the destination is full or cannot be written", entry.name);
    }
    if (total != entry.size)
        return Refuse(kExtractDamaged, "an entry is shorter than the archive says", entry.name);
    return {};
}

}  // namespace

KelStatus ExtractArchive(const KelString& archive, const KelString& destination,
                         const ExtractionLimits& limits, ExtractionLayout layout) {
    if (!FileExists(archive)) return Refuse(kKelErrorMissingContent, "there is no archive", archive);
    int problem = 0;
    const Zip zip(zip_open(archive.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &problem));
    if (!zip && problem == ZIP_ER_EXISTS) return Refuse(kExtractUnsafe, "an entry occurs twice in", archive);
    if (!zip)
        return KelError{kExtractDamaged, KelFormat("not an intact zip archive (libzip error %d)", problem)};
    Inspection inspection(zip.get(), limits, layout);
    if (KelStatus inspected = inspection.Run(); !inspected) return inspected;

    const Staging staging(destination);
    if (!PathCreate(staging.Path()))
        return Refuse(kKelErrorInternal, "the destination cannot be made", destination);
    KelVector<char> buffer(kBufferBytes);
    for (const Entry& entry : inspection.files)
        if (KelStatus unpacked = Unpack(zip.get(), entry, staging.Path() + "/" + entry.path, buffer);
            !unpacked)
            return unpacked;
    if (!DirSyncFileSystem(staging.Path()))
        return Refuse(kKelErrorInternal, "the destination cannot be synced", destination);
    if (KelStatus moved = staging.MoveIn(inspection.files); !moved) return moved;
    if (!DirSyncFileSystem(destination))
        return Refuse(kKelErrorInternal, "the destination cannot be synced", destination);
    return {};
}
