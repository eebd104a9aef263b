// Ports of the running Windows system.
#include "client/port.h"

#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <winternl.h>
#include <setupapi.h>

#include <cstring>

namespace vqt {
namespace {

// What the last failed call of this thread answered before it became a Win32 error number. Two statuses can share one
// number, so the table is only for systems whose ntdll keeps none.
NtStatus statusOfLastError()
{
    using LastStatus = NTSTATUS(NTAPI *)();
    const DWORD error = GetLastError();
    static const auto lastStatus = reinterpret_cast<LastStatus>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlGetLastNtStatus")));
    if (lastStatus != nullptr)
        if (const NTSTATUS status = lastStatus(); status != 0)
            return status;

    struct Row {
        DWORD error;
        NtStatus status;
    };
    static constexpr Row kRows[] = {
        {ERROR_FILE_NOT_FOUND, status::kObjectNameNotFound},
        {ERROR_PATH_NOT_FOUND, status::kObjectNameNotFound},
        {ERROR_ACCESS_DENIED, status::kAccessDenied},
        {ERROR_INVALID_FUNCTION, status::kInvalidDeviceRequest},
        {ERROR_INVALID_PARAMETER, status::kInvalidParameter},
        {ERROR_NOT_ENOUGH_MEMORY, status::kNoMemory},
        {ERROR_NO_SYSTEM_RESOURCES, status::kInsufficientResources},
        {ERROR_NOT_SUPPORTED, status::kNotSupported},
        {ERROR_BUSY, status::kDeviceBusy},
        {ERROR_INSUFFICIENT_BUFFER, status::kBufferTooSmall},
        {ERROR_DEVICE_NOT_CONNECTED, status::kDeviceNotConnected},
        {ERROR_DEVICE_REMOVED, status::kDeviceRemoved},
        {ERROR_OPERATION_ABORTED, status::kCancelled},
        {ERROR_GEN_FAILURE, status::kUnsuccessful},
        {ERROR_ADAP_HDW_ERR, status::kAdapterHardwareError},
        {WAIT_TIMEOUT, status::kTimeout},
    };
    for (const Row &row : kRows)
        if (row.error == error)
            return row.status;
    return status::kUnsuccessful;
}

// One per thread: several threads wait on one handle, each for its own request.
class Event {
public:
    Event() : handle_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;
    ~Event()
    {
        if (handle_ != nullptr)
            CloseHandle(handle_);
    }
    HANDLE get() const { return handle_; }

private:
    HANDLE handle_;
};

std::wstring widen(std::string_view text)
{
    const int length = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(needed < 0 ? 0 : needed), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), needed);
    return wide;
}

std::string narrow(const wchar_t *text)
{
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(needed < 1 ? 0 : needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, bytes.data(), needed, nullptr, nullptr);
    if (!bytes.empty())
        bytes.pop_back();
    return bytes;
}

} // namespace

struct Port::Handle {
    explicit Handle(HANDLE handle) : file(handle) {}
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle() { CloseHandle(file); }
    HANDLE file;
};

Port::Port() = default;
Port::Port(Port &&) noexcept = default;
Port &Port::operator=(Port &&) noexcept = default;
Port::~Port() = default;

// Opened for overlapped requests: the system lets only one request at a time into a handle opened without.
Port Port::open(std::string_view name)
{
    Port port;
    port.name_ = name;
    const HANDLE file =
        CreateFileW(widen(name).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        port.status_ = statusOfLastError();
        return port;
    }
    port.handle_ = std::make_unique<Handle>(file);
    port.status_ = status::kSuccess;
    return port;
}

std::vector<std::string> Port::interfaceLinks(const USBCAM_GUID &interfaceClass)
{
    static_assert(sizeof(GUID) == sizeof(USBCAM_GUID));
    GUID guid;
    std::memcpy(&guid, &interfaceClass, sizeof guid);
    std::vector<std::string> links;
    const HDEVINFO set = SetupDiGetClassDevsW(&guid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (set == INVALID_HANDLE_VALUE)
        return links;
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof data;
    for (DWORD index = 0; SetupDiEnumDeviceInterfaces(set, nullptr, &guid, index, &data); ++index) {
        if ((data.Flags & SPINT_ACTIVE) == 0)
            continue;
        DWORD size = 0;
        SetupDiGetDeviceInterfaceDetailW(set, &data, nullptr, 0, &size, nullptr);
        if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W))
            continue;
        std::vector<std::max_align_t> memory(size / sizeof(std::max_align_t) + 1);
        auto *detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W *>(memory.data());
        detail->cbSize = sizeof *detail;
        if (SetupDiGetDeviceInterfaceDetailW(set, &data, detail, size, nullptr, nullptr))
            links.push_back(narrow(detail->DevicePath));
    }
    SetupDiDestroyDeviceInfoList(set);
    return links;
}

Port::operator bool() const
{
    return handle_ != nullptr;
}

void Port::close()
{
    handle_.reset();
}

IoResult Port::deviceControl(std::uint32_t code, ConstBytes in, Bytes out)
{
    if (!handle_)
        return {ntStatus(0xC0000008), 0}; // STATUS_INVALID_HANDLE
    thread_local Event event;
    OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    DWORD transferred = 0;
    const BOOL finished =
        DeviceIoControl(handle_->file, code, const_cast<std::uint8_t *>(in.data()), static_cast<DWORD>(in.size()),
                        out.data(), static_cast<DWORD>(out.size()), &transferred, &overlapped);
    if (!finished && GetLastError() != ERROR_IO_PENDING)
        return {statusOfLastError(), 0}; // refused at once: the system fills in no status block
    if (!finished)
        GetOverlappedResult(handle_->file, &overlapped, &transferred, TRUE);
    return {static_cast<NtStatus>(overlapped.Internal), overlapped.InternalHigh};
}

} // namespace vqt
