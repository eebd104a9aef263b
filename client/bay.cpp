#include "client/bay.h"

#include "client/camera.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace vqt {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(10);

template <class T> std::vector<std::uint8_t> request(const T &record, ConstBytes tail = {})
{
    std::vector<std::uint8_t> bytes(sizeof record + tail.size());
    std::memcpy(bytes.data(), &record, sizeof record);
    std::ranges::copy(tail, bytes.begin() + sizeof record);
    return bytes;
}

template <class T> ConstBytes bytesOf(std::span<const T> items)
{
    return {reinterpret_cast<const std::uint8_t *>(items.data()), items.size_bytes()};
}
template <class T> Bytes bytesOf(T &record)
{
    return {reinterpret_cast<std::uint8_t *>(&record), sizeof record};
}

Done done(const Result<std::size_t> &result)
{
    return result ? Done(Nothing{}) : Done(result.error());
}

std::string bayAdvice(NtStatus status)
{
    switch (status) {
    case status::kNoSuchDevice:
        return "no camera is plugged into that slot; list the bay";
    case status::kInvalidParameter:
        return "a value is out of its range";
    case status::kInsufficientResources:
        return "the bay is full; unplug a camera first";
    case status::kNotImplemented:
    case status::kInvalidDeviceRequest:
        return "the simulated bus does not know this request; install the bus that belongs to this program";
    default:
        return "look into the simulated bus's trace";
    }
}

} // namespace

Result<Bay> Bay::open()
{
    Port port = Port::open(VQT_SIMBUS_DOS_NAME);
    if (!port)
        return Error{port.status(), "cannot open the simulated bus " VQT_SIMBUS_DOS_NAME ": " +
                                        statusText(port.status()) +
                                        "; install its driver (hardware id " VQT_SIMBUS_HARDWARE_ID ") first"};
    return Bay(std::move(port));
}

Result<std::size_t> Bay::send(const char *what, std::uint32_t code, ConstBytes in, Bytes out)
{
    const IoResult result = port_.deviceControl(code, in, out);
    if (!result.ok())
        return Error{result.status, std::string("simulated bus: cannot ") + what + ": " + statusText(result.status) +
                                        "; " + bayAdvice(result.status)};
    return static_cast<std::size_t>(std::min<std::uint64_t>(result.information, out.size()));
}

// ---------------------------------------------------------------------------------------------------------------
// plugging

Result<Slot> Bay::plug(const PlugOptions &options)
{
    simbus::PLUG_REQUEST plug{};
    plug.Model = options.model;
    plug.Mono = options.mono ? 1 : 0;
    const auto set = [&plug](std::uint32_t flag, auto &field, const auto &given) {
        if (given) {
            plug.Flags |= flag;
            field = *given;
        }
    };
    if (options.fullSpeed)
        plug.Flags |= simbus::kPlugFullSpeed;
    set(simbus::kPlugFirmwareGiven, plug.Firmware, options.firmware);
    set(simbus::kPlugChipIdGiven, plug.ChipId, options.chipId);
    set(simbus::kPlugHwModelIdGiven, plug.HwModelId, options.hwModelId);
    set(simbus::kPlugPaceGiven, plug.Pace, options.pace);
    if (options.identity) {
        plug.Flags |= simbus::kPlugIdentityGiven;
        plug.Serial = options.identity->serial;
        plug.Batch = options.identity->batch;
        plug.Board = options.identity->board;
    }
    simbus::SLOT_RECORD slot{};
    const auto result = send("plug a camera", simbus::kIoctlPlug, request(plug), bytesOf(slot));
    if (!result)
        return result.error();
    return Slot{slot.Slot};
}

Done Bay::unplug(Slot slot)
{
    return done(send("unplug a camera", simbus::kIoctlUnplug, request(simbus::SLOT_RECORD{slot})));
}

Result<std::vector<simbus::LIST_ENTRY_RECORD>> Bay::list()
{
    std::vector<simbus::LIST_ENTRY_RECORD> entries(simbus::kMaxSlots);
    const Bytes out(reinterpret_cast<std::uint8_t *>(entries.data()), entries.size() * sizeof entries[0]);
    const auto size = send("list its cameras", simbus::kIoctlList, {}, out);
    if (!size)
        return size.error();
    entries.resize(size.value() / sizeof entries[0]);
    return entries;
}

// The camera's serial number is what both sides know: the slot's entry has it, and the camera tells it.
Result<char> Bay::deviceId(Slot slot, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto entries = list();
        if (!entries)
            return entries.error();
        const auto entry = std::ranges::find(entries.value(), slot, &simbus::LIST_ENTRY_RECORD::Slot);
        if (entry == entries.value().end() || entry->Plugged == 0)
            return Error{status::kNoSuchDevice,
                         "simulated bus: slot " + std::to_string(slot) + " has no camera; list the bay"};
        for (const char id : kDeviceIds) {
            auto camera = entry->Started != 0 ? Camera::open(id) : Result<Camera>(Error{});
            if (!camera)
                continue;
            // The name opens before the driver has set the camera up; the interface is the last thing it enables.
            if (Port::interfaceLinks(Camera::interfaceClass(id)).empty())
                continue;
            const auto reply = camera.value().hwCommand(0x12);
            std::uint32_t serial = 0;
            if (reply && reply.value().size() >= 8)
                std::memcpy(&serial, reply.value().data() + 4, sizeof serial);
            if (reply && serial == entry->Serial)
                return id;
        }
        if (std::chrono::steady_clock::now() >= end)
            return Error{status::kTimeout,
                         "the camera in slot " + std::to_string(slot) +
                             " did not start in time; look into the driver's trace and the event log"};
        std::this_thread::sleep_for(kPollInterval);
    }
}

Done Bay::waitGone(char deviceId, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    // While the device is on its way out its names are still there, and the next camera cannot have them.
    while (Camera::open(deviceId).status() != status::kObjectNameNotFound) {
        if (std::chrono::steady_clock::now() >= end)
            return Error{status::kTimeout,
                         std::string("camera ") + deviceId + " is still there; close the programs that have it open"};
        std::this_thread::sleep_for(kPollInterval);
    }
    return Nothing{};
}

// ------------------------------------------------------------------------------------------------- scene, defects,
// flash

Done Bay::setChart(Slot slot)
{
    return done(send("set the scene", simbus::kIoctlSetScene,
                     request(simbus::SCENE_REQUEST{slot, simbus::kSceneChart, 0, 0, 0, 0})));
}

Done Bay::setFlat(Slot slot, std::uint32_t level)
{
    return done(send("set the scene", simbus::kIoctlSetScene,
                     request(simbus::SCENE_REQUEST{slot, simbus::kSceneFlat, 0, 0, 0, level})));
}

Done Bay::setPicture(Slot slot, std::uint32_t width, std::uint32_t height, ConstBytes pixels, bool counter)
{
    const std::uint64_t area = std::uint64_t{width} * height;
    const std::uint32_t kind = pixels.size() == area ? simbus::kSceneGrey : simbus::kSceneRgb;
    const simbus::SCENE_REQUEST scene{slot, kind, counter ? simbus::kSceneCounter : 0, width, height, 0};
    return done(send("set the scene", simbus::kIoctlSetScene, request(scene, pixels)));
}

Done Bay::setDefects(Slot slot, std::span<const simbus::DEFECT_RECORD> defects, std::uint32_t where)
{
    const simbus::DEFECTS_REQUEST head{slot, where, static_cast<std::uint32_t>(defects.size())};
    return done(send("set the defects", simbus::kIoctlSetDefects, request(head, bytesOf(defects))));
}

Done Bay::setFlash(Slot slot, std::uint32_t address, ConstBytes bytes, std::optional<std::uint32_t> count)
{
    const simbus::FLASH_REQUEST head{slot, address, static_cast<std::uint32_t>(bytes.size()), count ? 1u : 0u,
                                     count.value_or(0)};
    return done(send("write the flash", simbus::kIoctlSetFlash, request(head, bytes)));
}

// -----------------------------------------------------------------------------------------------------------------
// faults

Done Bay::setLineFaults(Slot slot, std::span<const simbus::LINE_FAULT> faults, bool append)
{
    const simbus::LINE_FAULTS_REQUEST head{slot, append ? 1u : 0u, static_cast<std::uint32_t>(faults.size())};
    return done(send("script line faults", simbus::kIoctlSetLineFaults, request(head, bytesOf(faults))));
}

Done Bay::setCommandFaults(Slot slot, std::span<const simbus::COMMAND_FAULT> faults, bool append)
{
    const simbus::COMMAND_FAULTS_REQUEST head{slot, append ? 1u : 0u, static_cast<std::uint32_t>(faults.size())};
    return done(send("script command faults", simbus::kIoctlSetCommandFaults, request(head, bytesOf(faults))));
}

Done Bay::setBulkFaults(Slot slot, std::span<const simbus::BULK_FAULT> faults, bool append)
{
    const simbus::BULK_FAULTS_REQUEST head{slot, append ? 1u : 0u, static_cast<std::uint32_t>(faults.size())};
    return done(send("script read faults", simbus::kIoctlSetBulkFaults, request(head, bytesOf(faults))));
}

Done Bay::failRequests(const simbus::FAIL_REQUESTS &fail)
{
    return done(send("script request failures", simbus::kIoctlFailRequests, request(fail)));
}

Done Bay::releaseHeld(Slot slot)
{
    return done(send("release held reads", simbus::kIoctlReleaseHeld, request(simbus::SLOT_RECORD{slot})));
}

Done Bay::setDescriptor(Slot slot, std::uint8_t type, std::uint8_t index, ConstBytes descriptor)
{
    const simbus::DESCRIPTOR_REQUEST head{slot, type, index, 0, 0, static_cast<std::uint32_t>(descriptor.size())};
    return done(send("replace a descriptor", simbus::kIoctlSetDescriptor, request(head, descriptor)));
}

Done Bay::stallDescriptor(Slot slot, std::uint8_t type, std::uint8_t index)
{
    return done(send("stall a descriptor", simbus::kIoctlSetDescriptor,
                     request(simbus::DESCRIPTOR_REQUEST{slot, type, index, 0, 1, 0})));
}

Done Bay::restoreDescriptor(Slot slot, std::uint8_t type, std::uint8_t index)
{
    return done(send("restore a descriptor", simbus::kIoctlSetDescriptor,
                     request(simbus::DESCRIPTOR_REQUEST{slot, type, index, 1, 0, 0})));
}

Done Bay::setSilence(Slot slot, std::uint32_t what)
{
    return done(send("silence a camera", simbus::kIoctlSetSilence, request(simbus::SILENCE_REQUEST{slot, what})));
}

Done Bay::setMode(Slot slot, std::uint32_t mode)
{
    return done(send("set the transfer mode", simbus::kIoctlSetMode, request(simbus::MODE_REQUEST{slot, mode})));
}

// -----------------------------------------------------------------------------------------------------------------
// stream

Done Bay::setPace(Slot slot, std::uint32_t bytesPerSecond)
{
    return done(send("set the pace", simbus::kIoctlSetPace, request(simbus::PACE_REQUEST{slot, bytesPerSecond})));
}

Done Bay::setNextFrame(Slot slot, std::uint32_t frame)
{
    return done(
        send("number the next frame", simbus::kIoctlSetNextFrame, request(simbus::NEXT_FRAME_REQUEST{slot, frame})));
}

Done Bay::setLineFlags(Slot slot, std::uint32_t rule, std::uint32_t value)
{
    return done(
        send("set the line flags", simbus::kIoctlSetLineFlags, request(simbus::LINE_FLAGS_REQUEST{slot, rule, value})));
}

Done Bay::freeze(Slot slot, std::uint32_t frame)
{
    return done(send("freeze the scene", simbus::kIoctlFreeze, request(simbus::FREEZE_REQUEST{slot, 1, frame})));
}

Done Bay::thaw(Slot slot)
{
    return done(send("thaw the scene", simbus::kIoctlFreeze, request(simbus::FREEZE_REQUEST{slot, 0, 0})));
}

Done Bay::writeRegister(Slot slot, std::uint16_t number, std::uint16_t value)
{
    return done(send("write a sensor register", simbus::kIoctlWriteRegister,
                     request(simbus::REGISTER_REQUEST{slot, number, value})));
}

Result<bool> Bay::trigger(Slot slot)
{
    simbus::TRIGGER_REPLY reply{};
    const auto result =
        send("trigger a camera", simbus::kIoctlTrigger, request(simbus::SLOT_RECORD{slot}), bytesOf(reply));
    if (!result)
        return result.error();
    return reply.Accepted != 0;
}

Result<NtStatus> Bay::sendRequest(Slot slot, std::uint8_t major, std::uint8_t minor, std::uint8_t powerType,
                                  std::uint8_t powerState)
{
    simbus::SEND_REPLY reply{};
    const auto result = send("send a request to a camera's stack", simbus::kIoctlSendRequest,
                             request(simbus::SEND_REQUEST{slot, major, minor, powerType, powerState}), bytesOf(reply));
    if (!result)
        return result.error();
    return static_cast<NtStatus>(reply.Status);
}

// ----------------------------------------------------------------------------------------------------------------
// looking

Result<simbus::CAMERA_STATE> Bay::state(Slot slot)
{
    simbus::CAMERA_STATE state{};
    const auto result =
        send("read a camera's state", simbus::kIoctlReadState, request(simbus::SLOT_RECORD{slot}), bytesOf(state));
    if (!result)
        return result.error();
    return state;
}

Result<Samples> Bay::render(Slot slot, std::uint32_t frame, bool withDefects)
{
    const auto about = state(slot);
    if (!about)
        return about.error();
    Samples samples{about.value().SensorWidth, about.value().SensorHeight, {}};
    samples.values.resize(std::size_t{samples.width} * samples.height);
    const Bytes out(reinterpret_cast<std::uint8_t *>(samples.values.data()), samples.values.size() * 2);
    const auto size = send("render a frame", simbus::kIoctlRender,
                           request(simbus::RENDER_REQUEST{slot, frame, withDefects ? 1u : 0u, 0, samples.height}), out);
    if (!size)
        return size.error();
    return samples;
}

Result<CommandLog> Bay::log(Slot slot, bool clear)
{
    std::vector<std::uint8_t> bytes(sizeof(simbus::LOG_HEADER) + simbus::kLogEntries * sizeof(simbus::LOG_ENTRY));
    const auto size =
        send("read the command log", simbus::kIoctlReadLog, request(simbus::LOG_REQUEST{slot, clear ? 1u : 0u}), bytes);
    if (!size)
        return size.error();
    simbus::LOG_HEADER head{};
    std::memcpy(&head, bytes.data(), sizeof head);
    CommandLog log;
    log.dropped = head.Dropped;
    log.entries.resize(std::min<std::size_t>(head.Count, (size.value() - sizeof head) / sizeof(simbus::LOG_ENTRY)));
    if (!log.entries.empty())
        std::memcpy(log.entries.data(), bytes.data() + sizeof head, log.entries.size() * sizeof(simbus::LOG_ENTRY));
    return log;
}

} // namespace vqt
