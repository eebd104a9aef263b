// Names: the DOS link, the slave link, the interface, over plugs and unplugs.
#include "tests/e2e/road.h"

namespace e2e {
namespace {

class Open : public Road {};

TEST_F(Open, EveryNameLeadsToItsOwnCamera)
{
    Plugged first = plug(kModels[0]), second = plug(kModels[3]);
    EXPECT_EQ(vqt::Camera::list(), (std::vector<char>{'0', '1'}));
    EXPECT_EQ(vqt::Camera::listInterfaces(), (std::vector<char>{'0', '1'})) << "one interface class a camera";
    vqt::Camera roads[] = {vqt::Camera::open('1').value(), vqt::Camera::openSlave('1').value(),
                           vqt::Camera::openInterface('1').value()};
    for (vqt::Camera &road : roads) {
        SCOPED_TRACE(road.port().name());
        const vqt::CameraInfo info = road.info().value();
        EXPECT_EQ(info.serial, 40002u);
        EXPECT_EQ(info.modelName(), "VQT-42R2C");
    }
    // All of them are one device, which shares nothing with the other.
    roads[1].setFrameParameters({16, 16, 640, 480}).value();
    roads[0].slaveWrite(std::vector<std::uint8_t>{1, 2, 3}).value();
    EXPECT_EQ(roads[2].getFrameParameters().value().width, 640);
    EXPECT_EQ(first.camera.getFrameParameters().value().width, 1280);
    EXPECT_EQ(first.camera.slaveRead().status(), vqt::status::kInvalidDeviceRequest) << "the other camera's reply";

    unplug(first);
    EXPECT_EQ(vqt::Camera::open('0').status(), vqt::status::kObjectNameNotFound);
    EXPECT_EQ(vqt::Camera::listInterfaces(), std::vector<char>{'1'});
    EXPECT_EQ(second.camera.info().value().modelName(), "VQT-42R2C") << "the neighbour stays";
    EXPECT_EQ(plug(kModels[4]).id, '0');
    EXPECT_EQ(vqt::Camera::openSlave('0').value().info().value().modelName(), "VQT-42R3M");
}

} // namespace
} // namespace e2e
