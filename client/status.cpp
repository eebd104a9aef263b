#include "client/status.h"

#include <cstdio>

namespace vqt {
namespace {

struct Name {
    std::uint32_t code;
    std::string_view name;
};

constexpr Name kNames[] = {
    {0x00000000, "STATUS_SUCCESS"},
    {0x00000102, "STATUS_TIMEOUT"},
    {0x00000103, "STATUS_PENDING"},
    {0x80000005, "STATUS_BUFFER_OVERFLOW"},
    {0x80000011, "STATUS_DEVICE_BUSY"},
    {0xC0000001, "STATUS_UNSUCCESSFUL"},
    {0xC0000002, "STATUS_NOT_IMPLEMENTED"},
    {0xC0000008, "STATUS_INVALID_HANDLE"},
    {0xC000000D, "STATUS_INVALID_PARAMETER"},
    {0xC000000E, "STATUS_NO_SUCH_DEVICE"},
    {0xC0000010, "STATUS_INVALID_DEVICE_REQUEST"},
    {0xC0000017, "STATUS_NO_MEMORY"},
    {0xC0000022, "STATUS_ACCESS_DENIED"},
    {0xC0000023, "STATUS_BUFFER_TOO_SMALL"},
    {0xC0000033, "STATUS_OBJECT_NAME_INVALID"},
    {0xC0000034, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {0xC000003A, "STATUS_OBJECT_PATH_NOT_FOUND"},
    {0xC0000056, "STATUS_DELETE_PENDING"},
    {0xC000009A, "STATUS_INSUFFICIENT_RESOURCES"},
    {0xC000009D, "STATUS_DEVICE_NOT_CONNECTED"},
    {0xC00000B5, "STATUS_IO_TIMEOUT"},
    {0xC00000BB, "STATUS_NOT_SUPPORTED"},
    {0xC00000C2, "STATUS_ADAPTER_HARDWARE_ERROR"},
    {0xC0000120, "STATUS_CANCELLED"},
    {0xC0000184, "STATUS_INVALID_DEVICE_STATE"},
    {0xC0000185, "STATUS_IO_DEVICE_ERROR"},
    {0xC0000206, "STATUS_INVALID_BUFFER_SIZE"},
    {0xC00002B6, "STATUS_DEVICE_REMOVED"},
};

} // namespace

std::string_view statusName(NtStatus status)
{
    for (const Name &entry : kNames)
        if (entry.code == static_cast<std::uint32_t>(status))
            return entry.name;
    return {};
}

std::string statusText(NtStatus status)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", static_cast<unsigned>(status));
    const std::string_view name = statusName(status);
    return name.empty() ? std::string(number) : std::string(name) + " (" + number + ")";
}

} // namespace vqt
