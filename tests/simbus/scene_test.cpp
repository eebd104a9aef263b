// What the sensor sees.
#include "wire.h"

#include <algorithm>
#include <set>

namespace {

using wire::Bytes;
using Samples = std::vector<std::uint16_t>;

// The whole sensor, row after row.
Samples render(wire::Rig &rig, const wire::Camera &camera, std::uint32_t frame, bool withDefects = true)
{
    const simbus::CAMERA_STATE state = rig.state(camera);
    Samples image(std::size_t{state.SensorWidth} * state.SensorHeight);
    const simbus::RENDER_REQUEST request = {camera.slot, frame, withDefects, 0, state.SensorHeight};
    const Bytes in = wire::packed(request);
    EXPECT_EQ(rig.control(simbus::kIoctlRender, in, image.data(), image.size() * 2).status, STATUS_SUCCESS);
    return image;
}

void setScene(wire::Rig &rig, const simbus::SCENE_REQUEST &request, const Bytes &pixels = {})
{
    ASSERT_EQ(rig.set(simbus::kIoctlSetScene, request, pixels), STATUS_SUCCESS);
}

TEST(Scene, PicturesFillTheSensor)
{
    wire::Rig rig;
    const wire::Camera colour = rig.plug(1, false), mono = rig.plug(1);
    const unsigned width = 1280, height = 1024;
    // A picture of the sensor's own size arrives pixel for pixel.
    Bytes grey(width * height);
    for (std::size_t i = 0; i < grey.size(); ++i)
        grey[i] = static_cast<std::uint8_t>(i * 2654435761u >> 24);
    setScene(rig, {colour.slot, simbus::kSceneGrey, 0, width, height, 0}, grey);
    const Samples whole = render(rig, colour, 9);
    for (std::size_t i = 0; i < grey.size(); ++i)
        ASSERT_EQ(whole[i], grey[i] * 4 + grey[i] / 64);
    // One colour, whatever the picture's size: the mosaic keeps its parts, a monochrome sensor its luminance.
    for (const auto &[w, h] : {std::pair<unsigned, unsigned>{1, 1}, {3, 2}, {4096, 3}, {1281, 1025}}) {
        Bytes rgb;
        for (unsigned i = 0; i < w * h; ++i)
            rgb.insert(rgb.end(), {10, 100, 200});
        for (const wire::Camera &camera : {colour, mono}) {
            setScene(rig, {camera.slot, simbus::kSceneRgb, 0, w, h, 0}, rgb);
            const Samples seen = render(rig, camera, 0);
            for (unsigned i : {0u, width - 1, width * (height - 1), width * height - 1, width * 500 + 640}) {
                const unsigned greens = i % width % 2 + i / width % 2;
                const unsigned part = greens == 0 ? 40 : greens == 1 ? 401 : 803;
                ASSERT_EQ(seen[i], camera.slot == mono.slot ? (77 * 40 + 150 * 401 + 29 * 803) / 256 : part)
                    << w << ' ' << i;
            }
        }
    }
    // Larger: an area average. Smaller: between its pixels.
    Bytes checks(2560 * 2048);
    for (std::size_t i = 0; i < checks.size(); ++i)
        checks[i] = (i % 2560 + i / 2560) % 2 ? 255 : 0;
    setScene(rig, {mono.slot, simbus::kSceneGrey, 0, 2560, 2048, 0}, checks);
    EXPECT_EQ(render(rig, mono, 0), Samples(width * height, 128 * 4 + 2));
    setScene(rig, {mono.slot, simbus::kSceneGrey, 0, 2, 1, 0}, {0, 255});
    const Samples ramp = render(rig, mono, 0);
    EXPECT_EQ(ramp[0], 0);
    EXPECT_EQ(ramp[width - 1], 1023);
    EXPECT_NEAR(ramp[width / 2], 512, 4);
    EXPECT_TRUE(std::is_sorted(ramp.begin(), ramp.begin() + width));
}

TEST(Scene, DefectsShowAndAreListed)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug(1, false);
    setScene(rig, {camera.slot, simbus::kSceneFlat, simbus::kSceneCounter, 0, 0, 400});
    const Samples clean = render(rig, camera, 1);
    EXPECT_NE(clean, render(rig, camera, 2)); // the counter
    const std::vector<simbus::DEFECT_RECORD> defects = {{10, 120, 0x80}, {11, 120, 0x81}, {12, 120, 0x86},
                                                        {700, 0, 0x83},  {0, 900, 0x83},  {5, 5, 3},
                                                        {1280, 1, 0},    {1, 1024, 0}};
    const simbus::DEFECTS_REQUEST both{camera.slot, simbus::kDefectsSensor | simbus::kDefectsFlash, 8};
    ASSERT_EQ(rig.set(simbus::kIoctlSetDefects, both, defects), STATUS_SUCCESS);
    const Samples seen = render(rig, camera, 1);
    EXPECT_EQ(render(rig, camera, 1, false), clean);
    for (unsigned i = 0; i < seen.size(); ++i) {
        const unsigned x = i % 1280, y = i / 1280, h = (x * 31 + y * 17) & 7;
        unsigned wanted = x == 700 || y == 900 ? clean[i] ^ 0x155 : clean[i];
        if (y == 120 && (x == 10 || x == 11))
            wanted = h % 2 ? 1000 + h : h;
        if (y == 120 && x == 12)
            wanted = 1023;
        ASSERT_EQ(seen[i], wanted) << x << "," << y;
    }
}

} // namespace
