// Requests of any code with buffers of any length, from three threads at once, and the bus at work between them. The
// threads are players of one processor: the input says what they ask for and where they interrupt each other.
#include "input.h"

#include "tests/driver/rig.h"

#include <array>
#include <functional>

namespace {

constexpr std::uint32_t kCodes[] = {
    IOCTL_USBWrite,       IOCTL_USBRead,         IOCTL_MainRead,         IOCTL_SetCameraStatus,   IOCTL_GetState,
    IOCTL_GetFrame,       IOCTL_GetFrameParameters, IOCTL_SetFrameParameters, IOCTL_SetDefAlt,    IOCTL_GetFrameEx,
    IOCTL_SetInterfaceType, IOCTL_HwCommand,     IOCTL_GetCameraStatus,  IOCTL_GetFramePtr,       IOCTL_GetSnapshot,
    IOCTL_CancelSnapshot, IOCTL_SetSnapshotParams, IOCTL_SetBitsPerPixel, IOCTL_GetBitsPerPixel,  IOCTL_SlaveRead,
    IOCTL_SlaveWrite,     IOCTL_ResetPipe,       0x222044,               0x22FFFF};
constexpr unsigned kServe = std::size(kCodes), kStop = kServe + 1, kChoices = kStop + 1;

constexpr unsigned kSteps = 6; // of each player

struct Bay {
    rig::Rig machine{{.manualClock = true, .fillPool = false}, false};
    rig::Camera camera = machine.plug(rig::model(1));
    rig::Handle handle = machine.open(camera);
    ntos::Counters before;
    std::uint64_t blocks = 0; // of the driver
    ntos::Turns turns;

    Bay()
    {
        machine.byHand(camera.slot);
        // Blocks of little more than a frame, and nothing to draw: it is not the bus that is tested.
        const simbus::BULK_FAULT brief{simbus::kBulkShort, 0, 4096, 0xFFFFFFFF};
        machine.bay.setBulkFaults(camera.slot, {&brief, 1}).value();
        machine.bay.setFlat(camera.slot, 0x200).value();
        before = machine.machine.counters();
        blocks = machine.machine.pool("42QV").blocks;
    }
};

void play(Bay &bay, Input &input)
{
    rig::Handle handle = bay.machine.open(bay.camera);
    for (unsigned step = 0; step < kSteps && !input.empty(); ++step) {
        const unsigned choice = input.byte() % kChoices;
        if (choice >= kServe) {
            if (choice == kServe)
                bay.machine.serve(bay.camera.slot);
            else
                handle.set(IOCTL_SetCameraStatus, std::uint8_t{0});
            continue;
        }
        const std::uint32_t code = kCodes[choice];
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

// Goes on when the others all wait, or are through: the bus serves what it can, then time passes, and what waits without
// limit is called off.
void tidy(Bay &bay, const unsigned &playing)
{
    while (playing != 0) {
        ntos::Turns::standBack();
        if (bay.machine.serve(bay.camera.slot))
            continue;
        bay.machine.machine.clock().advance(std::chrono::seconds(6));
        bay.handle.file().deviceControl(IOCTL_CancelSnapshot);
        bay.handle.status(0);
        bay.handle.set(IOCTL_SetInterfaceType, std::uint16_t{0});
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Bay &bay = *new Bay;
    rig::Handle &handle = bay.handle;
    handle.window(rig::window(0, 0, 64, 48));
    handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{8});

    Input input(data, size);
    Input turns(input.take(size / 4));
    std::array<Input, 3> shares{input, input, input};
    for (Input &share : shares)
        share = Input(input.take(1 + size / 4));

    // A byte of the turns: how many kernel calls to the next interruption, and who goes on.
    unsigned calls = turns.byte(), who = 0;
    const ntos::Deal deal{[&](std::size_t) { return std::size_t{who}; },
                          [&] {
                              if (turns.empty() || calls-- != 0)
                                  return false;
                              const unsigned byte = turns.byte();
                              calls = byte & 0x3F;
                              who = byte >> 6;
                              return true;
                          }};
    unsigned playing = static_cast<unsigned>(shares.size());
    std::array<std::function<void()>, 4> players;
    for (std::size_t i = 0; i < shares.size(); ++i)
        players[i] = [&, i] {
            play(bay, shares[i]);
            --playing;
        };
    players.back() = [&] { tidy(bay, playing); };
    require(bay.turns.run(players, deal), "nobody can go on");

    if (handle.cameraStatus() != CameraStopped)
        require(handle.status(0) == rig::st::success, "what streams does not stop");
    require(handle.cameraStatus() == CameraStopped, "something is still running");
    require(bay.machine.sensor(bay.camera).PendingReads == 0, "a read is still pending");
    const ntos::Counters after = bay.machine.machine.counters();
    require(after.requests == bay.before.requests, "a request is left");
    require(after.mdls == bay.before.mdls && after.mappings == bay.before.mappings, "memory is still described or mapped");
    require(after.handles == bay.before.handles, "a handle is left");
    require(bay.machine.machine.pool("42QV").blocks == bay.blocks, "pool is left");
    return 0;
}
