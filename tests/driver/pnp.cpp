// Arrival and departure: identities, names, refusals, and what is left behind.
#include "fixture.h"

using namespace rig;

namespace {

using ntos::DeviceState;

constexpr std::uint8_t kQueryRemove = 1, kCancelRemove = 3, kQueryStop = 5, kCancelStop = 6;
constexpr const char *kShutdown = "  pnp/PnpShutdownDevice: start \n";

class Pnp : public DriverTest {
protected:
    Bytes frame = Bytes(kFrameHeaderSize + 1280 * 1024);
};

TEST_F(Pnp, ThirtySixIdentities)
{
    const std::string all = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::vector<Camera> cameras;
    for (unsigned number = 0; number < all.size(); ++number) {
        cameras.push_back(rig.plug(model(1)));
        ASSERT_EQ(cameras.back().id, all[number]);
        ASSERT_EQ(cameras.back().device.state(), DeviceState::started);
        const std::string device = std::string("\\Device\\UsbVQTR42X") + all[number];
        EXPECT_EQ(rig.machine.symbolicLink(std::string("UsbVQTR42Xx_") + all[number]), device);
        EXPECT_EQ(rig.machine.symbolicLink(std::string("QorinInfer01r0") + all[number]), device);
    }
    EXPECT_EQ(vqt::Camera::listInterfaces(), std::vector<char>(all.begin(), all.end()));
    // The 37th is refused and leaves nothing.
    const ntos::Counters before = rig.machine.counters();
    const std::uint64_t blocks = rig.machine.pool("42QV").blocks;
    const std::uint64_t mark = rig.mark();
    const Camera refused = rig.plug(model(1));
    EXPECT_EQ(refused.device.addStatus(), st::nameCollision);
    EXPECT_TRUE(rig.said("E pnp/USBCAM_AddDevice: Can not found DeviceID, return C0000035h \n", mark));
    const ntos::Counters after = rig.machine.counters();
    EXPECT_EQ(after.symbolicLinks, before.symbolicLinks);
    EXPECT_EQ(after.interfaces, before.interfaces);
    EXPECT_EQ(after.devices, before.devices + 1); // the bus's own
    EXPECT_EQ(rig.machine.pool("42QV").blocks, blocks);
    rig.unplug(refused);

    // The lowest one that was given back is the next one to be given.
    for (const unsigned gone : {30u, 11u, 3u})
        rig.unplug(cameras[gone]);
    for (const char next : {'3', 'B', 'U'})
        EXPECT_EQ(rig.plug(model(1)).id, next);
    // Each name reaches its own camera.
    for (const auto open : {&vqt::Camera::open, &vqt::Camera::openSlave, &vqt::Camera::openInterface})
        EXPECT_EQ(open('A').value().info().value().serial, 1000 + cameras[10].slot);
}

// The status of requests that the driver does not know is nobody's but the bus's.
TEST_F(Pnp, RequestsPassedDown)
{
    const Camera camera = rig.plug(model(1));
    ntos::Device device = camera.device;
    for (const std::uint8_t minor : {kQueryRemove, kCancelRemove, kQueryStop, kCancelStop})
        EXPECT_EQ(device.sendPnp(minor).status, st::success) << int{minor};
    for (const std::uint8_t minor : {std::uint8_t{0x19}, std::uint8_t{0x7F}})
        EXPECT_EQ(device.sendPnp(minor).status, ntos::ntStatus(0xC00000BB)) << int{minor};
    Handle handle = rig.open(camera);
    Bytes buffer(16);
    EXPECT_EQ(handle.file().read(buffer.data(), buffer.size()).status, st::invalidDeviceRequest);
    EXPECT_EQ(handle.file().write(buffer.data(), buffer.size()).status, st::invalidDeviceRequest);
    EXPECT_EQ(device.sendSystemControl(5).status, st::success);
    EXPECT_EQ(device.sendPnp(kQueryRemove).status, st::success);
    EXPECT_TRUE(rig.open(camera)) << "opening is never refused";
    EXPECT_EQ(device.sendPnp(kCancelRemove).status, st::success);
}

// Unplugged in the middle of everything: the shutdown runs once, and the device object stays until the last handle is
// closed.
TEST_F(Pnp, SurpriseWhileStreaming)
{
    const Camera camera = rig.plug(model(1));
    Handle handle = rig.open(camera), second = rig.open(camera);
    ASSERT_EQ(handle.status(1), st::success);
    ASSERT_EQ(handle.frame(frame), st::success);
    const std::uint64_t mark = rig.mark();
    rig.unplug(camera);
    EXPECT_EQ(camera.device.state(), DeviceState::surpriseRemoved);
    EXPECT_EQ(handle.frame(frame), st::deviceRemoved);
    handle.close();
    EXPECT_EQ(camera.device.state(), DeviceState::surpriseRemoved) << "one handle is left";
    EXPECT_EQ(second.frame(frame), st::deviceRemoved);
    EXPECT_EQ(rig.plug(model(1)).id, '1') << "the old camera still has its name";
    second.close();
    rig.machine.settle();
    EXPECT_EQ(camera.device.state(), DeviceState::removed);
    EXPECT_EQ(rig.times(kShutdown, mark), 1u);
    EXPECT_EQ(rig.plug(model(1)).id, '0');
}

} // namespace
