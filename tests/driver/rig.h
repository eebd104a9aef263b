// A machine with both drivers and a simulated bus, and what a program asks of them: plugging, scripted faults, requests
// to a camera, and the trace as text. Nothing here judges; a step that cannot fail on a sound machine ends the program.
#pragma once

#include "client/bay.h"
#include "client/camera.h"
#include "drv/usb/ioctl.h"
#include "ntos/machine.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

extern "C" {
ntos::NtStatus UsbcamDriverEntry(::_DRIVER_OBJECT *driverObject, ::_UNICODE_STRING *registryPath);
ntos::NtStatus SimbusDriverEntry(::_DRIVER_OBJECT *driverObject, ::_UNICODE_STRING *registryPath);
}

namespace rig {

using ntos::NtStatus;
using ntos::Result;

namespace st {
constexpr NtStatus success = 0;
constexpr NtStatus unsuccessful = ntos::ntStatus(0xC0000001);
constexpr NtStatus noSuchDevice = ntos::ntStatus(0xC000000E);
constexpr NtStatus invalidDeviceRequest = ntos::ntStatus(0xC0000010);
constexpr NtStatus noMemory = ntos::ntStatus(0xC0000017);
constexpr NtStatus nameCollision = ntos::ntStatus(0xC0000035);
constexpr NtStatus insufficientResources = ntos::ntStatus(0xC000009A);
constexpr NtStatus adapterHardwareError = ntos::ntStatus(0xC00000C2);
constexpr NtStatus deviceRemoved = ntos::ntStatus(0xC00002B6);
} // namespace st

[[noreturn]] inline void fail(const std::string &what)
{
    std::fprintf(stderr, "rig: %s\n", what.c_str());
    std::abort();
}

using Bytes = std::vector<std::uint8_t>;

template <typename Head> Bytes pack(const Head &head)
{
    const auto *at = reinterpret_cast<const std::uint8_t *>(&head);
    return Bytes(at, at + sizeof head);
}

// A pattern in which ~ stands for any text, also none.
inline bool matches(std::string_view pattern, std::string_view text)
{
    const std::size_t star = pattern.find('~');
    if (star == std::string_view::npos)
        return pattern == text;
    if (text.substr(0, star) != pattern.substr(0, star))
        return false;
    for (std::size_t at = star; at <= text.size(); ++at)
        if (matches(pattern.substr(star + 1), text.substr(at)))
            return true;
    return false;
}

// Empty when every line matches its pattern; else says where the lists part.
inline std::string difference(const std::vector<std::string> &got, const std::vector<std::string> &wanted)
{
    const auto [g, w] = std::mismatch(got.begin(), got.end(), wanted.begin(), wanted.end(),
                                      [](const auto &line, const auto &pattern) { return matches(pattern, line); });
    if (g == got.end() && w == wanted.end())
        return {};
    return "line " + std::to_string(g - got.begin()) + " is " + (g == got.end() ? "not there" : *g);
}

inline simbus::PLUG_REQUEST model(std::uint32_t number, bool mono = true)
{
    simbus::PLUG_REQUEST request{};
    request.Model = number;
    request.Mono = mono;
    request.Flags = simbus::kPlugPaceGiven; // 0: as fast as it is read
    return request;
}

inline FRAME_PARAMETERS window(std::int32_t x, std::int32_t y, std::int32_t width, std::int32_t height,
                               std::int32_t decimation = 1, std::uint8_t flipY = 0, std::uint8_t flipX = 0)
{
    return {x, y, width, height, decimation, 0, flipY, flipX};
}

struct Camera {
    std::uint32_t slot = ~0u;
    ntos::Device device;
    char id = 0; // last character of its names, 0 when it got none
};

// An open camera.
class Handle {
public:
    Handle() = default;
    explicit Handle(ntos::File &&file) : file_(std::move(file)) {}
    ntos::File &file() { return file_; }
    explicit operator bool() const { return static_cast<bool>(file_); }
    void close() { file_.close(); }

    template <typename In> NtStatus set(std::uint32_t code, const In &in)
    {
        return file_.deviceControl(code, &in, sizeof in, nullptr, 0).status;
    }
    template <typename Out> NtStatus get(std::uint32_t code, Out &out)
    {
        const Result result = file_.deviceControl(code, nullptr, 0, &out, sizeof out);
        return result.ok() && result.information != sizeof out ? st::unsuccessful : result.status;
    }
    NtStatus status(std::uint8_t value) { return set(IOCTL_SetCameraStatus, value); }
    NtStatus window(const FRAME_PARAMETERS &wanted) { return set(IOCTL_SetFrameParameters, wanted); }
    template <typename Out> Out read(std::uint32_t code)
    {
        Out now{};
        if (!ntos::succeeded(get(code, now)))
            fail("what can always be read cannot");
        return now;
    }
    FRAME_PARAMETERS window()
    {
        return read<FRAME_PARAMETERS>(IOCTL_GetFrameParameters);
    }
    CAMERA_STATE state()
    {
        return read<CAMERA_STATE>(IOCTL_GetState);
    }
    std::uint8_t cameraStatus()
    {
        std::uint8_t now = 0xFF;
        get(IOCTL_GetCameraStatus, now);
        return now;
    }
    // The next frame, header first.
    NtStatus frame(Bytes &buffer)
    {
        const Result result = file_.deviceControl(IOCTL_GetFrameEx, nullptr, 0, buffer.data(), buffer.size());
        return result.ok() && result.information < kFrameHeaderSize ? st::unsuccessful : result.status;
    }
    // A camera command; the reply's payload replaces the contents of reply.
    NtStatus command(const Bytes &bytes, Bytes &reply)
    {
        const Result result =
            file_.deviceControl(IOCTL_HwCommand, bytes.data(), bytes.size(), reply.data(), reply.size());
        reply.resize(result.information);
        return result.status;
    }

private:
    ntos::File file_;
};

class Rig {
public:
    explicit Rig(const ntos::Options &options = {}, bool traced = true)
        : machine(options), bus(boot(traced)), bay(vqt::Bay::open().value())
    {
    }

    ntos::Machine machine;
    ntos::Device bus;
    vqt::Bay bay;

    // ------------------------------------------------------------------------------------------------------ the bus

    void askBus(std::uint32_t code, const Bytes &in, std::span<std::uint8_t> out = {})
    {
        const vqt::IoResult result = bay.port().deviceControl(code, in, out);
        if (!result.ok())
            fail("the bus refuses request " + std::to_string(code) + " with " + std::to_string(result.status));
    }
    std::set<std::uint32_t> slots()
    {
        std::set<std::uint32_t> found;
        for (const simbus::LIST_ENTRY_RECORD &entry : bay.list().value())
            found.insert(entry.Slot);
        return found;
    }

    // Plugs a camera and waits until it is started or has failed to. beforeStart runs when the driver is given the
    // camera, ahead of the first word it says to it.
    Camera plug(const simbus::PLUG_REQUEST &request, const std::function<void(std::uint32_t slot)> &beforeStart = {})
    {
        const std::vector<ntos::Device> before = machine.devices(VQT_SIMBUS_CAMERA_HARDWARE_ID);
        const std::set<char> taken = ids();
        const std::set<std::uint32_t> known = slots();
        if (beforeStart) {
            machine.faults().only({"usbcam"});
            machine.faults().resetCalls();
            machine.faults().atCall(1, [&](const ntos::KernelCall &) {
                for (const std::uint32_t slot : slots())
                    if (!known.count(slot))
                        beforeStart(slot);
            });
        }
        simbus::SLOT_RECORD slot{};
        askBus(simbus::kIoctlPlug, pack(request), {reinterpret_cast<std::uint8_t *>(&slot), sizeof slot});
        machine.settle();
        if (beforeStart)
            machine.faults().off();
        Camera camera;
        camera.slot = slot.Slot;
        for (const ntos::Device &device : machine.devices(VQT_SIMBUS_CAMERA_HARDWARE_ID))
            if (std::find(before.begin(), before.end(), device) == before.end())
                camera.device = device;
        for (const char id : ids())
            if (!taken.count(id))
                camera.id = id;
        return camera;
    }
    void unplug(const Camera &camera)
    {
        bay.unplug(camera.slot).value();
        machine.settle();
    }
    simbus::CAMERA_STATE sensor(const Camera &camera)
    {
        return bay.state(camera.slot).value();
    }
    // What travelled on the control pipe, oldest first: "> 1F 0D 34 12" for a command, "< 90" for a reply.
    std::vector<std::string> wire(const Camera &camera, bool replies = false)
    {
        std::vector<std::string> lines;
        for (const simbus::LOG_ENTRY &entry : bay.log(camera.slot, true).value().entries) {
            if (entry.Reply && !replies)
                continue;
            lines.push_back(entry.Reply ? "<" : ">");
            for (unsigned k = 0; k < entry.Length; ++k) {
                char text[4];
                std::snprintf(text, sizeof text, " %02X", entry.Bytes[k]);
                lines.back() += text;
            }
        }
        return lines;
    }
    void commandFault(std::uint32_t slot, std::uint16_t code, std::uint16_t kind, std::uint32_t value = 0,
                      std::uint32_t skip = 0, std::uint32_t times = 1)
    {
        const simbus::COMMAND_FAULT fault{code, kind, value, skip, times};
        bay.setCommandFaults(slot, {&fault, 1}, true).value();
    }
    // From now on nothing but the caller's own threads moves the camera: commands are answered inside the call that
    // sends them, and reads are filled by serve().
    void byHand(std::uint32_t slot)
    {
        bay.setMode(slot, simbus::kModeAll).value();
    }
    // True when something was done.
    bool serve(std::uint32_t slot)
    {
        simbus::SERVE_REPLY reply{};
        askBus(simbus::kIoctlServe, pack(simbus::SLOT_RECORD{slot}), {reinterpret_cast<std::uint8_t *>(&reply), sizeof reply});
        return reply.Moved != 0;
    }
    // What the camera answers to a read of configuration 1 from now on; empty: the truth again.
    void configuration(std::uint32_t slot, const Bytes &bytes)
    {
        if (bytes.empty())
            bay.restoreDescriptor(slot, simbus::kDescriptorConfiguration, 1).value();
        else
            bay.setDescriptor(slot, simbus::kDescriptorConfiguration, 1, bytes).value();
    }

    // -------------------------------------------------------------------------------------------------- the machine

    std::set<char> ids() const
    {
        std::set<char> found;
        for (const char id : std::string_view("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"))
            if (machine.symbolicLink(std::string("UsbVQTR42Xx_") + id))
                found.insert(id);
        return found;
    }
    Handle open(const Camera &camera)
    {
        return Handle(machine.open(std::string("\\\\.\\UsbVQTR42Xx_") + camera.id));
    }
    std::uint64_t mark() { return machine.trace().mark(); }
    // The driver's messages since the mark, of one module or of all: level (blank or E), module, routine, text.
    std::vector<std::string> messages(std::uint64_t mark, const std::string &module = {})
    {
        std::vector<std::string> lines;
        for (const ntos::TraceLine &line : machine.trace().since(mark))
            if (line.module.starts_with("drv/usb/" + module))
                lines.push_back((line.level == ntos::TraceLine::Level::error ? "E " : "  ") + line.module.substr(8) + "/" +
                                line.routine + ": " + line.text);
        return lines;
    }
    bool said(const std::string &pattern, std::uint64_t mark)
    {
        return times(pattern, mark) != 0;
    }
    std::size_t times(const std::string &pattern, std::uint64_t mark)
    {
        const std::vector<std::string> lines = messages(mark);
        return static_cast<std::size_t>(
            std::count_if(lines.begin(), lines.end(), [&](const std::string &line) { return matches(pattern, line); }));
    }

    // Everything is closed, removed and unloaded; what was left behind or broke a rule comes back as text.
    std::string finish()
    {
        bay.port().close();
        std::string complaint;
        for (const std::string &leak : machine.shutdown().leaks)
            complaint += "left: " + leak + "\n";
        return complaint;
    }

private:
    ntos::Device boot(bool traced)
    {
        machine.trace().enable(traced);
        machine.eventLog().addMessageFile(USBCAM_MESSAGE_FILE);
        machine.registerDriver({"simbus", SimbusDriverEntry, {VQT_SIMBUS_HARDWARE_ID}});
        machine.registerDriver({"usbcam", UsbcamDriverEntry, {VQT_SIMBUS_CAMERA_HARDWARE_ID}});
        if (!ntos::succeeded(machine.loadDriver("usbcam")))
            fail("the camera driver cannot be loaded");
        return machine.addRootDevice(VQT_SIMBUS_HARDWARE_ID);
    }
};

} // namespace rig
