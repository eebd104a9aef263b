// Single frames on demand: sizes, limits, triggers, cancels.
#include "tests/e2e/reference.h"
#include "tests/e2e/road.h"

#include <algorithm>

namespace e2e {
namespace {

constexpr vqt::Geometry kSmall = {0, 0, 64, 32};

class Snapshot : public Road {
protected:
    // The image that the camera's registers ask for, as a capture delivers it: its first byte is a pixel like the
    // others.
    void expectImage(const Plugged &plugged, const vqt::Samples &sensor, const vqt::Image &image)
    {
        const vqt::Image expected = imageOf(sensor, readingOf(bay().state(plugged.slot).value()));
        EXPECT_EQ(difference(expected, image), "");
        EXPECT_EQ(expected.data.at(0), image.data.at(0));
    }

    void expectIdle(Plugged &plugged)
    {
        EXPECT_EQ(plugged.camera.getCameraStatus().value(), CameraStopped);
        EXPECT_EQ(bay().state(plugged.slot).value().PendingReads, 0u);
    }

    static bool printed(std::uint64_t mark, const std::string &text)
    {
        return std::ranges::count(hand::traceSince(mark), text, &hand::Message::text) == 1;
    }

    // Begins a capture that waits for its trigger.
    std::future<vqt::IoResult> begin(Plugged &plugged, std::vector<std::uint8_t> &image)
    {
        auto capture = std::async(std::launch::async,
                                  [&] { return plugged.camera.port().deviceControl(IOCTL_GetSnapshot, {}, image); });
        waitFor("the capture to wait", [&] { return bay().state(plugged.slot).value().PendingReads == 1; });
        return capture;
    }
};

// The rounding of the size that the camera is asked for follows the setting that the operation before left behind: none
// after a start or a stream, the capture's own after a capture. So each size is captured twice.
TEST_F(Snapshot, EverySize)
{
    const struct {
        Model model;
        std::uint32_t bits;
        vqt::Geometry window;
        std::uint8_t setting;
        std::uint32_t first, again; // bytes asked for by the two captures
        std::uint32_t requests = 1;
    } rows[] = {
        {kModels[4], 10, {0, 0, 2048, 1536}, 2, 3'938'304, 3'938'304, 2}, // the largest
        {kModels[5], 8, {0, 0, 2048, 1536}, 2, 3'151'872, 3'151'872},     // the largest of one request
        {kModels[4], 10, {0, 0, 2048, 1232}, 2, 3'158'848, 3'159'040, 2}, // the first that needs two
        {kModels[0], 8, {0, 0, 1280, 1024}, 1, 1'314'816, 1'314'816},
        {kModels[2], 10, {0, 0, 1600, 1200}, 2, 2'404'800, 2'404'864},
        {kModels[0], 10, {0, 0, 1000, 6}, 1, 7'524, 8'192}, // rounded up to 1024
        {kModels[0], 10, {0, 0, 1000, 6}, 2, 7'524, 7'680}, // rounded up to 512
        {kModels[0], 8, {0, 0, 8, 4}, 2, 48, 512},          // the smallest
        {kModels[4], 10, {0, 0, 2048, 1536, 4, true, true}, 1, 247'296, 247'808},
        {kModels[1], 8, {30, 20, 128, 64, 2, true, true}, 2, 2'176, 2'560},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(nameOf(row.model) + ", " + std::to_string(row.first) + " bytes");
        Plugged plugged = plug(row.model, row.window);
        bay().freeze(plugged.slot, 11).value();
        const vqt::Samples sensor = bay().render(plugged.slot, 11).value();
        plugged.camera.setBitsPerPixel(row.bits).value();
        plugged.camera.setDefAlt(row.setting).value();
        for (const std::uint32_t bytes : {row.first, row.again}) {
            const std::uint64_t mark = hand::traceMark();
            expectImage(plugged, sensor, plugged.camera.snapshot().value());
            EXPECT_TRUE(printed(mark, "Corrected USBDataSize=" + std::to_string(bytes) + " \n"));
            EXPECT_TRUE(printed(mark, "USBRequestCount = " + std::to_string(row.requests) + " \n"));
            expectIdle(plugged);
        }
        unplug(plugged);
    }
}

TEST_F(Snapshot, ExternalTrigger)
{
    for (const Model &model : {kModels[1], kModels[4]}) {
        SCOPED_TRACE(nameOf(model));
        Plugged plugged = plug(model, kSmall);
        bay().freeze(plugged.slot, 4).value();
        const vqt::Samples sensor = bay().render(plugged.slot, 4).value();
        plugged.camera.setSnapshotParams(0, true).value();
        std::vector<std::uint8_t> data(64 * 32);
        auto capture = begin(plugged, data);
        EXPECT_EQ(plugged.camera.getCameraStatus().value(), CameraSnapshot);
        // Model 3 is prepared through a register, so the camera may not be ready at once.
        waitFor("the trigger to be accepted", [&] { return bay().trigger(plugged.slot).value(); });
        const vqt::IoResult result = capture.get();
        EXPECT_EQ(result.status, vqt::status::kSuccess);
        EXPECT_EQ(result.information, data.size());
        expectImage(plugged, sensor, {64, 32, 8, model.mono, data});
        expectIdle(plugged);
        EXPECT_EQ(bay().state(plugged.slot).value().Registers[7] & 1, 0) << "model 3: put back";
        unplug(plugged);
    }
}

TEST_F(Snapshot, LimitPassesInTheMiddleOfAFrame)
{
    Plugged plugged = plug(kModels[0], kSmall);
    bay().freeze(plugged.slot, 9).value();
    const vqt::Samples sensor = bay().render(plugged.slot, 9).value();
    plugged.camera.setSnapshotParams(1, false).value();
    bay().setPace(plugged.slot, (64 + 4) * 32 * 3 / 4).value(); // not all of the frame in the second that is allowed
    std::vector<std::uint8_t> data(64 * 32, 0xEE);
    auto capture = begin(plugged, data);
    for (int i = 0; i < 100; ++i) {
        waitFor("the capture's limit and the camera", [] { return hand::timedWaiters() >= 2; });
        EXPECT_EQ(plugged.camera.getCameraStatus().value(), CameraSnapshot) << 10 * (100 - i) << " ms are left";
        hand::advance(std::chrono::milliseconds(10));
    }
    const vqt::IoResult result = capture.get();
    EXPECT_EQ(result.status, vqt::status::kTimeout);
    EXPECT_GT(result.information, 0u) << "what arrived is handed out";
    EXPECT_LT(result.information, data.size());
    const vqt::Image expected = imageOf(sensor, readingOf(bay().state(plugged.slot).value()));
    for (std::size_t i = 0; i < data.size(); ++i)
        ASSERT_EQ(data[i], i < result.information ? expected.data[i] : 0xEE) << "byte " << i;
    expectIdle(plugged);
}

} // namespace
} // namespace e2e
