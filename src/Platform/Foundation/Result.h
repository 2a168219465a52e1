// The one way an operation that can fail says so: a Result<T> holds either the value or the
// Error that stopped it; Result<void> holds nothing or the Error. Both test true on success,
// so `if (!op()) ...` reads as it would with a bool, and the Error is there to log or pass up.
//
// Values that may legitimately be absent stay std::optional; Result is for failure only.
#pragma once

#include <optional>
#include <utility>
#include <variant>

#include "Foundation/Error.h"

namespace corvina {

template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(state_); }
    const T& value() const& { return std::get<0>(state_); }
    T&& value() && { return std::get<0>(std::move(state_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T&& operator*() && { return std::move(*this).value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    // The value, or `fallback` when the operation failed.
    T valueOr(T fallback) const& { return ok() ? value() : std::move(fallback); }
    T valueOr(T fallback) && { return ok() ? std::move(value()) : std::move(fallback); }

    const Error& error() const { return std::get<1>(state_); }

private:
    std::variant<T, Error> state_;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : error_(std::move(error)) {}

    bool ok() const { return !error_; }
    explicit operator bool() const { return ok(); }
    const Error& error() const { return *error_; }

private:
    std::optional<Error> error_;
};

// For `return success();` in a function returning Result<void>.
inline Result<void> success() { return {}; }

}  // namespace corvina
