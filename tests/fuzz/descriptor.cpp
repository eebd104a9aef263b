// Configuration descriptors that lie: any bytes, any interface and setting.
#include "input.h"

#include "tests/driver/rig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // The clock stands still, and with it the stream: reads wait until the stop.
    static rig::Rig &machine = *new rig::Rig({.manualClock = true, .fillPool = false, .sharedPool = false}, false);
    static const rig::Camera camera = [] {
        simbus::PLUG_REQUEST request = rig::model(1);
        request.Pace = 1'000'000;
        return machine.plug(request);
    }();
    static rig::Handle handle = machine.open(camera);
    static const bool quick = (machine.byHand(camera.slot), true);
    (void)quick;

    Input input(data, size);
    const std::uint16_t wanted = input.word();
    const bool ownLength = input.byte() & 1; // the true total length in front, so that the rest is looked at
    rig::Bytes bytes;
    const auto rest = input.take(simbus::kMaxDescriptor);
    bytes.assign(rest.begin(), rest.end());
    if (bytes.empty())
        return 0;
    if (ownLength && bytes.size() >= 9) {
        bytes[0] = 9;
        bytes[1] = 2;
        bytes[2] = static_cast<std::uint8_t>(bytes.size());
        bytes[3] = static_cast<std::uint8_t>(bytes.size() >> 8);
    }
    machine.configuration(camera.slot, bytes);
    const std::uint32_t before = machine.sensor(camera).PipesOpened;
    const std::uint64_t blocks = machine.machine.pool("42QV").blocks;
    const rig::NtStatus status = handle.set(IOCTL_SetInterfaceType, wanted);
    const CAMERA_STATE state = handle.state();
    const std::uint32_t opened = machine.sensor(camera).PipesOpened - before;
    require(ntos::succeeded(status) || opened == 0, "a selection was sent and reported as failed");
    require(!ntos::succeeded(status) || state.AltSetting == wanted >> 8, "another setting than the selected one is reported");
    require(machine.machine.pool("42QV").blocks == blocks, "pool is left");
    if (ntos::succeeded(status) && (state.AltSetting == 1 || state.AltSetting == 2)) {
        handle.set(IOCTL_SetDefAlt, static_cast<std::uint8_t>(state.AltSetting));
        if (ntos::succeeded(handle.status(1)))
            require(ntos::succeeded(handle.status(0)), "a stream that started does not stop");
    }
    machine.configuration(camera.slot, {});
    require(handle.set(IOCTL_SetInterfaceType, std::uint16_t{0}) == rig::st::success, "the true descriptor is refused");
    return 0;
}
