// vqtsetup: installs and removes the drivers of the package, on Windows and on Wine.
//
//   vqtsetup add-driver usbcam.inf    makes the camera driver known to the system; cameras that come later get it
//   vqtsetup add-bus simbus.inf       creates the simulated bus and installs its driver; waits until the bus can be opened
//   vqtsetup remove-bus               removes every simulated bus, and with it the cameras on it
//   vqtsetup remove-driver simbus.inf removes the package that was added from an INF file of this name
//   vqtsetup wait NAME SECONDS        waits until \\.\NAME can be opened
//   vqtsetup wait-gone NAME SECONDS   waits until it cannot
//
// Exit codes: 0 done, 1 failed (the reason is on stderr), 2 wrong usage.

#include <windows.h>
// The device installation functions need windows.h in front.
#include <newdev.h>
#include <setupapi.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "drv/simbus/control.h"

namespace {

constexpr GUID kSystemClass = {0x4D36E97D, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr DWORD kBusSeconds = 30;

std::wstring wide(const char *text)
{
    const int length = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(length > 0 ? length : 1), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, result.data(), length);
    result.pop_back();
    return result;
}

int failed(const char *what)
{
    const DWORD error = GetLastError();
    std::fprintf(stderr, "vqtsetup: %s failed, error %lu (0x%08lX)\n", what, error, error);
    return 1;
}

// A set of device information elements, destroyed with its owner.
class DeviceSet {
public:
    explicit DeviceSet(HDEVINFO handle) : handle_(handle) {}
    DeviceSet(const DeviceSet &) = delete;
    DeviceSet &operator=(const DeviceSet &) = delete;
    ~DeviceSet()
    {
        if (*this) {
            SetupDiDestroyDeviceInfoList(handle_);
        }
    }
    explicit operator bool() const { return handle_ != INVALID_HANDLE_VALUE; }
    HDEVINFO get() const { return handle_; }

private:
    HDEVINFO handle_;
};

std::optional<std::wstring> fullPath(const wchar_t *path)
{
    wchar_t buffer[MAX_PATH];
    const DWORD length = GetFullPathNameW(path, MAX_PATH, buffer, nullptr);
    if (length == 0 || length >= MAX_PATH || GetFileAttributesW(buffer) == INVALID_FILE_ATTRIBUTES) {
        return std::nullopt;
    }
    return std::wstring(buffer, length);
}

// The name that the system gave an INF file when it was added from `original`: oem0.inf and so on (Wine keeps the name).
std::optional<std::wstring> publishedName(const std::wstring &original)
{
    wchar_t directory[MAX_PATH];
    const UINT length = GetWindowsDirectoryW(directory, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        return std::nullopt;
    }
    const std::wstring pattern = std::wstring(directory) + L"\\INF\\*.inf";
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return std::nullopt;
    }
    std::optional<std::wstring> result;
    do {
        const std::wstring path = std::wstring(directory) + L"\\INF\\" + found.cFileName;
        std::vector<unsigned char> buffer(65536);
        SP_ORIGINAL_FILE_INFO_W info = {};
        info.cbSize = sizeof(info);
        auto *inf = reinterpret_cast<PSP_INF_INFORMATION>(buffer.data());
        if (SetupGetInfInformationW(path.c_str(), INFINFO_INF_NAME_IS_ABSOLUTE, inf,
                                    static_cast<DWORD>(buffer.size()), nullptr) &&
            SetupQueryInfOriginalFileInformationW(inf, 0, nullptr, &info) &&
            _wcsicmp(info.OriginalInfName, original.c_str()) == 0) {
            result = found.cFileName;
        }
    } while (!result && FindNextFileW(search, &found));
    FindClose(search);
    return result;
}

int addDriver(const std::wstring &inf)
{
    const auto path = fullPath(inf.c_str());
    if (!path) {
        return failed("finding the INF file");
    }
    if (!SetupCopyOEMInfW(path->c_str(), nullptr, SPOST_PATH, 0, nullptr, 0, nullptr, nullptr)) {
        return failed("SetupCopyOEMInf");
    }
    return 0;
}

int removeDriver(const std::wstring &inf)
{
    const auto name = publishedName(inf);
    if (!name) {
        std::fprintf(stderr, "vqtsetup: no package was added from %ls\n", inf.c_str());
        return 1;
    }
    return SetupUninstallOEMInfW(name->c_str(), SUOI_FORCEDELETE, nullptr) ? 0 : failed("SetupUninstallOEMInf");
}

int waitFor(const std::wstring &name, DWORD seconds, bool present)
{
    const std::wstring path = L"\\\\.\\" + name;
    const ULONGLONG end = GetTickCount64() + ULONGLONG{seconds} * 1000;
    do {
        const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
        const DWORD error = GetLastError();
        if (file != INVALID_HANDLE_VALUE) {
            CloseHandle(file);
        }
        // A name that is there but refuses to be opened is there, and is not what anybody waits for.
        if (present ? file != INVALID_HANDLE_VALUE
                    : file == INVALID_HANDLE_VALUE && (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)) {
            return 0;
        }
        Sleep(20);
    } while (GetTickCount64() < end);
    std::fprintf(stderr, "vqtsetup: %ls %s after %lu s\n", path.c_str(),
                 present ? "cannot be opened" : "can still be opened", seconds);
    return 1;
}

int addBus(const std::wstring &inf)
{
    const auto path = fullPath(inf.c_str());
    if (!path) {
        return failed("finding the INF file");
    }
    const DeviceSet set(SetupDiCreateDeviceInfoList(&kSystemClass, nullptr));
    if (!set) {
        return failed("SetupDiCreateDeviceInfoList");
    }
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    if (!SetupDiCreateDeviceInfoW(set.get(), L"VQTSIMBUS", &kSystemClass, nullptr, nullptr, DICD_GENERATE_ID,
                                  &device)) {
        return failed("SetupDiCreateDeviceInfo");
    }
    // A list of strings: each ends with a zero, the list with another.
    std::wstring ids = wide(VQT_SIMBUS_HARDWARE_ID);
    ids.append(2, L'\0');
    if (!SetupDiSetDeviceRegistryPropertyW(set.get(), &device, SPDRP_HARDWAREID,
                                           reinterpret_cast<const BYTE *>(ids.data()),
                                           static_cast<DWORD>(ids.size() * sizeof(wchar_t)))) {
        return failed("SetupDiSetDeviceRegistryProperty");
    }
    if (!SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set.get(), &device)) {
        return failed("DIF_REGISTERDEVICE");
    }
    BOOL reboot = FALSE;
    if (!UpdateDriverForPlugAndPlayDevicesW(nullptr, wide(VQT_SIMBUS_HARDWARE_ID).c_str(), path->c_str(),
                                            INSTALLFLAG_FORCE, &reboot)) {
        const int result = failed("UpdateDriverForPlugAndPlayDevices");
        SetupDiCallClassInstaller(DIF_REMOVE, set.get(), &device);
        return result;
    }
    if (reboot) {
        std::fprintf(stderr, "vqtsetup: the system has to be restarted before the bus can be used\n");
        return 0;
    }
    return waitFor(L"VqtSimBus", kBusSeconds, true);
}

bool isBus(HDEVINFO set, SP_DEVINFO_DATA &device)
{
    wchar_t ids[512] = {};
    if (!SetupDiGetDeviceRegistryPropertyW(set, &device, SPDRP_HARDWAREID, nullptr, reinterpret_cast<BYTE *>(ids),
                                           sizeof(ids) - 2 * sizeof(wchar_t), nullptr)) {
        return false;
    }
    const std::wstring wanted = wide(VQT_SIMBUS_HARDWARE_ID);
    for (const wchar_t *id = ids; *id != 0; id += std::wcslen(id) + 1) {
        if (_wcsicmp(id, wanted.c_str()) == 0) {
            return true;
        }
    }
    return false;
}

int removeBus()
{
    const DeviceSet set(SetupDiGetClassDevsW(nullptr, L"ROOT", nullptr, DIGCF_ALLCLASSES));
    if (!set) {
        return failed("SetupDiGetClassDevs");
    }
    int removed = 0;
    for (DWORD index = 0;; ++index) {
        SP_DEVINFO_DATA device = {};
        device.cbSize = sizeof(device);
        if (!SetupDiEnumDeviceInfo(set.get(), index, &device)) {
            break;
        }
        if (!isBus(set.get(), device)) {
            continue;
        }
        if (!SetupDiCallClassInstaller(DIF_REMOVE, set.get(), &device)) {
            return failed("DIF_REMOVE");
        }
        ++removed;
    }
    if (removed == 0) {
        std::fprintf(stderr, "vqtsetup: there is no simulated bus\n");
        return 1;
    }
    return 0;
}

int usage()
{
    std::fprintf(stderr, "usage: vqtsetup add-driver FILE.inf | add-bus FILE.inf | remove-bus | remove-driver FILE.inf |"
                         " wait NAME SECONDS | wait-gone NAME SECONDS\n");
    return 2;
}

} // namespace

int main(int count, char **arguments)
{
    const std::string command = count > 1 ? arguments[1] : "";
    if (count == 3 && command == "add-driver") {
        return addDriver(wide(arguments[2]));
    }
    if (count == 3 && command == "add-bus") {
        return addBus(wide(arguments[2]));
    }
    if (count == 2 && command == "remove-bus") {
        return removeBus();
    }
    if (count == 3 && command == "remove-driver") {
        return removeDriver(wide(arguments[2]));
    }
    if (count == 4 && (command == "wait" || command == "wait-gone")) {
        const unsigned long seconds = std::strtoul(arguments[3], nullptr, 10);
        return waitFor(wide(arguments[2]), seconds, command == "wait");
    }
    return usage();
}
