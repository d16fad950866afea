#include "kel/checksum.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <memory>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "kel/text.h"
#include "kel/unique_fd.h"

namespace {

constexpr std::size_t kReadBytes = std::size_t{1} << 20;

class Digest {
  public:
    explicit Digest(const EVP_MD* method) : context_(EVP_MD_CTX_new()) {
        if (method == nullptr || !context_ || EVP_DigestInit_ex(context_.get(), method, nullptr) != 1)
            throw std::runtime_error("OpenSSL cannot compute this digest; check that it is not disabled");
    }

    void Add(const void* bytes, std::size_t count) { EVP_DigestUpdate(context_.get(), bytes, count); }

    KelString Text() {
        unsigned char bytes[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(context_.get(), bytes, &length);
        return HexText({reinterpret_cast<const char*>(bytes), length});
    }

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> context_;
};

/// `add` gets the pieces.
template <class Add>
bool ReadRest(int fd, std::uint64_t begin, const std::function<bool()>& stopped, const Add& add) {
    const auto buffer = std::make_unique_for_overwrite<char[]>(kReadBytes);
    // It is read once from start to end: a longer read-ahead pays.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (auto offset = static_cast<off_t>(begin);;) {
        if (stopped && stopped()) {
            errno = ECANCELED;
            return false;
        }
        const ssize_t got = ::pread(fd, buffer.get(), kReadBytes, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) return true;
        add(buffer.get(), static_cast<std::size_t>(got));
        offset += got;
    }
}

bool AddRest(int fd, std::uint64_t begin, Digest& state, const std::function<bool()>& stopped = {}) {
    return ReadRest(fd, begin, stopped,
                    [&state](const char* bytes, std::size_t count) { state.Add(bytes, count); });
}

UniqueFd OpenToRead(const KelString& path) {
    // O_NONBLOCK: a pipe must not block the open.
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

bool DigestOf(const KelString& path, const EVP_MD* method, KelString& digest) {
    const UniqueFd fd = OpenToRead(path);
    Digest state(method);
    if (!fd || !AddRest(fd.Get(), 0, state)) return false;
    digest = state.Text();
    return true;
}

struct FreeMethod {
    void operator()(EVP_MD* method) const { EVP_MD_free(method); }
};

/// Looked up once: the look-up, which EVP_sha256 repeats at every use, costs more than hashing a short text.
const EVP_MD* Sha256Method() {
    static const std::unique_ptr<EVP_MD, FreeMethod> method(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    return method.get();
}

}  // namespace

bool FileMd5(const KelString& path, KelString& digest) {
    return DigestOf(path, EVP_md5(), digest);
}

bool FileMd5(int fd, KelString& digest) {
    Md5Digest md5;
    if (!md5.AddFile(fd, 0)) return false;
    digest = md5.Text();
    return true;
}

struct Md5Digest::State : Digest {
    using Digest::Digest;
};

Md5Digest::Md5Digest() : state_(std::make_unique<State>(EVP_md5())) {}
Md5Digest::~Md5Digest() = default;
Md5Digest::Md5Digest(Md5Digest&&) noexcept = default;
Md5Digest& Md5Digest::operator=(Md5Digest&&) noexcept = default;

void Md5Digest::Add(std::string_view bytes) {
    state_->Add(bytes.data(), bytes.size());
}

bool Md5Digest::AddFile(int fd, std::uint64_t offset, const std::function<bool()>& stopped) {
    return AddRest(fd, offset, *state_, stopped);
}

KelString Md5Digest::Text() {
    return state_->Text();
}

bool FileSha256(const KelString& path, KelString& digest) {
    return DigestOf(path, EVP_sha256(), digest);
}

bool FileSha256(int fd, KelString& digest) {
    Digest state(EVP_sha256());
    if (!AddRest(fd, 0, state)) return false;
    digest = state.Text();
    return true;
}

bool FileMd5AndSha256(const KelString& path, KelString& md5, KelString& sha256) {
    const UniqueFd fd = OpenToRead(path);
    Digest first(EVP_md5());
    Digest second(EVP_sha256());
    const auto add = [&](const char* bytes, std::size_t count) {
        first.Add(bytes, count);
        second.Add(bytes, count);
    };
    if (!fd || !ReadRest(fd.Get(), 0, {}, add)) return false;
    md5 = first.Text();
    sha256 = second.Text();
    return true;
}

struct Sha256Digest::State : Digest {
    using Digest::Digest;
};

Sha256Digest::Sha256Digest() : state_(std::make_unique<State>(EVP_sha256())) {}
Sha256Digest::~Sha256Digest() = default;

void Sha256Digest::Add(std::string_view bytes) {
    state_->Add(bytes.data(), bytes.size());
}

KelString Sha256Digest::Text() {
    return state_->Text();
}

KelString TextMd5(std::string_view text) {
    Digest state(EVP_md5());
    state.Add(text.data(), text.size());
    return state.Text();
}

KelString TextSha256(std::string_view text) {
    return JoinedSha256({text});
}

KelString JoinedSha256(std::initializer_list<std::string_view> texts) {
    Digest state(Sha256Method());
    for (const std::string_view text : texts)
        state.Add(text.data(), text.size());
    return state.Text();
}

KelString HmacSha256(std::string_view key, std::string_view text) {
    unsigned char code[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(text.data()), text.size(), code, &length) == nullptr)
        throw std::runtime_error("OpenSSL cannot compute an authentication code");
    return HexText({reinterpret_cast<const char*>(code), length});
}

KelString RandomBytes(std::size_t count) {
    KelString bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1)
        throw std::runtime_error("The system gives no random bytes");
    return bytes;
}

bool EqualInConstantTime(std::string_view left, std::string_view right) {
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}
