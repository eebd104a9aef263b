// How every call of the client library ends: with a value, or with an Error that keeps the NT status and says what to
// do.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace vqt {

using NtStatus = std::int32_t;

constexpr NtStatus ntStatus(std::uint32_t code)
{
    return static_cast<NtStatus>(code);
}
constexpr bool succeeded(NtStatus status)
{
    return status >= 0;
}

namespace status {
constexpr NtStatus kSuccess = 0;
constexpr NtStatus kTimeout = 0x102;
constexpr NtStatus kDeviceBusy = ntStatus(0x80000011);
constexpr NtStatus kUnsuccessful = ntStatus(0xC0000001);
constexpr NtStatus kNotImplemented = ntStatus(0xC0000002);
constexpr NtStatus kInvalidParameter = ntStatus(0xC000000D);
constexpr NtStatus kNoSuchDevice = ntStatus(0xC000000E);
constexpr NtStatus kInvalidDeviceRequest = ntStatus(0xC0000010);
constexpr NtStatus kNoMemory = ntStatus(0xC0000017);
constexpr NtStatus kAccessDenied = ntStatus(0xC0000022);
constexpr NtStatus kBufferTooSmall = ntStatus(0xC0000023);
constexpr NtStatus kObjectNameNotFound = ntStatus(0xC0000034);
constexpr NtStatus kInsufficientResources = ntStatus(0xC000009A);
constexpr NtStatus kDeviceNotConnected = ntStatus(0xC000009D);
constexpr NtStatus kIoTimeout = ntStatus(0xC00000B5);
constexpr NtStatus kNotSupported = ntStatus(0xC00000BB);
constexpr NtStatus kCancelled = ntStatus(0xC0000120);
constexpr NtStatus kAdapterHardwareError = ntStatus(0xC00000C2);
constexpr NtStatus kDeviceRemoved = ntStatus(0xC00002B6);
} // namespace status

// "STATUS_DEVICE_BUSY", or empty for a status without a name here.
std::string_view statusName(NtStatus status);
// "STATUS_DEVICE_BUSY (0x80000011)", or the number alone.
std::string statusText(NtStatus status);

struct Error {
    NtStatus status = status::kUnsuccessful;
    std::string message; // what failed, why, and what to do about it; one line
};

// Thrown by Result::value() of a failed call.
class Failure : public std::runtime_error {
public:
    explicit Failure(Error error) : std::runtime_error(error.message), error_(std::move(error)) {}
    const Error &error() const { return error_; }
    NtStatus status() const { return error_.status; }

private:
    Error error_;
};

struct Nothing {};

template <class T = Nothing> class [[nodiscard]] Result {
public:
    Result(T value) : outcome_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : outcome_(std::in_place_index<1>, std::move(error)) {}

    explicit operator bool() const { return outcome_.index() == 0; }
    bool ok() const { return outcome_.index() == 0; }
    NtStatus status() const { return ok() ? status::kSuccess : std::get<1>(outcome_).status; }
    const Error &error() const { return std::get<1>(outcome_); }

    T &value() &
    {
        check();
        return std::get<0>(outcome_);
    }
    const T &value() const &
    {
        check();
        return std::get<0>(outcome_);
    }
    // By value: a loop over a temporary's value would outlive the temporary.
    T value() &&
    {
        check();
        return std::get<0>(std::move(outcome_));
    }
    T &operator*() & { return value(); }
    T operator*() && { return std::move(*this).value(); }
    T *operator->() { return &value(); }

private:
    void check() const
    {
        if (!ok())
            throw Failure(std::get<1>(outcome_));
    }
    std::variant<T, Error> outcome_;
};

using Done = Result<Nothing>;

} // namespace vqt
