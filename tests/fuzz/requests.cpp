// Requests of any code with buffers of any length, from three threads at once.
#include "input.h"

#include "tests/driver/rig.h"

#include <atomic>
#include <thread>

namespace {

constexpr std::uint32_t kCodes[] = {
    IOCTL_USBWrite,       IOCTL_USBRead,         IOCTL_MainRead,         IOCTL_SetCameraStatus,   IOCTL_GetState,
    IOCTL_GetFrame,       IOCTL_GetFrameParameters, IOCTL_SetFrameParameters, IOCTL_SetDefAlt,    IOCTL_GetFrameEx,
    IOCTL_SetInterfaceType, IOCTL_HwCommand,     IOCTL_GetCameraStatus,  IOCTL_GetFramePtr,       IOCTL_GetSnapshot,
    IOCTL_CancelSnapshot, IOCTL_SetSnapshotParams, IOCTL_SetBitsPerPixel, IOCTL_GetBitsPerPixel,  IOCTL_SlaveRead,
    IOCTL_SlaveWrite,     IOCTL_ResetPipe,       0x222044,               0x22FFFF};

void play(rig::Rig &machine, const rig::Camera &camera, Input input)
{
    rig::Handle handle = machine.open(camera);
    for (unsigned step = 0; step < 12 && !input.empty(); ++step) {
        const std::uint32_t code = kCodes[input.byte() % std::size(kCodes)];
        const std::uint8_t lengths = input.byte();
        constexpr std::size_t ins[] = {0, 1, 2, 4, 8, 26, 63, 64};
        constexpr std::size_t outs[] = {0, 1, 4, 8, 17, 26, 64, 64 * 48 + 4096};
        rig::Bytes in(ins[lengths & 7] + (lengths & 0x40 ? 1 : 0)), out(outs[lengths >> 3 & 7] + (lengths & 0x80 ? 1 : 0), 0x77);
        for (std::uint8_t &byte : in)
            byte = input.byte();
        if (code == IOCTL_SetFrameParameters && in.size() == sizeof(FRAME_PARAMETERS) && lengths & 0x20) {
            const FRAME_PARAMETERS wanted = rig::window(in[0], in[1], 8 + in[2] % 128, 3 + in[3] % 96, in[4] % 9, in[5], in[6]);
            std::memcpy(in.data(), &wanted, sizeof wanted);
        }
        const ntos::Result result = handle.file().deviceControl(code, in, out);
        require(result.information <= out.size(), "a request reports more than its buffer holds");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static rig::Rig &machine = *new rig::Rig({.manualClock = true}, false);
    static const rig::Camera camera = machine.plug(rig::model(1));
    static rig::Handle handle = machine.open(camera);
    static const ntos::Counters before = machine.machine.counters();

    handle.window(rig::window(0, 0, 64, 48));
    handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{8});

    Input input(data, size);
    std::atomic<unsigned> playing{3};
    std::thread threads[3];
    for (std::thread &thread : threads) {
        const Input share(input.take(1 + size / 3));
        thread = std::thread([&playing, share] {
            play(machine, camera, share);
            --playing;
        });
    }
    // Some requests wait for what no other thread will do: time passes, and what waits without limit is called off.
    while (playing != 0) {
        if (!machine.machine.clock().waitForTimedWaiters(1, std::chrono::milliseconds(2)) && playing == 0)
            break;
        machine.machine.clock().advance(std::chrono::seconds(6));
        handle.file().deviceControl(IOCTL_CancelSnapshot);
        handle.status(0);
        handle.set(IOCTL_SetInterfaceType, std::uint16_t{0});
    }
    for (std::thread &thread : threads)
        thread.join();
    if (handle.cameraStatus() != CameraStopped)
        require(handle.status(0) == rig::st::success, "what streams does not stop");
    require(handle.cameraStatus() == CameraStopped, "something is still running");
    require(machine.sensor(camera).PendingReads == 0, "a read is still pending");
    require(machine.machine.counters().requests == before.requests, "a request is left");
    return 0;
}
