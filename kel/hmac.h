#pragma once

#include <array>
#include <initializer_list>
#include <memory>
#include <string_view>

/// Authentication codes (HMAC, RFC 2104, with SHA-256) under one key, which is prepared once: for many short
/// texts this is cheaper than HmacSha256 of kel/checksum.h. One thread at a time.
class HmacKey {
  public:
    using Code = std::array<char, 32>;

    explicit HmacKey(std::string_view key);
    ~HmacKey();
    HmacKey(HmacKey&&) noexcept;
    HmacKey& operator=(HmacKey&&) noexcept;

    /// The code of the texts one after the other.
    Code Of(std::initializer_list<std::string_view> texts) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};
