#pragma once

#include <utility>
#include <variant>

#include "kel/types.h"

/// Codes of a KelError. A function with others of its own says so.
inline constexpr unsigned int kKelFailure = 1;       ///< any failure that callers need not distinguish
inline constexpr unsigned int kKelPathNotFound = 3;  ///< the path does not exist

/// A failure: a code for programs (never 0) and a text for people that names the value and what to do.
struct KelError {
    unsigned int code = kKelFailure;
    KelString message;
};

/// The failure that errno stands for, as "WHAT PATH: reason; what to do". The code is kKelPathNotFound when
/// `path` does not exist, kKelFailure otherwise. `what` is the beginning of a sentence, such as "A file
/// cannot be read:".
KelError SystemError(const char* what, const KelString& path);

/// Either a value or a KelError. Test it before taking the value.
template <class Value>
class [[nodiscard]] KelResult {
  public:
    KelResult(Value value) : state_(std::move(value)) {}     // NOLINT(google-explicit-constructor)
    KelResult(KelError error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

    explicit operator bool() const { return std::holds_alternative<Value>(state_); }

    Value& operator*() { return std::get<Value>(state_); }
    const Value& operator*() const { return std::get<Value>(state_); }
    Value* operator->() { return &std::get<Value>(state_); }
    const Value* operator->() const { return &std::get<Value>(state_); }

    const KelError& Error() const { return std::get<KelError>(state_); }

  private:
    std::variant<Value, KelError> state_;
};

/// The outcome of an operation that yields nothing but success or a KelError.
class [[nodiscard]] KelStatus {
  public:
    KelStatus() = default;
    KelStatus(KelError error)
        : error_(std::move(error)), ok_(false) {}  // NOLINT(google-explicit-constructor)

    explicit operator bool() const { return ok_; }
    const KelError& Error() const { return error_; }

  private:
    KelError error_;
    bool ok_ = true;
};
