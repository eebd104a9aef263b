// Images, pixel for pixel: what the driver delivers against what the sensor's registers say.
#include "tests/e2e/reference.h"
#include "tests/e2e/road.h"

#include <algorithm>
#include <random>

namespace e2e {
namespace {

// A frame that was sent whole, with the line flags following the camera's frame number.
void expectCleanHeader(const vqt::Frame &frame)
{
    const FRAME_HEADER &header = frame.header;
    EXPECT_EQ(header.CameraStatus, CameraStreaming);
    EXPECT_EQ(header.Pitch, header.Width * (header.BitsPerPixel == 8 ? 1 : 2));
    EXPECT_EQ(header.ImageSize, header.Pitch * header.Height);
    EXPECT_EQ(header.Resyncs, 0u);
    EXPECT_EQ(header.LineFlags, 0u);
    EXPECT_GE(header.EndTime, header.StartTime);
    EXPECT_NE(header.StartTime, 0u);
    EXPECT_EQ(std::ranges::count(header.Reserved0, 0), std::ssize(header.Reserved0));
    const std::uint8_t line = header.LineStatus[0];
    EXPECT_EQ(line & 0x1F, 1) << "the next line followed";
    for (std::uint32_t row = 0; row < 1536; ++row)
        ASSERT_EQ(header.LineStatus[row], row < header.Height ? line : 0) << "row " << row;
    // The frame was ended by line 0 of the next one, whose number is one higher.
    const unsigned nextFlags = ((line >> 5) + 1u) & 7;
    EXPECT_EQ(frame.image.data.at(0) & ~kFirstByteMask & 0xFF, nextFlags >> 1);
}

// As asked for; the driver aligns them. Width and height of 0 stand for the whole sensor.
std::vector<vqt::Geometry> windowsOf(unsigned model)
{
    const vqt::Geometry small = {100, 50, 64, 32}, smallest = {1000, 700, 8, 4},
                        odd = {101, 51, 1001, 501, 1, true, true};
    if (!kOnLayer)
        return {small,
                {200, 100, 192, 96, model == 3 ? 3 : 2, true, true},
                {64, 64, 128, 64, model == 3 ? -2 : 4, false, false}};
    if (model == 3)
        return {{},
                odd,
                {64, 32, 1024, 768, 2, false, true},
                {30, 10, 1200, 900, 3, true, false},
                {2, 2, 2000, 1500, 5, true, true},
                {0, 0, 2048, 1536, 7},
                {0, 0, 2048, 1536, 8, false, true},
                {16, 16, 1600, 1200, -2, false, true},
                {96, 60, 1200, 900, -3, true, false},
                {64, 64, 1600, 1200, -4, true, true},
                smallest};
    return {{},
            odd,
            {64, 32, 1024, 768, 2, true, false},
            {0, 0, 1280, 1024, 4, false, true},
            {30, 20, 1200, 1000, 8, true, true},
            smallest};
}

class Images : public Road, public testing::WithParamInterface<Model> {};

TEST_P(Images, PixelForPixel)
{
    const Model &model = GetParam();
    Plugged plugged = plug(model);
    // Every pixel of the sensor its own value; signatures occur in the pixels as often as chance has it.
    std::mt19937 random(20240117);
    std::vector<std::uint8_t> noise(std::size_t{model.width} * model.height);
    std::ranges::generate(noise, [&] { return static_cast<std::uint8_t>(random()); });
    bay().setPicture(plugged.slot, model.width, model.height, noise).value();
    const vqt::Samples sensor = bay().render(plugged.slot, 0, false).value();

    for (const std::uint32_t bits : {8u, 10u}) {
        plugged.camera.setBitsPerPixel(bits).value();
        for (vqt::Geometry window : windowsOf(model.number)) {
            if (window.width == 0)
                window.width = static_cast<int>(model.width), window.height = static_cast<int>(model.height);
            plugged.camera.setFrameParameters(window).value();
            window = plugged.camera.getFrameParameters().value();
            SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(window.width) + " wide, by " +
                         std::to_string(window.decimation));
            EXPECT_EQ(window.colorBits, model.mono ? 8u : 24u);

            Stream stream(bay(), plugged);
            stream.start();
            // Number 0 is the empty buffer that the very first line 0 completes.
            const vqt::Frame frame = stream.nextOf(1);
            const Reading reading = readingOf(bay().state(plugged.slot).value());
            stream.stop();

            EXPECT_EQ(reading, readingOf(window, model.number, bits)) << "the registers hold another window";
            expectCleanHeader(frame);
            // The driver unpacks whole groups of eight.
            const std::uint32_t whole = bits == 8 ? frame.image.width : frame.image.width / 8 * 8;
            EXPECT_EQ(difference(imageOf(sensor, reading), frame.image, whole), "");
        }
    }
}

// On a ramp a pixel is the mean of those around it on opposite sides, so that repair gives back what the sensor would
// have seen without its defects, in the stream and in captures, wherever the window and the mirrors put them.
TEST_P(Images, RepairedFromNeighbours)
{
    constexpr std::uint32_t kX = 100, kY = 50, kWidth = 40, kHeight = 20;
    const Model &model = GetParam();
    Plugged plugged = plug(model);
    std::vector<std::uint8_t> ramp;
    for (std::uint32_t y = 0; y < model.height; ++y)
        for (std::uint32_t x = 0; x < model.width; ++x)
            ramp.push_back(static_cast<std::uint8_t>(x - kX + y - kY));
    bay().setPicture(plugged.slot, model.width, model.height, ramp).value();
    const std::uint8_t colour = model.mono ? 0 : 0x80;
    const std::vector<simbus::DEFECT_RECORD> defects = {
        {104, 53, colour},                                // always replaced
        {111, 54, static_cast<std::uint8_t>(colour | 1)}, // replaced when it is far off
        {121, 65, static_cast<std::uint8_t>(colour | 2)}, // saturated
        {133, 0, static_cast<std::uint8_t>(colour | 3)},  // a column
        {0, 61, static_cast<std::uint8_t>(colour | 3)},   // a row
        {117, 54, static_cast<std::uint8_t>(colour | 4)}, // green pixels have green ones across their corners
    };
    bay().setDefects(plugged.slot, defects).value();
    plugged.camera.setFrameParameters({kX, kY, kWidth, kHeight, 1, true}).value();
    // Query stop, stop, start, with the handle open: the device reads the camera's flash again.
    for (const std::uint8_t minor : {std::uint8_t{5}, std::uint8_t{4}, std::uint8_t{0}})
        ASSERT_EQ(bay().sendRequest(plugged.slot, 0x1B, minor).value(), vqt::status::kSuccess);
    EXPECT_EQ(plugged.camera.imageSize().value(), model.width * model.height) << "the whole sensor again";
    EXPECT_EQ(plugged.camera.info().value().badPixels, defects.size());
    const vqt::Samples clean = bay().render(plugged.slot, 0, false).value();
    const vqt::Samples damaged = bay().render(plugged.slot, 0, true).value();

    for (const std::uint32_t bits : {8u, 10u})
        for (const bool flip : {false, true}) {
            SCOPED_TRACE(std::to_string(bits) + " bits" + (flip ? ", mirrored" : ""));
            plugged.camera.setBitsPerPixel(bits).value();
            plugged.camera.setFrameParameters({kX, kY, kWidth, kHeight, 1, flip, flip}).value();
            bay().setPace(plugged.slot, 0).value();
            const vqt::Image captured = plugged.camera.snapshot().value();
            Stream stream(bay(), plugged);
            stream.start();
            const vqt::Frame frame = stream.nextOf(1);
            const Reading reading = readingOf(bay().state(plugged.slot).value());
            stream.stop();
            const vqt::Image expected = imageOf(clean, reading);
            const std::string before = difference(expected, imageOf(damaged, reading));
            EXPECT_TRUE(before.starts_with("63 pixels")) << before << ": four pixels, a column and a row";
            EXPECT_EQ(difference(expected, frame.image), "");
            EXPECT_EQ(difference(expected, captured), "");
        }
}

INSTANTIATE_TEST_SUITE_P(Models, Images, testing::ValuesIn(kModels),
                         [](const auto &info) { return nameOf(info.param); });

} // namespace
} // namespace e2e
