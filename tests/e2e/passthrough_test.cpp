// Commands and replies apart, the slave, raw stream bytes, pipes and interfaces, straight through the driver.
#include "tests/e2e/reference.h"
#include "tests/e2e/road.h"

#include <algorithm>

namespace e2e {
namespace {

using Bytes = std::vector<std::uint8_t>;
namespace st = vqt::status;

// 1, 2, 3...; the simulated slave answers each with some bits turned.
constexpr std::uint8_t kReply = 0x5A;
Bytes arguments(std::size_t count, std::uint8_t turned = 0)
{
    Bytes bytes;
    while (bytes.size() < count)
        bytes.push_back(static_cast<std::uint8_t>((bytes.size() + 1) ^ turned));
    return bytes;
}

class PassThrough : public Road {
protected:
    void fail(const Plugged &plugged, std::uint16_t kind, std::uint32_t value = 0)
    {
        const simbus::COMMAND_FAULT fault{0x28, kind, value, 0, 1};
        bay().setCommandFaults(plugged.slot, {&fault, 1}).value();
    }
    // Lets the sensor run or holds it, as the stream's start and stop do.
    static void run(vqt::Camera &camera, bool runs)
    {
        const unsigned held = camera.readRegister(0x1E).value() & ~0x0100u;
        camera.writeRegister(0x1E, static_cast<std::uint16_t>(held | (runs ? 0 : 0x0100))).value();
    }
};

TEST_F(PassThrough, RepliesAreGivenOnce)
{
    Plugged plugged = plug(kModels[0]);
    vqt::Camera &camera = plugged.camera, slave = vqt::Camera::openSlave(plugged.id).value();
    EXPECT_EQ(camera.usbRead().status(), st::kAdapterHardwareError) << "no reply is waiting";
    camera.usbWrite(0x28, arguments(63)).value();
    EXPECT_EQ(camera.usbRead(7).value(), arguments(7, kReply));
    EXPECT_EQ(camera.usbRead().status(), st::kAdapterHardwareError) << "it was fetched";

    EXPECT_EQ(slave.slaveRead().status(), st::kInvalidDeviceRequest) << "nothing was written";
    slave.slaveWrite(arguments(63)).value();
    EXPECT_EQ(slave.slaveRead(62).status(), st::kInvalidDeviceRequest) << "too small; the reply stays";
    EXPECT_EQ(vqt::Camera::listInterfaces(), std::vector<char>{plugged.id});
    EXPECT_EQ(vqt::Camera::openInterface(plugged.id).value().slaveRead().value(), arguments(63, kReply))
        << "one device under all its names";
    EXPECT_EQ(camera.slaveRead().status(), st::kInvalidDeviceRequest) << "and one reply";
    EXPECT_EQ(slave.slaveRead().status(), st::kInvalidDeviceRequest) << "given once";
    slave.slaveWrite(arguments(2)).value();
    slave.slaveWrite(arguments(4)).value();
    fail(plugged, simbus::kCommandStall);
    EXPECT_FALSE(slave.slaveWrite(arguments(5)));
    EXPECT_EQ(slave.slaveRead().value(), arguments(4, kReply))
        << "the newer one; a failed write leaves the reply before it";
    fail(plugged, simbus::kCommandShort, 1);
    slave.slaveWrite(arguments(5)).value();
    EXPECT_EQ(slave.slaveRead().status(), st::kInvalidDeviceRequest) << "a reply without payload is none";
}

TEST_F(PassThrough, RawStreamBytes)
{
    constexpr std::uint32_t kWidth = 64, kHeight = 32, kLine = kWidth + 4;
    Plugged plugged = plug(kModels[0], {0, 0, kWidth, kHeight});
    vqt::Camera &camera = plugged.camera;
    bay().freeze(plugged.slot, 3).value();
    camera.setInterfaceType(0, 2).value();
    bay().setNextFrame(plugged.slot, 5).value();
    run(camera, true);
    Bytes stream(kLine * kHeight * 2);
    EXPECT_EQ(camera.mainRead(stream).value(), stream.size());
    run(camera, false);
    const vqt::Image image =
        imageOf(bay().render(plugged.slot, 3).value(), readingOf(bay().state(plugged.slot).value()));
    for (std::uint32_t line = 0; line < 2 * kHeight; ++line) {
        const std::uint8_t *at = stream.data() + std::size_t{line} * kLine;
        const unsigned word = (line % kHeight) | (5 + line / kHeight) << 13; // frames 5 and 6
        ASSERT_EQ(at[0] | at[1] << 8, 0x3CA5) << "line " << line;
        ASSERT_EQ(at[2] | at[3] << 8, static_cast<int>(word & 0xFFFF)) << "line " << line;
        ASSERT_TRUE(std::equal(at + 4, at + kLine, image.data.begin() + (line % kHeight) * kWidth)) << "line " << line;
    }
    camera.setInterfaceType(0, 0).value();
    EXPECT_EQ(camera.mainRead(stream).status(), st::kInvalidDeviceRequest) << "no streaming setting is selected";
}

// A stall halts the pipe until it is reset; a pipe that is none cannot be.
TEST_F(PassThrough, PipesByNumber)
{
    Plugged plugged = plug(kModels[0], {0, 0, 64, 32});
    vqt::Camera &camera = plugged.camera;
    for (const bool selected : {false, true}) {
        camera.setInterfaceType(0, selected ? 1 : 0).value();
        for (std::uint8_t pipe = 0; pipe < 3; ++pipe)
            EXPECT_EQ(camera.resetPipe(pipe).ok(), selected && pipe == 2) << int{pipe};
    }
    const simbus::BULK_FAULT stall{simbus::kBulkStall, 0, 0, 1};
    bay().setBulkFaults(plugged.slot, {&stall, 1}).value();
    run(camera, true);
    Bytes raw(512);
    EXPECT_FALSE(camera.mainRead(raw));
    EXPECT_EQ(bay().state(plugged.slot).value().Halted, 1u);
    EXPECT_TRUE(camera.resetPipe(2));
    EXPECT_EQ(bay().state(plugged.slot).value().Halted, 0u);
    EXPECT_EQ(camera.mainRead(raw).value(), raw.size());
}

TEST_F(PassThrough, InterfacesAndSettings)
{
    Plugged plugged = plug(kModels[0], {0, 0, 64, 32});
    vqt::Camera &camera = plugged.camera;
    const auto selections = [&] { return bay().state(plugged.slot).value().PipesOpened; };
    camera.setInterfaceType(0, 1).value();
    EXPECT_EQ(bay().state(plugged.slot).value().AlternateSetting, 1);
    const std::uint32_t before = selections();
    camera.setInterfaceType(0, 1).value();
    EXPECT_EQ(selections(), before) << "the same streaming setting is not selected anew";
    for (const auto &[interface, setting] : {std::pair{0, 3}, std::pair{1, 2}, std::pair{0, 255}, std::pair{255, 2}}) {
        SCOPED_TRACE(std::to_string(interface) + ", " + std::to_string(setting));
        EXPECT_EQ(
            camera.setInterfaceType(static_cast<std::uint8_t>(interface), static_cast<std::uint8_t>(setting)).status(),
            st::kInsufficientResources);
        EXPECT_EQ(camera.getState().value().AltSetting, 1) << "as it was";
    }
    Stream stream(bay(), plugged);
    stream.start();
    EXPECT_EQ(camera.setInterfaceType(0, 0).status(), st::kDeviceBusy);
    camera.setInterfaceType(0, 2).value(); // in force: it needs no traffic
    EXPECT_EQ(stream.nextOf(1).header.Resyncs, 0u) << "the refusal left the stream alone";
    stream.stop();
    EXPECT_EQ(camera.getState().value().AltSetting, 0);
    const std::uint32_t after = selections();
    camera.setInterfaceType(0, 0).value();
    camera.setInterfaceType(0, 0).value();
    EXPECT_EQ(selections(), after + 2) << "setting 0 always is";
}

} // namespace
} // namespace e2e
