// The one road from the library to a kernel: open a device, send it device control requests. Two implementations, one
// translation unit each, chosen by the build: Windows handles, and a machine booted in this process.
#pragma once

#include "client/status.h"
#include "drv/usb/ioctl.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vqt {

// The I/O status block of a finished request. A failed request's information is 0 where the system does not hand it
// out.
struct IoResult {
    NtStatus status = 0;
    std::uint64_t information = 0;
    bool ok() const { return succeeded(status); }
};

using Bytes = std::span<std::uint8_t>;
using ConstBytes = std::span<const std::uint8_t>;

// An open device. Requests block the calling thread only: several threads may use one port at the same time.
class Port {
public:
    Port();
    Port(Port &&) noexcept;
    Port &operator=(Port &&) noexcept;
    ~Port();

    // A DOS name as "\\.\VqtSimBus", or a link from interfaceLinks().
    static Port open(std::string_view name);
    // Links of the enabled interfaces of a class, in no particular order.
    static std::vector<std::string> interfaceLinks(const USBCAM_GUID &interfaceClass);

    explicit operator bool() const;
    NtStatus status() const { return status_; } // of the open
    const std::string &name() const { return name_; }
    void close();

    IoResult deviceControl(std::uint32_t code, ConstBytes in = {}, Bytes out = {});

private:
    struct Handle;
    std::unique_ptr<Handle> handle_;
    std::string name_;
    NtStatus status_ = status::kObjectNameNotFound;
};

} // namespace vqt
