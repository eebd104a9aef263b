// The object namespace: device names and symbolic links, without regard to case; \DosDevices\X and \??\X are one name.
#include "ntos/io.h"

#include <algorithm>

namespace ntos {

namespace {

struct Entry {
    std::string name;               // as created
    PDEVICE_OBJECT device = nullptr;
    std::string target;             // of a link
    bool isInterface = false;
    DriverRecord *owner = nullptr;
    bool dangling = false;          // its device was deleted under it
};
struct Names {
    std::mutex lock;
    std::map<std::string, Entry> entries;
    std::set<PDEVICE_OBJECT> devices;
};
Names &names()
{
    static auto *instance = new Names;
    return *instance;
}

constexpr std::string_view kDosPrefix = "\\??\\";

} // namespace

std::string lowerCase(std::string_view string)
{
    std::string s(string);
    std::transform(s.begin(), s.end(), s.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return s;
}

std::string canonicalName(std::string_view name)
{
    std::string s = lowerCase(name);
    for (std::string_view prefix : {"\\dosdevices\\", "\\global??\\", "\\\\.\\", "\\\\?\\"})
        if (s.starts_with(prefix))
            return std::string(kDosPrefix) + s.substr(prefix.size());
    return s;
}

std::string toUtf8(const wchar_t *string, std::size_t length)
{
    std::string s;
    for (std::size_t i = 0; i < length; i++) {
        unsigned c = static_cast<std::uint16_t>(string[i]);
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < length && (static_cast<std::uint16_t>(string[i + 1]) & 0xFC00) == 0xDC00)
            c = 0x10000 + ((c & 0x3FF) << 10) + (static_cast<std::uint16_t>(string[++i]) & 0x3FF);
        if (c < 0x80) {
            s += static_cast<char>(c);
        } else if (c < 0x800) {
            s += {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
        } else if (c < 0x10000) {
            s += {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
        } else {
            s += {static_cast<char>(0xF0 | (c >> 18)), static_cast<char>(0x80 | ((c >> 12) & 0x3F)),
                  static_cast<char>(0x80 | ((c >> 6) & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
        }
    }
    return s;
}

std::string toUtf8(PCUNICODE_STRING string)
{
    return toUtf8(string->Buffer, string->Length / sizeof(wchar_t));
}

std::vector<wchar_t> toWide(std::string_view string)
{
    std::vector<wchar_t> wide;
    for (std::size_t i = 0; i < string.size();) {
        const auto lead = static_cast<std::uint8_t>(string[i]);
        const std::size_t extra = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        unsigned c = extra == 0 ? lead : lead & (0x3Fu >> extra);
        for (std::size_t k = 1; k <= extra && i + k < string.size(); k++)
            c = (c << 6) | (static_cast<std::uint8_t>(string[i + k]) & 0x3F);
        i += extra + 1;
        if (c >= 0x10000) {
            wide.push_back(static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)));
            c = 0xDC00 + (c & 0x3FF);
        }
        wide.push_back(static_cast<wchar_t>(c));
    }
    return wide;
}

NTSTATUS createLink(const std::string &name, const std::string &target, bool isInterface, DriverRecord *owner)
{
    const std::string key = canonicalName(name);
    if (!key.starts_with(kDosPrefix) || key.size() == kDosPrefix.size())
        return STATUS_OBJECT_PATH_NOT_FOUND;
    std::lock_guard guard(names().lock);
    Entry entry;
    entry.name = name.substr(name.size() - (key.size() - kDosPrefix.size()));
    entry.target = target;
    entry.isInterface = isInterface;
    entry.owner = owner;
    return names().entries.emplace(key, std::move(entry)).second ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

NTSTATUS deleteLink(const std::string &name)
{
    std::lock_guard guard(names().lock);
    auto found = names().entries.find(canonicalName(name));
    if (found == names().entries.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (found->second.device != nullptr)
        return STATUS_OBJECT_TYPE_MISMATCH;
    names().entries.erase(found);
    return STATUS_SUCCESS;
}

std::optional<std::string> linkTarget(std::string_view name)
{
    std::string key = canonicalName(name);
    if (!key.starts_with("\\"))
        key = std::string(kDosPrefix) + key;
    std::lock_guard guard(names().lock);
    auto found = names().entries.find(key);
    if (found == names().entries.end() || found->second.device != nullptr)
        return {};
    return found->second.target;
}

std::vector<std::pair<std::string, std::string>> links()
{
    std::vector<std::pair<std::string, std::string>> all;
    std::lock_guard guard(names().lock);
    for (auto &[key, entry] : names().entries)
        if (entry.device == nullptr && !entry.isInterface)
            all.emplace_back(entry.name, entry.target);
    return all;
}

std::vector<std::string> linksOf(const DriverRecord *owner)
{
    std::vector<std::string> all;
    std::lock_guard guard(names().lock);
    for (auto &[key, entry] : names().entries)
        if (entry.device == nullptr && entry.owner == owner)
            all.push_back(entry.name);
    return all;
}

bool deviceNamed(std::string_view name)
{
    std::lock_guard guard(names().lock);
    auto found = names().entries.find(canonicalName(name));
    return found != names().entries.end() && found->second.device != nullptr;
}

void checkDanglingLinks(const char *when)
{
    std::vector<std::string> dangling;
    {
        std::lock_guard guard(names().lock);
        for (auto &[key, entry] : names().entries) {
            if (!entry.dangling)
                continue;
            auto target = names().entries.find(canonicalName(entry.target));
            entry.dangling = false;
            if (target == names().entries.end())
                dangling.push_back(entry.name + " to " + entry.target);
        }
    }
    for (const std::string &link : dangling)
        violate("link left to a deleted device", when, link, 0xC4, 0x62);
}

NTSTATUS openDevice(std::string name, PDEVICE_OBJECT *device, std::string *rest)
{
    std::lock_guard guard(names().lock);
    rest->clear();
    for (int hops = 0; hops < 16;) {
        const std::string key = canonicalName(name);
        auto found = names().entries.find(key);
        if (found == names().entries.end()) {
            const std::size_t cut = name.rfind('\\');
            if (cut == std::string::npos || cut <= 3)
                return rest->empty() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            *rest = name.substr(cut) + *rest;
            name.resize(cut);
            continue;
        }
        if (found->second.device == nullptr) {
            name = found->second.target;
            hops++;
            continue;
        }
        PDEVICE_OBJECT object = found->second.device;
        // What a program gets to know about a device that is coming or going.
        DeviceRecord *record = static_cast<DeviceRecord *>(object->DeviceObjectExtension);
        if (record->deletePending || record->removePending || (object->Flags & DO_DEVICE_INITIALIZING))
            return STATUS_NO_SUCH_DEVICE;
        if (record->exclusive && object->ReferenceCount != 0)
            return STATUS_ACCESS_DENIED;
        object->ReferenceCount++;
        *device = object;
        return STATUS_SUCCESS;
    }
    return STATUS_OBJECT_NAME_INVALID;
}

// ------------------------------------------------------------------------------------------------------------- devices

DeviceRecord *deviceRecord(PDEVICE_OBJECT device)
{
    return static_cast<DeviceRecord *>(device->DeviceObjectExtension);
}

std::string deviceText(PDEVICE_OBJECT device)
{
    if (device == nullptr)
        return "no device";
    {
        std::lock_guard guard(names().lock);
        if (!names().devices.contains(device))
            return text("deleted device %p", static_cast<void *>(device));
    }
    const DeviceRecord *record = deviceRecord(device);
    return record->name.empty() ? text("device %p of %s", static_cast<void *>(device), driverName(record->driver).c_str()) : record->name;
}

bool deviceAlive(PDEVICE_OBJECT device)
{
    std::lock_guard guard(names().lock);
    return names().devices.contains(device);
}

NTSTATUS nameDevice(PDEVICE_OBJECT device, const std::string &name)
{
    std::lock_guard guard(names().lock);
    if (!name.empty()) {
        if (!lowerCase(name).starts_with("\\device\\"))
            return STATUS_OBJECT_PATH_NOT_FOUND;
        Entry entry;
        entry.name = name;
        entry.device = device;
        if (!names().entries.emplace(canonicalName(name), std::move(entry)).second)
            return STATUS_OBJECT_NAME_COLLISION;
    }
    names().devices.insert(device);
    return STATUS_SUCCESS;
}

// Takes the device's name away and lets nobody open it any more. True: no handle is left.
bool retireDevice(PDEVICE_OBJECT device)
{
    std::lock_guard guard(names().lock);
    deviceRecord(device)->deletePending = true;
    const bool closed = device->ReferenceCount == 0;
    const std::string &name = deviceRecord(device)->name;
    if (name.empty())
        return closed;
    const std::string key = canonicalName(name);
    names().entries.erase(key);
    for (auto &[linkKey, entry] : names().entries)
        if (entry.device == nullptr && canonicalName(entry.target) == key)
            entry.dangling = true;
    return closed;
}

void dropDevice(PDEVICE_OBJECT device)
{
    std::lock_guard guard(names().lock);
    names().devices.erase(device);
}

void closeDevice(PDEVICE_OBJECT device)
{
    bool gone = false;
    {
        std::lock_guard guard(names().lock);
        device->ReferenceCount--;
        gone = device->ReferenceCount == 0 && deviceRecord(device)->deletePending;
    }
    if (gone)
        dereferenceDevice(device);
}

std::size_t handlesOnStack(PDEVICE_OBJECT anyOfStack)
{
    std::lock_guard guard(names().lock);
    std::size_t handles = 0;
    for (PDEVICE_OBJECT d = anyOfStack; d != nullptr; d = d->AttachedDevice)
        handles += static_cast<std::size_t>(d->ReferenceCount);
    for (PDEVICE_OBJECT d = deviceRecord(anyOfStack)->attachedTo; d != nullptr; d = deviceRecord(d)->attachedTo)
        handles += static_cast<std::size_t>(d->ReferenceCount);
    return handles;
}

void setRemovePending(PDEVICE_OBJECT anyOfStack, bool pending)
{
    std::lock_guard guard(names().lock);
    PDEVICE_OBJECT bottom = anyOfStack;
    while (deviceRecord(bottom)->attachedTo != nullptr)
        bottom = deviceRecord(bottom)->attachedTo;
    for (PDEVICE_OBJECT d = bottom; d != nullptr; d = d->AttachedDevice)
        deviceRecord(d)->removePending = pending;
}

PDEVICE_OBJECT topOfStack(PDEVICE_OBJECT device)
{
    std::lock_guard guard(names().lock);
    while (device->AttachedDevice != nullptr)
        device = device->AttachedDevice;
    return device;
}

PDEVICE_OBJECT bottomOfStack(PDEVICE_OBJECT device)
{
    std::lock_guard guard(names().lock);
    while (deviceRecord(device)->attachedTo != nullptr)
        device = deviceRecord(device)->attachedTo;
    return device;
}

PDEVICE_OBJECT attach(PDEVICE_OBJECT source, PDEVICE_OBJECT target)
{
    std::lock_guard guard(names().lock);
    while (target->AttachedDevice != nullptr)
        target = target->AttachedDevice;
    if (deviceRecord(target)->deletePending)
        return nullptr;
    target->AttachedDevice = source;
    source->StackSize = static_cast<CCHAR>(target->StackSize + 1);
    source->AlignmentRequirement = target->AlignmentRequirement;
    deviceRecord(source)->attachedTo = target;
    deviceRecord(target)->references++; // a bus deletes its device object before those above have let go of it
    return target;
}

bool detach(PDEVICE_OBJECT target)
{
    {
        std::lock_guard guard(names().lock);
        if (target->AttachedDevice == nullptr)
            return false;
        deviceRecord(target->AttachedDevice)->attachedTo = nullptr;
        target->AttachedDevice = nullptr;
    }
    dereferenceDevice(target);
    return true;
}

std::size_t devices()
{
    std::lock_guard guard(names().lock);
    return names().devices.size();
}

std::vector<PDEVICE_OBJECT> devicesOf(const DriverRecord *driver)
{
    std::vector<PDEVICE_OBJECT> found;
    std::lock_guard guard(names().lock);
    for (PDEVICE_OBJECT device : names().devices)
        if (deviceRecord(device)->driver == driver)
            found.push_back(device);
    return found;
}

void forgetDevices()
{
    std::lock_guard guard(names().lock);
    for (PDEVICE_OBJECT device : names().devices) {
        DeviceRecord *record = deviceRecord(device);
        forgetObject(device);
        delete record;
    }
    names().devices.clear();
}

void forgetNames()
{
    std::lock_guard guard(names().lock);
    names().entries.clear();
}

} // namespace ntos
