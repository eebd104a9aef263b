// Sleep and wake: the camera's context is saved before it loses power and comes back with it.
#include "fixture.h"

#include <thread>

using namespace rig;

namespace {

using ntos::DevicePower;
using ntos::SystemState;

constexpr std::uint8_t kSetPower = 2, kQueryPower = 3;
constexpr const char *kOff = "  pnp/SetPower: --- Power OFF\n";
constexpr const char *kOn = "  pnp/SetPower: --- Power ON\n";

class Power : public DriverTest {
protected:
    Power() : DriverTest({.manualClock = true}), camera(rig.plug(model(1))), handle(rig.open(camera)) {}
    void TearDown() override
    {
        handle.close();
        DriverTest::TearDown();
    }
    Camera camera;
    Handle handle;
    Bytes frame = Bytes(kFrameHeaderSize + 1280 * 1024);
};

TEST_F(Power, StoppedCamera)
{
    const std::uint64_t mark = rig.mark();
    rig.wire(camera);
    ASSERT_EQ(rig.machine.sleep(SystemState::sleeping3), st::success);
    EXPECT_EQ(rig.wire(camera), (std::vector<std::string>{"> 11"}));
    EXPECT_EQ(rig.sensor(camera).PowerState, 4u);
    ASSERT_EQ(rig.machine.wake(), st::success);
    EXPECT_EQ(rig.sensor(camera).PowerState, 1u);
    EXPECT_EQ("", difference(rig.wire(camera), {"> 2C 01", "> 1F 02 14 00", "> 1F 01 0C 00", "> 1F 04 FF 04",
                                                "> 1F 03 FF 03", "> 1E 1E", "> 1E 20", "> 1F 1E ~", "> 1F 20 ~"}));
    // The system's own request goes down only after the device's has come back.
    std::vector<std::string> said;
    for (const std::string &line : rig.messages(mark, "pnp"))
        if (line == kOff || line == kOn || line.find("PoRequestCompletion: return") != std::string::npos)
            said.push_back(line);
    const std::string back = "  pnp/PoRequestCompletion: return 0h\n";
    EXPECT_EQ(said, (std::vector<std::string>{kOff, back, kOn, back}));
}

// The stream goes on with the same window, frequency, mirror and setting, under every way a request can be scheduled.
TEST_F(Power, StreamGoesOn)
{
    Bytes reply(64);
    ASSERT_EQ(handle.command({0x2C, 0x02}, reply), st::success);
    const FRAME_PARAMETERS wanted = window(100, 50, 640, 480, 2, 1, 1);
    ASSERT_EQ(handle.window(wanted), st::success);
    ASSERT_EQ(handle.status(1), st::success);
    for (unsigned round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        ntos::SchedulingFaults scheduling;
        scheduling.forcePending = round & 1;
        scheduling.completeBeforeReturn = round & 2;
        scheduling.completeElsewhere = round & 4;
        scheduling.seed = round + 1;
        rig.machine.faults().scheduling(scheduling);
        const std::uint64_t mark = rig.mark();
        ASSERT_EQ(handle.frame(frame), st::success);
        const simbus::CAMERA_STATE before = rig.sensor(camera);
        ASSERT_EQ(rig.machine.sleep(SystemState::sleeping3), st::success);
        EXPECT_EQ(handle.cameraStatus(), 0);
        EXPECT_EQ(rig.sensor(camera).PendingReads, 0u);
        ASSERT_EQ(rig.machine.wake(), st::success);
        EXPECT_EQ(handle.cameraStatus(), 1);
        const simbus::CAMERA_STATE after = rig.sensor(camera);
        EXPECT_EQ(after.FrequencyIndex, 2u);
        EXPECT_EQ(after.AlternateSetting, 2);
        for (const unsigned number : {1, 2, 3, 4, 0x1E})
            EXPECT_EQ(after.Registers[number], before.Registers[number]) << number;
        EXPECT_EQ(after.Registers[0x20] & 0xC018, before.Registers[0x20] & 0xC018);
        // A frame that was refilled while it was copied is fetched again: the camera sends as fast as it is read.
        FRAME_HEADER header{};
        for (int i = 0; i < 1000 && (header.Width != 320 || header.Height != 240); ++i) {
            ASSERT_EQ(handle.frame(frame), st::success);
            std::memcpy(&header, frame.data(), sizeof header);
        }
        EXPECT_TRUE(header.Width == 320 && header.Height == 240);
        EXPECT_EQ(rig.times(kOff, mark), 1u);
        EXPECT_EQ(rig.times(kOn, mark), 1u);
    }
    const FRAME_PARAMETERS now = handle.window();
    EXPECT_EQ(std::memcmp(&now.StartX, &wanted.StartX, offsetof(FRAME_PARAMETERS, ColorBits)), 0);
    EXPECT_EQ(rig.sensor(camera).PowerCycles, 6u);
    rig.machine.faults().off();
    EXPECT_EQ(handle.status(0), st::success);
    EXPECT_EQ(rig.sensor(camera).Registers[0x1E] & 0x4100, 0x0100) << "a stop holds the sensor";
}

// What waits is ended by the stop: a stream is started again when the machine wakes, a capture is not.
TEST_F(Power, SleepEndsWhatWaits)
{
    ASSERT_EQ(handle.set(IOCTL_SetSnapshotParams, SNAPSHOT_PARAMETERS{0, 1}), st::success);
    rig.bay.setSilence(camera.slot, simbus::kSilentStream).value();
    for (const bool streams : {true, false}) {
        SCOPED_TRACE(streams);
        EXPECT_TRUE(!streams || handle.status(1) == st::success);
        Result ended{1, 1};
        std::thread waiter(
            [&] { ended = handle.file().deviceControl(streams ? IOCTL_GetFrameEx : IOCTL_GetSnapshot, {}, frame); });
        while (streams ? rig.machine.clock().timedWaiters() == 0 : rig.sensor(camera).PendingReads == 0)
            std::this_thread::yield();
        EXPECT_EQ(rig.machine.sleep(SystemState::sleeping3), st::success);
        waiter.join(); // and the clock stands still
        EXPECT_EQ(ended.status, streams ? st::unsuccessful : st::success);
        EXPECT_EQ(ended.information, 0u);
        EXPECT_EQ(rig.machine.wake(), st::success);
        EXPECT_EQ(handle.cameraStatus(), streams ? 1 : 0);
        EXPECT_EQ(handle.status(0), streams ? st::success : st::invalidDeviceRequest);
    }
    rig.bay.setSilence(camera.slot, 0).value();
    EXPECT_EQ(handle.status(1), st::success);
    EXPECT_EQ(handle.frame(frame), st::success);
    EXPECT_EQ(handle.status(0), st::success);
}

TEST_F(Power, DeviceRequests)
{
    ntos::Device device = camera.device;
    const struct {
        DevicePower state;
        bool off, on; // what happens to the camera
    } rows[] = {
        {DevicePower::d0, false, true}, // the state is unknown at first
        {DevicePower::d0, false, false}, {DevicePower::d1, true, false}, {DevicePower::d3, false, false},
        {DevicePower::d0, false, true},  {DevicePower::d3, true, false}, {DevicePower::d1, true, false},
        {DevicePower::d0, false, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(static_cast<int>(row.state));
        const std::uint64_t mark = rig.mark();
        EXPECT_EQ(device.sendDevicePower(kQueryPower, row.state).status, st::success);
        EXPECT_EQ(rig.times("  pnp/SetPower: ~", mark), 0u) << "a question changes nothing";
        EXPECT_EQ(device.setPower(row.state), st::success);
        EXPECT_EQ(rig.times(kOff, mark), row.off ? 1u : 0u);
        EXPECT_EQ(rig.times(kOn, mark), row.on ? 1u : 0u);
    }
    // Power-on that fails below is power-on all the same.
    ASSERT_EQ(device.setPower(DevicePower::d3), st::success);
    const std::uint64_t mark = rig.mark();
    rig.bay.failRequests({camera.slot, 0x16, kSetPower, 0xFF, 0xFF, 0xC0000001, 1}).value();
    EXPECT_EQ(device.setPower(DevicePower::d0), st::success);
    EXPECT_EQ(rig.times(kOn, mark), 1u);
}

// Unplugged while asleep: the stop and the removal find a camera that is gone and off.
TEST_F(Power, GoneWhileAsleep)
{
    ASSERT_EQ(handle.status(1), st::success);
    ASSERT_EQ(rig.machine.sleep(SystemState::hibernate), st::success);
    rig.bay.unplug(camera.slot).value();
    ASSERT_EQ(rig.machine.wake(), st::success);
    rig.machine.settle();
    EXPECT_EQ(handle.cameraStatus(), 0xFF);
    handle.close();
    rig.machine.settle();
    EXPECT_EQ(camera.device.state(), ntos::DeviceState::removed);
    EXPECT_EQ(rig.plug(model(1)).id, '0');
}

} // namespace
