#pragma once

#include <utility>
#include <variant>

#include "kel/types.h"

/// A failure: a code for programs (never 0) and a text for people that names the value and what to do.
struct KelError {
    unsigned int code = 1;
    KelString message;
};

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
