// Demosaicing, differences and picture files.
#include "exit_codes.h"
#include "picture_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <unistd.h>

namespace {

vqt::Image imageOf(std::uint32_t width, std::uint32_t height, std::uint32_t bits, bool mono,
                   const std::function<unsigned(std::uint32_t, std::uint32_t)> &sample)
{
    vqt::Image image{width, height, bits, mono, {}};
    for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x) {
            const unsigned value = sample(x, y);
            image.data.push_back(static_cast<std::uint8_t>(value));
            if (bits != 8)
                image.data.push_back(static_cast<std::uint8_t>(value >> 8));
        }
    return image;
}

// Through a mosaic of R G over G B from the sensor's corner a colour comes back everywhere, a grey ramp inside.
TEST(Demosaic, ColoursAndRampsComeBackAtEveryPhaseAndDepth)
{
    for (const std::uint32_t bits : {8u, 10u})
        for (unsigned phase = 0; phase < 4; ++phase) {
            SCOPED_TRACE(phase);
            const unsigned colour[3] = {200, 90, 17}, px = phase & 1, py = phase >> 1;
            const Picture flat = demosaic(
                imageOf(8, 6, bits, false, [&](auto x, auto y) { return colour[((x + px) & 1) + ((y + py) & 1)]; }),
                {px, py});
            const Picture ramp =
                demosaic(imageOf(8, 6, bits, false, [](auto x, auto y) { return 10 * x + 20 * y; }), {px, py});
            for (std::uint32_t y = 0; y < 6; ++y)
                for (std::uint32_t x = 0; x < 8; ++x)
                    for (unsigned c = 0; c < 3; ++c) {
                        ASSERT_EQ(flat.at(x, y, c), colour[c]) << x << "," << y;
                        ASSERT_TRUE(ramp.at(x, y, c) == 10 * x + 20 * y || x % 7 == 0 || y % 5 == 0) << x << "," << y;
                    }
        }
}

TEST(Demosaic, PicturesOfOnePixelOrOneRowDoNotReachOutside)
{
    EXPECT_EQ(demosaic(imageOf(1, 1, 8, false, [](auto, auto) { return 77u; }), {0, 0}).samples,
              (std::vector<std::uint16_t>{77, 0, 0}));
    EXPECT_EQ(demosaic(imageOf(2, 1, 8, false, [](auto x, auto) { return x == 0 ? 40u : 60u; }), {0, 0}).samples,
              (std::vector<std::uint16_t>{40, 60, 0, 40, 60, 0}));
}

TEST(Demosaic, PhaseFollowsStartAndMirrors)
{
    const struct {
        vqt::Geometry window;
        unsigned x, y;
    } cases[] = {
        {{2, 4, 0, 0}, 0, 0},
        {{0, 0, 0, 0, 1, false, true}, 1, 0},
        {{0, 0, 0, 0, 1, true, false}, 0, 1},
        {{1, 3, 0, 0, 1, true, true}, 0, 0},
        {{-1, 0, 0, 0}, 1, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(MosaicPhase::of(c.window).x, c.x);
        EXPECT_EQ(MosaicPhase::of(c.window).y, c.y);
    }
}

Picture patterned(std::uint32_t width, std::uint32_t height, unsigned channels, std::uint16_t maximum)
{
    Picture picture{width, height, channels, maximum, {}};
    std::uint32_t state = 12345;
    for (std::size_t i = 0; i < std::size_t{width} * height * channels; ++i) {
        state = state * 1664525u + 1013904223u;
        // Half of it smooth, half noise, so that both row filters are taken.
        picture.samples.push_back(
            static_cast<std::uint16_t>(i % 2 == 0 ? (i / 7) % (maximum + 1u) : (state >> 16) % (maximum + 1u)));
    }
    return picture;
}

TEST(Png, RoundTripKeepsEverySampleAtEveryForm)
{
    for (const auto &[width, height] : {std::pair{1u, 1u}, {3u, 5u}, {64u, 48u}, {257u, 2u}})
        for (const unsigned channels : {1u, 3u})
            for (const std::uint16_t maximum : {std::uint16_t{255}, std::uint16_t{1023}}) {
                const Picture picture = patterned(width, height, channels, maximum);
                const Picture back = decodePng(encodePng(picture));
                EXPECT_EQ(back.maximum, maximum);
                EXPECT_EQ(back.samples, picture.samples) << width << "x" << height << " " << channels << " " << maximum;
            }
}

TEST(Pnm, TenBitsKeepTheirValuesHighByteFirst)
{
    const auto file = encodePnm({2, 1, 1, 1023, {0x0102, 0x03FF}});
    EXPECT_EQ(std::string(file.begin(), file.end()), std::string("P5\n2 1\n1023\n\x01\x02\x03\xFF"));
    const auto colour = encodePnm({1, 1, 3, 255, {1, 2, 3}});
    EXPECT_EQ(std::string(colour.begin(), colour.end()), std::string("P6\n1 1\n255\n\x01\x02\x03"));
}

TEST(Files, ASceneIsReadAsRgbAndNonsenseIsRefused)
{
    const std::string folder = ::testing::TempDir() + "vqtcam-" + std::to_string(getpid());
    const auto scene = [&](const std::vector<std::uint8_t> &bytes) {
        writeFile(folder + "/scene", bytes);
        return loadScene(folder + "/scene").rgb;
    };
    EXPECT_EQ(scene(encodePng({2, 1, 3, 255, {1, 2, 3, 250, 251, 252}})),
              (std::vector<std::uint8_t>{1, 2, 3, 250, 251, 252}));
    EXPECT_EQ(scene(encodePng({1, 1, 1, 255, {99}})), (std::vector<std::uint8_t>{99, 99, 99}));
    auto cut = encodePng(patterned(32, 32, 1, 255));
    cut.resize(cut.size() / 2);
    for (const auto &bad : {std::vector<std::uint8_t>(50, 'x'), cut, encodePng(patterned(4097, 1, 1, 255))})
        EXPECT_THROW(scene(bad), Stop) << bad.size();
    EXPECT_THROW(decodePng(cut), Stop);
    EXPECT_THROW(loadScene(folder + "/missing.png"), Stop);
    std::filesystem::remove_all(folder);
}

} // namespace
