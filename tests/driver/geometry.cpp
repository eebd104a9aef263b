// The window: what is asked for, what is applied, and what reaches the sensor's registers.
#include "fixture.h"

#include <climits>

using namespace rig;

namespace {

class Geometry : public DriverTest {};

TEST_F(Geometry, Accepted)
{
    const struct {
        std::uint32_t model;
        FRAME_PARAMETERS asked;
        std::int32_t x, y, width, height; // as aligned
        unsigned mirrors, code;           // register 0x20; 0x1E of the first two families, 0x22 and 0x23 of the third
    } rows[] = {
        {1, window(101, 51, 1001, 501), 100, 50, 1000, 500, 0, 0},
        {1, window(1, 1, 15, 3, 1, 0, 1), 0, 0, 8, 2, 0x4000, 0},
        {1, window(0, 0, 1279, 1023, 4, 0, 9), 0, 0, 1248, 1016, 0x4000, 0x0C},
        {1, window(0, 0, 1280, 1024, 8, 1, 1), 0, 0, 1280, 1024, 0xC000, 0x30},
        {2, window(0, 0, 1600, 1200, 2), 0, 0, 1600, 1200, 0x0018, 0},
        {2, window(1592, 1198, 8, 3), 1592, 1198, 8, 2, 0, 0},
        // The third family: binning, and the shift of a mirrored binned window.
        {3, window(3, 5, 140, 100, 3), 4, 4, 120, 96, 0, 2},
        {3, window(0, 0, 570, 520, 8, 1, 1), 0, 0, 512, 512, 0xC000, 7},
        {3, window(1, 1, 430, 405, 5, 0, 1), 2, 0, 400, 400, 0x4000, 4},
        {3, window(0, 0, 530, 530, 6), 0, 0, 528, 528, 0, 5},
        {3, window(0, 0, 570, 570, 7), 0, 0, 560, 560, 0, 6},
        {3, window(0, 0, 640, 480, -2, 0, 1), 2, 0, 640, 480, 0x4000, 0x11},
        {3, window(8, 0, 640, 480, -2, 0, 1), 6, 0, 640, 480, 0x4000, 0x11},
        {3, window(9, 0, 640, 480, -2, 1, 0), 12, 0, 640, 480, 0x8000, 0x11},
        {3, window(1, 0, 480, 480, -3), 4, 0, 480, 480, 0, 0x22},
        {3, window(0, 0, 640, 640, -4), 0, 0, 640, 640, 0, 0x33},
        {3, window(0, 0, 640, 640, 4), 0, 0, 640, 640, 0, 3},
        // A start left of or above the sensor rounds toward zero.
        {1, window(-7, -3, 640, 480), -6, -2, 640, 480, 0, 0},
        {3, window(-5, 0, 640, 480), -4, 0, 640, 480, 0, 0},
    };
    const Camera cameras[] = {rig.plug(model(1)), rig.plug(model(2)), rig.plug(model(3))};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Handle handle = rig.open(cameras[row.model - 1]);
        ASSERT_EQ(handle.window(row.asked), st::success);
        FRAME_PARAMETERS wanted = row.asked;
        wanted.StartX = row.x;
        wanted.StartY = row.y;
        wanted.Width = row.width;
        wanted.Height = row.height;
        wanted.ColorBits = 8;
        EXPECT_EQ(pack(handle.window()), pack(wanted));
        // Where the window begins and ends on the sensor is checked where its images are.
        const simbus::CAMERA_STATE sensor = rig.sensor(cameras[row.model - 1]);
        const auto &registers = sensor.Registers;
        const bool third = row.model == 3;
        EXPECT_EQ(registers[0x20] & (third ? 0xC000u : 0xC018u), row.mirrors);
        EXPECT_EQ(third ? registers[0x22] & 0x37u : registers[0x1E] & 0x3Cu, row.code);
        EXPECT_TRUE(!third || (registers[0x23] & 0x37u) == row.code);
        EXPECT_EQ(registers[0x1E] & 0x4100, 0x0100) << "only the window's own bits were changed";
    }
}

TEST_F(Geometry, Refused)
{
    constexpr const char *kDecimation = "invalid Decimation(~)", *kSize = "invalid Height(~) or Width(~)",
                         *kMax = "invalid Width or Heigth(>Max)", *kAny = "~";
    const struct {
        std::uint32_t model;
        FRAME_PARAMETERS asked;
        const char *said;
    } rows[] = {
        // Decimations that the family does not have.
        {1, window(0, 0, 640, 480, 3), kDecimation},
        {3, window(0, 0, 640, 480, -1), kDecimation},
        {3, window(0, 0, 640, 480, INT_MIN), kDecimation},
        // Sizes, on the values as given, then aligned to nothing, then too large.
        {1, window(0, 0, 3, 480), kSize},
        {1, window(0, 0, 640, 2), kSize},
        {1, window(0, 0, INT_MIN, INT_MIN), kSize},
        {1, window(0, 0, 5, 480), kAny},
        {3, window(0, 0, 39, 480, 5), kAny},
        {1, window(8, 0, 1280, 1024), kMax},
        {3, window(2, 0, 2048, 1536), kMax},
        {1, window(0, 2, 1280, 1024), kMax},
        {1, window(INT_MAX, 0, 1280, 1024), kMax},
        {1, window(0, INT_MAX, 1280, 1024), kMax},
        {3, window(INT_MAX, INT_MAX, INT_MAX, INT_MAX, -4, 1, 1), kMax},
        // A start far to the left must not let a window in that is wider than the sensor.
        {1, window(-1280, 0, 2560, 1024), kAny},
        {1, window(0, -1024, 1280, 2048), kAny},
        {3, window(INT_MIN, INT_MIN, INT_MAX, INT_MAX, 8), kAny},
    };
    const Camera cameras[] = {rig.plug(model(1)), rig.plug(model(2)), rig.plug(model(3))};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const Camera &camera = cameras[row.model - 1];
        Handle handle = rig.open(camera);
        const FRAME_PARAMETERS before = handle.window();
        const simbus::CAMERA_STATE sensor = rig.sensor(camera);
        const std::uint64_t mark = rig.mark();
        EXPECT_EQ(handle.window(row.asked), st::invalidDeviceRequest);
        EXPECT_EQ(pack(handle.window()), pack(before));
        EXPECT_EQ(std::memcmp(rig.sensor(camera).Registers, sensor.Registers, sizeof sensor.Registers), 0);
        EXPECT_EQ(rig.times("E ~", mark), 1u);
        const std::string said = std::string("E camera/VQT_SetFrameParameters: ") + row.said + ", return C0000010h\n";
        EXPECT_EQ(rig.times(said, mark), 1u) << said;
    }
}

} // namespace
