// Device properties and device interfaces.
#include <algorithm>
#include <cstring>

#include "ntos/memory.h"
#include "ntos/pnp.h"

namespace ntos {

namespace {

struct Interface {
    std::string link;     // \??\ROOT#SIMBUS#0000#{...}
    Guid guid;
    PDEVICE_OBJECT pdo;
    std::uint64_t node;
    bool enabled = false;
};
struct Interfaces {
    std::mutex lock;
    std::vector<Interface> all;
};
Interfaces &interfaces()
{
    static auto *instance = new Interfaces;
    return *instance;
}

Guid fromGuid(const GUID &guid)
{
    Guid g{guid.Data1, guid.Data2, guid.Data3, {}};
    std::copy(std::begin(guid.Data4), std::end(guid.Data4), g.data4);
    return g;
}

NTSTATUS copyProperty(const void *data, std::size_t length, ULONG bufferLength, PVOID buffer, PULONG resultLength)
{
    *resultLength = static_cast<ULONG>(length);
    if (length > bufferLength)
        return STATUS_BUFFER_TOO_SMALL;
    memcpy(buffer, data, length);
    return STATUS_SUCCESS;
}

NTSTATUS copyStrings(const std::vector<std::string> &strings, bool many, ULONG bufferLength, PVOID buffer, PULONG resultLength)
{
    if (strings.empty() || (!many && strings.front().empty()))
        return STATUS_OBJECT_NAME_NOT_FOUND;
    std::vector<wchar_t> wide;
    for (const std::string &string : strings) {
        const auto one = toWide(string);
        wide.insert(wide.end(), one.begin(), one.end());
        wide.push_back(0);
    }
    if (many)
        wide.push_back(0);
    return copyProperty(wide.data(), wide.size() * sizeof(wchar_t), bufferLength, buffer, resultLength);
}

} // namespace

std::string toString(const Guid &guid)
{
    return text("{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", guid.data1, guid.data2, guid.data3, guid.data4[0],
                guid.data4[1], guid.data4[2], guid.data4[3], guid.data4[4], guid.data4[5], guid.data4[6], guid.data4[7]);
}

std::vector<std::string> enabledInterfacesOf(PDEVICE_OBJECT device)
{
    std::vector<std::string> links;
    std::lock_guard guard(interfaces().lock);
    for (const Interface &entry : interfaces().all)
        if (entry.enabled && entry.pdo == device)
            links.push_back(entry.link);
    return links;
}

std::vector<std::string> interfacesOfNode(const DevNode &node)
{
    std::vector<std::string> links;
    std::lock_guard guard(interfaces().lock);
    for (const Interface &entry : interfaces().all)
        if (entry.enabled && entry.node == node.id)
            links.push_back(entry.link);
    return links;
}

void disableInterfacesOf(const DevNode &node)
{
    std::lock_guard guard(interfaces().lock);
    for (Interface &entry : interfaces().all)
        if (entry.enabled && entry.node == node.id) {
            deleteLink(entry.link);
            entry.enabled = false;
        }
}

std::size_t interfacesLeft()
{
    std::lock_guard guard(interfaces().lock);
    return static_cast<std::size_t>(
        std::count_if(interfaces().all.begin(), interfaces().all.end(), [](auto &entry) { return entry.enabled; }));
}

void forgetInterfaces()
{
    std::lock_guard guard(interfaces().lock);
    interfaces().all.clear();
}

std::vector<std::string> Machine::interfaces(const Guid &interfaceClass) const
{
    std::vector<std::string> links;
    std::lock_guard guard(ntos::interfaces().lock);
    for (const Interface &entry : ntos::interfaces().all)
        if (entry.enabled && entry.guid == interfaceClass)
            links.push_back("\\\\?\\" + entry.link.substr(4));
    return links;
}

} // namespace ntos

using namespace ntos;

extern "C" {

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID *InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName)
{
    NTOS_DOOR(IoRegisterDeviceInterface, PASSIVE_LEVEL, true);
    if (enter(kDoor))
        return STATUS_INSUFFICIENT_RESOURCES;
    Interface entry;
    {
        std::lock_guard guard(treeLock());
        const DevNode *node = nodeOfPdo(PhysicalDeviceObject);
        if (node == nullptr)
            return STATUS_INVALID_DEVICE_REQUEST;
        std::string path = node->instancePath;
        std::replace(path.begin(), path.end(), '\\', '#');
        entry.guid = fromGuid(*InterfaceClassGuid);
        entry.link = "\\??\\" + path + "#" + toString(entry.guid);
        entry.pdo = PhysicalDeviceObject;
        entry.node = node->id;
    }
    if (ReferenceString != nullptr && ReferenceString->Length != 0)
        entry.link += "\\" + toUtf8(ReferenceString);
    const std::vector<wchar_t> wide = toWide(entry.link);
    // The caller frees it with RtlFreeUnicodeString.
    auto *buffer = static_cast<PWSTR>(poolAllocate((wide.size() + 1) * sizeof(wchar_t), 'piSI', currentDriver()));
    if (buffer == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    memcpy(buffer, wide.data(), wide.size() * sizeof(wchar_t));
    buffer[wide.size()] = 0;
    *SymbolicLinkName = {static_cast<USHORT>(wide.size() * 2), static_cast<USHORT>(wide.size() * 2 + 2), buffer};
    std::lock_guard guard(interfaces().lock);
    auto known = std::find_if(interfaces().all.begin(), interfaces().all.end(), [&](auto &other) { return other.link == entry.link; });
    if (known != interfaces().all.end()) {
        known->pdo = entry.pdo;
        known->node = entry.node;
    } else {
        interfaces().all.push_back(entry);
    }
    return STATUS_SUCCESS;
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable)
{
    NTOS_DOOR(IoSetDeviceInterfaceState, PASSIVE_LEVEL, true);
    const bool fails = enter(kDoor);
    if (fails && Enable)
        return STATUS_INSUFFICIENT_RESOURCES;
    const std::string link = SymbolicLinkName->Buffer == nullptr ? std::string() : toUtf8(SymbolicLinkName);
    std::lock_guard guard(interfaces().lock);
    auto found = std::find_if(interfaces().all.begin(), interfaces().all.end(),
                              [&](auto &entry) { return lowerCase(entry.link) == lowerCase(link); });
    if (found == interfaces().all.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (Enable && found->enabled)
        return STATUS_OBJECT_NAME_EXISTS;
    if (!Enable && !found->enabled)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (Enable) {
        const std::string &target = deviceRecord(found->pdo)->name;
        if (target.empty())
            return STATUS_INVALID_DEVICE_REQUEST;
        const NTSTATUS status = createLink(found->link, target, true, nullptr);
        if (!NT_SUCCESS(status))
            return status;
    } else {
        deleteLink(found->link);
    }
    found->enabled = Enable;
    return STATUS_SUCCESS;
}

NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty, ULONG BufferLength,
                             PVOID PropertyBuffer, PULONG ResultLength)
{
    NTOS_DOOR(IoGetDeviceProperty, PASSIVE_LEVEL, true);
    *ResultLength = 0;
    if (enter(kDoor))
        return STATUS_INSUFFICIENT_RESOURCES;
    std::lock_guard guard(treeLock());
    const DevNode *node = nodeOfPdo(DeviceObject);
    if (node == nullptr)
        return STATUS_INVALID_DEVICE_REQUEST;
    auto string = [&](const std::string &s) { return copyStrings({s}, false, BufferLength, PropertyBuffer, ResultLength); };
    switch (DeviceProperty) {
    case DevicePropertyDeviceDescription:
        return string(node->description);
    case DevicePropertyHardwareID:
        return copyStrings(node->hardwareIds, true, BufferLength, PropertyBuffer, ResultLength);
    case DevicePropertyCompatibleIDs:
        return copyStrings(node->compatibleIds, true, BufferLength, PropertyBuffer, ResultLength);
    case DevicePropertyManufacturer: {
        for (const DriverRecord *driver : drivers())
            for (const std::string &claimed : driver->registration.hardwareIds)
                for (const std::string &id : node->hardwareIds)
                    if (lowerCase(claimed) == lowerCase(id))
                        return string(driver->registration.manufacturer);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    case DevicePropertyLocationInformation:
        return string(node->location);
    case DevicePropertyPhysicalDeviceObjectName:
        return string(node->pdoName);
    case DevicePropertyEnumeratorName:
        return string(node->instancePath.substr(0, node->instancePath.find('\\')));
    case DevicePropertyUINumber:
    case DevicePropertyAddress: {
        const ULONG number = DeviceProperty == DevicePropertyAddress ? node->address : node->uiNumber;
        if (number == 0xFFFFFFFF)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        return copyProperty(&number, sizeof number, BufferLength, PropertyBuffer, ResultLength);
    }
    default:
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
}

} // extern "C"
