// Requests that wait for a frame, and frames mapped into a process.
#include "tests/e2e/road.h"

#include <algorithm>
#include <cstring>

namespace e2e {
namespace {

constexpr vqt::Geometry kWindow = {0, 0, 64, 64};
constexpr std::uint32_t kImage = 64 * 64;

class FrameWait : public Road {
protected:
    // Runs a request in another thread and returns when it waits, as the given number of waiters with a limit tells;
    // the camera is one of them.
    template <class Request> auto begin(Request request, std::size_t waiters = 2)
    {
        waitFor("the camera", [&] { return hand::timedWaiters() >= waiters - 1; });
        auto begun = std::async(std::launch::async, request);
        waitFor("the request to wait", [&] { return hand::timedWaiters() >= waiters; });
        return begun;
    }
};

// With the last frame; before the first one there is none, as when the camera goes.
TEST_F(FrameWait, StopEndsIt)
{
    Plugged plugged = plug(kModels[0], kWindow);
    for (const std::uint32_t code : {IOCTL_GetFrame, IOCTL_GetFrameEx}) {
        SCOPED_TRACE(code);
        Stream stream(bay(), plugged);
        stream.start();
        const vqt::Frame last = stream.nextOf(3);
        std::vector<std::uint8_t> buffer(kImage + kFrameHeaderSize);
        auto request = begin([&] { return plugged.camera.port().deviceControl(code, {}, buffer); });
        stream.stop();
        const vqt::IoResult result = request.get();
        const std::size_t header = code == IOCTL_GetFrame ? 0 : kFrameHeaderSize;
        EXPECT_EQ(result.status, vqt::status::kSuccess);
        EXPECT_EQ(result.information, header + kImage);
        EXPECT_EQ(std::memcmp(buffer.data(), &last.header, header), 0);
        EXPECT_TRUE(std::ranges::equal(last.image.data, std::span(buffer).subspan(header, kImage)));
    }
}

TEST_F(FrameWait, OneFrameReleasesEveryWaiter)
{
    Plugged plugged = plug(kModels[0], kWindow);
    vqt::Camera other = vqt::Camera::openSlave(plugged.id).value();
    Stream stream(bay(), plugged);
    stream.start();
    (void)stream.nextOf(2);
    auto first = begin([&] { return plugged.camera.grab(); });
    auto second = begin([&] { return other.grab(); }, 3);
    stream.pass(1);
    const vqt::Frame a = first.get().value(), b = second.get().value();
    EXPECT_EQ(a.header.FrameNumber, 3u);
    EXPECT_EQ(std::memcmp(&a.header, &b.header, sizeof a.header), 0);
    EXPECT_EQ(a.image.data, b.image.data);
}

class Mapping : public Road {
protected:
    static vqt::FrameView map(Stream &stream, vqt::Camera &camera)
    {
        return stream.during([&] { return camera.getFramePtr(); }, Limit::none).value();
    }
};

TEST_F(Mapping, TheSecondReplacesTheFirst)
{
    Plugged plugged = plug(kModels[0], kWindow);
    bay().freeze(plugged.slot, 5).value();
    Stream stream(bay(), plugged);
    stream.start();
    const vqt::Frame copied = stream.nextOf(1);
    const vqt::FrameView first = map(stream, plugged.camera);
    const std::uint32_t number = first.header->FrameNumber;
    EXPECT_EQ(first.header->ImageSize, kImage);
    // The first byte carries flag bits of the stream.
    EXPECT_TRUE(std::ranges::equal(first.pixels.subspan(1), std::span(copied.image.data).subspan(1)));
    const vqt::FrameView second = map(stream, plugged.camera);
    EXPECT_NE(first.header, second.header);
    EXPECT_FALSE(hand::userAddressMapped(first.header)) << "its time is over";
    EXPECT_TRUE(hand::userAddressMapped(&second.pixels.back()));
    EXPECT_GT(second.header->FrameNumber, number);
    stream.stop();
    EXPECT_TRUE(hand::userAddressMapped(second.header)) << "a stop leaves the mapping alone";
    unplug(plugged);
    EXPECT_FALSE(hand::userAddressMapped(second.header));
}

TEST_F(Mapping, IntactForTwoFramePeriods)
{
    Plugged plugged = plug(kModels[0], kWindow);
    Stream stream(bay(), plugged);
    stream.start(256); // 17 blocks a frame
    (void)stream.nextOf(3);
    const vqt::FrameView view = map(stream, plugged.camera);
    const vqt::Frame taken = view.copy(true).value();
    EXPECT_GT(taken.header.FrameNumber, 3u);
    const auto intact = [&] {
        return std::memcmp(view.header, &taken.header, sizeof taken.header) == 0 &&
               std::ranges::equal(view.pixels, taken.image.data);
    };
    stream.pass(1);
    EXPECT_TRUE(intact()) << "while the next frame was filled";
    for (int i = 0; i < 15; ++i)
        stream.step();
    EXPECT_TRUE(intact()) << "while the one after it was nearly filled";
    stream.pass(1);
    EXPECT_FALSE(intact()) << "its buffer is the one being filled";
    EXPECT_EQ(view.header->ImageSize, 0u) << "and its header cleared";
    EXPECT_FALSE(view.copy(true)) << "half of a frame is none";
    stream.pass(1);
    EXPECT_EQ(view.header->FrameNumber, taken.header.FrameNumber + 3) << "the mapping shows the driver's own buffer";
}

// One mapping a device: another process takes it over, and it ends with the handle it was made through, closed inside
// the process or outliving it as a handle does that nobody closes.
TEST_F(Mapping, InAnotherProcess)
{
    Plugged plugged = plug(kModels[0], kWindow);
    Stream stream(bay(), plugged);
    stream.start();
    for (const bool closes : {true, false}) {
        (void)stream.nextOf(1);
        const FRAME_HEADER *ours = map(stream, plugged.camera).header, *theirs = nullptr;
        EXPECT_EQ(ours->ImageSize, kImage);
        std::optional<vqt::Camera> camera;
        hand::inOtherProcess([&] {
            camera.emplace(vqt::Camera::open(plugged.id).value());
            theirs = map(stream, *camera).header;
            EXPECT_FALSE(hand::userAddressMapped(ours));
            EXPECT_TRUE(hand::userAddressMapped(theirs));
            if (closes)
                camera.reset();
        });
        EXPECT_FALSE(hand::userAddressMapped(theirs));
    }
    EXPECT_GT(stream.next().header.FrameNumber, 1u) << "the stream goes on";
    EXPECT_EQ(map(stream, plugged.camera).header->ImageSize, kImage);
}

} // namespace
} // namespace e2e
