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
        wire::Camera camera = rig.plug(1);
        camera.select(1);
        camera.window(48, 8);
        const simbus::SLOT_RECORD slot{camera.slot};
        // Slow enough that the long reads are never full.
        ASSERT_EQ(rig.set(simbus::kIoctlSetPace, simbus::PACE_REQUEST{camera.slot, 10'000}), STATUS_SUCCESS);
        ASSERT_EQ(rig.script<simbus::BULK_FAULT>(camera, {{simbus::kBulkHold, 0, 0, 1}}), STATUS_SUCCESS);
        const std::uint16_t wait = running ? simbus::kCommandDelay : simbus::kCommandNoAnswer;
        ASSERT_EQ(rig.script<simbus::COMMAND_FAULT>(camera, {{0x12, wait, 600'000, 0, 1}}), STATUS_SUCCESS);
        const simbus::MODE_REQUEST mode{camera.slot, running ? simbus::kModeInlineControl : 0};
        ASSERT_EQ(rig.set(simbus::kIoctlSetMode, mode), STATUS_SUCCESS);
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
            EXPECT_EQ(rig.set(simbus::kIoctlUnplug, slot), STATUS_SUCCESS);
            EXPECT_EQ(answer.wait().status, STATUS_NO_SUCH_DEVICE);
            for (const auto &read : reads) {
                EXPECT_EQ(read->wait().status, STATUS_NO_SUCH_DEVICE);
                EXPECT_EQ(read->usbStatus(), USBD_STATUS_DEVICE_GONE);
                EXPECT_EQ(read->completions, 1);
            }
            EXPECT_EQ(Read(camera, 100).send(), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(Half(camera, false, {0x11}).send(), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, camera.pipe()), STATUS_NO_SUCH_DEVICE);
            EXPECT_EQ(rig.state(camera).Plugged, 0u); // what it did can still be read
            EXPECT_EQ(rig.set(simbus::kIoctlUnplug, slot), STATUS_NO_SUCH_DEVICE);
            simbus::SLOT_RECORD next = {};
            EXPECT_EQ(rig.get(simbus::kIoctlPlug, wire::model(2, true), next).status, STATUS_SUCCESS);
            EXPECT_EQ(next.Slot, camera.slot + 1); // its slot is still taken
            EXPECT_EQ(rig.set(simbus::kIoctlUnplug, next), STATUS_SUCCESS);
        }
        rig.machine.settle();
    }
}

TEST(Power, TheBusSendsRequestsItselfAndFailsThem)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug(1);
    camera.writeRegister(0x04, 47);
    const std::uint32_t failure = 0xC0000001;
    for (const std::uint32_t times : {9u, 1u}) { // the second replaces the first
        const simbus::FAIL_REQUESTS fail{camera.slot, IRP_MJ_POWER, IRP_MN_SET_POWER, 1, 1, failure, times};
        EXPECT_EQ(rig.set(simbus::kIoctlFailRequests, fail), STATUS_SUCCESS);
    }
    const struct {
        UCHAR major, minor, type, state;
        std::uint32_t status;
    } cases[] = {{IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE, 0, 0, 0}, {IRP_MJ_PNP, IRP_MN_CANCEL_REMOVE_DEVICE, 0, 0, 0},
                 {IRP_MJ_POWER, IRP_MN_QUERY_POWER, 0, 4, 0},       {IRP_MJ_POWER, IRP_MN_SET_POWER, 1, 4, 0},
                 {IRP_MJ_POWER, IRP_MN_SET_POWER, 1, 1, failure},   {IRP_MJ_POWER, IRP_MN_SET_POWER, 1, 1, 0}};
    for (const auto &test : cases) {
        simbus::SEND_REPLY reply{1};
        const simbus::SEND_REQUEST request{camera.slot, test.major, test.minor, test.type, test.state};
        EXPECT_EQ(rig.get(simbus::kIoctlSendRequest, request, reply).status, STATUS_SUCCESS);
        EXPECT_EQ(reply.Status, test.status) << int{test.minor};
    }
    EXPECT_EQ(rig.state(camera).PowerCycles, 1u);
    EXPECT_EQ(camera.readRegister(0x04), 1279); // the sensor has forgotten
}

} // namespace
