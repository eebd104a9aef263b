// The bay of simulated cameras: plugs and unplugs them, gives them a scene, defects and faults, and tells what their
// sensors see. Works wherever the simulated bus is installed; the drivers under test do not know the difference.
//
// Cameras are named by their slot; the DeviceID under which the camera driver offers one is found with deviceId().
#pragma once

#include "client/port.h"
#include "drv/simbus/control.h"

#include <chrono>
#include <optional>
#include <vector>

namespace vqt {

using Slot = std::uint32_t;

struct Identity {
    std::uint32_t serial = 0;
    std::uint16_t batch = 7, board = 3;
};

struct PlugOptions {
    unsigned model = 1; // 1 to 3
    bool mono = true;
    bool fullSpeed = false; // USB 1.x
    std::optional<std::uint16_t> firmware = {}, chipId = {}, hwModelId = {};
    std::optional<Identity> identity = {};
    std::optional<std::uint32_t> pace = {}; // bytes a second, 0: unpaced
};

// What the whole sensor reads: 10-bit samples, row after row.
struct Samples {
    std::uint32_t width = 0, height = 0;
    std::vector<std::uint16_t> values;
    std::uint16_t at(std::uint32_t x, std::uint32_t y) const { return values.at(std::size_t{y} * width + x); }
};

struct CommandLog {
    std::vector<simbus::LOG_ENTRY> entries;
    std::uint32_t dropped = 0;
};

class Bay {
public:
    static Result<Bay> open();

    Result<Slot> plug(const PlugOptions &options = {});
    Done unplug(Slot slot);
    Result<std::vector<simbus::LIST_ENTRY_RECORD>> list();

    // Plugging is answered before the system has started the camera: these block until it opens, or is gone, or time is
    // up.
    Result<char> deviceId(Slot slot, std::chrono::milliseconds limit = std::chrono::seconds(10));
    Done waitGone(char deviceId, std::chrono::milliseconds limit = std::chrono::seconds(10));

    Done setChart(Slot slot);
    Done setFlat(Slot slot, std::uint32_t level);
    // Grey (1 byte a pixel) or RGB (3) by the number of bytes.
    Done setPicture(Slot slot, std::uint32_t width, std::uint32_t height, ConstBytes pixels, bool counter = false);
    Done setDefects(Slot slot, std::span<const simbus::DEFECT_RECORD> defects,
                    std::uint32_t where = simbus::kDefectsSensor | simbus::kDefectsFlash);
    Done setFlash(Slot slot, std::uint32_t address, ConstBytes bytes, std::optional<std::uint32_t> count = {});

    Done setLineFaults(Slot slot, std::span<const simbus::LINE_FAULT> faults, bool append = false);
    Done setCommandFaults(Slot slot, std::span<const simbus::COMMAND_FAULT> faults, bool append = false);
    Done setBulkFaults(Slot slot, std::span<const simbus::BULK_FAULT> faults, bool append = false);
    Done failRequests(const simbus::FAIL_REQUESTS &request);
    Done releaseHeld(Slot slot);
    Done setDescriptor(Slot slot, std::uint8_t type, std::uint8_t index, ConstBytes descriptor);
    Done stallDescriptor(Slot slot, std::uint8_t type, std::uint8_t index);
    Done restoreDescriptor(Slot slot, std::uint8_t type, std::uint8_t index);
    Done setSilence(Slot slot, std::uint32_t what);
    Done setMode(Slot slot, std::uint32_t mode);

    Done setPace(Slot slot, std::uint32_t bytesPerSecond);
    Done setNextFrame(Slot slot, std::uint32_t frame);
    Done setLineFlags(Slot slot, std::uint32_t rule, std::uint32_t value = 0);
    Done freeze(Slot slot, std::uint32_t frame);
    Done thaw(Slot slot);
    Done writeRegister(Slot slot, std::uint16_t number, std::uint16_t value);

    Result<bool> trigger(Slot slot); // the external trigger line; false: the camera was not waiting for it
    // Sends a PnP or power request to the camera's device stack; the status is the stack's answer.
    Result<NtStatus> sendRequest(Slot slot, std::uint8_t major, std::uint8_t minor, std::uint8_t powerType = 0,
                                 std::uint8_t powerState = 0);

    Result<simbus::CAMERA_STATE> state(Slot slot);
    Result<Samples> render(Slot slot, std::uint32_t frame, bool withDefects = true);
    Result<CommandLog> log(Slot slot, bool clear = false);

    Port &port() { return port_; }

private:
    explicit Bay(Port port) : port_(std::move(port)) {}
    Result<std::size_t> send(const char *what, std::uint32_t code, ConstBytes in, Bytes out = {});

    Port port_;
};

} // namespace vqt
