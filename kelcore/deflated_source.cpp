#include "kelcore/deflated_source.h"

#include <libdeflate.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "kel/file.h"

namespace {

/// The state behind libzip's calls. libzip asks for the sizes first, then opens, reads and closes once, and
/// asks for the sizes again: the file is deflated at the first question and its packed form freed at the end.
class Source {
  public:
    Source(KelString path, std::shared_ptr<Deflater> deflater)
        : path_(std::move(path)), deflater_(std::move(deflater)) {
        zip_stat_init(&status_);
        zip_error_init(&error_);
    }
    ~Source() { zip_error_fini(&error_); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    zip_int64_t Handle(void* data, zip_uint64_t length, zip_source_cmd_t command) {
        switch (command) {
            case ZIP_SOURCE_SUPPORTS:
                return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                                      ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
            case ZIP_SOURCE_STAT:
                return Stat(data, length);
            case ZIP_SOURCE_OPEN:
                position_ = 0;
                return 0;
            case ZIP_SOURCE_READ:
                return Read(data, length);
            case ZIP_SOURCE_CLOSE:
                KelVector<char>().swap(packed_);
                return 0;
            case ZIP_SOURCE_ERROR:
                return zip_error_to_data(&error_, data, length);
            default:
                return Fail(ZIP_ER_OPNOTSUPP);
        }
    }

    zip_int64_t Fail(int code) {
        zip_error_set(&error_, code, errno);
        return -1;
    }

  private:
    zip_int64_t Stat(void* data, zip_uint64_t length) {
        if (length < sizeof status_) return Fail(ZIP_ER_INVAL);
        if (status_.valid == 0 && !Prepare()) return Fail(ZIP_ER_READ);
        std::memcpy(data, &status_, sizeof status_);
        return sizeof status_;
    }

    bool Prepare() {
        const auto content = FileReadText(path_, kMaxDeflatedSource);
        if (!content) return false;
        deflater_->Deflate(*content, packed_);
        status_.size = content->size();
        status_.comp_size = packed_.size();
        status_.comp_method = ZIP_CM_DEFLATE;
        status_.crc = libdeflate_crc32(0, content->data(), content->size());
        status_.valid = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC;
        return true;
    }

    zip_int64_t Read(void* data, zip_uint64_t length) {
        const std::size_t count = std::min<std::size_t>(length, packed_.size() - position_);
        std::memcpy(data, packed_.data() + position_, count);
        position_ += count;
        return static_cast<zip_int64_t>(count);
    }

    const KelString path_;
    const std::shared_ptr<Deflater> deflater_;
    zip_stat_t status_;  ///< filled once the file was deflated
    zip_error_t error_;
    KelVector<char> packed_;
    std::size_t position_ = 0;
};

/// An exception must not pass through the archive library's frames.
zip_int64_t HandleCommand(void* source, void* data, zip_uint64_t length, zip_source_cmd_t command) try {
    if (command == ZIP_SOURCE_FREE) {
        const std::unique_ptr<Source> end(static_cast<Source*>(source));
        return 0;
    }
    return static_cast<Source*>(source)->Handle(data, length, command);
} catch (const std::bad_alloc&) {
    return static_cast<Source*>(source)->Fail(ZIP_ER_MEMORY);
}

}  // namespace

Deflater::Deflater(int level) : level_(level), compressor_(libdeflate_alloc_compressor(level)) {
    if (!compressor_) throw std::bad_alloc();
}

void Deflater::Free::operator()(libdeflate_compressor* compressor) const {
    libdeflate_free_compressor(compressor);
}

void Deflater::Deflate(const KelString& content, KelVector<char>& packed) {
    packed.resize(libdeflate_deflate_compress_bound(compressor_.get(), content.size()));
    packed.resize(libdeflate_deflate_compress(compressor_.get(), content.data(), content.size(),
                                              packed.data(), packed.size()));
}

zip_source* MakeDeflatedSource(zip* archive, const KelString& path, std::shared_ptr<Deflater> deflater) {
    auto source = std::make_unique<Source>(path, std::move(deflater));
    zip_source* handle = zip_source_function(archive, HandleCommand, source.get());
    if (handle != nullptr) static_cast<void>(source.release());  // freed by ZIP_SOURCE_FREE
    return handle;
}
