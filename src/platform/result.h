// Error values that platform services hand back, and a small result type for operations that
// either produce a value or fail with one. Standard library only.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace gb {

// An error reported by a platform service. `localizedDescription` is what a user may read;
// `textualForm()` is the debugging form used in log lines ("the error's default textual form").
struct PlatformError {
    std::string domain;
    int code = 0;
    std::string localizedDescription;

    [[nodiscard]] std::string textualForm() const {
        return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" +
               localizedDescription + "\"";
    }
};

// Either a T or a PlatformError.
template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Result(PlatformError error) : state_(std::move(error)) {}  // NOLINT

    [[nodiscard]] bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }
    [[nodiscard]] T& value() { return std::get<0>(state_); }
    [[nodiscard]] const T& value() const { return std::get<0>(state_); }
    [[nodiscard]] const PlatformError& error() const { return std::get<1>(state_); }

private:
    std::variant<T, PlatformError> state_;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(PlatformError error) : error_(std::move(error)) {}  // NOLINT

    [[nodiscard]] bool ok() const { return !error_.has_value(); }
    explicit operator bool() const { return ok(); }
    [[nodiscard]] const PlatformError& error() const { return *error_; }

private:
    std::optional<PlatformError> error_;
};

}  // namespace gb
