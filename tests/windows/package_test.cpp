// The driver images that the Windows build has made, and what stands beside them: INF files and the project files for
// the Windows Driver Kit. What an image imports and how it lies in memory, windows/check-image has judged when it was
// linked.
#include "drv/simbus/control.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

const std::filesystem::path kSource = USBCAM_SOURCE_DIR;
const std::filesystem::path kBuild = kSource / "build/windows";
using Sections = std::map<std::string, std::set<std::string>>;

std::string read(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string replaced(const std::string &text, const char *what, const std::string &with)
{
    return std::regex_replace(text, std::regex(what), with);
}

// Every match's first group.
std::set<std::string> found(const std::string &text, const std::string &pattern)
{
    const std::regex expression(pattern);
    std::set<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), expression), end; it != end; ++it)
        names.insert((*it)[1]);
    return names;
}

// The lines of an INF file by section, without comments and without the blanks around "=" and ",".
Sections inf(const std::filesystem::path &path)
{
    Sections sections;
    std::string section;
    std::istringstream file(read(path));
    for (std::string line; std::getline(file, line);) {
        line = replaced(line, "^((\"[^\"]*\"|[^\";])*);.*", "$1");
        line = replaced(replaced(line, "[ \\t\\r]+$", ""), "[ \\t]*([=,])[ \\t]*", "$1");
        if (line.starts_with('['))
            sections[section = line.substr(1, line.size() - 2)];
        else if (!line.empty())
            sections[section].insert(line);
    }
    return sections;
}

struct Package {
    std::string name, folder, models, hardwareId, security;
    Sections more; // than every driver needs
};

const Package kPackages[] = {
    {"usbcam",
     "usb",
     "Cameras",
     VQT_SIMBUS_CAMERA_HARDWARE_ID,
     "D:P(A;;GA;;;BA)(A;;GA;;;IU)",
     {{"usbcam_Install.NT.Services", {"AddService=usbcam,0x00000002,usbcam_Service,usbcam_EventLog"}},
      {"usbcam_EventLog", {"AddReg=usbcam_EventSource"}},
      {"usbcam_EventSource",
       {R"(HKR,,EventMessageFile,0x00020000,"%%SystemRoot%%\System32\IoLogMsg.dll;%13%\usbcam.sys")",
        "HKR,,TypesSupported,0x00010001,7"}}}},
    {"simbus",
     "simbus",
     "Buses",
     VQT_SIMBUS_HARDWARE_ID,
     "D:P(A;;GA;;;BA)",
     {{"simbus_Install.NT.Services", {"AddService=simbus,0x00000002,simbus_Service"}}}},
};

// A section or a directive under another name would be passed over in silence by the installer.
TEST(Packages, InfInstallsTheDriver)
{
    for (const Package &package : kPackages) {
        const std::string &name = package.name;
        const Sections got = inf(kSource / "drv" / package.folder / (name + ".inf"));
        Sections wanted = package.more;
        wanted.insert({{"Version", {"Signature=\"$WINDOWS NT$\"", "CatalogFile=" + name + ".cat", "PnpLockdown=1"}},
                       {"DestinationDirs", {"DefaultDestDir=13"}},
                       {"SourceDisksNames", {"1=%Disk%"}},
                       {"SourceDisksFiles", {name + ".sys=1"}},
                       {"Manufacturer", {"%Provider%=" + package.models + ",NTamd64"}},
                       {package.models + ".NTamd64", {}},
                       {name + "_Install.NT", {"CopyFiles=" + name + "_Files"}},
                       {name + "_Files", {name + ".sys"}},
                       {name + "_Install.NT.HW", {"AddReg=" + name + "_Device"}},
                       {name + "_Device", {"HKR,,Security,,\"" + package.security + "\""}},
                       {name + "_Service", {"ServiceType=1", "StartType=3", "ServiceBinary=%13%\\" + name + ".sys"}},
                       {"Strings", {}}});
        std::string text;
        for (const auto &[section, lines] : got) {
            EXPECT_TRUE(wanted.contains(section)) << section << " is a section that nothing names";
            for (const std::string &line : lines)
                text += line + "\n";
        }
        for (const auto &[section, lines] : wanted) {
            ASSERT_TRUE(got.contains(section)) << section;
            for (const std::string &line : lines)
                EXPECT_TRUE(got.at(section).contains(line)) << section << ": " << line;
        }
        const auto &devices = got.at(package.models + ".NTamd64");
        ASSERT_EQ(devices.size(), 1u);
        EXPECT_TRUE(devices.begin()->ends_with("=" + name + "_Install," + package.hardwareId)) << *devices.begin();
        const std::string date = "(0[1-9]|1[0-2])/[0-3][0-9]/20[0-9]{2}",
                          version = replaced(USBCAM_VERSION, "\\.", "\\.");
        EXPECT_EQ(found(text, "(DriverVer)=" + date + "," + version + "\\.0\n").size(), 1u) << text;
        for (const std::string &string : found(replaced(text, "%%", ""), "%([A-Za-z]+)%"))
            EXPECT_EQ(found(text, "(^|\n)" + string + "=\"").size(), 1u) << "no string " << string;
    }
}

// The kit's project compiles what the other two builds compile, the sources of the folder, and the Windows build has
// linked just that.
TEST(Packages, KitProjectListsTheSources)
{
    for (const Package &package : kPackages) {
        std::map<std::string, std::set<std::string>> here;
        for (const auto &entry : std::filesystem::directory_iterator(kSource / "drv" / package.folder))
            here[entry.path().extension().string()].insert(entry.path().filename().string());
        const std::string project = read(kSource / "windows" / (package.name + ".vcxproj"));
        for (const auto &[element, extension] :
             {std::pair{"ClCompile", ".cpp"}, {"ClInclude", ".h"}, {"MessageCompile", ".mc"}, {"Inf", ".inf"}}) {
            const std::string include = std::string("<") + element + R"( Include="\.\.\\drv\\)";
            const std::string file = R"(\\([^"\\]+))";
            EXPECT_EQ(found(project, include + package.folder + file), here[extension]) << package.name;
        }
        std::set<std::string> linked;
        const std::string objects = read(kBuild / (package.name + ".objects"));
        for (const std::string &source : found(objects, R"(([A-Za-z0-9_]+)\.(cpp|clang)\.obj)"))
            linked.insert(source + ".cpp");
        EXPECT_EQ(linked, here[".cpp"]);
    }
}

// The texts of an image's resources are UTF-16.
bool holds(const std::string &image, const std::string &text)
{
    std::string wide;
    for (const char c : text)
        wide.append({c, '\0'});
    return image.find(wide) != std::string::npos;
}

TEST(Images, HoldTheVersionAndTheMessages)
{
    const std::string camera = read(kBuild / "usbcam.sys");
    EXPECT_TRUE(holds(camera, USBCAM_VERSION));
    for (const char *message :
         {"The devive '%1' used USB 1.x full-speed (12 Mbits/sec) configuration.\r\n",
          "Can not get hardware camera info for device '%1'.\r\n",
          "Can not get camera information from device '%1'.\r\n", "Camera has invalid firmware, AFirmware=\r\n",
          "Camera has invalid firmware, HwModelID=\r\n", "Unable get camera ChipID.\r\n",
          "Camera has invalid ChipID.\r\n", "Out of memory, device '%1'.\r\n"})
        EXPECT_TRUE(holds(camera, message)) << message;
}

// The Wine flavour may add objects to the driver's own, and may not change one of them.
TEST(Images, FlavoursShareEveryObject)
{
    for (const std::string name : {"usbcam", "simbus"}) {
        const auto objects = [&](const std::filesystem::path &directory) {
            return found(read(directory / (name + ".objects")), "([^\n]+)");
        };
        const auto ours = objects(kBuild), wine = objects(kBuild / "wine");
        EXPECT_GT(ours.size(), 5u);
        EXPECT_TRUE(std::ranges::includes(wine, ours)) << name;
        EXPECT_EQ(wine.size(), ours.size() + 1) << name;
        EXPECT_TRUE(std::ranges::any_of(wine, [](auto &line) { return line.ends_with("wine_missing.cpp.obj"); }));
    }
}

} // namespace
