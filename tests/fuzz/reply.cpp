// Replies that stall, are short, long or wrong, while every command of the driver runs, start-up included.
#include "input.h"

#include "tests/driver/rig.h"

#include <numeric>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static rig::Rig &machine = *new rig::Rig({.fillPool = false, .sharedPool = false}, false);
    static rig::Camera camera = machine.plug(rig::model(1)); // the family that an unknown chip is taken for: its buffers stay
    static rig::Handle handle = machine.open(camera);
    static const bool quick = (machine.byHand(camera.slot), true);
    (void)quick;

    // Straight to the top of the stack, in this thread: an execution is to take microseconds.
    const auto start = [] { return camera.device.sendPnp(0).ok(); };
    const auto power = [](ntos::DevicePower state) { camera.device.sendDevicePower(2, state); };
    bool started = true;
    // A start that fails lets the frame buffers go, and zeroing new ones takes milliseconds: one input in sixteen starts
    // the camera anew, whatever it was mutated from.
    const bool starts = std::accumulate(data, data + size, 0u) % 16 == 0;

    constexpr std::uint8_t codes[] = {0x11, 0x12, 0x18, 0x1E, 0x1F, 0x28, 0x2C, 0x2D};
    Input input(data, size);
    for (unsigned step = 0; step < 8 && !input.empty(); ++step) {
        const unsigned what = input.byte();
        std::uint8_t value = input.byte();
        switch (what % 10) {
        case 0:
        case 1: {
            constexpr std::uint16_t kinds[] = {simbus::kCommandStall, simbus::kCommandReplyStall, simbus::kCommandShort,
                                               simbus::kCommandLong, simbus::kCommandStatusByte};
            const std::uint16_t kind = kinds[value % 5];
            const std::uint16_t code = value & 0x80 ? simbus::kAnyCode : codes[(value / 5) % 8];
            const std::uint32_t argument = input.byte();
            machine.commandFault(camera.slot, code, kind, kind == simbus::kCommandStatusByte ? argument : argument % 65,
                                 input.byte() % 20, 1);
            break;
        }
        case 2: {
            rig::Bytes command(value % 70), reply(input.byte() % 80, 0x77);
            for (std::uint8_t &byte : command)
                byte = input.byte();
            if (!command.empty())
                command[0] = codes[command[0] % 8];
            const std::size_t room = reply.size();
            const auto result = handle.file().deviceControl(IOCTL_HwCommand, command, reply);
            require(result.information <= room && (result.ok() || result.information == 0), "a reply outgrows its buffer");
            for (std::size_t i = result.information > command.size() ? result.information : command.size(); i < room; ++i)
                require(reply[i] == 0x77, "bytes behind the reply were written");
            break;
        }
        case 3: {
            rig::Bytes in(value % 66, value), out(input.byte() % 70);
            if (handle.file().deviceControl(IOCTL_SlaveWrite, in, {}).ok())
                handle.file().deviceControl(IOCTL_SlaveRead, {}, out);
            break;
        }
        case 4: {
            rig::Bytes in(1u + value % 66, codes[value % 8]), out(input.byte() % 70);
            handle.file().deviceControl(IOCTL_USBWrite, in, {});
            handle.file().deviceControl(IOCTL_USBRead, {}, out);
            break;
        }
        case 5: handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{value % 4u + 7u}); break;
        case 6: handle.window(rig::window(value, 0, 64 + 8 * value, 128, value % 5 + 1, value & 1, value & 2)); break;
        case 7:
            power(ntos::DevicePower::d3);
            power(ntos::DevicePower::d0);
            break;
        case 8: {
            const std::uint8_t list[] = {value, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
            rig::Bytes request = rig::pack(simbus::FLASH_REQUEST{
                camera.slot, simbus::kFlashSize - static_cast<std::uint32_t>(sizeof list), sizeof list, 1,
                value < 200 ? value : input.dword() | 0x8000});
            request.insert(request.end(), std::begin(list), std::end(list));
            machine.askBus(simbus::kIoctlSetFlash, request);
            break;
        }
        default:
            if (!starts)
                break;
            if (value >= 0xF0 && ntos::succeeded(camera.device.queryStop()))
                camera.device.stop();
            started = (value >= 0xF0 ? ntos::succeeded(camera.device.start()) : start());
            break;
        }
    }
    // With every fault forgotten the camera works.
    machine.askBus(simbus::kIoctlSetCommandFaults, rig::pack(simbus::COMMAND_FAULTS_REQUEST{camera.slot, 0, 0}));
    if (camera.device.state() != ntos::DeviceState::started)
        require(camera.device.start() == rig::st::success, "the camera does not start any more");
    else if (!started)
        require(start(), "the camera does not start any more");
    rig::Bytes reply(64);
    require(handle.command({0x1E, 0x00}, reply) == rig::st::success && reply == rig::Bytes{0x84, 0x31},
            "the next transaction fails");
    return 0;
}
