// The library: what it works out by itself, and what it does over a machine with a simulated camera.
#include "client/bay.h"
#include "client/camera.h"
#include "client/host.h"

#include <gtest/gtest.h>

namespace {

using namespace vqt;

TEST(Geometry, HostileDecimationsDivideByNothingWild)
{
    vqt::Geometry geometry{0, 0, 100, 100};
    for (const auto &[decimation, expected] : {std::pair{0, 100u}, {1, 100u}, {-4, 25u}, {3, 33u}, {INT32_MIN, 0u}}) {
        geometry.decimation = decimation;
        EXPECT_EQ(geometry.imageWidth(), expected) << decimation;
    }
    geometry = {0, 0, -8, 100};
    EXPECT_EQ(geometry.imageWidth(), 0u);
}

TEST(LostLines, AreToldByTheLineStates)
{
    struct Case {
        std::vector<std::uint8_t> states;
        unsigned lost;
        const char *what;
    };
    const Case cases[] = {
        {{1, 1, 1, 1}, 0, "all there"},
        {{0x21, 0x20, 0, 0x21}, 1, "one lost in the middle, tagged"},
        {{1, 0, 0, 1}, 1, "one lost in the middle, no tags: line 1 came without its successor"},
        {{1, 1, 0, 0, 0, 1}, 2, "two lost behind a line that came"},
        {{1, 1, 1, 0}, 0, "the last came, the next frame's first line did not follow"},
        {{1, 1, 0, 0}, 1, "the last one lost"},
        {{0, 1, 1, 1}, 1, "the first one lost"},
        {{0, 0, 1, 1}, 1, "line 0 came, line 1 was lost"},
        {{0xE0, 0, 0, 0}, 3, "cut behind the first line"},
    };
    for (const Case &c : cases) {
        FRAME_HEADER header{};
        header.Height = static_cast<std::uint32_t>(c.states.size());
        std::copy(c.states.begin(), c.states.end(), header.LineStatus);
        EXPECT_EQ(lostLines(header), c.lost) << c.what;
    }
    FRAME_HEADER header{};
    header.Height = 0xFFFFFFFF; // a header may lie about its height
    EXPECT_EQ(lostLines(header), 1535u);
}

TEST(Library, TheFlashsListComesBackAsItWasWritten)
{
    const Host host = Host::start().value();
    Bay bay = Bay::open().value();
    const Slot slot = bay.plug().value();
    Camera camera = Camera::open(bay.deviceId(slot).value()).value();
    EXPECT_TRUE(camera.badPixels().value().empty());
    std::vector<simbus::DEFECT_RECORD> defects;
    for (std::uint16_t i = 0; i < 13; ++i) // neither whole reads nor one
        defects.push_back({static_cast<std::uint16_t>(100 + i), 700, static_cast<std::uint8_t>(i)});
    ASSERT_TRUE(bay.setDefects(slot, defects));
    const auto list = camera.badPixels().value();
    ASSERT_EQ(list.size(), defects.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].x, +defects[i].X); // the record is packed
        EXPECT_EQ(list[i].y, +defects[i].Y);
        EXPECT_EQ(list[i].type, defects[i].Type);
    }
    ASSERT_TRUE(bay.setFlash(slot, 0, {}, 0xFFFFFFFF));
    EXPECT_NE(camera.badPixels().error().message.find("never written"), std::string::npos);
}

TEST(Library, ErrorsCarryTheStatusTheCameraAndTheWayOut)
{
    Host host = Host::start().value();
    EXPECT_EQ(Host::start().status(), status::kDeviceBusy) << "one machine at a time";
    Bay bay = Bay::open().value();
    Camera camera = Camera::open(bay.deviceId(bay.plug().value()).value()).value();
    const Error error = camera.grab().error();
    EXPECT_EQ(error.status, status::kInvalidDeviceRequest);
    EXPECT_TRUE(
        error.message.starts_with("camera 0: GetFrameEx failed with STATUS_INVALID_DEVICE_REQUEST (0xC0000010); "))
        << error.message;
    EXPECT_NE(error.message.find("start the stream"), std::string::npos);
    camera.close();
    EXPECT_EQ(camera.getState().status(), ntStatus(0xC0000008)) << "a closed handle is none";
    EXPECT_TRUE(host.shutdown().empty());
}

} // namespace
