// Requests of any code with buffers of any length, from three threads at once.
#include "input.h"

#include "tests/driver/rig.h"

#include <array>
#include <atomic>
#include <thread>

namespace {

constexpr std::uint32_t kCodes[] = {
    IOCTL_USBWrite,       IOCTL_USBRead,         IOCTL_MainRead,         IOCTL_SetCameraStatus,   IOCTL_GetState,
    IOCTL_GetFrame,       IOCTL_GetFrameParameters, IOCTL_SetFrameParameters, IOCTL_SetDefAlt,    IOCTL_GetFrameEx,
    IOCTL_SetInterfaceType, IOCTL_HwCommand,     IOCTL_GetCameraStatus,  IOCTL_GetFramePtr,       IOCTL_GetSnapshot,
    IOCTL_CancelSnapshot, IOCTL_SetSnapshotParams, IOCTL_SetBitsPerPixel, IOCTL_GetBitsPerPixel,  IOCTL_SlaveRead,
    IOCTL_SlaveWrite,     IOCTL_ResetPipe,       0x222044,               0x22FFFF};

constexpr unsigned kSteps = 6; // of each thread

void play(rig::Rig &machine, const rig::Camera &camera, Input input)
{
    rig::Handle handle = machine.open(camera);
    for (unsigned step = 0; step < kSteps && !input.empty(); ++step) {
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

// Three threads, kept over the executions.
class Players {
public:
    Players(rig::Rig &machine, const rig::Camera &camera)
    {
        for (unsigned number = 0; number < shares_.size(); ++number)
            std::thread([this, number, &machine, &camera] {
                for (unsigned round = 0;; ++round) {
                    round_.wait(round);
                    play(machine, camera, shares_[number]);
                    --playing_;
                }
            }).detach();
    }
    void begin(Input input)
    {
        const std::size_t size = input.left();
        for (Input &share : shares_)
            share = Input(input.take(1 + size / 3));
        playing_ = static_cast<unsigned>(shares_.size());
        ++round_;
        round_.notify_all();
    }
    unsigned playing() const { return playing_; }

private:
    std::array<Input, 3> shares_{Input(nullptr, 0), Input(nullptr, 0), Input(nullptr, 0)};
    std::atomic<unsigned> round_{0}, playing_{0};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static rig::Rig &machine = *new rig::Rig({.manualClock = true}, false);
    static const rig::Camera camera = [] {
        simbus::PLUG_REQUEST request = rig::model(1);
        request.Pace = 1'000'000; // a block each time the clock is moved: the stream waits for it as the requests do
        return machine.plug(request);
    }();
    static rig::Handle handle = machine.open(camera);
    static const std::size_t atRest = [] {
        machine.byHand(camera.slot);
        machine.machine.settle();
        std::size_t waiting = 0; // threads of the machine that wait for work
        while (machine.machine.clock().waitForWaiters(waiting + 1, nullptr, std::chrono::milliseconds(50)))
            ++waiting;
        return waiting;
    }();
    static const ntos::Counters before = machine.machine.counters();
    static Players &players = *new Players(machine, camera);

    handle.window(rig::window(0, 0, 64, 48));
    handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{8});

    players.begin(Input(data, size));
    while (const unsigned playing = players.playing()) {
        // Once they all wait, and the bus does, nobody but us can let them go: time passes, and what waits without limit
        // is called off.
        if (!machine.machine.clock().waitForWaiters(atRest + playing, nullptr, std::chrono::milliseconds(0))) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            continue;
        }
        machine.machine.clock().advance(std::chrono::seconds(6));
        handle.file().deviceControl(IOCTL_CancelSnapshot);
        handle.status(0);
        handle.set(IOCTL_SetInterfaceType, std::uint16_t{0});
    }
    if (handle.cameraStatus() != CameraStopped)
        require(handle.status(0) == rig::st::success, "what streams does not stop");
    require(handle.cameraStatus() == CameraStopped, "something is still running");
    require(machine.sensor(camera).PendingReads == 0, "a read is still pending");
    require(machine.machine.counters().requests == before.requests, "a request is left");
    return 0;
}
