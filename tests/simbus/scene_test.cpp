// What the sensor sees.
#include "wire.h"

#include <algorithm>

namespace {

using wire::Bytes;
using Samples = std::vector<std::uint16_t>;

TEST(Scene, PicturesFillTheSensor)
{
    wire::Rig rig;
    const wire::Camera colour = rig.plug({.mono = false}), mono = rig.plug();
    const unsigned width = 1280, height = 1024;
    // A picture of the sensor's own size arrives pixel for pixel.
    Bytes grey(width * height);
    for (std::size_t i = 0; i < grey.size(); ++i)
        grey[i] = static_cast<std::uint8_t>(i * 2654435761u >> 24);
    rig.bay.setPicture(colour.slot, width, height, grey).value();
    const Samples whole = rig.bay.render(colour.slot, 9).value().values;
    for (std::size_t i = 0; i < grey.size(); ++i)
        ASSERT_EQ(whole[i], grey[i] * 4 + grey[i] / 64);
    // One colour, whatever the picture's size: the mosaic keeps its parts, a monochrome sensor its luminance.
    for (const auto &[w, h] : {std::pair<unsigned, unsigned>{1, 1}, {3, 2}, {4096, 3}, {1281, 1025}}) {
        Bytes rgb;
        for (unsigned i = 0; i < w * h; ++i)
            rgb.insert(rgb.end(), {10, 100, 200});
        for (const wire::Camera &camera : {colour, mono}) {
            rig.bay.setPicture(camera.slot, w, h, rgb).value();
            const Samples seen = rig.bay.render(camera.slot, 0).value().values;
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
    rig.bay.setPicture(mono.slot, 2560, 2048, checks).value();
    EXPECT_EQ(rig.bay.render(mono.slot, 0).value().values, Samples(width * height, 128 * 4 + 2));
    rig.bay.setPicture(mono.slot, 2, 1, Bytes{0, 255}).value();
    const Samples ramp = rig.bay.render(mono.slot, 0).value().values;
    EXPECT_EQ(ramp[0], 0);
    EXPECT_EQ(ramp[width - 1], 1023);
    EXPECT_NEAR(ramp[width / 2], 512, 4);
    EXPECT_TRUE(std::is_sorted(ramp.begin(), ramp.begin() + width));
}

TEST(Scene, DefectsShowAndAreListed)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug({.mono = false});
    rig.bay.setPicture(camera.slot, 1, 1, Bytes{100}, true).value();
    const auto render = [&](std::uint32_t frame, bool withDefects = true) {
        return rig.bay.render(camera.slot, frame, withDefects).value().values;
    };
    const Samples clean = render(1);
    EXPECT_NE(clean, render(2)); // the counter
    const std::vector<simbus::DEFECT_RECORD> defects = {{10, 120, 0x80}, {11, 120, 0x81}, {12, 120, 0x86},
                                                        {700, 0, 0x83},  {0, 900, 0x83},  {5, 5, 3},
                                                        {1280, 1, 0},    {1, 1024, 0}};
    rig.bay.setDefects(camera.slot, defects).value();
    const Samples seen = render(1);
    EXPECT_EQ(render(1, false), clean);
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
