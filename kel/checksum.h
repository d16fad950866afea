#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "kel/types.h"

/// The MD5 digest (RFC 1321) of a file as 32 lower-case hexadecimal digits; false when it cannot be read.
bool FileMd5(const KelString& path, KelString& digest);
/// The same of an open file, which is read with pread; the file position stays.
bool FileMd5(int fd, KelString& digest);

/// The MD5 digest of content that comes in pieces. One thread at a time.
class Md5Digest {
  public:
    Md5Digest();
    ~Md5Digest();
    Md5Digest(Md5Digest&&) noexcept;
    Md5Digest& operator=(Md5Digest&&) noexcept;

    void Add(std::string_view bytes);

    /// Adds what an open file has from `offset` to its end, read with pread; the file position stays. False
    /// when it cannot be read. `stopped` is asked before each piece of 1 MiB; when it answers true, the call
    /// fails with ECANCELED.
    bool AddFile(int fd, std::uint64_t offset, const std::function<bool()>& stopped = {});

    /// 32 lower-case hexadecimal digits. Nothing can be added after that.
    KelString Text();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

/// The SHA-256 digest (FIPS 180-4) of content that comes in pieces. One thread at a time.
class Sha256Digest {
  public:
    Sha256Digest();
    ~Sha256Digest();
    Sha256Digest(const Sha256Digest&) = delete;
    Sha256Digest& operator=(const Sha256Digest&) = delete;

    void Add(std::string_view bytes);
    /// 64 lower-case hexadecimal digits. Nothing can be added after that.
    KelString Text();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

/// The SHA-256 digest (FIPS 180-4) of a file as 64 lower-case hexadecimal digits; false when it cannot be
/// read.
bool FileSha256(const KelString& path, KelString& digest);
/// The same of an open file, which is read with pread; the file position stays.
bool FileSha256(int fd, KelString& digest);
/// Both digests of a file, which is read once.
bool FileMd5AndSha256(const KelString& path, KelString& md5, KelString& sha256);

// Digests of a text, as lower-case hexadecimal digits.
KelString TextMd5(std::string_view text);
KelString TextSha256(std::string_view text);
/// Of the texts one after the other.
KelString JoinedSha256(std::initializer_list<std::string_view> texts);
/// The authentication code of a text (HMAC, RFC 2104, with SHA-256).
KelString HmacSha256(std::string_view key, std::string_view text);

/// `count` bytes from the system's cryptographic random source.
KelString RandomBytes(std::size_t count);

/// Compares in a time that depends on the lengths only.
bool EqualInConstantTime(std::string_view left, std::string_view right);
