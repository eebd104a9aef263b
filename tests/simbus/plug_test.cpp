// Plug, unplug, power, and what the system sees of a camera.
#include "wire.h"

namespace {

using wire::Half;
using wire::Read;

// Between the unplug and the removal the object is there, the camera is not.
TEST(Plug, UnplugEndsEverythingPendingAndRefusesTheRest)
{
    wire::Rig rig;
    for (const bool running : {false, true}) {
        wire::Camera camera = rig.plug();
        ASSERT_EQ(camera.slot, 0u); // the one before has given it back
        camera.select(1);
        camera.window(48, 8);
        // Slow enough that the long reads are never full.
        rig.bay.setPace(camera.slot, 10'000).value();
        const simbus::BULK_FAULT hold{simbus::kBulkHold, 0, 0, 1};
        rig.bay.setBulkFaults(camera.slot, {&hold, 1}).value();
        const std::uint16_t kind = running ? simbus::kCommandDelay : simbus::kCommandNoAnswer;
        const simbus::COMMAND_FAULT wait{0x12, kind, 600'000, 0, 1};
        rig.bay.setCommandFaults(camera.slot, {&wait, 1}).value();
        rig.bay.setMode(camera.slot, running ? simbus::kModeInlineControl : 0).value();
        Half command(camera, false, {0x12}), answer(camera, true);
        command.send();
        command.wait();
        EXPECT_EQ(answer.send(), STATUS_PENDING);
        // The first is held when the camera runs; the last is of the pipe that never has anything.
        std::vector<std::unique_ptr<Read>> reads;
        for (int i = 0; i < 5; ++i) {
            reads.push_back(std::make_unique<Read>(camera, i == 0 ? 512 : 8 << 20, camera.pipe(i == 4 ? 0x81 : 0x82)));
            EXPECT_EQ(reads.back()->send(), STATUS_PENDING);
        }
        if (running)
            camera.run(true);
        {
            const std::lock_guard hold(wire::removals);
            rig.bay.unplug(camera.slot).value();
            EXPECT_EQ(answer.wait().status, STATUS_NO_SUCH_DEVICE);
            for (const auto &read : reads) {
                EXPECT_EQ(read->wait().status, STATUS_NO_SUCH_DEVICE);
                EXPECT_EQ(read->usbStatus(), USBD_STATUS_DEVICE_GONE);
                EXPECT_EQ(read->completions, 1);
            }
            EXPECT_EQ(Read(camera, 100).send(), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(Half(camera, false, {0x11}).send(), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, camera.pipe()), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(rig.bay.state(camera.slot).value().Plugged, 0u); // what it did can still be read
            EXPECT_EQ(rig.bay.unplug(camera.slot).status(), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(rig.bay.plug().value(), 1u); // its slot is still taken
            rig.bay.unplug(1).value();
        }
        rig.machine.settle();
    }
}

TEST(Power, FailsAsOftenAsAskedAndForgets)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug();
    camera.writeRegister(0x04, 47);
    for (const std::uint32_t times : {9u, 1u}) // the second replaces the first
        rig.bay.failRequests({camera.slot, IRP_MJ_POWER, IRP_MN_SET_POWER, 1, 1, 0xC0000001, times}).value();
    const std::pair<std::uint8_t, NTSTATUS> states[] = {
        {4, STATUS_SUCCESS}, {1, STATUS_UNSUCCESSFUL}, {1, STATUS_SUCCESS}};
    for (const auto &[state, status] : states)
        EXPECT_EQ(rig.bay.sendRequest(camera.slot, IRP_MJ_POWER, IRP_MN_SET_POWER, 1, state).value(), status);
    EXPECT_EQ(rig.bay.state(camera.slot).value().PowerCycles, 1u);
    EXPECT_EQ(camera.readRegister(0x04), 1279);
}

} // namespace
