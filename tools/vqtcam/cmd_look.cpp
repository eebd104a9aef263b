// list, info, state: what is plugged in and how it is.
#include "program.h"

#include <fmt/format.h>
#include <memory>

namespace {

const char *statusWord(std::uint8_t status)
{
    switch (status) {
    case CameraStopped:
        return "stopped";
    case CameraStreaming:
        return "streaming";
    case CameraSnapshot:
        return "snapshot";
    default:
        return "unknown";
    }
}

const char *firmwareWord(std::uint16_t firmware)
{
    switch (firmware) {
    case 33:
        return "8 bits only";
    case 34:
        return "10 bits only";
    case 39:
        return "8 and 10 bits";
    default:
        return "unknown, 8 bits";
    }
}

void list(Session &)
{
    const auto ids = vqt::Camera::list();
    const auto withInterface = vqt::Camera::listInterfaces();
    fmt::print("{:<3} {:<14} {:>10} {:<16} {:<8} {:<10} {:<24} {}\n", "id", "model", "serial", "depths", "usb",
               "interface", "name", "second name");
    for (const char id : ids) {
        auto camera = vqt::Camera::open(id);
        if (!camera)
            continue; // unplugged since
        const auto info = camera.value().info();
        if (!info) {
            fmt::print(stderr, "vqtcam: {}\n", info.error().message);
            continue;
        }
        const vqt::CameraInfo &about = info.value();
        const bool found = std::find(withInterface.begin(), withInterface.end(), id) != withInterface.end();
        fmt::print("{:<3} {:<14} {:>10} {:<16} {:<8} {:<10} {:<24} {}\n", id, about.modelName(), about.serial,
                   firmwareWord(about.firmware), about.usb2 ? "2.0" : "1.x", found ? "enabled" : "none",
                   vqt::Camera::dosName(id), vqt::Camera::slaveName(id));
    }
    fmt::print(stderr, "{} camera{}\n", ids.size(), ids.size() == 1 ? "" : "s");
}

void info(Session &session)
{
    vqt::Camera camera = session.open();
    const auto about = camera.info().value();
    const auto geometry = camera.getFrameParameters().value();
    const auto line = [](const char *name, const std::string &value) { fmt::print("{:<16}{}\n", name, value); };
    line("camera", std::string(1, camera.deviceId()));
    line("model", about.modelName());
    line("sensor", geometry.mono() ? "monochrome" : "colour");
    line("chip", fmt::format("0x{:04X}", about.chipId));
    line("hardware model", std::to_string(about.hwModelId));
    line("firmware", fmt::format("{} ({})", about.firmware, firmwareWord(about.firmware)));
    line("identifier",
         fmt::format("{}.{}.{}.{}.{}", about.serial, about.hwModelId, about.batch, about.board, about.firmware));
    line("usb", about.usb2 ? "2.0" : "1.x: move the camera to a USB 2.0 port");
    line("frequency", about.frequencyIndex ? fmt::format("index {}", *about.frequencyIndex) : "unknown");
    line("bad pixels", fmt::format("{} in the flash", about.badPixels));
    line("window",
         fmt::format("{} x {} from {}, {}", geometry.width, geometry.height, geometry.startX, geometry.startY));
    line("decimation", std::to_string(geometry.decimation));
    line("mirrored", geometry.flipX && geometry.flipY ? "columns and rows"
                     : geometry.flipX                 ? "columns"
                     : geometry.flipY                 ? "rows"
                                                      : "no");
    line("image", fmt::format("{} x {}, {} bits", geometry.imageWidth(), geometry.imageHeight(),
                              camera.getBitsPerPixel().value()));
}

void state(Session &session)
{
    vqt::Camera camera = session.open();
    const CAMERA_STATE now = camera.getState().value();
    // The record is packed: its fields are copied before they are shown.
    const std::uint32_t blocks = now.TotalBlocks, frames = now.TotalFrames, resyncs = now.Resyncs;
    const std::int32_t setting = now.AltSetting;
    fmt::print("camera            {}\nstatus            {}\nalternate setting {}\n", camera.deviceId(),
               statusWord(now.CameraStatus), setting);
    fmt::print("since last asked  {} blocks, {} frames, {} resyncs\n", blocks, frames, resyncs);
    if (const auto slot = session.slotOf(camera)) {
        const auto sim = session.bay().state(*slot).value();
        const std::uint64_t sent = sim.FramesSent, bytes = sim.BytesSent, commands = sim.CommandsReceived,
                            faults = sim.LineFaultsDone;
        const std::uint32_t reads = sim.PendingReads;
        fmt::print("simulated         {} frames and {} bytes sent, {} commands, {} line faults, {} reads pending\n",
                   sent, bytes, commands, faults, reads);
    }
}

} // namespace

void addLookCommands(Program &program)
{
    program.command("list", "List the cameras that are plugged in")->callback([&program] { program.run = list; });
    program.command("info", "Show what a camera is and how it is set")->callback([&program] { program.run = info; });
    program.command("state", "Show whether a camera streams, and its counters (reading clears them)")
        ->callback([&program] { program.run = state; });
}
