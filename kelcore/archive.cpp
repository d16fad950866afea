#include "kelcore/archive.h"

#include <fcntl.h>
#include <unistd.h>
#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/deflated_source.h"

namespace {

constexpr std::size_t kMaxEntryName = 65535;  // bytes, the format's limit
constexpr double kProgressStep = 0.01;

// How LooksLikeBomb samples a file.
constexpr std::size_t kSampleBytes = std::size_t{64} << 10;
constexpr std::int64_t kShrinkMatters = 1 << 20;  ///< bytes; smaller files are too small to matter
constexpr std::size_t kSuspectRatio = 50;
constexpr std::int64_t kSamples = 16;    ///< spread evenly from the first byte of a file to the last
constexpr std::int64_t kOddSamples = 4;  ///< so many may hold other content

bool IsEntryName(const KelString& name) {
    if (name.size() > kMaxEntryName) return false;
    const KelVector<KelString> elements = SplitText(name, '/');
    return std::all_of(elements.begin(), elements.end(),
                       [](const KelString& element) { return IsSafePathElement(element); });
}

KelString FolderOf(const KelString& path) {
    KelString folder;
    KelString name;
    SplitPath(path, folder, name);
    return folder.empty() ? KelString("./") : folder;
}

/// True when deflate makes a sample all but vanish.
bool Vanishes(const KelVector<unsigned char>& sample, std::size_t bytes) {
    uLongf packedBytes = compressBound(static_cast<uLong>(bytes));
    KelVector<unsigned char> packed(packedBytes);
    return compress2(packed.data(), &packedBytes, sample.data(), static_cast<uLong>(bytes), Z_BEST_SPEED) ==
               Z_OK &&
           packedBytes * kSuspectRatio < bytes;
}

/// True for a large file that deflate shrinks to almost nothing. Receivers refuse an archive with an entry
/// that unpacks to a thousand times its packed size, as a decompression bomb, so such a file is stored
/// instead. It may hold some other content anywhere, such as the header of a disk image; that is less than a
/// twentieth of it, and few samples hit it. An ordinary file is recognised by its first few samples.
bool LooksLikeBomb(const KelString& path) {
    const std::int64_t size = FileGetSize64(path);
    if (size <= kShrinkMatters) return false;
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return false;
    const std::int64_t step = (size - static_cast<std::int64_t>(kSampleBytes)) / (kSamples - 1);
    KelVector<unsigned char> sample(kSampleBytes);
    std::int64_t odd = 0;
    for (std::int64_t i = 0; i < kSamples && odd <= kOddSamples; ++i) {
        const ssize_t read = pread(file.Get(), sample.data(), sample.size(), i * step);
        if (read <= 0 || !Vanishes(sample, static_cast<std::size_t>(read))) ++odd;
    }
    return odd <= kOddSamples;
}

KelString TextOf(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    KelString text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

}  // namespace

std::optional<KelVector<KelString>> ListArchiveEntries(const KelString& path) {
    const std::unique_ptr<zip, void (*)(zip*)> archive(zip_open(path.c_str(), ZIP_RDONLY, nullptr),
                                                       zip_discard);
    if (!archive) return std::nullopt;
    KelVector<KelString> names;
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const char* name = zip_get_name(archive.get(), static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW);
        if (name == nullptr) return std::nullopt;
        names.emplace_back(name);
    }
    return names;
}

void GenericArchive::Discard::operator()(zip* archive) const {
    zip_discard(archive);
}

GenericArchive::GenericArchive(int kind) : kind_(kind) {}

GenericArchive::~GenericArchive() {
    Abandon();
}

unsigned int GenericArchive::Create(const KelString& path) {
    const unsigned int result = Begin(path);
    return result != kArchiveDone ? result : OpenWork(ZIP_CREATE | ZIP_TRUNCATE);
}

unsigned int GenericArchive::Open(const KelString& path) {
    if (!FileExists(path)) return Fail(kArchiveNoFile, "no archive " + path);
    const unsigned int result = Begin(path);
    if (result != kArchiveDone) return result;
    // The library replaces the name it opened; under a second name the old archive stays until all is synced.
    FileDelete(workPath_);
    if (link(path.c_str(), workPath_.c_str()) != 0 && !FileCopy(path, workPath_, true))
        return Fail(kArchiveNoFile, "cannot read " + path);
    return OpenWork(ZIP_CHECKCONS);
}

unsigned int GenericArchive::Begin(const KelString& path) {
    Abandon();
    errorText_.clear();
    if (kind_ != kArchiveZip)
        return Fail(kArchiveBadInput, "unknown kind of archive " + std::to_string(kind_));
    path_ = path;
    if (!FileCreateTemp(FolderOf(path), workPath_)) {
        workPath_.clear();
        return Fail(kArchiveNotWritten, "cannot write beside " + path);
    }
    return kArchiveDone;
}

unsigned int GenericArchive::OpenWork(int flags) {
    int error = ZIP_ER_OK;
    zip_.reset(zip_open(workPath_.c_str(), flags, &error));
    if (zip_) return kArchiveDone;
    const KelString text = "cannot open the archive " + path_ + ": " + TextOf(error);
    const bool unreadable = error == ZIP_ER_OPEN || error == ZIP_ER_READ || error == ZIP_ER_NOENT;
    Abandon();
    return Fail(unreadable ? kArchiveNoFile : kArchiveDamaged, text);
}

unsigned int GenericArchive::AddEntry(const KelString& entryName, const KelString& sourcePath, int level,
                                      Progress progress) {
    if (!zip_) return Fail(kArchiveBadInput, "no archive is open");
    if (!IsEntryName(entryName) || level < 0 || level > 9)
        return Fail(kArchiveBadInput,
                    "unusable entry name \"" + entryName + "\" or level " + std::to_string(level));
    if (!FileExists(sourcePath) || access(sourcePath.c_str(), R_OK) != 0)
        return Fail(kArchiveNoFile, "cannot read " + sourcePath);
    const bool stored = level == 0 || LooksLikeBomb(sourcePath);
    zip_source_t* source = stored || FileGetSize64(sourcePath) > kMaxDeflatedSource
                               ? zip_source_file(zip_.get(), sourcePath.c_str(), 0, -1)
                               : MakeDeflatedSource(zip_.get(), sourcePath, DeflaterOf(level));
    if (source == nullptr) return Fail(kArchiveNoFile, zip_strerror(zip_.get()));
    const zip_int64_t index = zip_file_add(zip_.get(), entryName.c_str(), source, ZIP_FL_ENC_GUESS);
    if (index < 0) {
        zip_source_free(source);
        const bool exists = zip_error_code_zip(zip_get_error(zip_.get())) == ZIP_ER_EXISTS;
        return Fail(exists ? kArchiveHasEntry : kArchiveBadInput,
                    entryName + ": " + zip_strerror(zip_.get()));
    }
    zip_set_file_compression(zip_.get(), static_cast<zip_uint64_t>(index),
                             stored ? ZIP_CM_STORE : ZIP_CM_DEFLATE,
                             stored ? 0 : static_cast<zip_uint32_t>(level));
    changed_ = true;
    if (progress) progress_ = std::move(progress);
    return kArchiveDone;
}

const std::shared_ptr<Deflater>& GenericArchive::DeflaterOf(int level) {
    if (!deflater_ || deflater_->GetLevel() != level) deflater_ = std::make_shared<Deflater>(level);
    return deflater_;
}

unsigned int GenericArchive::Close() {
    if (!zip_) return Fail(kArchiveBadInput, "no archive is open");
    unsigned int result = kArchiveDone;
    if (zip_get_num_entries(zip_.get(), 0) <= 0)
        result = Fail(kArchiveBadInput, "nothing was added to " + path_);
    else if (changed_)
        result = WriteOut();
    Abandon();
    return result;
}

unsigned int GenericArchive::WriteOut() {
    bool going = true;
    struct State {
        const Progress& progress;
        bool& going;
    } state{progress_, going};
    if (progress_) {
        zip_register_progress_callback_with_state(
            zip_.get(), kProgressStep,
            [](zip_t*, double done, void* data) {
                auto& close = *static_cast<State*>(data);
                close.going = close.going && close.progress(done);
            },
            nullptr, &state);
        zip_register_cancel_callback_with_state(
            zip_.get(), [](zip_t*, void* data) { return static_cast<State*>(data)->going ? 0 : 1; }, nullptr,
            &state);
    }
    if (zip_close(zip_.get()) != 0) {
        const int code = zip_error_code_zip(zip_get_error(zip_.get()));
        const KelString text = "cannot write the archive " + path_ + ": " + zip_strerror(zip_.get());
        if (code == ZIP_ER_CANCELLED) return Fail(kArchiveCancelled, text);
        return Fail(code == ZIP_ER_OPEN || code == ZIP_ER_READ ? kArchiveNoFile : kArchiveNotWritten, text);
    }
    static_cast<void>(zip_.release());  // closing has freed it
    // FileRename puts the folder's entry on the disk; the content must be there before it.
    if (!FileSync(workPath_) || !FileRename(workPath_, path_))
        return Fail(kArchiveNotWritten,
                    "cannot put the archive " + path_ + " in place: " + std::strerror(errno));
    return kArchiveDone;
}

void GenericArchive::Abandon() {
    zip_.reset();
    if (!workPath_.empty()) FileDelete(workPath_);
    workPath_.clear();
    changed_ = false;
    progress_ = {};
}

unsigned int GenericArchive::Fail(unsigned int result, KelString text) {
    errorText_ = std::move(text);
    return result;
}
